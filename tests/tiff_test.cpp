// The TIFF reader: files from independent encoders pixel for pixel, every
// refusal of the directory, the strip engine and the bitmap it builds.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/image.h"
#include "platform/win32.h"
#include "services/errors.h"
#include "support/pnm.h"
#include "support/support.h"
#include "support/tiff_builder.h"
#include "tiff/directory.h"
#include "tiff/lines.h"

namespace {

using test::TiffBuilder;

TL_HANDLE Load(const std::string &path, int32_t number = 0) {
    std::vector<char> name(path.begin(), path.end());
    name.resize(260, '\0');
    return TL_IMAGE_E(name.data(), number);
}

std::string Fixture(const std::string &file) { return test::Fixture("tiff/" + file); }

// Writes `b` to a scratch file and gives its path.
std::string Write(const TiffBuilder &b, const std::string &name = "t.tif") {
    return test::WriteTemp(name, b.Build());
}

// An uncompressed 8 x 2 image: rows 0xA5 and 0x0F.
TiffBuilder Small() { return TiffBuilder::Bilevel(8, 2, 1, {{0xA5, 0x0F}}); }

struct Loaded {
    TL_HANDLE block = nullptr;
    std::vector<test::Report> reports;
    bool pending = false;
};

Loaded LoadQuiet(const std::string &path, int32_t number = 0) {
    test::Recorder rec;
    Loaded r;
    r.block = Load(path, number);
    r.pending = ErrorStatus() != 0;
    r.reports = rec.reports;
    return r;
}

// ---- files from encoders ------------------------------------------------

struct EncodedCase {
    const char *file;
    const char *source;
};

const EncodedCase EncodedFiles[] = {
    {"w1_none.tif", "w1.pbm"},         {"w1_lzw_mm.tif", "w1.pbm"},         {"w1_packbits.tif", "w1.pbm"},
    {"w7_none.tif", "w7.pbm"},         {"w7_lzw_mm.tif", "w7.pbm"},         {"w7_packbits.tif", "w7.pbm"},
    {"w8_none.tif", "w8.pbm"},         {"w8_lzw_mm.tif", "w8.pbm"},         {"w8_packbits.tif", "w8.pbm"},
    {"w9_none.tif", "w9.pbm"},         {"w9_lzw_mm.tif", "w9.pbm"},         {"w9_packbits.tif", "w9.pbm"},
    {"w31_none.tif", "w31.pbm"},       {"w31_lzw_mm.tif", "w31.pbm"},       {"w31_packbits.tif", "w31.pbm"},
    {"w32_none.tif", "w32.pbm"},       {"w32_lzw_mm.tif", "w32.pbm"},       {"w32_packbits.tif", "w32.pbm"},
    {"w33_none.tif", "w33.pbm"},       {"w33_lzw_mm.tif", "w33.pbm"},       {"w33_packbits.tif", "w33.pbm"},
    {"w1728_none.tif", "w1728.pbm"},   {"w1728_lzw_mm.tif", "w1728.pbm"},   {"w1728_packbits.tif", "w1728.pbm"},
    {"w2480_none.tif", "w2480.pbm"},   {"w2480_lzw_mm.tif", "w2480.pbm"},   {"w2480_packbits.tif", "w2480.pbm"},
    {"strips_none_r5.tif", "text.pbm"}, {"strips_lzw_r7_mm.tif", "text.pbm"},
    {"strips_packbits_r3.tif", "text.pbm"}, {"strips_lzw_r1.tif", "text.pbm"},
    {"fill2_none.tif", "text.pbm"},    {"fill2_lzw.tif", "text.pbm"},       {"fill2_packbits_mm.tif", "text.pbm"},
    {"photo0_none.tif", "text.pbm"},   {"photo0_lzw.tif", "text.pbm"},      {"photo0_packbits.tif", "text.pbm"},
    {"photo0_w33.tif", "w33.pbm"},     {"pillow_none.tif", "text.pbm"},     {"pillow_packbits.tif", "text.pbm"},
    {"pillow_lzw.tif", "text.pbm"},    {"pillow_w1728_lzw.tif", "w1728.pbm"}, {"text_none.tif", "text.pbm"},
};

TEST(TiffReader, EncodedFilesGiveTheirSourcePixelsAndAFullHeader) {
    test::QuietDefaults();
    for (const EncodedCase &c : EncodedFiles) {
        SCOPED_TRACE(c.file);
        test::LeakGuard guard;
        TL_HANDLE block = Load(Fixture(c.file));
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(LastImageType, TypeTIFF);
        EXPECT_EQ(ErrorStatus(), 0);
        std::vector<uint8_t> bytes = test::BlockBytes(block);
        test::Rgb expected, actual;
        ASSERT_TRUE(test::ReadPnm(test::Fixture(std::string("tiff/src/") + c.source), expected));
        ASSERT_TRUE(test::DibToRgb(bytes, actual));
        EXPECT_EQ(test::FirstDifference(expected, actual), "");

        const uint32_t width = LoadU32(&bytes[4]), height = LoadU32(&bytes[8]);
        const uint32_t rowBytes = ((width + 31) / 8) & ~3u;
        EXPECT_EQ(LoadU32(&bytes[0]), 40u);
        EXPECT_EQ(LoadU16(&bytes[12]), 1);
        EXPECT_EQ(LoadU16(&bytes[14]), 1);
        EXPECT_EQ(LoadU32(&bytes[16]), 0u);
        EXPECT_EQ(LoadU32(&bytes[20]), rowBytes * height);
        EXPECT_EQ(LoadU32(&bytes[32]), 2u);
        EXPECT_EQ(LoadU32(&bytes[36]), 0u);
        EXPECT_EQ(LoadU32(&bytes[40]), 0x00FFFFFFu) << "entry 0 white";
        EXPECT_EQ(LoadU32(&bytes[44]), 0u) << "entry 1 black";
        EXPECT_EQ(bytes.size(), 48 + rowBytes * height);
        test::FreeBlock(block);
        EXPECT_TRUE(guard.Same());
    }
}

TEST(TiffReader, RowBytesPaddingAndPhotometric) {
    test::QuietDefaults();
    // Width 1: row bytes 4, scanline 1; 33: 8 and 5; 32: 4 and 4.  With
    // photometric 1 the padding turns to 1 with the pixels; with 0 it stays 0.
    struct Case {
        uint32_t width, rowBytes, scanline;
    } cases[] = {{1, 4, 1}, {33, 8, 5}, {32, 4, 4}};
    for (const Case &c : cases) {
        for (uint16_t photometric : {0, 1}) {
            SCOPED_TRACE(testing::Message() << c.width << " photometric " << photometric);
            std::vector<uint8_t> strip(c.scanline * 2);
            for (size_t i = 0; i < strip.size(); ++i) strip[i] = uint8_t(0x81 + i);
            TiffBuilder b = TiffBuilder::Bilevel(c.width, 2, 1, {strip});
            b.Short(262, photometric);
            TL_HANDLE block = Load(Write(b));
            ASSERT_NE(block, nullptr);
            std::vector<uint8_t> bytes = test::BlockBytes(block);
            ASSERT_EQ(bytes.size(), 48 + 2 * c.rowBytes);
            // The file's first row lies at the highest row address.
            const uint8_t *top = &bytes[48 + c.rowBytes], *bottom = &bytes[48];
            const uint8_t flip = photometric == 1 ? 0xFF : 0x00;
            for (uint32_t i = 0; i < c.rowBytes; ++i) {
                uint8_t want0 = i < c.scanline ? strip[i] : 0, want1 = i < c.scanline ? strip[c.scanline + i] : 0;
                EXPECT_EQ(top[i], uint8_t(want0 ^ flip)) << i;
                EXPECT_EQ(bottom[i], uint8_t(want1 ^ flip)) << i;
            }
            test::FreeBlock(block);
        }
    }
}

// ---- refusals ------------------------------------------------------------

TEST(TiffReader, EncodedRefusalsReportTheirMessage) {
    test::QuietDefaults();
    struct Case {
        const char *file, *text;
    } cases[] = {
        {"refuse_gray8.tif", "Only bilevel images supported (non-fitting BitsPerSamples)"},
        {"refuse_rgb.tif", "Only bilevel images supported (non-fitting BitsPerSamples)"},
        {"refuse_tiled.tif", "Missing tag value StripOffsets"},
        {"refuse_ojpeg.tif", "JPEG compression not supported"},
        {"refuse_jpeg.tif", "Unknown compression tag"},     // ImageMagick writes JPEG as 7
        {"refuse_deflate.tif", "Unknown compression tag"},
        {"refuse_predictor2.tif", "Unsupported or unknown value 2 of tag Predictor"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.file);
        test::LeakGuard guard;
        Loaded r = LoadQuiet(Fixture(c.file));
        EXPECT_EQ(r.block, nullptr);
        ASSERT_EQ(r.reports.size(), 1u);
        EXPECT_EQ(r.reports[0].title, "TIFF Read");
        EXPECT_EQ(r.reports[0].text, c.text);
        EXPECT_EQ(r.reports[0].withSystemText, 0);
        EXPECT_EQ(LastImageType, TypeTIFF);
        EXPECT_TRUE(guard.Same());
    }
}

TEST(TiffDirectory, RefusalsComeWithTheirMessagesInOrder) {
    test::QuietDefaults();
    struct Case {
        const char *what;
        TiffBuilder file;
        const char *text;
    };
    auto with = [](TiffBuilder b, auto change) {
        change(b);
        return b;
    };
    std::vector<Case> cases = {
        {"no compression tag", with(Small(), [](TiffBuilder &b) { b.Remove(259); }), "Unknown compression tag"},
        {"compression 7", with(Small(), [](TiffBuilder &b) { b.Short(259, 7); }), "Unknown compression tag"},
        {"compression 6", with(Small(), [](TiffBuilder &b) { b.Short(259, 6); }), "JPEG compression not supported"},
        {"NeXT", with(Small(), [](TiffBuilder &b) { b.Short(259, 32766); }), "NeXT 2-bit RLE compression not supported"},
        {"word RLE", with(Small(), [](TiffBuilder &b) { b.Short(259, 32771); }), "Word aligned RLE compression not supported"},
        {"ThunderScan", with(Small(), [](TiffBuilder &b) { b.Short(259, 32809); }), "ThunderScan RLE compression not supported"},
        {"Pixar", with(Small(), [](TiffBuilder &b) { b.Short(259, 32908); }), "Pixar companded compression not supported"},
        {"empty directory", TiffBuilder{}, "Missing tag value ImageLength"},
        {"no length", with(Small(), [](TiffBuilder &b) { b.Remove(257); }), "Missing tag value ImageLength"},
        {"zero width", with(Small(), [](TiffBuilder &b) { b.Long(256, 0); }), "Missing tag value ImageWidth"},
        {"length before compression", with(Small(), [](TiffBuilder &b) { b.Remove(257).Short(259, 6); }),
         "Missing tag value ImageLength"},
        {"compression before bits", with(Small(), [](TiffBuilder &b) { b.Short(258, 8).Short(259, 7); }),
         "Unknown compression tag"},
        {"2 samples", with(Small(), [](TiffBuilder &b) { b.Short(277, 2); }),
         "Only bilevel images supported (non-fitting SamplesPerPixel)"},
        {"bits before samples", with(Small(), [](TiffBuilder &b) { b.Short(258, 4).Short(277, 3); }),
         "Only bilevel images supported (non-fitting BitsPerSamples)"},
        {"BitsPerSample count 3 points at an offset",
         with(Small(), [](TiffBuilder &b) { b.Raw(258, 3, 3, 0x00000200); }),
         "Only bilevel images supported (non-fitting BitsPerSamples)"},
        {"no offsets", with(Small(), [](TiffBuilder &b) { b.autoOffsets = false; }), "Missing tag value StripOffsets"},
        {"two strips, no counts",
         with(TiffBuilder::Bilevel(8, 2, 1, {{1}, {2}}, 1), [](TiffBuilder &b) { b.autoCounts = false; }),
         "Missing tag StripByteCounts"},
        {"photometric 2", with(Small(), [](TiffBuilder &b) { b.Short(262, 2); }),
         "Only bilevel images supported (non-fitting PhotometricInterpretation)"},
        {"fill order 0", with(Small(), [](TiffBuilder &b) { b.Short(266, 0); }), "Unknwon value 0 of tag FillOrder"},
        {"fill order 3", with(Small(), [](TiffBuilder &b) { b.Short(266, 3); }), "Unknwon value 3 of tag FillOrder"},
        {"group3 8", with(Small(), [](TiffBuilder &b) { b.Long(292, 8); }), "Unknown value 8 of tag Group3Options"},
        {"group4 3", with(Small(), [](TiffBuilder &b) { b.Long(293, 3); }), "Unknown value 3 of tag Group4Options"},
        {"predictor 2", with(Small(), [](TiffBuilder &b) { b.Short(317, 2); }),
         "Unsupported or unknown value 2 of tag Predictor"},
        {"photometric before fill order", with(Small(), [](TiffBuilder &b) { b.Short(262, 5).Short(266, 9); }),
         "Only bilevel images supported (non-fitting PhotometricInterpretation)"},
        {"257 strips", with(TiffBuilder::Bilevel(8, 257, 1, {std::vector<uint8_t>(257)}, 1),
                            [](TiffBuilder &b) { b.autoOffsets = b.autoCounts = false; }),
         "stripcount=257 in TIFF header too big (>256)"},
        {"strip array beyond the file", with(TiffBuilder::Bilevel(8, 3, 1, {{1}, {2}, {3}}, 1),
                                             [](TiffBuilder &b) { b.Raw(273, 4, 3, 0x7FFFFF00); }),
         "Unexpected contents of tag field 273"},
        {"strip array as RATIONAL past the table",
         with(TiffBuilder::Bilevel(8, 200, 1, {std::vector<uint8_t>(200)}, 1),
              [](TiffBuilder &b) { b.Raw(273, 5, 200, 8); }),
         "Unexpected contents of tag field 273"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        test::LeakGuard guard;
        Loaded r = LoadQuiet(Write(c.file));
        EXPECT_EQ(r.block, nullptr);
        ASSERT_EQ(r.reports.size(), 1u);
        EXPECT_EQ(r.reports[0].title, "TIFF Read");
        EXPECT_EQ(r.reports[0].text, c.text);
        EXPECT_EQ(r.reports[0].withSystemText, 0);
        EXPECT_TRUE(guard.Same());
    }
}

TEST(TiffDirectory, EntryCountAndHeader) {
    test::QuietDefaults();
    // 256 entries load (the extra ones are unknown tags); 257 are refused.
    for (uint32_t entries : {256u, 257u}) {
        SCOPED_TRACE(entries);
        TiffBuilder b = Small();
        for (uint16_t tag = 40000; b.fields.size() + 2 < entries; ++tag) b.Short(tag, 1);
        test::LeakGuard guard;
        Loaded r = LoadQuiet(Write(b));
        if (entries == 256) {
            ASSERT_NE(r.block, nullptr);
            test::FreeBlock(r.block);
            EXPECT_TRUE(r.reports.empty());
        } else {
            EXPECT_EQ(r.block, nullptr);
            ASSERT_EQ(r.reports.size(), 1u);
            EXPECT_EQ(r.reports[0].text, "dircount=257 in TIFF header too big (>256)");
        }
        EXPECT_TRUE(guard.Same());
    }
    // The header: bad byte order, bad version; a short header or directory is silent.
    std::vector<uint8_t> good = Small().Build();
    struct Case {
        const char *what;
        std::vector<uint8_t> bytes;
        const char *text;  // null: no report
    };
    std::vector<uint8_t> badVersion = good, badOrder = good, farDir = good;
    badVersion[2] = 43;
    badOrder[1] = 'M';  // "IM": detected as nothing, so call the reader directly
    StoreU32(&farDir[4], 0x10000);
    std::vector<Case> cases = {
        {"version 43", badVersion, "Invalid TIFF header (Version)"},
        {"short header", std::vector<uint8_t>(good.begin(), good.begin() + 5), nullptr},
        {"directory past the end", farDir, nullptr},
        {"short directory", std::vector<uint8_t>(good.begin(), good.end() - 20), nullptr},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        test::LeakGuard guard;
        Loaded r = LoadQuiet(test::WriteTemp("h.tif", c.bytes));
        EXPECT_EQ(r.block, nullptr);
        if (c.text) {
            ASSERT_EQ(r.reports.size(), 1u);
            EXPECT_EQ(r.reports[0].text, c.text);
        } else {
            EXPECT_TRUE(r.reports.empty());
            EXPECT_FALSE(r.pending);
        }
        EXPECT_TRUE(guard.Same());
    }
    {
        test::Recorder rec;
        test::LeakGuard guard;
        EXPECT_EQ(ReadTIF(test::WriteTemp("o.tif", badOrder).c_str(), 0), nullptr);
        ASSERT_EQ(rec.reports.size(), 1u);
        EXPECT_EQ(rec.reports[0].text, "Invalid TIFF header (ByteOrder)");
        EXPECT_TRUE(guard.Same());
    }
}

TEST(TiffDirectory, SilentFailuresAndLenientFields) {
    test::QuietDefaults();
    auto load = [](TiffBuilder b) { return LoadQuiet(Write(b)); };
    // Silent: ImageWidth as BYTE, a strip table whose count is not the strip
    // count, a rational that cannot be read.
    for (auto &b : {TiffBuilder(Small()).Byte(256, 8),
                    TiffBuilder::Bilevel(8, 2, 1, {{1}, {2}}, 1).Longs(273, {8, 9, 10}),
                    TiffBuilder(Small()).Raw(282, 5, 1, 0x7FFFFFF0)}) {
        test::LeakGuard guard;
        Loaded r = load(b);
        EXPECT_EQ(r.block, nullptr);
        EXPECT_TRUE(r.reports.empty());
        EXPECT_FALSE(r.pending);
        EXPECT_TRUE(guard.Same());
    }
    // FillOrder as BYTE leaves 1 and loads; an unknown type for Photometric
    // leaves the default.  Field types above 5 are dropped.
    for (auto &b : {TiffBuilder(Small()).Byte(266, 2), TiffBuilder(Small()).Raw(262, 11, 1, 7),
                    TiffBuilder(Small()).Raw(700, 12, 1000, 5)}) {
        Loaded r = load(b);
        ASSERT_NE(r.block, nullptr);
        std::vector<uint8_t> bytes = test::BlockBytes(r.block);
        EXPECT_EQ(bytes[48 + 4], uint8_t(~0xA5)) << "photometric 1, bits in order";
        test::FreeBlock(r.block);
    }
}

TEST(TiffDirectory, StripTablesAndByteCounts) {
    test::QuietDefaults();
    auto open = [](const TiffBuilder &b) {
        std::string path = Write(b);
        test::Recorder rec;
        int32_t ok = TiffOpen(path.c_str());
        return ok;
    };
    // SHORT tables of one and two values stand in the entry; three come from the file.
    for (bool mm : {false, true}) {
        SCOPED_TRACE(mm ? "MM" : "II");
        for (uint32_t n : {1u, 2u, 3u}) {
            std::vector<std::vector<uint8_t>> strips;
            std::vector<uint16_t> offsets, counts;
            for (uint32_t i = 0; i < n; ++i) strips.push_back({uint8_t(i), 0});
            TiffBuilder b = TiffBuilder::Bilevel(8, 2 * n, 1, strips, 2);
            b.mm = mm;
            for (uint32_t i = 0; i < n; ++i) {
                offsets.push_back(uint16_t(8 + 2 * i));
                counts.push_back(2);
            }
            b.Shorts(273, offsets).Shorts(279, counts);
            ASSERT_EQ(open(b), 1);
            EXPECT_EQ(TiffImage.stripsPerImage, n);
            for (uint32_t i = 0; i < n; ++i) {
                EXPECT_EQ(TiffImage.stripOffsets[i], 8 + 2 * i);
                EXPECT_EQ(TiffImage.stripByteCounts[i], 2u);
            }
            TiffClose();
        }
    }
    // RowsPerStrip: absent, 0, above the length and near 0xFFFFFFFF all give one strip.
    for (int variant = 0; variant < 4; ++variant) {
        TiffBuilder b = Small();
        if (variant == 1) b.Long(278, 0);
        if (variant == 2) b.Long(278, 1000);
        if (variant == 3) b.Long(278, 0xFFFFFFF0u);
        ASSERT_EQ(open(b), 1) << variant;
        EXPECT_EQ(TiffImage.stripsPerImage, 1u) << variant;
        EXPECT_EQ(TiffImage.rowsPerStrip, variant == 0 ? 0xFFFFFFFFu : variant == 1 ? 2u : variant == 2 ? 1000u : 0xFFFFFFF0u);
        TiffClose();
        TL_HANDLE block = Load(Write(b));
        ASSERT_NE(block, nullptr) << variant;
        test::FreeBlock(block);
    }
    // Estimates.  Uncompressed: a count of 0, none, or one past the file
    // becomes length x scanline.  Compressed: a count past the file stands;
    // none becomes the file less the directory and outside values.
    {
        TiffBuilder b = TiffBuilder::Bilevel(16, 3, 1, {std::vector<uint8_t>(6, 0x55)});
        b.Long(279, 0);
        ASSERT_EQ(open(b), 1);
        EXPECT_EQ(TiffImage.stripByteCounts[0], 6u);
        TiffClose();
        b.Long(279, 5000);
        ASSERT_EQ(open(b), 1);
        EXPECT_EQ(TiffImage.stripByteCounts[0], 6u);
        TiffClose();
        b.Remove(279).autoCounts = false;
        ASSERT_EQ(open(b), 1);
        EXPECT_EQ(TiffImage.stripByteCounts[0], 6u);
        TiffClose();
        b.Short(259, 32773).Long(279, 5000);
        ASSERT_EQ(open(b), 1);
        EXPECT_EQ(TiffImage.stripByteCounts[0], 5000u);
        TiffClose();
        b.Remove(279).Rational(282, 300, 1).Rational(283, 300, 1);
        std::vector<uint8_t> bytes = b.Build();
        ASSERT_EQ(open(b), 1);
        // Entries: 256 257 258 259 273 282 283 = 7; two rationals outside.
        const uint32_t space = 7 * 12 + 14 + 16;
        EXPECT_EQ(TiffImage.stripByteCounts[0], bytes.size() - space);
        TiffClose();
    }
}

TEST(TiffDirectory, ByteOrdersAgree) {
    test::QuietDefaults();
    // The same image in MM and II, alternating, loads the same, resolution included.
    std::vector<uint8_t> reference;
    for (int i = 0; i < 4; ++i) {
        TiffBuilder b = TiffBuilder::Bilevel(12, 3, 1, {{0x12, 0x30, 0x45, 0x60, 0x78, 0x90}});
        b.mm = i % 2 == 1;
        b.Rational(282, 300, 1).Rational(283, 600, 2).Short(296, 2).Short(262, 0);
        ASSERT_EQ(TiffOpen(Write(b).c_str()), 1);
        EXPECT_EQ(TiffImage.xResolution.numerator, 300u);
        EXPECT_EQ(TiffImage.yResolution.denominator, 2u);
        EXPECT_EQ(TiffImage.swapBytes, b.mm);
        TiffClose();
        TL_HANDLE block = Load(Write(b));
        ASSERT_NE(block, nullptr);
        std::vector<uint8_t> bytes = test::BlockBytes(block);
        test::FreeBlock(block);
        if (reference.empty()) reference = bytes;
        EXPECT_EQ(bytes, reference) << i;
    }
    EXPECT_EQ(LoadU32(&reference[24]), 11810u);
    EXPECT_EQ(LoadU32(&reference[28]), 11810u);
}

TEST(TiffLines, ResolutionInPixelsPerMetre) {
    test::QuietDefaults();
    struct Case {
        int unit;  // 0: no ResolutionUnit tag
        uint32_t numerator, denominator;
        int32_t want;
        bool asLong = false;
    } cases[] = {
        {2, 300, 1, 11810}, {2, 200, 1, 7873}, {3, 118, 1, 11800}, {1, 300, 1, 0},
        {0, 300, 1, 0},     {2, 300, 0, 0},    {2, 600, 2, 11810}, {3, 4000000000u, 1, 0},
        {2, 300, 0, 11810, true},  // stored as LONG: a whole number per unit
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.unit << " " << c.numerator << "/" << c.denominator);
        TiffBuilder b = Small();
        if (c.asLong) b.Long(282, c.numerator);
        else b.Rational(282, c.numerator, c.denominator);
        if (c.unit) b.Short(296, uint16_t(c.unit));
        TL_HANDLE block = Load(Write(b));
        ASSERT_NE(block, nullptr);
        std::vector<uint8_t> bytes = test::BlockBytes(block);
        EXPECT_EQ(LoadI32(&bytes[24]), c.want);
        EXPECT_EQ(LoadI32(&bytes[28]), 0) << "no YResolution";
        test::FreeBlock(block);
    }
}

TEST(TiffLines, PhotometricDefaultsByCompression) {
    test::QuietDefaults();
    for (uint16_t compression : {1, 2, 3, 4, 5, 32773}) {
        TiffBuilder b = TiffBuilder::Bilevel(8, 1, compression, {{0x80, 0}});
        ASSERT_EQ(TiffOpen(Write(b).c_str()), 1) << compression;
        EXPECT_EQ(TiffPhotometric(), compression >= 2 && compression <= 4 ? 0 : 1) << compression;
        EXPECT_EQ(TiffImage.isCcitt, compression >= 2 && compression <= 4);
        TiffClose();
    }
}

// ---- the strip engine ----------------------------------------------------

TEST(TiffLines, StripBufferGrowsOnlyInStepsOf1024) {
    test::QuietDefaults();
    test::LeakGuard guard;
    std::vector<std::vector<uint8_t>> strips = {std::vector<uint8_t>(1, 1), std::vector<uint8_t>(1024, 2),
                                                std::vector<uint8_t>(1025, 3), std::vector<uint8_t>(10, 4)};
    TiffBuilder b = TiffBuilder::Bilevel(8, 4, 1, strips, 1);
    ASSERT_EQ(TiffOpen(Write(b).c_str()), 1);
    const int32_t sizes[] = {1024, 1024, 2048, 2048};
    uint32_t handles[4];
    for (uint32_t line = 0; line < 4; ++line) {
        uint8_t row = 0;
        ASSERT_NE(TIFFDecodeLine(&row, line), 0);
        EXPECT_EQ(row, line + 1);
        EXPECT_EQ(TiffImage.stripBufferSize, sizes[line]) << line;
        EXPECT_EQ(TiffImage.currentStrip, line);
        EXPECT_EQ(TiffImage.currentRow, line + 1);
        handles[line] = TiffImage.stripBuffer.handle;
    }
    EXPECT_EQ(handles[1], handles[0]) << "1024 bytes fit the first buffer";
    EXPECT_EQ(handles[3], handles[2]) << "10 bytes fit the third";
    TiffClose();
    EXPECT_EQ(TiffImage.stripBuffer.handle, 0u);
    EXPECT_TRUE(guard.Same());
}

TEST(TiffLines, FillOrder2IsReversedOncePerLoad) {
    test::QuietDefaults();
    for (uint16_t compression : {1, 32773}) {
        SCOPED_TRACE(compression);
        // Rows 0x01 0x03 / 0x07 0x0F, every byte stored reversed (the
        // PackBits control bytes 1 too, as 0x80).
        std::vector<uint8_t> strip = compression == 1 ? std::vector<uint8_t>{0x80, 0xC0, 0xE0, 0xF0}
                                                      : std::vector<uint8_t>{0x80, 0x80, 0xC0, 0x80, 0xE0, 0xF0};
        TiffBuilder b = TiffBuilder::Bilevel(16, 2, compression, {strip});
        b.Short(266, 2);
        ASSERT_EQ(TiffOpen(Write(b).c_str()), 1);
        uint8_t row[2];
        for (int pass = 0; pass < 3; ++pass) {
            // Line 0 again after line 1: the same strip starts anew, unreversed again.
            ASSERT_NE(TIFFDecodeLine(row, 0), 0);
            EXPECT_EQ(row[0], 0x01);
            EXPECT_EQ(row[1], 0x03);
            ASSERT_NE(TIFFDecodeLine(row, 1), 0);
            EXPECT_EQ(row[0], 0x07);
            EXPECT_EQ(row[1], 0x0F);
        }
        TiffClose();
    }
}

TEST(TiffLines, UncompressedLinesSkipAndStopAtTheStrip) {
    test::QuietDefaults();
    std::vector<uint8_t> strip = {1, 2, 3, 4, 5};
    TiffBuilder b = TiffBuilder::Bilevel(8, 6, 1, {strip, {6}}, 5);
    ASSERT_EQ(TiffOpen(Write(b).c_str()), 1);
    uint8_t row = 0;
    // CopyLine with rawLeft exactly the row succeeds; a skip goes forward by rows.
    ASSERT_NE(TIFFDecodeLine(&row, 3), 0);
    EXPECT_EQ(row, 4);
    ASSERT_NE(TIFFDecodeLine(&row, 4), 0);
    EXPECT_EQ(TiffImage.rawLeft, 0);
    EXPECT_EQ(row, 5);
    ASSERT_NE(TIFFDecodeLine(&row, 1), 0);
    EXPECT_EQ(row, 2);
    ASSERT_NE(TIFFDecodeLine(&row, 5), 0);
    EXPECT_EQ(row, 6);
    EXPECT_EQ(TiffImage.currentRow, 6u);
    {
        test::Recorder rec;
        EXPECT_EQ(TIFFDecodeLine(&row, 6), 0);
        ASSERT_EQ(rec.reports.size(), 1u);
        EXPECT_EQ(rec.reports[0].text, "Internal allocation error in line 6");
    }
    TiffClose();
    // A strip shorter than its rows: the row that finds too few bytes reports.
    TiffBuilder shortStrip = TiffBuilder::Bilevel(16, 3, 1, {{1, 2, 3, 4, 5}});
    Loaded r = LoadQuiet(Write(shortStrip));
    EXPECT_EQ(r.block, nullptr);
    ASSERT_EQ(r.reports.size(), 2u);
    EXPECT_EQ(r.reports[0].text, "Internal allocation error in line 2");
    EXPECT_EQ(r.reports[1].title, "ReadTIF");
    EXPECT_EQ(r.reports[1].text, "TIFFDecodeLine failed");
}

TEST(TiffLines, BadStripByteCountsRefuseTheImageWhenReached) {
    test::QuietDefaults();
    struct Case {
        uint32_t count;
        const char *text;
    } cases[] = {
        {0, "Invalid StripByteCount 0 in strip 1"},
        {0x80000001u, "Invalid StripByteCount 2147483649 in strip 1"},
        {0x7FFFFFFFu, "Invalid StripByteCount 2147483647 in strip 1"},  // more than file and image
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        test::LeakGuard guard;
        TiffBuilder b = TiffBuilder::Bilevel(8, 4, 1, {{1, 2}, {3, 4}}, 2);
        b.Longs(279, {2, c.count});
        Loaded r = LoadQuiet(Write(b));
        EXPECT_EQ(r.block, nullptr);
        ASSERT_EQ(r.reports.size(), 2u);
        EXPECT_EQ(r.reports[0].text, c.text);
        EXPECT_EQ(r.reports[1].text, "TIFFDecodeLine failed");
        EXPECT_TRUE(guard.Same());
    }
    // A count that reaches past the end of the file, but is no longer than
    // the file, stands: the strip is what the file has.
    TiffBuilder b = TiffBuilder::Bilevel(8, 1, 32773, {{0x00, 0x7F}});
    b.Long(279, 0);
    b.Long(279, uint32_t(b.Build().size() - 4));
    Loaded r = LoadQuiet(Write(b));
    ASSERT_NE(r.block, nullptr);
    std::vector<uint8_t> bytes = test::BlockBytes(r.block);
    EXPECT_EQ(bytes[48], 0x80) << "0x7F complemented";
    test::FreeBlock(r.block);
}

TEST(TiffLines, HugeSizesAreOutOfMemoryNotOverflow) {
    test::QuietDefaults();
    for (auto size : {std::pair<uint32_t, uint32_t>{0xFFFFFFFFu, 0xFFFFFFFFu}, {0x80000000u, 1}, {1, 0x80000000u},
                      {0x40000, 0x10000}}) {
        test::LeakGuard guard;
        TiffBuilder b = TiffBuilder::Bilevel(size.first, size.second, 1, {{1, 2, 3, 4}});
        Loaded r = LoadQuiet(Write(b));
        EXPECT_EQ(r.block, nullptr);
        ASSERT_GE(r.reports.size(), 1u);
        EXPECT_EQ(r.reports[0].title, "ReadTIF");
        EXPECT_EQ(r.reports[0].text, "Out of memory");
        EXPECT_TRUE(guard.Same());
    }
}

// ---- the image-number protocol -------------------------------------------

TEST(TiffReader, WalksAndMemo) {
    test::QuietDefaults();
    std::string good = Fixture("w8_none.tif");
    // A walk over a one-image file: the image, 0, the image again.
    for (int i = 0; i < 3; ++i) {
        Loaded r = LoadQuiet(good, -1);
        EXPECT_EQ(r.block != nullptr, i != 1) << i;
        EXPECT_FALSE(r.pending);
        if (r.block) test::FreeBlock(r.block);
    }
    // Image number 1 on a TIFF file: nothing, no report, type stored.
    Loaded one = LoadQuiet(good, 1);
    EXPECT_EQ(one.block, nullptr);
    EXPECT_TRUE(one.reports.empty());
    EXPECT_EQ(LastImageType, TypeTIFF);

    // A walk over a failing file: 0 with a report, then 0 quietly (the memo
    // was written after the failure), then a new try.
    std::string bad = Fixture("refuse_tiled.tif");
    Loaded a = LoadQuiet(bad, -1), b = LoadQuiet(bad, -1), c = LoadQuiet(bad, -1);
    EXPECT_EQ(a.reports.size(), 1u);
    EXPECT_TRUE(b.reports.empty());
    EXPECT_FALSE(b.pending);
    EXPECT_EQ(c.reports.size(), 1u);

    // An empty name with an EndFlag of 0 reaches TiffOpen as empty.
    Loaded d = LoadQuiet(good, 0);
    ASSERT_NE(d.block, nullptr);
    test::FreeBlock(d.block);
    // The memo still names `bad` with EndFlag 0 (the read of `good` cleared it).
    {
        test::Recorder rec;
        EXPECT_EQ(ReadTIF("", 0), nullptr);
        ASSERT_EQ(rec.reports.size(), 1u);
        EXPECT_EQ(rec.reports[0].text, "TL_OPEN  empty filename");
    }
    // A null name resets the memo and leaves the file state alone.
    EXPECT_EQ(ReadTIF(nullptr, 0), nullptr);
    ErrorClear();
}

}  // namespace
