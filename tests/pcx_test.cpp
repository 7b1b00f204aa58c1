// The PCX reader: pixels against the encoders' sources, the run-length
// code, the row conversions, the resolution, every report, and the walk.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/image.h"
#include "platform/win32.h"
#include "readers/pcx.h"
#include "support/load.h"
#include "support/pnm.h"

namespace {

using Bytes = std::vector<uint8_t>;
using test::Load;

// Version 5, run-length coded, 1 bit per pixel; Xmin -3 and Ymin 2, so that
// the extents are differences.  The scan-line data follow the header.
Bytes Pcx(int planes, int bytesPerLine, int width, int height, const Bytes &data = {}, int hDpi = 0, int vDpi = 0) {
    Bytes f = {10, 5, 1, 1};
    for (int word : {-3, 2, width - 4, height + 1, hDpi, vDpi}) f.insert(f.end(), {uint8_t(word), uint8_t(word >> 8)});
    f.resize(128, 0);
    f[65] = uint8_t(planes);
    StoreU16(&f[66], uint16_t(bytesPerLine));
    f.insert(f.end(), data.begin(), data.end());
    return f;
}

// Each file gives its block (header, fixed palette, rows top row first, an encoder's source) or its reports, and
// leaves nothing behind.  Headers the detection does not pass go straight to the reader.
TEST(PcxReader, EachFileGivesItsBlockOrItsReports) {
    auto inv = [](Bytes b) {  // one plane: a file bit 1 is white, so the block bit is 0
        for (uint8_t &v : b) v = uint8_t(~v);
        return b;
    };
    auto fill = [](size_t n, uint8_t value, size_t stride) {  // n bytes of value, the rest of the row 0
        Bytes row(stride, 0);
        std::fill_n(row.begin(), n, value);
        return row;
    };
    const Bytes ok = Pcx(1, 2, 16, 1, {0, 0});
    auto set = [](Bytes f, size_t at, int value) {
        f[at] = uint8_t(value);
        return f;
    };
    auto edges = [](int x0, int y0, int x1, int y1, int planes = 1) {
        Bytes f = Pcx(planes, 2, 16, 1, {0, 0});
        for (auto [at, v] : {std::pair{4, x0}, {6, y0}, {8, x1}, {10, y1}}) StoreU16(&f[at], uint16_t(v));
        return f;
    };
    const std::vector<std::string> illegal = {"Illegal PCX image header or unsupported format in file @ (0)"},
                                   lineMemory = {"Out of memory (image line allocation @) (0)"},
                                   cut = {"@ (1)", "Missing lines in image file @ (0)"};
    struct Case {
        const char *what;
        Bytes file;
        std::vector<std::string> reports;  // "text (withSystemText)" of ReadPCX, "@" standing for the path
        std::vector<Bytes> rows = {};
        int32_t pelsPerMeter = 0;
        const char *source = nullptr;
        bool inverted = false;
    };
    auto encoded = [](const char *file, const char *source, int dpi, bool inverted = false) {
        return Case{file, test::ReadFileBytes(test::Fixture(std::string("pcx/") + file)), {}, {},
                    PcxPelsPerMeter(int16_t(dpi)), source, inverted};
    };
    std::vector<Case> cases = {
        encoded("netpbm_1plane.pcx", "text.pbm", 49),         // ppmtopcx writes the size as dpi
        encoded("netpbm_1plane_origin.pcx", "text.pbm", 49),  // Xmin 5, Ymin 3
        // ImageMagick codes white as 0 and says so in its colour map, which
        // the block never takes: the picture comes out inverted.
        encoded("magick_1plane.pcx", "text.pbm", 0, true),
        encoded("pillow_1plane.pcx", "text.pbm", 100),     // version 2, BytesPerLine 8 for 49 pixels
        encoded("padded_1plane.pcx", "text.pbm", 100),     // BytesPerLine 12, past the stride of 8
        encoded("encoding0_1plane.pcx", "text.pbm", 49),   // Encoding 0, run-length data all the same
        encoded("netpbm_4plane.pcx", "colours.ppm", 101),  // 101 pixels, BytesPerLine 13
        encoded("padded_4plane.pcx", "colours.ppm", 101),  // BytesPerLine 16, need 13
        encoded("netpbm_4plane_text.pcx", "text.pbm", 49),
        {"0xC0 is a run of 0 that takes its byte", Pcx(1, 4, 32, 1, {0xC0, 0xAA, 0x12, 0xC0, 0x55, 0x34, 0x56, 0x78}),
         {}, {inv({0x12, 0x34, 0x56, 0x78})}},
        {"a run past the line's end is cut", Pcx(1, 4, 32, 1, {0xC2, 0x01, 0xFF, 0x02}), {}, {inv({1, 1, 2, 2})}},
        {"0xFF is a run of 63", Pcx(1, 63, 63 * 8, 1, {0xFF, 0x0F}), {}, {fill(63, 0xF0, 64)}},
        {"a run crosses planes: 1 + 2 + 4", Pcx(4, 1, 8, 1, {0xC3, 0xFF, 0x00}), {}, {{0x77, 0x77, 0x77, 0x77}}},
        {"plane 0 is the lowest bit, plane 3 the highest",
         Pcx(4, 2, 16, 1, {0x55, 0x55, 0x33, 0x33, 0x0F, 0x0F, 0x00, 0xC1, 0xFF}), {},
         {{0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}}},
        {"version 0 is read", set(ok, 1, 0), {}, {{0xFF, 0xFF, 0, 0}}},
        {"version 3 is read", set(ok, 1, 3), {}, {{0xFF, 0xFF, 0, 0}}},  // 2: the Pillow fixture
        {"header of 100 bytes", Bytes(ok.begin(), ok.begin() + 100), {"@ (1)"}},
        {"2 planes", set(ok, 65, 2), illegal},
        {"8 bits per pixel", set(ok, 3, 8), illegal},
        {"encoding 2", set(ok, 2, 2), illegal},
        {"maker 11", set(ok, 0, 11), illegal},
        {"version 1", set(ok, 1, 1), illegal},
        {"version 4", set(ok, 1, 4), illegal},
        {"width 0", edges(5, 0, 4, 0), illegal},
        {"height 0", edges(0, 7, 15, 6), illegal},
        {"height below 0", edges(0, 32767, 15, -32768), illegal},
        {"BytesPerLine 0", Pcx(1, 0, 16, 1, {0, 0}), lineMemory},
        {"a block past the ceiling", edges(-32768, -32768, 32767, 32767, 4), {"Out of memory (0)"}},
        {"65536 x 65536 over one line", edges(-32768, -32768, 32767, 32767), cut},
        {"cut between a run and its byte", Pcx(1, 2, 16, 1, {0xC2}), cut},
    };
    // The resolution comes from HDpi alone, times 39.37 as a float
    // (39.369998931884766: 300 dpi gives 11810, not 11811), cut toward zero.
    const int dpi[][3] = {{300, 300, 11810},
                          {0, 300, 0},       {1, 1, 39},       {-300, 300, -11810}, {32767, 0, 1290036}};
    for (const auto &d : dpi) cases.push_back({"dpi", Pcx(1, 1, 8, 1, {0}, d[0], d[1]), {}, {{0xFF, 0, 0, 0}}, d[2]});

    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.what << " " << c.pelsPerMeter);
        test::LeakGuard guard;
        test::Recorder recorder;
        std::string path = test::WriteTemp("case.pcx", c.file);
        bool detected = c.file[0] == 10 && c.file[1] != 1 && c.file[1] != 4;
        TL_HANDLE block = detected ? Load(path) : ReadPCX(path.c_str(), 0);
        EXPECT_EQ(block == nullptr, !c.reports.empty());
        std::vector<std::string> want;
        for (const std::string &r : c.reports) want.push_back("ReadPCX: " + r);
        EXPECT_EQ(test::Heard(recorder, path), want);
        EXPECT_EQ(TL_ERRORSTATUS_E(), c.reports.empty() ? 0 : 1);
        Bytes b = block ? test::BlockBytes(block) : Bytes();
        EXPECT_TRUE(!block || GlobalUnlock(block) == 0) << "handed over unlocked";
        test::FreeBlock(block);
        EXPECT_TRUE(guard.Same());
        if (!block) continue;

        const Bytes &f = c.file;
        const uint32_t width = uint32_t(LoadI16(&f[8]) - LoadI16(&f[4]) + 1);
        const uint32_t height = uint32_t(LoadI16(&f[10]) - LoadI16(&f[6]) + 1), planes = f[65], colours = 1u << planes;
        const uint32_t imageSize = ((width * planes + 31) / 32) * 4 * height;
        Bytes header(40, 0);
        const auto ppm = uint32_t(c.pelsPerMeter);
        for (auto [at, v] : {std::pair{0, 40u}, {4, width}, {8, height}, {20, imageSize}, {24, ppm}, {28, ppm},
                             {32, colours}, {36, colours}})
            StoreU32(&header[at], v);
        header[12] = 1;
        header[14] = uint8_t(planes);
        EXPECT_EQ(Bytes(b.begin(), b.begin() + 40), header);
        ASSERT_EQ(b.size(), 40 + 4 * colours + imageSize);
        const Bytes palette = planes == 1 ? Bytes{255, 255, 255, 0, 0, 0, 0, 0}
                                          : Bytes(DefaultPalette16.begin(), DefaultPalette16.end());
        EXPECT_TRUE(std::equal(palette.begin(), palette.end(), b.begin() + 40)) << "never the file's colour map";
        for (size_t r = 0; r < c.rows.size(); ++r) {
            auto at = b.end() - long((r + 1) * c.rows[r].size());  // rows lie bottom row first
            EXPECT_EQ(Bytes(at, at + long(c.rows[r].size())), c.rows[r]) << "row " << r;
        }
        if (!c.source) continue;
        // Colours: our indices looked up in the encoder's colour map (offset 16: red, green, blue).
        for (uint32_t i = 0; planes == 4 && i < 16; ++i)
            for (uint32_t k = 0; k < 3; ++k) b[40 + 4 * i + k] = f[16 + 3 * i + 2 - k];
        EXPECT_EQ(test::BlockDiffers(b, test::Fixture(std::string("pcx/src/") + c.source), c.inverted), "");
    }
    EXPECT_EQ(PcxHeaderOk(Pcx(1, 0, 0, 0).data()), 1) << "edges and BytesPerLine are not the header test's business";
}

TEST(PcxReader, WalksGoOnOverGoodAndDamagedFiles) {
    test::LeakGuard guard;
    test::Recorder recorder;
    const std::string good = test::Fixture("pcx/netpbm_1plane.pcx"), none;
    const std::string bad = test::WriteTemp("walked.pcx", Pcx(1, 2, 16, 2, {0, 0}));  // one line of two
    struct Step { const std::string *name; int32_t number; bool image; size_t reports; } steps[] = {
        // A walk gives the image, then 0 with no report, then the image again.
        {&good, -1, 1, 0}, {&good, -1, 0, 0}, {&good, -1, 1, 0},
        // 0 ends the walk; below -1 ends none; an empty name means the walked file, where 3 is read like 0.
        {&good, 0, 0, 0}, {&good, -2, 1, 0}, {&none, 3, 1, 0},
        // A PCX file has no image 1.
        {&good, 1, 0, 0},
        // NULL forgets the walk.
        {&good, -1, 1, 0}, {nullptr, 0, 0, 0}, {&good, -1, 1, 0}, {nullptr, 0, 0, 0},
        // A damaged file: its reports and 0, then 0 alone as the walk ends, then the reports again.
        {&bad, -1, 0, 2}, {&bad, -1, 0, 0}, {&bad, -1, 0, 2}, {nullptr, 0, 0, 0},
    };
    for (size_t i = 0; i < std::size(steps); ++i) {
        const Step &s = steps[i];
        SCOPED_TRACE(testing::Message() << "step " << i);
        if (s.name && !s.name->empty()) LastImageType = TypeUnknown;
        TL_HANDLE block = s.name ? Load(*s.name, s.number) : TL_IMAGE_E(nullptr, 0);
        EXPECT_EQ(block != nullptr, s.image);
        test::FreeBlock(block);
        EXPECT_EQ(test::Heard(recorder).size(), s.reports);
        EXPECT_EQ(TL_ERRORSTATUS_E(), s.reports ? 1 : 0);
        EXPECT_EQ(LastImageType, TypePCX);
    }
    // Only a failed open leaves the memo alone: a missing file fails each time.
    std::string missing = test::TempDir() + "/missing.pcx";
    for (int i = 0; i < 2; ++i) {
        TL_CLEARERROR_E();
        EXPECT_EQ(ReadPCX(missing.c_str(), -1), nullptr);
        EXPECT_EQ(test::Heard(recorder).size(), 1u);
    }
    EXPECT_EQ(ReadPCX(nullptr, 0), nullptr);
    EXPECT_TRUE(guard.Same());
}

}  // namespace
