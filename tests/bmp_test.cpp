// The BMP reader: blocks from independent encoders, and every way a BMP
// file can fail.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/image.h"
#include "platform/win32.h"
#include "support/pnm.h"
#include "support/support.h"

namespace {

struct BmpCase {
    const char *file;
    const char *source;
    uint16_t bits;
    uint32_t colours;
};

const BmpCase EncodedFiles[] = {
    {"netpbm_1bit.bmp", "text.pbm", 1, 2},      {"netpbm_1bit_os2.bmp", "text.pbm", 1, 2},
    {"magick_1bit.bmp", "text.pbm", 1, 2},      {"pillow_1bit.bmp", "text.pbm", 1, 2},
    {"white_first_1bit.bmp", "text.pbm", 1, 2}, {"offbits0_1bit.bmp", "text.pbm", 1, 2},
    {"pillow_8bit.bmp", "text.pbm", 8, 256},    {"netpbm_4bit.bmp", "colours.ppm", 4, 16},
    {"magick_4bit.bmp", "colours.ppm", 4, 16},  {"magick_4bit_os2.bmp", "colours.ppm", 4, 16},
    {"netpbm_8bit_os2.bmp", "colours.ppm", 8, 256},
};

TL_HANDLE Load(const std::string &path, int32_t number = 0) {
    std::vector<char> name(path.begin(), path.end());
    name.resize(260, '\0');
    return TL_IMAGE_E(name.data(), number);
}

TEST(BmpReader, EncodedFilesGiveTheirPixelsAndAFullHeader) {
    test::QuietDefaults();
    for (const BmpCase &c : EncodedFiles) {
        SCOPED_TRACE(c.file);
        test::LeakGuard guard;
        std::string path = test::Fixture(std::string("bmp/") + c.file);
        TL_HANDLE block = Load(path);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(LastImageType, TypeBMP);
        std::vector<uint8_t> bytes = test::BlockBytes(block);
        std::vector<uint8_t> file = test::ReadFileBytes(path);
        EXPECT_EQ(LoadU32(&bytes[0]), 40u);
        EXPECT_EQ(LoadU16(&bytes[14]), c.bits);
        EXPECT_EQ(LoadU32(&bytes[32]), c.colours);
        EXPECT_EQ(LoadU32(&bytes[36]), LoadU32(&file[14]) == 40 && LoadU32(&file[46]) != 0 ? LoadU32(&file[50]) : c.colours);
        uint32_t width = LoadU32(&bytes[4]), height = LoadU32(&bytes[8]);
        uint32_t stride = ((width * c.bits + 31) / 32) * 4;
        EXPECT_EQ(LoadU32(&bytes[20]), stride * height) << "biSizeImage given or computed";
        EXPECT_EQ(bytes.size(), 40 + 4 * c.colours + stride * height);

        // The rows are the file's bytes from bfOffBits (or right behind the
        // palette), unchanged.
        uint32_t offBits = LoadU32(&file[10]);
        uint32_t coreSize = LoadU32(&file[14]);
        uint32_t pixelsAt = offBits ? offBits : 14 + coreSize + (coreSize == 40 ? 4 : 3) * c.colours;
        EXPECT_EQ(0, memcmp(&bytes[40 + 4 * c.colours], &file[pixelsAt], stride * height));

        test::Rgb expected, actual;
        ASSERT_TRUE(test::ReadPnm(test::Fixture(std::string("bmp/src/") + c.source), expected));
        ASSERT_TRUE(test::DibToRgb(bytes, actual));
        EXPECT_EQ(test::FirstDifference(expected, actual), "");
        GlobalFree(block);
        EXPECT_TRUE(guard.Same());
        EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    }
}

// A well-formed 1-bit file of 8 x 2 pixels, 40-byte header, to be damaged.
std::vector<uint8_t> TinyBmp() {
    std::vector<uint8_t> b(14 + 40 + 8 + 8, 0);
    b[0] = 'B';
    b[1] = 'M';
    StoreU32(&b[2], uint32_t(b.size()));
    StoreU32(&b[10], 62);
    StoreU32(&b[14], 40);
    StoreU32(&b[18], 8);
    StoreU32(&b[22], 2);
    StoreU16(&b[26], 1);
    StoreU16(&b[28], 1);
    b[58] = b[59] = b[60] = 0xFF;
    b[62] = 0x0F;
    b[66] = 0xF0;
    return b;
}

struct Failure {
    const char *label;
    std::vector<uint8_t> bytes;
    std::vector<std::string> texts;  // "" stands for the full path
    std::vector<int32_t> system;
};

TEST(BmpReader, EveryFailureReportsAndLeavesNothingBehind) {
    std::vector<Failure> failures;
    auto cut = [](size_t n) {
        auto b = TinyBmp();
        b.resize(n);
        return b;
    };
    failures.push_back({"file header cut", cut(13), {"Can't read BitMapFileHeader"}, {1}});
    failures.push_back({"header size cut", cut(17), {"Can't read size of BitMapInfoHeader"}, {1}});
    failures.push_back({"info header cut", cut(53), {"Can't read BitMapInfoHeader"}, {1}});
    auto core = TinyBmp();
    StoreU32(&core[14], 12);
    core.resize(25);
    failures.push_back({"core header cut", core, {"Can't read BitMapCoreHeader"}, {1}});
    auto size20 = TinyBmp();
    StoreU32(&size20[14], 20);
    failures.push_back({"header size 20", size20, {"Wrong header size in bitmap file"}, {0}});
    auto deep = TinyBmp();
    StoreU16(&deep[28], 24);
    failures.push_back({"24 bits, no palette count", deep, {"No colors in bitmap file", "No colors in bitmap file"}, {0, 0}});
    failures.push_back({"palette cut", cut(60), {"Can't read RGBPalette"}, {1}});
    failures.push_back({"pixels cut", cut(65), {""}, {1}});
    auto seek = TinyBmp();
    StoreU32(&seek[10], 0x80000000u);  // a position before the start of the file
    failures.push_back({"seek refused", seek, {"SEEK error in BMP file"}, {1}});
    auto huge = TinyBmp();
    StoreU32(&huge[34], 0xFFFFFFF0u);  // biSizeImage that wraps the block size
    failures.push_back({"size wraps", huge, {"Out of memory"}, {0}});

    for (const Failure &f : failures) {
        SCOPED_TRACE(f.label);
        std::string path = test::WriteTemp("broken.bmp", f.bytes);
        test::LeakGuard guard;
        test::Recorder recorder;
        EXPECT_EQ(Load(path), nullptr);
        EXPECT_EQ(TL_ERRORSTATUS_E(), 1);
        ASSERT_EQ(recorder.reports.size(), f.texts.size());
        for (size_t i = 0; i < f.texts.size(); ++i) {
            EXPECT_EQ(recorder.reports[i].title, "ReadDIB");
            EXPECT_EQ(recorder.reports[i].text, f.texts[i].empty() ? path : f.texts[i]);
            EXPECT_EQ(recorder.reports[i].withSystemText, f.system[i]);
        }
        EXPECT_TRUE(guard.Same());
    }
}

TEST(BmpReader, PaletteCountsBeyondTheBitDepth) {
    test::Recorder recorder;
    // 24 bits with biClrUsed 2 loads, with two palette entries.
    auto deep = TinyBmp();
    StoreU16(&deep[28], 24);
    StoreU32(&deep[46], 2);
    deep.resize(62 + 24 * 2);
    std::string path = test::WriteTemp("deep.bmp", deep);
    TL_HANDLE block = Load(path);
    ASSERT_NE(block, nullptr);
    auto bytes = test::BlockBytes(block);
    EXPECT_EQ(LoadU32(&bytes[32]), 2u);
    EXPECT_EQ(bytes.size(), 40u + 8 + 24 * 2);
    GlobalFree(block);

    // A biClrUsed above 65535 keeps the low 16 bits as its count, and the
    // block says so, so that rows and palette agree.
    auto wide = TinyBmp();
    StoreU32(&wide[46], 0x10002);
    StoreU32(&wide[50], 0x10002);
    path = test::WriteTemp("wide.bmp", wide);
    block = Load(path);
    ASSERT_NE(block, nullptr);
    bytes = test::BlockBytes(block);
    EXPECT_EQ(LoadU32(&bytes[32]), 2u);
    EXPECT_EQ(bytes[48], 0x0F);
    GlobalFree(block);
    EXPECT_TRUE(recorder.reports.empty());
}

TEST(BmpReader, AWalkGivesTheImageThenNothingThenTheImage) {
    test::Recorder recorder;
    test::LeakGuard guard;
    std::string path = test::Fixture("bmp/magick_1bit.bmp");
    TL_HANDLE first = Load(path, -1);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(Load(path, -1), nullptr);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    TL_HANDLE again = Load(path, -1);
    EXPECT_NE(again, nullptr);
    // A call with 0 for the walked file still ends the walk, and the next reads.
    EXPECT_EQ(Load(path, 0), nullptr);
    TL_HANDLE after = Load(path, 0);
    EXPECT_NE(after, nullptr);
    // An empty name means the file of the last negative number; below -1 no
    // walk ends.
    TL_HANDLE walked = Load(path, -2);
    TL_HANDLE empty = Load("", 0);
    EXPECT_NE(empty, nullptr);
    for (TL_HANDLE block : {first, again, after, walked, empty}) GlobalFree(block);
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_TRUE(guard.Same());
}

}  // namespace
