// The TIFF reader: encoder files pixel for pixel, the refusals of directory and strip engine, the bitmap.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
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
#include "tiff/strips.h"

namespace {

using test::TiffBuilder;
using Bytes = std::vector<uint8_t>;

std::string Fixture(const std::string &file) { return test::Fixture("tiff/" + file); }
std::string Write(const TiffBuilder &b) { return test::WriteTemp("t.tif", b.Build()); }
TiffBuilder Bilevel(uint32_t w, uint32_t h, uint16_t compression, std::vector<Bytes> strips, uint32_t r = 0) {
    return TiffBuilder::Bilevel(w, h, compression, std::move(strips), r);
}
// An uncompressed 8 x 2 image: rows 0xA5 and 0x0F.
TiffBuilder Small() { return Bilevel(8, 2, 1, {{0xA5, 0x0F}}); }
TiffBuilder Mm(TiffBuilder b) { b.mm = true; return b; }
TiffBuilder NoCounts(TiffBuilder b) { b.autoCounts = false; return b; }
TiffBuilder NoOffsets(TiffBuilder b) { b.autoOffsets = false; return b; }
TiffBuilder Entries(size_t n) {  // Small() with unknown tags up to n directory entries
    TiffBuilder b = Small();
    for (uint16_t tag = 40000; b.fields.size() + 2 < n; ++tag) b.Short(tag, 1);
    return b;
}

struct Loaded {
    TL_HANDLE block = nullptr;
    std::vector<std::string> reports;  // "text", or "title: text" for titles other than "TIFF Read"
    bool pending = false, systemText = false;
};

// Loads through the export, with the name in a host's buffer of 260 bytes, or straight from the reader.
Loaded LoadQuiet(const std::string &path, int32_t number = 0, bool direct = false) {
    std::vector<char> name(path.begin(), path.end());
    name.resize(260, '\0');
    test::Recorder rec;
    Loaded r;
    r.block = direct ? ReadTIF(name.data(), number) : TL_IMAGE_E(name.data(), number);
    r.pending = ErrorStatus() != 0;
    for (auto &x : rec.reports) {
        r.reports.push_back(x.title == "TIFF Read" ? x.text : x.title + ": " + x.text);
        r.systemText |= x.withSystemText != 0;
    }
    return r;
}

// Loads a file that must load quietly; its bytes, the block freed.
Bytes LoadBytes(const std::string &path) {
    Loaded r = LoadQuiet(path);
    EXPECT_TRUE(r.reports.empty());
    Bytes bytes = r.block ? test::BlockBytes(r.block) : Bytes{};
    test::FreeBlock(r.block);
    return bytes;
}

TEST(TiffReader, EncodedFilesGiveTheirSourcePixelsAndAFullHeader) {
    test::QuietDefaults();
    std::vector<std::string> files;
    for (const char *w : {"1", "7", "8", "9", "31", "32", "33", "1728", "2480"})
        for (const char *kind : {"_none", "_lzw_mm", "_packbits"}) files.push_back(std::string("w") + w + kind);
    for (const char *f : {"strips_none_r5", "strips_lzw_r7_mm", "strips_packbits_r3", "strips_lzw_r1", "fill2_none",
                          "fill2_lzw", "fill2_packbits_mm", "photo0_none", "photo0_lzw", "photo0_packbits",
                          "photo0_w33", "pillow_none", "pillow_packbits", "pillow_lzw", "pillow_w1728_lzw", "text_none"})
        files.push_back(f);
    for (const std::string &file : files) {
        SCOPED_TRACE(file);
        std::string source = "text", part;  // wN.pbm for a file named by a width, else text.pbm
        for (std::istringstream parts(file); std::getline(parts, part, '_');)
            if (part.size() > 1 && part[0] == 'w' && isdigit(part[1])) source = part;
        test::LeakGuard guard;
        Bytes bytes = LoadBytes(Fixture(file + ".tif"));
        ASSERT_FALSE(bytes.empty());
        EXPECT_EQ(LastImageType, TypeTIFF);
        EXPECT_EQ(test::BlockDiffers(bytes, Fixture("src/" + source + ".pbm")), "");
        const uint32_t size = ((LoadU32(&bytes[4]) + 31) / 8 & ~3u) * LoadU32(&bytes[8]);
        // biSize, planes and bit count, compression, size, colours, palette white then black.
        for (auto [at, want] : {std::pair<int, uint32_t>{0, 40}, {12, 0x10001}, {16, 0}, {20, size}, {32, 2}, {36, 0},
                                {40, 0x00FFFFFF}, {44, 0}})
            EXPECT_EQ(LoadU32(&bytes[at]), want) << "at " << at;
        EXPECT_EQ(bytes.size(), 48 + size);
        EXPECT_TRUE(guard.Same());
    }
}

// ---- every way to no image: reports in order, nothing left behind ---------

TEST(TiffReader, RefusalsReportInOrderAndLeaveNothingBehind) {
    test::QuietDefaults();
    auto fixture = [](const char *f) { return test::ReadFileBytes(Fixture(f)); };
    const Bytes good = Small().Build();
    Bytes badVersion = good, badOrder = good, farDir = good;
    badVersion[2] = 43;
    badOrder[1] = 'M';  // "IM": detected as nothing, so the reader is called directly
    StoreU32(&farDir[4], 0x10000);
    const std::string bilevel = "Only bilevel images supported (non-fitting ", unknown = "Unknown compression tag";
    const std::string decode = "ReadTIF: TIFFDecodeLine failed", oom = "ReadTIF: Out of memory";
    const std::string shortRow = "Internal allocation error in line ";
    auto with = [](uint16_t tag, uint16_t v) { return Small().Short(tag, v); };
    auto strip1 = [](uint32_t count) { return Bilevel(8, 4, 1, {{1, 2}, {3, 4}}, 2).Longs(279, {2, count}); };
    auto huge = [](uint32_t w, uint32_t h) { return Bilevel(w, h, 1, {{1, 2, 3, 4}}); };
    const Bytes lzwCut = {0x80, 0x10, 0x60, 0x20};  // CLEAR, 'A', EOI at 9 bits: a row of 4 bytes cut short
    struct File {
        Bytes bytes;
        File(Bytes b) : bytes(std::move(b)) {}
        File(const TiffBuilder &b) : bytes(b.Build()) {}
    };
    struct Case {
        const char *what;
        File file;
        std::vector<std::string> reports;  // none: a silent failure, nothing pending
        bool direct = false;
    };
    const std::vector<Case> cases = {
        {"encoder: old JPEG", fixture("refuse_ojpeg.tif"), {"JPEG compression not supported"}},
        {"encoder: JPEG as 7", fixture("refuse_jpeg.tif"), {unknown}},
        {"encoder: predictor", fixture("refuse_predictor2.tif"), {"Unsupported or unknown value 2 of tag Predictor"}},
        {"version 43", badVersion, {"Invalid TIFF header (Version)"}},
        {"byte order IM", badOrder, {"Invalid TIFF header (ByteOrder)"}, true},
        {"short header", Bytes(good.begin(), good.begin() + 5), {}},
        {"directory past the end", farDir, {}},
        {"short directory", Bytes(good.begin(), good.end() - 20), {}},
        {"257 entries", Entries(257), {"dircount=257 in TIFF header too big (>256)"}},
        {"no compression tag", Small().Remove(259), {unknown}},
        {"NeXT", with(259, 32766), {"NeXT 2-bit RLE compression not supported"}},
        {"word RLE", with(259, 32771), {"Word aligned RLE compression not supported"}},
        {"ThunderScan", with(259, 32809), {"ThunderScan RLE compression not supported"}},
        {"Pixar", with(259, 32908), {"Pixar companded compression not supported"}},
        {"empty directory", TiffBuilder{}, {"Missing tag value ImageLength"}},
        {"length before compression", Small().Remove(257).Short(259, 6), {"Missing tag value ImageLength"}},
        {"zero width", Small().Long(256, 0), {"Missing tag value ImageWidth"}},
        {"compression before bits", Small().Short(258, 8).Short(259, 7), {unknown}},
        {"2 samples", with(277, 2), {bilevel + "SamplesPerPixel)"}},
        {"bits before samples", Small().Short(258, 4).Short(277, 3), {bilevel + "BitsPerSamples)"}},
        {"BitsPerSample count 3: the offset", Small().Raw(258, 3, 3, 0x200), {bilevel + "BitsPerSamples)"}},
        {"no offsets", NoOffsets(Small()), {"Missing tag value StripOffsets"}},
        {"two strips, no counts", NoCounts(Bilevel(8, 2, 1, {{1}, {2}}, 1)), {"Missing tag StripByteCounts"}},
        {"photometric 2", with(262, 2), {bilevel + "PhotometricInterpretation)"}},
        {"photometric before fill order", with(262, 5).Short(266, 9), {bilevel + "PhotometricInterpretation)"}},
        {"fill order 0", with(266, 0), {"Unknwon value 0 of tag FillOrder"}},
        {"fill order 3", with(266, 3), {"Unknwon value 3 of tag FillOrder"}},
        {"group3 8", Small().Long(292, 8), {"Unknown value 8 of tag Group3Options"}},
        {"group4 3", Small().Long(293, 3), {"Unknown value 3 of tag Group4Options"}},
        {"257 strips", NoOffsets(NoCounts(Bilevel(8, 257, 1, {Bytes(257)}, 1))),
         {"stripcount=257 in TIFF header too big (>256)"}},
        {"strip array beyond the file", Bilevel(8, 3, 1, {{1}, {2}, {3}}, 1).Raw(273, 4, 3, 0x7FFFFF00),
         {"Unexpected contents of tag field 273"}},
        {"strip array as RATIONAL past the table", Bilevel(8, 200, 1, {Bytes(200)}, 1).Raw(273, 5, 200, 8),
         {"Unexpected contents of tag field 273"}},
        {"ImageWidth as BYTE", Small().Byte(256, 8), {}},
        {"strip table count not the strip count", Bilevel(8, 2, 1, {{1}, {2}}, 1).Longs(273, {8, 9, 10}), {}},
        {"rational past the end", Small().Raw(282, 5, 1, 0x7FFFFFF0), {}},
        // The strip engine: the rows before the fault are decoded, then the image is refused.
        {"strip 1 count 0", strip1(0), {"Invalid StripByteCount 0 in strip 1", decode}},
        {"strip 1 past file and image", strip1(0x7FFFFFFFu), {"Invalid StripByteCount 2147483647 in strip 1", decode}},
        {"strip shorter than its rows", Bilevel(16, 3, 1, {{1, 2, 3, 4, 5}}), {shortRow + "2", decode}},
        {"LZW row cut by EOI", Bilevel(32, 1, 5, {lzwCut}), {"Unexpected code in line 0", decode}},
        {"LZW strip in the reversed bit order", Bilevel(32, 1, 5, {{0x00, 0x01, 0x02}}), {decode}},
        {"LZW second strip cut", Bilevel(8, 2, 5, {lzwCut, {0x80, 0x40, 0x40}}, 1),
         {"Unexpected code in line 1", decode}},
        // CLEAR, 0x04, EOI: the second byte is odd.  A strip of one byte 0 then reads its second byte
        // from the strip buffer, left by the strip before: CLEAR in the reversed bit order, refused.
        {"LZW strip of one byte behind an odd second byte",
         Bilevel(8, 3, 5, {{0x80, 0x01, 0x20, 0x20}, {0x00}, {0x80, 0x01, 0x20, 0x20}}, 1), {decode}},
        {"PackBits short", Bilevel(32, 2, 32773, {{0x03, 1, 2, 3, 4, 0x01, 5}}), {shortRow + "1", decode}},
        // Group 4 rows of 8 white pixels (V0) and a bad code (seven 0 bits) in row 1 of 4.
        {"G4 bad code in a middle row", Bilevel(8, 4, 4, {{0x80, 0x00, 0x00}}), {"Unexpected code in line 1", decode}},
        {"PackBits short in a middle row", Bilevel(32, 4, 32773, {{0x03, 1, 2, 3, 4, 0x01, 5}}), {shortRow + "1", decode}},
        {"width 2^31", huge(0x80000000u, 1), {oom}},
        {"length 2^31", huge(1, 0x80000000u), {oom}},
        {"2^18 x 2^16", huge(0x40000, 0x10000), {oom}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        test::LeakGuard guard;
        Loaded r = LoadQuiet(test::WriteTemp("r.tif", c.file.bytes), 0, c.direct);
        EXPECT_EQ(r.block, nullptr);
        EXPECT_EQ(r.reports, c.reports);
        EXPECT_EQ(r.pending, !c.reports.empty());
        EXPECT_FALSE(r.systemText);
        EXPECT_TRUE(c.direct || LastImageType == TypeTIFF);
        EXPECT_TRUE(guard.Same()) << "blocks, LZW and fax state, file released";
    }
}

TEST(TiffReader, LenientFieldsAndResolution) {
    test::QuietDefaults();
    // A count reaching past the end of the file, no longer than the file, stands when compressed.
    TiffBuilder pastEnd = Bilevel(8, 1, 32773, {{0x00, 0x7F}}).Long(279, 0);
    pastEnd.Long(279, uint32_t(pastEnd.Build().size() - 4));
    auto dpi = [](uint16_t unit, uint32_t numerator, uint32_t denominator) {
        TiffBuilder b = Small().Rational(282, numerator, denominator);
        return unit ? b.Short(296, unit) : b;
    };
    const uint32_t top = 0xFFFFFF5A;  // the top row 0xA5 complemented, padding 1
    struct Case {
        const char *what;
        TiffBuilder file;
        size_t at;  // a 32-bit word of the bitmap
        uint32_t want;
    } cases[] = {
        {"256 entries", Entries(256), 52, top},
        {"FillOrder as BYTE stays 1", Small().Byte(266, 2), 52, top},
        {"compressed count past the end", pastEnd, 48, 0xFFFFFF80},
        {"300 per inch", dpi(2, 300, 1), 24, 11810},
        {"no YResolution", dpi(2, 300, 1), 28, 0},
        {"118 per cm", dpi(3, 118, 1), 24, 11800},
        {"no unit", dpi(0, 300, 1), 24, 0},
        {"denominator 0", dpi(2, 300, 0), 24, 0},
        {"4e9 per cm", dpi(3, 4000000000u, 1), 24, 0},
        {"LONG: a whole number per unit", Small().Long(282, 300).Short(296, 2), 24, 11810},
        // MM files between II ones: the same numbers, photometric 0 as a SHORT in the top bits.
        {"MM: X 600/2 per inch", Mm(dpi(2, 600, 2)), 24, 11810},
        {"MM: Y 600/2 per inch", Mm(dpi(2, 300, 1).Rational(283, 600, 2)), 28, 11810},
        {"MM: photometric 0", Mm(Small().Short(262, 0)), 52, 0xA5},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Bytes bytes = LoadBytes(Write(c.file));
        ASSERT_GE(bytes.size(), c.at + 4);
        EXPECT_EQ(LoadU32(&bytes[c.at]), c.want);
    }
}

// ---- the directory as TiffOpen leaves it --------------------------------

int32_t Open(const TiffBuilder &b) {
    std::string path = Write(b);
    test::Recorder rec;
    return TiffOpen(path.c_str());
}

TEST(TiffDirectory, StripTablesRowsPerStripAndByteCounts) {
    test::QuietDefaults();
    // SHORT tables of one and two values stand in the entry; three come from the file.
    for (bool mm : {false, true})
        for (uint16_t n : {1, 2, 3}) {
            SCOPED_TRACE(testing::Message() << (mm ? "MM " : "II ") << n);
            TiffBuilder b = Bilevel(8, 2 * n, 1, std::vector<Bytes>(n, Bytes(2)), 2);
            const uint16_t at[] = {8, 10, 12};
            b.Shorts(273, std::vector<uint16_t>(at, at + n)).Shorts(279, std::vector<uint16_t>(n, 2)).mm = mm;
            ASSERT_EQ(Open(b), 1);
            EXPECT_EQ(TiffImage.stripsPerImage, n);
            for (uint32_t i = 0; i < n; ++i)
                EXPECT_TRUE(TiffImage.stripOffsets[i] == at[i] && TiffImage.stripByteCounts[i] == 2) << i;
            TiffClose();
        }
    // RowsPerStrip absent, 0, above the length or near 2^32: one strip.
    for (auto [rows, want] :
         {std::pair<uint32_t, uint32_t>{0, 0xFFFFFFFFu}, {0, 2}, {1000, 1000}, {0xFFFFFFF0u, 0xFFFFFFF0u}}) {
        TiffBuilder b = Small();
        if (want != 0xFFFFFFFFu) b.Long(278, rows);
        ASSERT_EQ(Open(b), 1) << rows;
        EXPECT_EQ(TiffImage.stripsPerImage, 1u) << rows;
        EXPECT_EQ(TiffImage.rowsPerStrip, want);
        TiffClose();
    }
    // Estimates.  Uncompressed: a count of 0, past the file, or none is length x scanline.
    // Compressed: a count past the file stands; none is the file less directory and outside values.
    TiffBuilder b = Bilevel(16, 3, 1, {Bytes(6, 0x55)});
    auto estimate = [&](TiffBuilder &file) {
        EXPECT_EQ(Open(file), 1);
        uint32_t count = TiffImage.stripByteCounts[0];
        TiffClose();
        return count;
    };
    EXPECT_EQ(estimate(b.Long(279, 0)), 6u);
    EXPECT_EQ(estimate(b.Long(279, 5000)), 6u);
    b.Remove(279).autoCounts = false;
    EXPECT_EQ(estimate(b), 6u);
    EXPECT_EQ(estimate(b.Short(259, 32773).Long(279, 5000)), 5000u);
    b.Remove(279).Rational(282, 300, 1).Rational(283, 300, 1);
    // Entries 256 257 258 259 273 282 283, and two rationals outside.
    EXPECT_EQ(estimate(b), b.Build().size() - (7 * 12 + 14 + 16));
    // Photometric by compression when the tag is absent.
    for (uint16_t compression : {1, 2, 4, 5}) {
        const bool ccitt = compression >= 2 && compression <= 4;
        ASSERT_EQ(Open(Bilevel(8, 1, compression, {{0x80, 0}})), 1) << compression;
        EXPECT_EQ(TiffImage.photometric, ccitt ? 0 : 1) << compression;
        EXPECT_EQ(TiffImage.isCcitt, ccitt);
        TiffClose();
    }
}

// ---- the strip engine ----------------------------------------------------

uint8_t ReverseByte(uint8_t v) {
    uint8_t r = 0;
    for (int b = 0; b < 8; ++b)
        if (v & (1u << b)) r |= uint8_t(0x80u >> b);
    return r;
}

TEST(TiffLines, StripBufferSkipsRestartsAndFillOrder) {
    test::QuietDefaults();
    test::LeakGuard guard;
    auto line = [](uint32_t n) {  // the row's two bytes
        uint8_t row[2] = {};
        EXPECT_NE(TIFFDecodeLine(row, n), 0) << "line " << n;
        return row[0] << 8 | row[1];
    };
    // Strips of 2, 1024, 1025 and 10 bytes, all inside the file, are decoded where the file's read window
    // has them: no strip buffer.  With a strip of 1 byte, or in FillOrder 2, they are copied: buffers of
    // 1024, 1024, 2048 and 2048; only the third allocates anew.
    ASSERT_EQ(Open(Bilevel(8, 4, 1, {Bytes(2, 1), Bytes(1024, 2), Bytes(1025, 3), Bytes(10, 4)}, 1)), 1);
    for (uint32_t n = 0; n < 4; ++n) EXPECT_EQ(line(n), int(n + 1) << 8);
    EXPECT_EQ(TiffImage.stripBuffer.handle, 0u);
    TiffClose();
    const auto strips = Bilevel(8, 4, 1, {Bytes(1, 1), Bytes(1024, 2), Bytes(1025, 3), Bytes(10, 4)}, 1);
    ASSERT_EQ(Open(strips), 1);
    for (uint32_t n = 0; n < 4; ++n) EXPECT_EQ(line(n), int(n + 1) << 8);
    EXPECT_EQ(TiffImage.stripBufferSize, 2048);
    TiffClose();
    ASSERT_EQ(Open(TiffBuilder(strips).Short(266, 2)), 1);
    uint32_t handles[4];
    for (uint32_t n = 0; n < 4; ++n) {
        EXPECT_EQ(line(n), int(ReverseByte(uint8_t(n + 1))) << 8);
        EXPECT_EQ(TiffImage.stripBufferSize, n < 2 ? 1024 : 2048) << n;
        EXPECT_EQ(TiffImage.currentStrip, n);
        EXPECT_EQ(TiffImage.currentRow, n + 1);
        handles[n] = TiffImage.stripBuffer.handle;
    }
    EXPECT_TRUE(handles[1] == handles[0] && handles[3] == handles[2]);
    TiffClose();
    EXPECT_EQ(TiffImage.stripBuffer.handle, 0u);
    // Uncompressed lines skip forward in a strip, start it again for an earlier line, and stop at the image.
    ASSERT_EQ(Open(Bilevel(8, 6, 1, {{1, 2, 3, 4, 5}, {6}}, 5)), 1);
    EXPECT_EQ(line(3), 4 << 8);
    EXPECT_EQ(line(4), 5 << 8);
    EXPECT_EQ(TiffImage.rawLeft, 0) << "the last row takes exactly the bytes left";
    EXPECT_EQ(line(1), 2 << 8);
    EXPECT_EQ(line(5), 6 << 8);
    EXPECT_EQ(TiffImage.currentRow, 6u);
    {
        test::Recorder rec;
        uint8_t row = 0;
        EXPECT_EQ(TIFFDecodeLine(&row, 6), 0);
        ASSERT_EQ(rec.reports.size(), 1u);
        EXPECT_EQ(rec.reports[0].text, "Internal allocation error in line 6");
    }
    TiffClose();
    // FillOrder 2 reverses the strip once per load (PackBits' control bytes too), also when line 1 restarts it.
    for (auto [compression, strip] : {std::pair<uint16_t, Bytes>{1, {0x80, 0xC0, 0xE0, 0xF0}},
                                      {32773, {0x80, 0x80, 0xC0, 0x80, 0xE0, 0xF0}}}) {
        ASSERT_EQ(Open(Bilevel(16, 2, compression, {strip}).Short(266, 2)), 1);
        for (int pass = 0; pass < 3; ++pass) {
            EXPECT_EQ(line(0), 0x0103) << compression;
            EXPECT_EQ(line(1), 0x070F) << compression;
        }
        TiffClose();
    }
    EXPECT_TRUE(guard.Same());
}

// Strips decoded where the file's read window has them, in a file several
// windows long: strips that cross a window's end, and strips stored in the
// reverse order, read by seeking back.  Each row comes out as stored.
TEST(TiffReader, StripsReadInPlaceAcrossWindowsAndSeeks) {
    test::QuietDefaults();
    test::LeakGuard guard;
    const uint32_t width = 8192, rowsPerStrip = 7, strips = 90, stripBytes = 1024 * rowsPerStrip;
    const uint32_t height = rowsPerStrip * strips;
    std::vector<Bytes> data(strips);
    uint32_t seed = 1;
    for (auto &strip : data)
        for (uint32_t i = 0; i < stripBytes; ++i) strip.push_back(uint8_t((seed = seed * 1103515245u + 12345u) >> 16));
    for (bool reversed : {false, true}) {
        SCOPED_TRACE(reversed ? "stored in reverse" : "stored in order");
        TiffBuilder b = Bilevel(width, height, 1, data, rowsPerStrip).Short(262, 0);
        if (reversed) {
            b.strips.assign(data.rbegin(), data.rend());
            std::vector<uint32_t> offsets;
            for (uint32_t k = 0; k < strips; ++k) offsets.push_back(8 + (strips - 1 - k) * stripBytes);
            b.Longs(273, offsets);
        }
        const Bytes bits = LoadBytes(Write(b));
        ASSERT_EQ(bits.size(), 48 + size_t(height) * 1024);
        for (uint32_t row = 0; row < height; ++row) {
            const Bytes &strip = data[row / rowsPerStrip];
            const auto from = strip.begin() + long(row % rowsPerStrip) * 1024;
            const auto at = bits.begin() + 48 + long(height - 1 - row) * 1024;
            ASSERT_TRUE(std::equal(from, from + 1024, at)) << "row " << row;
        }
    }
    EXPECT_TRUE(guard.Same());
}

// A strip that lies past the file's end reads nothing, and its decoder
// meets what the strip buffer holds: the bytes of the strip before.  So no
// strip of such an image is read in place, or the buffer would not hold them.
TEST(TiffReader, AStripPastTheFileMeetsTheStripBefore) {
    test::QuietDefaults();
    test::LeakGuard guard;
    // PackBits rows of 32 pixels, one a strip; the third strip's offset is far past the file.
    TiffBuilder b = Bilevel(32, 3, 32773, {{0x03, 1, 2, 3, 4}, {0x03, 5, 6, 7, 8}, {0x03, 9, 9, 9, 9}}, 1).Short(262, 0);
    b.Longs(273, {8, 13, 0x100000});
    const Bytes bits = LoadBytes(Write(b));
    ASSERT_EQ(bits.size(), 48 + 3 * 4u);
    EXPECT_EQ(Bytes(bits.begin() + 48, bits.end()), (Bytes{5, 6, 7, 8, 5, 6, 7, 8, 1, 2, 3, 4})) << "bottom row first";
    EXPECT_TRUE(guard.Same());
}

// A strip that claims more rows than the file holds: the strip buffer holds
// what the file has, the rows behind it stay zero without being copied one
// by one, and a count that ends before the strip does still reports at its
// row.  The first file declares 50.4 million rows over 8 bytes of data.
TEST(TiffLines, UncompressedRowsPastTheFileCostNoBufferAndNoCopies) {
    test::QuietDefaults();
    test::LeakGuard guard;
    const Bytes data = {0x81, 0x42, 0x24, 0x18, 0xFF, 0x00, 0x00, 0xFF};
    const uint32_t huge = 50400000;
    ASSERT_EQ(Open(NoCounts(Bilevel(16, huge, 1, {data}))), 1);
    EXPECT_EQ(TiffImage.stripByteCounts[0], huge * 2);
    ASSERT_EQ(LoadStrip(0), 1);
    EXPECT_LE(TiffImage.stripBufferSize, 1024) << "no larger than the file";
    TiffClose();
    // Whole loads: each row is the file's bytes at its place in its strip, or
    // zero behind the file's end; complemented, as photometric 1 is.
    const struct {
        const char *what;
        TiffBuilder file;
        uint32_t rows, rowsPerStrip;
        std::vector<std::string> reports;
    } cases[] = {
        {"no count: the image's", NoCounts(Bilevel(16, 5000000, 1, {data})), 5000000, 5000000, {}},
        {"a count of 3 rows over 10", Bilevel(16, 10, 1, {data}).Long(279, 6), 3, 10,
         {"Internal allocation error in line 3", "ReadTIF: TIFFDecodeLine failed"}},
        {"strips of 4 rows, the second past the file", Bilevel(16, 8, 1, {data, {0x3C}}, 4).Longs(279, {8, 8}), 8, 4, {}},
        {"a strip of 40 rows for 3", Bilevel(16, 3, 1, {Bytes(80, 0x5A)}), 3, 3, {}},
        // Wholly behind the file: below 2 GiB the seek succeeds and the read is empty;
        // from 2 GiB on the seek fails, and with it the strip.
        {"a strip at 0x7FFFFF00", Bilevel(16, 3, 1, {data}).Long(273, 0x7FFFFF00), 3, 3, {}},
        {"a strip at 0xFFFFFF00", Bilevel(16, 3, 1, {data}).Long(273, 0xFFFFFF00), 3, 3, {"ReadTIF: TIFFDecodeLine failed"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        const Bytes file = c.file.Build();
        ASSERT_EQ(Open(c.file), 1);
        std::vector<uint32_t> offsets(TiffImage.stripOffsets, TiffImage.stripOffsets + TiffImage.stripsPerImage);
        TiffClose();
        Loaded r = LoadQuiet(test::WriteTemp("t.tif", file));
        EXPECT_EQ(r.reports, c.reports);
        if (!r.block) continue;
        Bytes bits = test::BlockBytes(r.block);
        test::FreeBlock(r.block);
        ASSERT_EQ(bits.size(), 48 + size_t(c.rows) * 4);
        EXPECT_EQ(Bytes(bits.begin() + 40, bits.begin() + 48), (Bytes{255, 255, 255, 0, 0, 0, 0, 0})) << "the palette";
        for (size_t row = 0; row < c.rows; row += row < 20 ? 1 : 99991) {
            const uint8_t *at = &bits[48 + (c.rows - 1 - row) * 4];  // the top row last
            for (size_t i = 0; i < 2; ++i) {
                const size_t place = offsets[row / c.rowsPerStrip] + (row % c.rowsPerStrip) * 2 + i;
                EXPECT_EQ(at[i], uint8_t(~(place < file.size() ? file[place] : 0))) << row;
            }
        }
    }
    EXPECT_TRUE(guard.Same());
}

// Blocks of uncompressed, LZW and PackBits images are not zero-filled
// first: what no decoder writes, the pad behind each row and the rows of
// an uncompressed strip behind the file's end, is cleared by the reader.
// Blocks freed before the load, full of black, must not show through.
TEST(TiffReader, BlocksNotZeroFilledFirstHoldNoStaleBytes) {
    test::QuietDefaults();
    test::LeakGuard guard;
    const Bytes row = {0x81, 0x42, 0x24, 0x18, 0x3C};  // 40 pixels: 5 bytes and 3 of pad
    const Bytes packed = {0x04, 0x81, 0x42, 0x24, 0x18, 0x3C};
    Bytes rows, packBits;
    for (int r = 0; r < 8; ++r) {
        rows.insert(rows.end(), row.begin(), row.end());
        packBits.insert(packBits.end(), packed.begin(), packed.end());
    }
    const struct {
        const char *what;
        TiffBuilder file;
        uint32_t rowsInFile;  // the rows behind are white
    } cases[] = {
        {"PackBits", Bilevel(40, 8, 32773, {packBits}).Short(262, 0), 8},
        {"uncompressed", Bilevel(40, 8, 1, {rows}).Short(262, 0), 8},
        {"uncompressed, strips of 4 rows, the second past the file's end",
         Bilevel(40, 8, 1, {Bytes(rows.begin(), rows.begin() + 20)}, 4).Short(262, 0).Longs(273, {8, 100000}).Longs(279, {20, 20}), 4},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        // Freed blocks full of black, one of which the load's block reuses.
        std::vector<TL_HANDLE> black;
        for (int i = 0; i < 8; ++i) {
            black.push_back(GlobalAlloc(GMEM_MOVEABLE, 4096));
            std::memset(GlobalLock(black.back()), 0xFF, 4096);
            GlobalUnlock(black.back());
        }
        for (TL_HANDLE b : black) GlobalFree(b);
        const Bytes bits = LoadBytes(Write(c.file));
        ASSERT_EQ(bits.size(), 48 + 8 * 8u);
        for (uint32_t r = 0; r < 8; ++r) {
            const auto at = bits.begin() + ptrdiff_t(48 + (7 - r) * 8);
            EXPECT_EQ(Bytes(at, at + 5), r < c.rowsInFile ? row : Bytes(5, 0)) << "row " << r;
            EXPECT_EQ(Bytes(at + 5, at + 8), Bytes(3, 0)) << "pad of row " << r;
        }
    }
    EXPECT_TRUE(guard.Same());
}

// ---- the image-number protocol -------------------------------------------

TEST(TiffReader, WalksAndMemo) {
    test::QuietDefaults();
    const std::string good = Fixture("w8_none.tif"), bad = Fixture("refuse_tiled.tif");
    // A walk over a failing file: a report, then 0 quietly (the memo was written), then a new try.
    Loaded a = LoadQuiet(bad, -1), b = LoadQuiet(bad, -1), c = LoadQuiet(bad, -1);
    EXPECT_EQ(a.reports.size(), 1u);
    EXPECT_TRUE(b.reports.empty());
    EXPECT_FALSE(b.pending);
    EXPECT_EQ(c.reports.size(), 1u);
    // An empty name reaches TiffOpen as empty: the memo names `bad`, but reading `good` cleared its flag.
    EXPECT_FALSE(LoadBytes(good).empty());
    EXPECT_EQ(LoadQuiet("", 0, true).reports, std::vector<std::string>{"TOPEN: TL_OPEN  empty filename"});
    // A null name resets the memo, quietly, and leaves the reader's file alone.
    test::Recorder rec;
    EXPECT_EQ(ReadTIF(nullptr, 0), nullptr);
    EXPECT_TRUE(rec.reports.empty());
    EXPECT_EQ(TiffImage.tiffFile, NoFile);
}

}  // namespace
