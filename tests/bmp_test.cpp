// The BMP reader: blocks from independent encoders, and every way a BMP file can fail.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/image.h"
#include "platform/win32.h"
#include "support/load.h"
#include "support/pnm.h"

namespace {

using test::Load;

// A 1-bit file of 8 x 2 pixels, 40-byte header, rows 0x0F and 0xF0; `patches` are
// 32-bit values at their offsets, and the file is cut or padded to `size`.
std::vector<uint8_t> Tiny(std::vector<std::pair<size_t, uint32_t>> patches = {}, size_t size = 70) {
    std::vector<uint8_t> b = {'B', 'M'};
    b.resize(70, 0);
    patches.insert(patches.begin(), {{2, 70}, {10, 62}, {14, 40}, {18, 8}, {22, 2}, {26, 0x10001}, {58, 0xFFFFFF},
                                     {62, 0x0F}, {66, 0xF0}});
    for (auto [at, v] : patches) StoreU32(&b[at], v);
    b.resize(size, 0);
    return b;
}

// Each file gives its block (full header, the file's rows unchanged, an encoder's
// source) or its reports, and leaves nothing behind.
TEST(BmpReader, EachFileGivesItsBlockOrItsReports) {
    struct Case {
        const char *what;
        std::vector<uint8_t> bytes;
        std::vector<std::string> reports;  // "text (withSystemText)" of ReadDIB, "@" standing for the path
        uint16_t bits = 0;
        uint32_t colours = 0;
        const char *source = nullptr;
    };
    auto encoded = [](const char *file, uint16_t bits, uint32_t colours, const char *source) {
        return Case{file, test::ReadFileBytes(test::Fixture(std::string("bmp/") + file)), {}, bits, colours, source};
    };
    const Case cases[] = {
        encoded("netpbm_1bit.bmp", 1, 2, "text.pbm"),         encoded("netpbm_1bit_os2.bmp", 1, 2, "text.pbm"),
        encoded("magick_1bit.bmp", 1, 2, "text.pbm"),         encoded("pillow_1bit.bmp", 1, 2, "text.pbm"),
        encoded("white_first_1bit.bmp", 1, 2, "text.pbm"),    encoded("offbits0_1bit.bmp", 1, 2, "text.pbm"),
        encoded("pillow_8bit.bmp", 8, 256, "text.pbm"),       encoded("netpbm_4bit.bmp", 4, 16, "colours.ppm"),
        encoded("magick_4bit.bmp", 4, 16, "colours.ppm"),     encoded("magick_4bit_os2.bmp", 4, 16, "colours.ppm"),
        encoded("netpbm_8bit_os2.bmp", 8, 256, "colours.ppm"),
        {"file header cut", Tiny({}, 13), {"Can't read BitMapFileHeader (1)"}},
        {"header size cut", Tiny({}, 17), {"Can't read size of BitMapInfoHeader (1)"}},
        {"info header cut", Tiny({}, 53), {"Can't read BitMapInfoHeader (1)"}},
        {"core header cut", Tiny({{14, 12}}, 25), {"Can't read BitMapCoreHeader (1)"}},
        {"header size 20", Tiny({{14, 20}}), {"Wrong header size in bitmap file (0)"}},
        {"24 bits, no palette count", Tiny({{28, 24}}),
         {"No colors in bitmap file (0)", "No colors in bitmap file (0)"}},
        {"palette cut", Tiny({}, 60), {"Can't read RGBPalette (1)"}},
        {"pixels cut", Tiny({}, 65), {"@ (1)"}},
        {"seek refused", Tiny({{10, 0x80000000u}}), {"SEEK error in BMP file (1)"}},  // before the file's start
        {"size wraps the block size", Tiny({{34, 0xFFFFFFF0u}}), {"Out of memory (0)"}},
        {"24 bits with biClrUsed 2", Tiny({{28, 24}, {46, 2}}, 62 + 24 * 2), {}, 24, 2},
        // A biClrUsed above 65535 keeps its low 16 bits as the count, and the
        // block says so, so that palette and rows agree.
        {"biClrUsed 0x10002", Tiny({{46, 0x10002}, {50, 0x10002}}), {}, 1, 2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        std::string path = test::WriteTemp("case.bmp", c.bytes);
        test::LeakGuard guard;
        test::Recorder recorder;
        TL_HANDLE block = Load(path);
        EXPECT_EQ(block == nullptr, !c.reports.empty());
        EXPECT_EQ(TL_ERRORSTATUS_E(), c.reports.empty() ? 0 : 1);
        std::vector<std::string> want;
        for (const std::string &r : c.reports) want.push_back("ReadDIB: " + r);
        EXPECT_EQ(test::Heard(recorder, path), want);
        std::vector<uint8_t> b = block ? test::BlockBytes(block) : std::vector<uint8_t>();
        test::FreeBlock(block);
        EXPECT_TRUE(guard.Same());
        if (!block) continue;
        EXPECT_EQ(LastImageType, TypeBMP);
        const std::vector<uint8_t> &f = c.bytes;
        uint32_t core = LoadU32(&f[14]), imageSize = ((LoadU32(&b[4]) * c.bits + 31) / 32) * 4 * LoadU32(&b[8]);
        EXPECT_EQ(LoadU32(&b[0]), 40u);
        EXPECT_EQ(LoadU16(&b[14]), c.bits);
        EXPECT_EQ(LoadU32(&b[32]), c.colours);
        EXPECT_EQ(LoadU32(&b[36]), core == 40 && LoadU32(&f[46]) != 0 ? LoadU32(&f[50]) : c.colours);
        EXPECT_EQ(LoadU32(&b[20]), imageSize) << "biSizeImage given or computed";
        ASSERT_EQ(b.size(), 40 + 4 * c.colours + imageSize);
        // The rows are the file's bytes from bfOffBits, or right behind the palette.
        size_t at = LoadU32(&f[10]) ? LoadU32(&f[10]) : 14 + core + (core == 40 ? 4 : 3) * c.colours;
        EXPECT_TRUE(std::equal(b.end() - imageSize, b.end(), f.begin() + long(at)));
        if (!c.source) continue;
        EXPECT_EQ(test::BlockDiffers(b, test::Fixture(std::string("bmp/src/") + c.source)), "");
    }
}

}  // namespace
