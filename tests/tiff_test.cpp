// The TIFF reader: the strip engine's buffer, restarts and reads in place,
// strips read past the file's end, blocks that are not zero-filled first,
// and the walk.  What the encoders' files give the sources test checks; the
// reports of damaged directories and strips, among the kept inputs, the
// replay pins.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/image.h"
#include "platform/win32.h"
#include "services/errors.h"
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
TiffBuilder NoCounts(TiffBuilder b) { b.autoCounts = false; return b; }

// Loads through the export; the reports heard, as "title: text (withSystemText)".
std::vector<std::string> LoadHeard(const std::string &path, int32_t number, TL_HANDLE *block = nullptr) {
    test::Recorder recorder;
    TL_HANDLE loaded = test::Load(path, number);
    if (block) *block = loaded;
    else test::FreeBlock(loaded);
    return test::Heard(recorder);
}

// Loads a file that must load quietly; its bytes, the block freed.
Bytes LoadBytes(const std::string &path) {
    TL_HANDLE block = nullptr;
    EXPECT_TRUE(LoadHeard(path, 0, &block).empty());
    Bytes bytes = test::BlockBytes(block);
    test::FreeBlock(block);
    return bytes;
}

int32_t Open(const TiffBuilder &b) {
    std::string path = Write(b);
    test::Recorder rec;
    return TiffOpen(path.c_str());
}

// ---- the strip engine ----------------------------------------------------

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
    ASSERT_EQ(Open(TiffBuilder(strips).Short(266, 2)), 1);
    uint32_t handles[4];
    for (uint32_t n = 0; n < 4; ++n) {
        EXPECT_EQ(line(n), int(ReversedBitOrder[n + 1]) << 8);
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
    uint8_t row = 0;
    test::QuietDefaults();
    EXPECT_EQ(TIFFDecodeLine(&row, 6), 0) << "past the image";
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
// reverse order, read by seeking back.  One strip of all rows, larger than
// the window, streamed through it a piece at a time, also cut short by the
// file, and read line by line out of order.  Each row comes out as stored,
// or zero behind the file's end.
TEST(TiffReader, StripsReadInPlaceAcrossWindowsAndSeeks) {
    test::QuietDefaults();
    test::LeakGuard guard;
    const uint32_t width = 8192, rowsPerStrip = 7, strips = 90, stripBytes = 1024 * rowsPerStrip;
    const uint32_t height = rowsPerStrip * strips;
    std::vector<Bytes> data(strips);
    Bytes joined;
    uint32_t seed = 1;
    for (auto &strip : data) {
        for (uint32_t i = 0; i < stripBytes; ++i) strip.push_back(uint8_t((seed = seed * 1103515245u + 12345u) >> 16));
        joined.insert(joined.end(), strip.begin(), strip.end());
    }
    for (int variant = 0; variant < 4; ++variant) {
        SCOPED_TRACE(variant);
        // The last variant's strip claims all rows and the file ends inside a row: its rows are the file's
        // bytes from the strip's offset on (the directory's too), zero behind the file's end.
        const Bytes part(joined.begin(), joined.begin() + long(joined.size() / 2 + 100));
        TiffBuilder b = variant < 2    ? Bilevel(width, height, 1, data, rowsPerStrip).Short(262, 0)
                        : variant == 2 ? Bilevel(width, height, 1, {joined}, height).Short(262, 0)
                                       : Bilevel(width, height, 1, {part}, height).Short(262, 0).Long(279, joined.size());
        if (variant == 1) {  // stored in reverse
            b.strips.assign(data.rbegin(), data.rend());
            std::vector<uint32_t> offsets;
            for (uint32_t k = 0; k < strips; ++k) offsets.push_back(8 + (strips - 1 - k) * stripBytes);
            b.Longs(273, offsets);
        }
        const Bytes file = b.Build();
        const Bytes bits = LoadBytes(test::WriteTemp("t.tif", file));
        ASSERT_EQ(bits.size(), 48 + size_t(height) * 1024);
        for (uint32_t row = 0; row < height; ++row) {
            Bytes expected(joined.begin() + long(row) * 1024, joined.begin() + long(row + 1) * 1024);
            for (size_t i = 0; variant == 3 && i < 1024; ++i) {
                const size_t place = 8 + size_t(row) * 1024 + i;
                expected[i] = place < file.size() ? file[place] : 0;
            }
            ASSERT_TRUE(std::equal(expected.begin(), expected.end(), bits.begin() + 48 + long(height - 1 - row) * 1024))
                << "row " << row;
        }
    }
    // Streamed lines out of order: forward across pieces, back to the strip's start.
    ASSERT_EQ(Open(Bilevel(width, height, 1, {joined}, height).Short(262, 0)), 1);
    Bytes row(1024);
    for (uint32_t line : {500u, 3u, 629u, 64u}) {
        ASSERT_NE(TIFFDecodeLine(row.data(), line), 0);
        EXPECT_TRUE(std::equal(row.begin(), row.end(), joined.begin() + long(line) * 1024)) << line;
    }
    EXPECT_EQ(TiffImage.stripBuffer.handle, 0u) << "streamed, no strip buffer";
    TiffClose();
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
         {"TIFF Read: Internal allocation error in line 3 (0)", "ReadTIF: TIFFDecodeLine failed (0)"}},
        {"strips of 4 rows, the second past the file", Bilevel(16, 8, 1, {data, {0x3C}}, 4).Longs(279, {8, 8}), 8, 4, {}},
        {"a strip of 40 rows for 3", Bilevel(16, 3, 1, {Bytes(80, 0x5A)}), 3, 3, {}},
        // Wholly behind the file: below 2 GiB the seek succeeds and the read is empty;
        // from 2 GiB on the seek fails, and with it the strip.
        {"a strip at 0x7FFFFF00", Bilevel(16, 3, 1, {data}).Long(273, 0x7FFFFF00), 3, 3, {}},
        {"a strip at 0xFFFFFF00", Bilevel(16, 3, 1, {data}).Long(273, 0xFFFFFF00), 3, 3, {"ReadTIF: TIFFDecodeLine failed (0)"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        const Bytes file = c.file.Build();
        ASSERT_EQ(Open(c.file), 1);
        std::vector<uint32_t> offsets(TiffImage.stripOffsets, TiffImage.stripOffsets + TiffImage.stripsPerImage);
        TiffClose();
        TL_HANDLE block = nullptr;
        EXPECT_EQ(LoadHeard(test::WriteTemp("t.tif", file), 0, &block), c.reports);
        if (!block) continue;
        Bytes bits = test::BlockBytes(block);
        test::FreeBlock(block);
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
    EXPECT_EQ(LoadHeard(bad, -1).size(), 1u);
    EXPECT_TRUE(LoadHeard(bad, -1).empty());
    EXPECT_EQ(LoadHeard(bad, -1).size(), 1u);
    // An empty name reaches TiffOpen as empty: the memo names `bad`, but reading `good` cleared its flag.
    EXPECT_FALSE(LoadBytes(good).empty());
    test::Recorder recorder;
    EXPECT_EQ(ReadTIF("", 0), nullptr);
    EXPECT_EQ(test::Heard(recorder), std::vector<std::string>{"TOPEN: TL_OPEN  empty filename (0)"});
    // A null name resets the memo, quietly, and leaves the reader's file alone.
    EXPECT_EQ(ReadTIF(nullptr, 0), nullptr);
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_EQ(TiffImage.tiffFile, NoFile);
}

}  // namespace
