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

TL_HANDLE Load(const std::string &path, int32_t number = 0) {
    std::vector<char> name(path.begin(), path.end());
    name.resize(260, '\0');
    return TL_IMAGE_E(name.data(), number);
}

TEST(BmpReader, EncodedFilesGiveTheirPixelsAndAFullHeader) {
    test::QuietDefaults();
    struct Case { const char *file, *source; uint16_t bits; uint32_t colours; } cases[] = {
        {"netpbm_1bit.bmp", "text.pbm", 1, 2},      {"netpbm_1bit_os2.bmp", "text.pbm", 1, 2},
        {"magick_1bit.bmp", "text.pbm", 1, 2},      {"pillow_1bit.bmp", "text.pbm", 1, 2},
        {"white_first_1bit.bmp", "text.pbm", 1, 2}, {"offbits0_1bit.bmp", "text.pbm", 1, 2},
        {"pillow_8bit.bmp", "text.pbm", 8, 256},    {"netpbm_4bit.bmp", "colours.ppm", 4, 16},
        {"magick_4bit.bmp", "colours.ppm", 4, 16},  {"magick_4bit_os2.bmp", "colours.ppm", 4, 16},
        {"netpbm_8bit_os2.bmp", "colours.ppm", 8, 256},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.file);
        test::LeakGuard guard;
        std::string path = test::Fixture(std::string("bmp/") + c.file);
        TL_HANDLE block = Load(path);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(LastImageType, TypeBMP);
        std::vector<uint8_t> bytes = test::BlockBytes(block), file = test::ReadFileBytes(path);
        GlobalFree(block);
        uint32_t coreSize = LoadU32(&file[14]), stride = ((LoadU32(&bytes[4]) * c.bits + 31) / 32) * 4;
        uint32_t imageSize = stride * LoadU32(&bytes[8]);
        EXPECT_EQ(LoadU32(&bytes[0]), 40u);
        EXPECT_EQ(LoadU16(&bytes[14]), c.bits);
        EXPECT_EQ(LoadU32(&bytes[32]), c.colours);
        EXPECT_EQ(LoadU32(&bytes[36]), coreSize == 40 && LoadU32(&file[46]) != 0 ? LoadU32(&file[50]) : c.colours);
        EXPECT_EQ(LoadU32(&bytes[20]), imageSize) << "biSizeImage given or computed";
        ASSERT_EQ(bytes.size(), 40 + 4 * c.colours + imageSize);
        // The rows are the file's bytes from bfOffBits, or right behind the palette, unchanged.
        uint32_t offBits = LoadU32(&file[10]);
        uint32_t pixelsAt = offBits ? offBits : 14 + coreSize + (coreSize == 40 ? 4 : 3) * c.colours;
        EXPECT_EQ(0, memcmp(&bytes[40 + 4 * c.colours], &file[pixelsAt], imageSize));
        test::Rgb expected, actual;
        ASSERT_TRUE(test::ReadPnm(test::Fixture(std::string("bmp/src/") + c.source), expected));
        ASSERT_TRUE(test::DibToRgb(bytes, actual));
        EXPECT_EQ(test::FirstDifference(expected, actual), "");
        EXPECT_TRUE(guard.Same());
        EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    }
}

// A 1-bit file of 8 x 2 pixels with a 40-byte header (rows 0x0F, 0xF0),
// with the 32-bit values `patches` stored at their offsets and cut or
// padded with zeros to `size` bytes.
std::vector<uint8_t> Tiny(std::vector<std::pair<size_t, uint32_t>> patches = {}, size_t size = 70) {
    std::vector<uint8_t> b = {'B', 'M'};
    b.resize(70, 0);
    patches.insert(patches.begin(), {{2, 70}, {10, 62}, {14, 40}, {18, 8}, {22, 2}, {26, 0x10001}, {58, 0xFFFFFF},
                                     {62, 0x0F}, {66, 0xF0}});
    for (auto [at, v] : patches) StoreU32(&b[at], v);
    b.resize(size, 0);
    return b;
}

TEST(BmpReader, DamagedAndUnusualFiles) {
    // Reports as (text, withSystemText); "" stands for the path.
    using Reports = std::vector<std::pair<std::string, int>>;
    struct Case { const char *what; std::vector<uint8_t> bytes; Reports reports; uint32_t colours = 0; } cases[] = {
        {"file header cut", Tiny({}, 13), {{"Can't read BitMapFileHeader", 1}}},
        {"header size cut", Tiny({}, 17), {{"Can't read size of BitMapInfoHeader", 1}}},
        {"info header cut", Tiny({}, 53), {{"Can't read BitMapInfoHeader", 1}}},
        {"core header cut", Tiny({{14, 12}}, 25), {{"Can't read BitMapCoreHeader", 1}}},
        {"header size 20", Tiny({{14, 20}}), {{"Wrong header size in bitmap file", 0}}},
        {"24 bits, no palette count", Tiny({{28, 24}}), {{"No colors in bitmap file", 0}, {"No colors in bitmap file", 0}}},
        {"palette cut", Tiny({}, 60), {{"Can't read RGBPalette", 1}}},
        {"pixels cut", Tiny({}, 65), {{"", 1}}},
        {"seek refused", Tiny({{10, 0x80000000u}}), {{"SEEK error in BMP file", 1}}},  // before the file's start
        {"size wraps the block size", Tiny({{34, 0xFFFFFFF0u}}), {{"Out of memory", 0}}},
        // 24 bits with biClrUsed 2 load with two palette entries.
        {"24 bits, 2 colours", Tiny({{28, 24}, {46, 2}}, 62 + 24 * 2), {}, 2},
        // A biClrUsed above 65535 keeps its low 16 bits as the count, and the
        // block says so, so that palette and rows agree.
        {"biClrUsed 0x10002", Tiny({{46, 0x10002}, {50, 0x10002}}), {}, 2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        std::string path = test::WriteTemp("case.bmp", c.bytes);
        test::LeakGuard guard;
        test::Recorder recorder;
        TL_HANDLE block = Load(path);
        EXPECT_EQ(block == nullptr, !c.reports.empty());
        EXPECT_EQ(TL_ERRORSTATUS_E(), c.reports.empty() ? 0 : 1);
        ASSERT_EQ(recorder.reports.size(), c.reports.size());
        for (size_t i = 0; i < c.reports.size(); ++i) {
            EXPECT_EQ(recorder.reports[i].title, "ReadDIB");
            EXPECT_EQ(recorder.reports[i].text, c.reports[i].first.empty() ? path : c.reports[i].first);
            EXPECT_EQ(recorder.reports[i].withSystemText, c.reports[i].second);
        }
        if (block) {
            std::vector<uint8_t> bytes = test::BlockBytes(block);
            GlobalFree(block);
            EXPECT_EQ(LoadU32(&bytes[32]), c.colours);
            EXPECT_EQ(bytes.size(), 40 + 4 * c.colours + LoadU32(&bytes[20]));
            EXPECT_EQ(bytes[40 + 4 * c.colours], 0x0F) << "the first row right behind the palette";
        }
        EXPECT_TRUE(guard.Same());
    }
}

TEST(BmpReader, AWalkGivesTheImageThenNothingThenTheImage) {
    test::Recorder recorder;
    test::LeakGuard guard;
    std::string path = test::Fixture("bmp/magick_1bit.bmp");
    // A walk: the image, 0, the image.  0 for the walked file still ends the
    // walk, and the next call reads.  An empty name means the file of the
    // last negative number; below -1 no walk ends.
    const std::pair<const char *, int32_t> calls[] = {{"f", -1}, {"f", -1}, {"f", -1}, {"f", 0},
                                                      {"f", 0},  {"f", -2}, {"", 0}};
    const bool images[] = {true, false, true, false, true, true, true};
    for (size_t i = 0; i < std::size(calls); ++i) {
        TL_HANDLE block = Load(*calls[i].first ? path : "", calls[i].second);
        EXPECT_EQ(block != nullptr, images[i]) << "call " << i;
        EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
        test::FreeBlock(block);
    }
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_TRUE(guard.Same());
}

}  // namespace
