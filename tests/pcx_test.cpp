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
#include "support/pnm.h"
#include "support/support.h"

namespace {

TL_HANDLE Load(const std::string &path, int32_t number = 0) {
    std::vector<char> name(path.begin(), path.end());
    name.resize(std::max<size_t>(name.size() + 1, 260), '\0');
    return TL_IMAGE_E(name.data(), number);
}

// A PCX header: version 5, encoding 1, 1 bit per pixel.
std::vector<uint8_t> Header(int planes, int bytesPerLine, int width, int height, int hDpi = 0, int vDpi = 0) {
    std::vector<uint8_t> h(128, 0);
    h[0] = 10;
    h[1] = 5;
    h[2] = 1;
    h[3] = 1;
    StoreU16(&h[4], uint16_t(-3));  // Xmin: the width is Xmax - Xmin + 1
    StoreU16(&h[6], 2);
    StoreU16(&h[8], uint16_t(width - 4));
    StoreU16(&h[10], uint16_t(height + 1));
    StoreU16(&h[12], uint16_t(hDpi));
    StoreU16(&h[14], uint16_t(vDpi));
    h[65] = uint8_t(planes);
    StoreU16(&h[66], uint16_t(bytesPerLine));
    return h;
}

std::vector<uint8_t> Join(std::vector<uint8_t> a, const std::vector<uint8_t> &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct Loaded {
    std::vector<uint8_t> bytes;  // the whole block
    uint32_t stride = 0;
    const uint8_t *Row(int32_t top) const {  // rows lie bottom row first
        int32_t height = LoadI32(&bytes[8]);
        uint32_t colours = LoadU32(&bytes[32]);
        return &bytes[40 + 4 * colours + size_t(height - 1 - top) * stride];
    }
};

// Loads a file that must give an image, with no report and nothing left behind.
Loaded LoadGood(const std::string &path, int32_t number = 0) {
    test::LeakGuard guard;
    test::Recorder recorder;
    Loaded out;
    TL_HANDLE block = Load(path, number);
    EXPECT_NE(block, nullptr) << path;
    EXPECT_TRUE(recorder.reports.empty()) << path << ": " << (recorder.reports.empty() ? "" : recorder.reports[0].text);
    if (!block) return out;
    out.bytes = test::BlockBytes(block);
    EXPECT_EQ(GlobalUnlock(block), 0) << "handed over unlocked";
    test::FreeBlock(block);
    EXPECT_TRUE(guard.Same());
    int32_t width = LoadI32(&out.bytes[4]);
    out.stride = ((uint32_t(width) * LoadU16(&out.bytes[14]) + 31) / 32) * 4;
    return out;
}

// Scan-line bytes coded as literals: a byte of 0xC0 or above as a run of 1.
std::vector<uint8_t> Literal(const std::vector<uint8_t> &bytes) {
    std::vector<uint8_t> out;
    for (uint8_t b : bytes) {
        if (b >= 0xC0) out.push_back(0xC1);
        out.push_back(b);
    }
    return out;
}

std::string Temp(const std::vector<uint8_t> &bytes) { return test::WriteTemp("case.pcx", bytes); }

TEST(PcxReader, EncodedFilesGiveTheirSourcesPixelForPixel) {
    struct Case { const char *file, *source; int planes, hDpi; bool inverted = false; } cases[] = {
        {"netpbm_1plane.pcx", "text.pbm", 1, 49},           // ppmtopcx writes the size as dpi
        {"netpbm_1plane_origin.pcx", "text.pbm", 1, 49},    // Xmin 5, Ymin 3
        // ImageMagick codes white as 0 and says so in its colour map; the
        // block's palette never comes from the file, so the picture comes
        // out inverted.
        {"magick_1plane.pcx", "text.pbm", 1, 0, true},
        {"pillow_1plane.pcx", "text.pbm", 1, 100},          // version 2, BytesPerLine 8 for 49 pixels
        {"padded_1plane.pcx", "text.pbm", 1, 100},          // BytesPerLine 12, past the stride of 8
        {"encoding0_1plane.pcx", "text.pbm", 1, 49},        // Encoding 0, run-length data all the same
        {"netpbm_4plane.pcx", "colours.ppm", 4, 101},       // 101 pixels, BytesPerLine 13
        {"padded_4plane.pcx", "colours.ppm", 4, 101},       // BytesPerLine 16, need 13
        {"netpbm_4plane_text.pcx", "text.pbm", 4, 49},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.file);
        std::string path = test::Fixture(std::string("pcx/") + c.file);
        test::Rgb source, actual;
        ASSERT_TRUE(test::ReadPnm(test::Fixture(std::string("pcx/src/") + c.source), source));
        Loaded got = LoadGood(path);
        ASSERT_GE(got.bytes.size(), 40u);
        const uint8_t *h = got.bytes.data();
        uint32_t colours = c.planes == 1 ? 2 : 16;
        uint32_t imageSize = got.stride * uint32_t(source.height);
        EXPECT_EQ(LoadU32(h + 0), 40u);
        EXPECT_EQ(LoadI32(h + 4), source.width);
        EXPECT_EQ(LoadI32(h + 8), source.height);
        EXPECT_EQ(LoadU16(h + 12), 1);
        EXPECT_EQ(LoadU16(h + 14), c.planes);
        EXPECT_EQ(LoadU32(h + 16), 0u);
        EXPECT_EQ(LoadU32(h + 20), imageSize);
        EXPECT_EQ(LoadI32(h + 24), PcxPelsPerMeter(int16_t(c.hDpi)));
        EXPECT_EQ(LoadI32(h + 28), PcxPelsPerMeter(int16_t(c.hDpi)));
        EXPECT_EQ(LoadU32(h + 32), colours);
        EXPECT_EQ(LoadU32(h + 36), colours);
        EXPECT_EQ(got.bytes.size(), 40 + 4 * colours + imageSize) << "block size";
        std::vector<uint8_t> block = got.bytes;
        if (c.planes == 1) {
            const uint8_t whiteBlack[8] = {255, 255, 255, 0, 0, 0, 0, 0};
            EXPECT_EQ(memcmp(h + 40, whiteBlack, 8), 0);
        } else {
            EXPECT_EQ(memcmp(h + 40, DefaultPalette16.data(), 64), 0) << "never the file's colour map";
            // The encoder chose its own colour map: look our indices up in
            // it (header offset 16, red, green, blue) to compare colours.
            std::vector<uint8_t> file = test::ReadFileBytes(path);
            for (int i = 0; i < 16; ++i) {
                block[40 + 4 * i + 0] = file[16 + 3 * i + 2];
                block[40 + 4 * i + 1] = file[16 + 3 * i + 1];
                block[40 + 4 * i + 2] = file[16 + 3 * i + 0];
            }
        }
        if (c.inverted)
            for (uint8_t &v : source.pixels) v = uint8_t(255 - v);
        ASSERT_TRUE(test::DibToRgb(block, actual));
        EXPECT_EQ(test::FirstDifference(source, actual), "");
    }
}

// Each case is one scan line of a 1-plane image whose line is `want`
// after decoding; the block row holds it inverted.
TEST(PcxReader, RunLengthCode) {
    struct Case {
        const char *what;
        std::vector<uint8_t> data;
        std::vector<uint8_t> want;
    } cases[] = {
        {"literals below 0xC0", {0x00, 0x12, 0xBF, 0x7E}, {0x00, 0x12, 0xBF, 0x7E}},
        {"0xC0 is a run of 0 that takes its byte", {0xC0, 0xAA, 0x12, 0xC0, 0x55, 0x34, 0x56, 0x78}, {0x12, 0x34, 0x56, 0x78}},
        {"a literal 0xC0 or above is a run of 1", {0xC1, 0xC0, 0xC1, 0xFF, 0x01, 0xC1, 0xE5}, {0xC0, 0xFF, 0x01, 0xE5}},
        {"a run fills", {0xC4, 0x3C}, {0x3C, 0x3C, 0x3C, 0x3C}},
        {"a run past the line's end is cut", {0xC2, 0x01, 0xFF, 0x02}, {0x01, 0x01, 0x02, 0x02}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Loaded got = LoadGood(Temp(Join(Header(1, 4, 32, 1), c.data)));
        ASSERT_FALSE(got.bytes.empty());
        for (size_t i = 0; i < 4; ++i) EXPECT_EQ(got.Row(0)[i], uint8_t(~c.want[i])) << "byte " << i;
    }

    // 0xFF is a run of 63.
    Loaded got = LoadGood(Temp(Join(Header(1, 63, 63 * 8, 1), {0xFF, 0x0F})));
    ASSERT_FALSE(got.bytes.empty());
    for (size_t i = 0; i < 63; ++i) ASSERT_EQ(got.Row(0)[i], 0xF0) << i;

    // What a run drops at a line's end is not carried into the next line.
    got = LoadGood(Temp(Join(Header(1, 2, 16, 2), {0xC5, 0xAA, 0x12, 0x34})));
    ASSERT_FALSE(got.bytes.empty());
    EXPECT_EQ(got.Row(0)[0], 0x55);
    EXPECT_EQ(got.Row(0)[1], 0x55);
    EXPECT_EQ(got.Row(1)[0], 0xED);
    EXPECT_EQ(got.Row(1)[1], 0xCB);

    // A run may cross from one plane into the next: planes 0 to 2 all ones,
    // plane 3 zero, so each pixel is 7.
    got = LoadGood(Temp(Join(Header(4, 1, 8, 1), {0xC3, 0xFF, 0x00})));
    ASSERT_FALSE(got.bytes.empty());
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(got.Row(0)[i], 0x77);
}

TEST(PcxReader, FourPlanesMakeFourBitPixels) {
    // Pixel i of 16 has the value i: plane p holds bit p of it.  So the row
    // is 0x01 0x23 ... 0xEF, plane 0 the lowest bit, plane 3 the highest.
    std::vector<uint8_t> line;
    for (int p = 0; p < 4; ++p) {
        uint8_t half[2] = {0, 0};
        for (int i = 0; i < 16; ++i)
            if (i & (1 << p)) half[i / 8] |= uint8_t(0x80 >> (i % 8));
        line.push_back(half[0]);
        line.push_back(half[1]);
    }
    Loaded got = LoadGood(Temp(Join(Header(4, 2, 16, 1), Literal(line))));
    ASSERT_FALSE(got.bytes.empty());
    for (int k = 0; k < 8; ++k) EXPECT_EQ(got.Row(0)[k], uint8_t((2 * k) << 4 | (2 * k + 1))) << k;
}

TEST(PcxReader, RowsTakeAtMostTheirStride) {
    // 100 pixels in 4 planes with BytesPerLine 14: stride 52, and the 56
    // bytes of a line's output are cut to 52, leaving the next row alone.
    std::vector<uint8_t> data;
    for (int row = 0; row < 2; ++row)
        for (int i = 0; i < 4 * 14; ++i) data.push_back(uint8_t(row == 0 ? 0xFF : 0x00));  // row 0 all 15, row 1 all 0
    Loaded got = LoadGood(Temp(Join(Header(4, 14, 100, 2), Literal(data))));
    ASSERT_EQ(got.stride, 52u);
    ASSERT_EQ(got.bytes.size(), 40 + 64 + 2 * 52u);
    for (size_t i = 0; i < 52; ++i) ASSERT_EQ(got.Row(0)[i], 0xFF) << i;
    for (size_t i = 0; i < 52; ++i) ASSERT_EQ(got.Row(1)[i], 0x00) << i;

    // The other way: the lines reach only part of the row, and the rest
    // stays 0.  One plane, 64 pixels (stride 8), BytesPerLine 3; four
    // planes, 100 pixels (stride 52), BytesPerLine 2.
    got = LoadGood(Temp(Join(Header(1, 3, 64, 1), {0x00, 0x00, 0x00})));
    ASSERT_FALSE(got.bytes.empty());
    const uint8_t want1[8] = {0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0};
    EXPECT_EQ(memcmp(got.Row(0), want1, 8), 0);
    got = LoadGood(Temp(Join(Header(4, 2, 100, 1), Literal(std::vector<uint8_t>(8, 0xFF)))));
    ASSERT_FALSE(got.bytes.empty());
    for (size_t i = 0; i < 52; ++i) EXPECT_EQ(got.Row(0)[i], i < 8 ? 0xFF : 0x00) << i;
}

TEST(PcxReader, ResolutionFromHorizontalDpiOnly) {
    struct Case { int hDpi, vDpi, want; } cases[] = {
        {300, 300, 11810},  // 39.37 as a float is 39.369998931884766: not 11811
        {200, 100, 7873},   // VDpi plays no part
        {96, 0, 3779},
        {72, 9999, 2834},
        {0, 300, 0},
        {1, 1, 39},
        {-300, 300, -11810},  // cut toward zero
        {32767, 0, 1290036},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(PcxPelsPerMeter(int16_t(c.hDpi)), c.want) << c.hDpi;
        Loaded got = LoadGood(Temp(Join(Header(1, 1, 8, 1, c.hDpi, c.vDpi), {0x00})));
        ASSERT_FALSE(got.bytes.empty());
        EXPECT_EQ(LoadI32(&got.bytes[24]), c.want) << c.hDpi;
        EXPECT_EQ(LoadI32(&got.bytes[28]), c.want) << c.hDpi;
    }
}

TEST(PcxReader, EveryFailureReportsAndLeavesNothingBehind) {
    const std::vector<uint8_t> header = Header(1, 2, 16, 1);
    auto with = [](std::vector<uint8_t> h, size_t at, uint8_t value) {
        h[at] = value;
        return h;
    };
    auto edges = [](int16_t xmin, int16_t xmax, int16_t ymin, int16_t ymax, int planes = 1) {
        std::vector<uint8_t> h = Header(planes, 2, 16, 1);
        StoreU16(&h[4], uint16_t(xmin));
        StoreU16(&h[8], uint16_t(xmax));
        StoreU16(&h[6], uint16_t(ymin));
        StoreU16(&h[10], uint16_t(ymax));
        return Join(h, {0x00, 0x00});
    };
    auto bpl = [](int16_t bytesPerLine) {
        std::vector<uint8_t> h = Header(1, 0, 16, 1);
        StoreU16(&h[66], uint16_t(bytesPerLine));
        return Join(h, {0x00, 0x00});
    };
    std::vector<uint8_t> eightBit = with(with(Header(1, 16, 16, 1), 3, 8), 1, 5);
    eightBit.resize(128 + 16);
    eightBit.push_back(12);
    eightBit.resize(eightBit.size() + 768, 0x80);  // an 8-bit image with its palette at the end

    const std::string illegal = "Illegal PCX image header or unsupported format in file ";
    const std::string missing = "Missing lines in image file ";
    const std::string lineMemory = "Out of memory (image line allocation ";
    struct Case {
        const char *what;
        std::vector<uint8_t> bytes;
        // Reports as (text, withSystemText); "@" stands for the path.
        std::vector<std::pair<std::string, int>> reports;
    } cases[] = {
        {"header of 100 bytes", std::vector<uint8_t>(header.begin(), header.begin() + 100), {{"@", 1}}},
        {"2 planes", with(Header(1, 2, 16, 1), 65, 2), {{illegal + "@", 0}}},
        {"8 bits per pixel with a palette", eightBit, {{illegal + "@", 0}}},
        {"encoding 2", with(Header(1, 2, 16, 1), 2, 2), {{illegal + "@", 0}}},
        {"version 0 is read", with(Join(Header(1, 2, 16, 1), {0, 0}), 1, 0), {}},
        {"version 3 is read", with(Join(Header(1, 2, 16, 1), {0, 0}), 1, 3), {}},  // 2: the Pillow fixture
        {"width 0", edges(5, 4, 0, 0), {{illegal + "@", 0}}},
        {"width below 0", edges(5, -100, 0, 0), {{illegal + "@", 0}}},
        {"height 0", edges(0, 15, 7, 6), {{illegal + "@", 0}}},
        {"height below 0", edges(0, 15, 32767, -32768), {{illegal + "@", 0}}},
        {"BytesPerLine 0", bpl(0), {{lineMemory + "@)", 0}}},
        {"BytesPerLine below 0", bpl(-2), {{lineMemory + "@)", 0}}},
        {"a block past the ceiling", edges(-32768, 32767, -32768, 32767, 4), {{"Out of memory", 0}}},
        {"65536 x 65536 over one line", edges(-32768, 32767, -32768, 32767), {{"@", 1}, {missing + "@", 0}}},
        {"cut inside the first line", Join(Header(1, 2, 16, 2), {0x00}), {{"@", 1}, {missing + "@", 0}}},
        {"cut between a run and its byte", Join(Header(1, 2, 16, 1), {0xC2}), {{"@", 1}, {missing + "@", 0}}},
        {"cut inside the last line", Join(Header(1, 2, 16, 3), {0xC5, 0x00, 0x11}), {{"@", 1}, {missing + "@", 0}}},
        {"cut at a line's end", Join(Header(4, 1, 8, 2), {0xC4, 0x00}), {{"@", 1}, {missing + "@", 0}}},
        {"no scan lines at all", Header(1, 2, 16, 1), {{"@", 1}, {missing + "@", 0}}},
        {"a run past the line's end fills no later line", Join(Header(1, 2, 16, 3), {0xC6, 0x00}), {{"@", 1}, {missing + "@", 0}}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        test::LeakGuard guard;
        test::Recorder recorder;
        std::string path = Temp(c.bytes);
        TL_HANDLE block = Load(path);
        EXPECT_EQ(block == nullptr, !c.reports.empty());
        test::FreeBlock(block);
        ASSERT_EQ(recorder.reports.size(), c.reports.size());
        for (size_t i = 0; i < c.reports.size(); ++i) {
            std::string want = c.reports[i].first;
            if (size_t at = want.find('@'); at != std::string::npos) want.replace(at, 1, path);
            EXPECT_EQ(recorder.reports[i].title, "ReadPCX");
            EXPECT_EQ(recorder.reports[i].text, want);
            EXPECT_EQ(recorder.reports[i].withSystemText, c.reports[i].second);
        }
        EXPECT_EQ(TL_ERRORSTATUS_E(), c.reports.empty() ? 0 : 1);
        EXPECT_TRUE(guard.Same());
    }

    // Headers that ReadIMG does not send here are refused by the reader too.
    for (std::pair<size_t, uint8_t> spoil : {std::pair<size_t, uint8_t>{0, 11}, {1, 1}, {1, 4}, {3, 2}}) {
        test::LeakGuard guard;
        test::Recorder recorder;
        std::string path = Temp(with(Join(Header(1, 2, 16, 1), {0, 0}), spoil.first, spoil.second));
        char full[PathBytes];
        ASSERT_NE(_fullpath(full, path.c_str(), PathBytes), nullptr);
        EXPECT_EQ(ReadPCX(path.c_str(), 0), nullptr);
        ASSERT_EQ(recorder.reports.size(), 1u);
        EXPECT_EQ(recorder.reports[0].text, illegal + full);
        EXPECT_TRUE(guard.Same());
    }
    EXPECT_EQ(PcxHeaderOk(Header(1, 0, 0, 0).data()), 1) << "edges and BytesPerLine are not the header test's business";
}

TEST(PcxReader, AWalkGivesTheImageThenNothingThenTheImage) {
    test::LeakGuard guard;
    test::Recorder recorder;
    std::string path = test::Fixture("pcx/netpbm_1plane.pcx");
    TL_HANDLE block = Load(path, -1);
    EXPECT_NE(block, nullptr);
    test::FreeBlock(block);
    EXPECT_EQ(Load(path, -1), nullptr);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    block = Load(path, -1);
    EXPECT_NE(block, nullptr);
    test::FreeBlock(block);

    // With the walk in its memory, an empty name means that file; a number
    // below -1 ends no walk, and the number 3 is read like 0.
    EXPECT_EQ(Load(path, 0), nullptr);  // ends the walk begun above
    block = Load(path, -2);
    EXPECT_NE(block, nullptr);
    test::FreeBlock(block);
    block = Load("", 3);
    EXPECT_NE(block, nullptr);
    test::FreeBlock(block);

    // A PCX file has no image 1; the format is still noted.
    LastImageType = TypeUnknown;
    EXPECT_EQ(Load(path, 1), nullptr);
    EXPECT_EQ(LastImageType, TypePCX);

    // A NULL name forgets the walk.
    block = Load(path, -1);
    test::FreeBlock(block);
    EXPECT_EQ(TL_IMAGE_E(nullptr, 0), nullptr);
    block = Load(path, -1);
    EXPECT_NE(block, nullptr);
    test::FreeBlock(block);
    EXPECT_EQ(TL_IMAGE_E(nullptr, 0), nullptr);
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_TRUE(guard.Same());
}

TEST(PcxReader, AWalkOverADamagedFileGoesOnToo) {
    test::LeakGuard guard;
    test::Recorder recorder;
    std::string path = Temp(Join(Header(1, 2, 16, 2), {0x00, 0x00}));  // one line of two
    EXPECT_EQ(Load(path, -1), nullptr);
    EXPECT_EQ(recorder.reports.size(), 2u);
    EXPECT_EQ(Load(path, -1), nullptr);  // the walk ends: no report
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    EXPECT_EQ(recorder.reports.size(), 2u);
    EXPECT_EQ(Load(path, -1), nullptr);  // and starts again
    EXPECT_EQ(recorder.reports.size(), 4u);
    EXPECT_EQ(TL_IMAGE_E(nullptr, 0), nullptr);

    // Only a failed open leaves the memo alone: a missing file fails each time.
    std::string missing = test::TempDir() + "/missing.pcx";
    for (int i = 0; i < 2; ++i) {
        size_t before = recorder.reports.size();
        EXPECT_EQ(ReadPCX(missing.c_str(), -1), nullptr);
        EXPECT_EQ(recorder.reports.size(), before + 1);
        TL_CLEARERROR_E();
    }
    EXPECT_EQ(ReadPCX(nullptr, 0), nullptr);
    EXPECT_TRUE(guard.Same());
}

}  // namespace
