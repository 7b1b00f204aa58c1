// fax_2d_test.cpp - the reference-line searches, two-dimensional rows of
// compressions 3 and 4 on hand-made streams, uncompressed mode, and a G4
// stream that ends early.
#include <gtest/gtest.h>

#include <random>

#include "core/image.h"
#include "core/bytes.h"
#include "fax_stream.h"
#include "support/support.h"
#include "support/tiff_builder.h"
#include "tiff/fax_bits.h"
#include "tiff/lines.h"

namespace {

using faxtest::BitWriter;
using faxtest::Row;
using faxtest::Strip;

// Pixels from start (before end) equal to `value`, one at a time; negative
// positions are white.
int32_t CountSlowly(const std::vector<uint8_t> &bytes, int32_t start, int32_t end, bool value) {
    int32_t n = 0;
    for (int32_t i = start; i < end; ++i) {
        bool bit = i >= 0 && (bytes[size_t(i) / 8] & (0x80 >> (i % 8)));
        if (bit != value) break;
        ++n;
    }
    return n;
}

TEST(FaxFind, AgreesWithAPixelCountFromEveryStartAndAlignment) {
    std::mt19937 rng(5);
    for (int pattern = 0; pattern < 6; ++pattern) {
        // Lines with long spans (64 and more) of both colours, short ones, noise.
        const int32_t width = 300;
        std::vector<uint8_t> line((width + 7) / 8, 0);
        int32_t x = 0;
        bool black = pattern % 2;
        while (x < width) {
            int32_t len = pattern < 2 ? 1 + int32_t(rng() % 140) : pattern < 4 ? 1 + int32_t(rng() % 9) : 1;
            for (int32_t i = x; i < std::min(width, x + len); ++i)
                if (pattern == 5 ? rng() % 2 : black) line[size_t(i) / 8] |= uint8_t(0x80 >> (i % 8));
            x += len;
            black = !black;
        }
        // The same line at each alignment of the address, after a guard byte 0.
        for (int shift = 0; shift < 4; ++shift) {
            std::vector<uint8_t> buffer(line.size() + 8, 0);
            uint8_t *at = buffer.data() + 4 + shift;
            std::copy(line.begin(), line.end(), at);
            for (int32_t start = -3; start <= width; ++start) {
                for (int32_t end : {start, start + 1, start + 7, start + 8, start + 64, start + 65, start + 100, width}) {
                    if (end < start || end > width) continue;
                    ASSERT_EQ(FaxFindZeros(at, start, end), CountSlowly(line, start, end, false))
                        << pattern << " " << shift << " " << start << ".." << end;
                    ASSERT_EQ(FaxFindOnes(at, start, end), CountSlowly(line, start, end, true))
                        << pattern << " " << shift << " " << start << ".." << end;
                }
            }
        }
    }
    // From -1 on a line that starts black: no ones at -1, one zero (the guard).
    std::vector<uint8_t> buffer = {0x00, 0xF0, 0x00};
    EXPECT_EQ(FaxFindOnes(buffer.data() + 1, -1, 16), 0);
    EXPECT_EQ(FaxFindZeros(buffer.data() + 1, -1, 16), 1);
    EXPECT_EQ(FaxFindZeros(buffer.data() + 1, 4, 16), 12);  // to the end
    EXPECT_EQ(FaxFindOnes(buffer.data() + 1, 0, 3), 3);      // stops at end
}

TEST(FaxRows2D, ReferenceLineCases) {
    // The reference line is made by a first row of horizontal codes, so each
    // case's stream is "the row above" then "the row".
    auto above = [](BitWriter &w, const Row &row) {
        faxtest::Encode2D(w, row, Row(row.size(), false));
    };
    struct Case {
        const char *what;
        std::string above;  // pixels as '0'/'1'
        std::string codes;  // the row's codes; 'W5'/'B5' stand for runs
        std::string expected;
    };
    const std::vector<Case> cases = {
        {"all white repeated: one V0", "0000000000", "1", "0000000000"},
        {"black pixel 0 above, a0 = -1: V0 then V0", "1110000000", "1 1 1", "1110000000"},
        {"VL1 at the row start: a1 = 0", "0111000000", "010 1 1", "1111000000"},
        {"VL1 with b1 = 0: a0 = -1, colour black", "1100000000", "010 1 1", "1100000000"},
        {"VL3 with b1 = 0: a0 = -3, the search starts in the guard byte", "1000000000", "0000010 1 1",
         "1000000000"},
        {"VL3 at the start, then V0 twice", "0001110000", "0000010 1 1", "1111110000"},
        {"VL2 then VR1", "0011110000", "000010 011 1", "1111111000"},
        {"pass in white writes nothing", "0110000110", "0001 1 1 1", "0000000110"},
        {"pass in black fills to b2", "0110011000", "1 0001 010 1", "0111110000"},
        {"pass to width ends the row", "0000000111", "0001", "0000000000"},
        {"horizontal first: runs from pixel 0", "0000000000", "001 W2 B3 1", "0011100000"},
        {"horizontal past width: first cut, second read", "0000000000", "001 W20 B3 1", "0000000000"},
        {"VR3 past a change near the end", "0000000110", "0000011 1", "0000000000"},
        {"a1 behind width ends the row, nothing written behind", "0000000011", "1 0000011", "0000000011"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        uint32_t width = uint32_t(c.above.size());
        Row ref(width), want(width);
        for (uint32_t i = 0; i < width; ++i) {
            ref[i] = c.above[i] == '1';
            want[i] = c.expected[i] == '1';
        }
        BitWriter w;
        above(w, ref);
        std::string token;
        std::string codes = c.codes + " ";
        for (char ch : codes) {
            if (ch != ' ') {
                token += ch;
                continue;
            }
            if (token[0] == 'W' || token[0] == 'B')
                w.Run(token[0] == 'B', uint32_t(std::stoi(token.substr(1))));
            else
                w.Bits(token);
            token.clear();
        }
        w.Bits("1");  // a spare V0 so that no code is cut by the end
        test::Recorder recorder;
        Strip strip(4, width, w.bytes);
        ASSERT_EQ(strip.Next(), faxtest::Pack(ref));
        int32_t result = 0;
        EXPECT_EQ(strip.Next(&result), faxtest::Pack(want));
        EXPECT_EQ(result, 1);
        EXPECT_TRUE(recorder.reports.empty());
        EXPECT_FALSE(strip.overrun);
    }
}

TEST(FaxRows2D, RandomImagesAgainstAPixelEncoder) {
    std::mt19937 rng(3);
    for (int trial = 0; trial < 80; ++trial) {
        SCOPED_TRACE(trial);
        uint32_t width = 1 + rng() % (trial < 60 ? 80 : 700);
        Row ref(width, false);
        BitWriter w;
        std::vector<Row> rows;
        for (int y = 0; y < 20; ++y) {
            Row row(width);
            for (uint32_t x = 0; x < width; ++x) {
                bool prev = x ? bool(row[x - 1]) : false;
                row[x] = rng() % 100 < 12 ? !prev : prev;
                if (y > 0 && rng() % 8) {  // mostly the row above, shifted a little
                    int32_t from = int32_t(x) + int32_t(rng() % 3) - 1;
                    row[x] = faxtest::Pixel(ref, from);
                }
            }
            faxtest::Encode2D(w, row, ref);
            rows.push_back(row);
            ref = row;
        }
        for (uint16_t order : {1, 2}) {
            std::vector<uint8_t> bytes = w.bytes;
            if (order == 2)
                for (auto &b : bytes) {
                    uint8_t r = 0;
                    for (int i = 0; i < 8; ++i)
                        if (b & (1 << i)) r |= uint8_t(0x80 >> i);
                    b = r;
                }
            test::Recorder recorder;
            Strip strip(4, width, bytes, 0, order);
            for (const Row &row : rows) ASSERT_EQ(strip.Next(), faxtest::Pack(row));
            EXPECT_TRUE(recorder.reports.empty());
            EXPECT_FALSE(strip.overrun);
        }
    }
}

TEST(FaxRows2D, UncompressedMode) {
    struct Case {
        const char *what;
        uint32_t width;
        std::string codes;
        std::string expected;
        size_t reports;
    };
    // 0000001111 enters the mode.  Codes: 1 black; 01 white black; 000001
    // five white; exits 0000001T .. 00000000001T with 0..4 white.
    const std::vector<Case> cases = {
        {"entered at a0 = -1 starts at pixel 0", 10, "0000001111 1 01 0000001 0 1", "1010000000", 0},
        {"five white then black, exit with one white and tag 1 (black next)", 12,
         "0000001111 000001 1 00000001 1 011 1", "000001011111", 0},
        {"codes past width write nothing outside the row", 6, "0000001111 000001 000001 00001 0000001 0 1",
         "000000", 0},
        {"eleven zero bits: no code word", 8, "0000001111 1 00000000000", "10000000", 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        BitWriter w;
        w.Bits(c.codes);
        w.Bits("1111111111111111");
        test::Recorder recorder;
        Strip strip(4, c.width, w.bytes);
        Row want(c.width);
        for (uint32_t i = 0; i < c.width; ++i) want[i] = c.expected[i] == '1';
        EXPECT_EQ(strip.Next(), faxtest::Pack(want));
        EXPECT_FALSE(strip.overrun);
        EXPECT_EQ(recorder.reports.size(), c.reports);
    }
    // Out of data inside the mode: reported, and the row so far stays.
    BitWriter w;
    w.Bits("0000001111").Bits("1").Bits("01").Bits("0");
    test::Recorder recorder;
    Strip strip(4, 16, w.bytes);
    int32_t result = 0;
    EXPECT_EQ(strip.Next(&result), (std::vector<uint8_t>{0xA0, 0x00}));
    EXPECT_EQ(result, 1);
    EXPECT_EQ(recorder.reports.size(), 1u);
}

TEST(FaxRows2D, EolsAndBadModeCodes) {
    // Compression 3: seven zero bits in a mode code begin an EOL; the row
    // ends white behind what was decoded, and the next row follows its tag.
    {
        BitWriter w;
        w.Eol().Bit(1);
        w.Run(false, 2).Run(true, 3).Run(false, 11);  // row 0, 1D
        w.Eol().Bit(0);
        w.Bits("1").Bits("1").Eol().Bit(0);           // row 1: V0 V0 then EOL inside the row
        w.Bits("1").Bits("1").Bits("1").Eol().Bit(1); // row 2: the row above again
        test::Recorder recorder;
        Strip strip(3, 16, w.bytes, 1);
        EXPECT_EQ(strip.Next(), (std::vector<uint8_t>{0x38, 0x00}));
        EXPECT_EQ(strip.Next(), (std::vector<uint8_t>{0x38, 0x00}));
        EXPECT_EQ(strip.Next(), (std::vector<uint8_t>{0x38, 0x00}));
        EXPECT_TRUE(recorder.reports.empty());
    }
    // Compression 4: the same seven zero bits are no code: reported, the row
    // ends short and the driver gives 0.
    {
        BitWriter w;
        w.Bits("001").Run(false, 2).Run(true, 3).Bits("0000000").Bits("1111");
        test::Recorder recorder;
        Strip strip(4, 16, w.bytes);
        int32_t result = 1;
        EXPECT_EQ(strip.Next(&result), (std::vector<uint8_t>{0x38, 0x00}));
        EXPECT_EQ(result, 0);
        ASSERT_EQ(recorder.reports.size(), 1u);
        EXPECT_EQ(recorder.reports[0].text, "Unexpected code in line 0");
    }
    // A refused mode code (0000001 0) under compression 4.
    {
        BitWriter w;
        w.Bits("00000010").Bits("1111");
        test::Recorder recorder;
        Strip strip(4, 8, w.bytes);
        int32_t result = 1;
        strip.Next(&result);
        EXPECT_EQ(result, 0);
        EXPECT_EQ(recorder.reports.size(), 1u);
    }
}

std::vector<uint8_t> TiffFile(uint16_t compression, uint32_t width, uint32_t height,
                              const std::vector<std::vector<uint8_t>> &strips, uint32_t rowsPerStrip,
                              uint32_t group3Options = 0) {
    auto b = test::TiffBuilder::Bilevel(width, height, compression, strips, rowsPerStrip);
    if (group3Options) b.Long(292, group3Options);
    return b.Short(262, 0).Build();
}

TEST(FaxRows2D, G4StreamCutShortReportsEachLaterRowAndIsRefused) {
    const uint32_t width = 40, height = 12;
    BitWriter w;
    Row ref(width, false);
    std::vector<uint32_t> cutAfter;
    for (uint32_t y = 0; y < height; ++y) {
        Row row(width, false);
        for (uint32_t x = y; x < y + 10; ++x) row[x] = true;
        faxtest::Encode2D(w, row, ref);
        ref = row;
        cutAfter.push_back(w.bits);
    }
    // Keep the bytes that hold rows 0..last whole, where fewer than seven
    // (zero) bits of the next row follow in the last byte: not a whole code.
    uint32_t last = 3;
    while ((8 - cutAfter[last] % 8) % 8 >= 7) ++last;
    const uint32_t firstLost = last + 1;
    std::vector<uint8_t> cut(w.bytes.begin(), w.bytes.begin() + (cutAfter[last] + 7) / 8);
    ASSERT_LT(firstLost, height);
    {
        test::Recorder recorder;
        Strip strip(4, width, cut);
        for (uint32_t y = 0; y < height; ++y) {
            int32_t result = 0;
            strip.Next(&result);
            EXPECT_EQ(result, 1);
        }
        ASSERT_EQ(recorder.reports.size(), height - firstLost);
        for (uint32_t y = firstLost; y < height; ++y)
            EXPECT_EQ(recorder.reports[y - firstLost].text, "Unexpected code in line " + std::to_string(y));
    }
    // Through the reader: the image is refused and nothing is left behind.
    test::Recorder recorder;
    test::LeakGuard guard;
    std::string path = test::WriteTemp("cut-g4.tif", TiffFile(4, width, height, {cut}, height));
    ErrorClear();
    TL_HANDLE block = ReadTIF(path.c_str(), 0);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(ErrorStatus(), 1);
    ASSERT_FALSE(recorder.reports.empty());
    EXPECT_EQ(recorder.reports[0].text, "Unexpected code in line " + std::to_string(firstLost));
    EXPECT_TRUE(guard.Same());
    // The whole stream loads.
    std::string whole = test::WriteTemp("whole-g4.tif", TiffFile(4, width, height, {w.bytes}, height));
    ErrorClear();
    block = ReadTIF(whole.c_str(), 0);
    EXPECT_NE(block, nullptr);
    test::FreeBlock(block);
    EXPECT_TRUE(guard.Same());
}

// A strip whose data end early gives white rows (and, for two-dimensional
// rows, a report each) to its end; the strips after it decode as usual.
// The reader must give exactly what decoding row by row gives, however
// the first strip is cut: spent on a byte boundary, or stalled on a few
// bits too short for a code.  Compared with and without a callback, since
// unheard reports let the reader pass such rows by.
TEST(FaxReader, StripsThatRunOutGiveWhatRowByRowDecodingGives) {
    const uint32_t width = 40, rowsPerStrip = 8, height = 21;
    std::mt19937 random(7);
    std::vector<Row> image(height, Row(width, false));
    for (auto &row : image)
        for (uint32_t x = random() % 6; x < width; x += 1 + random() % 9)
            for (uint32_t end = x + 1 + random() % 5; x < end && x < width; ++x) row[x] = true;
    struct Kind {
        uint16_t compression;
        uint32_t group3Options;
    };
    for (const Kind kind : {Kind{2, 0}, Kind{3, 0}, Kind{3, 1}, Kind{4, 0}}) {
        std::vector<std::vector<uint8_t>> strips;
        for (uint32_t first = 0; first < height; first += rowsPerStrip) {
            BitWriter w;
            Row ref(width, false);
            for (uint32_t y = first; y < height && y < first + rowsPerStrip; ++y) {
                const bool twoD = kind.compression == 4 || (kind.group3Options == 1 && y != first);
                if (kind.compression == 3) w.Eol();
                if (kind.group3Options == 1) w.Bit(twoD ? 0 : 1);
                if (twoD) faxtest::Encode2D(w, image[y], ref);
                else faxtest::Encode1D(w, image[y]);
                if (kind.compression == 2) w.Align();
                ref = image[y];
            }
            strips.push_back(w.bytes);
        }
        const std::vector<uint8_t> whole = strips[0];
        for (size_t cut = 1; cut <= whole.size(); ++cut) {
            SCOPED_TRACE("compression " + std::to_string(kind.compression) + "/" +
                         std::to_string(kind.group3Options) + ", first strip cut to " + std::to_string(cut));
            strips[0].assign(whole.begin(), whole.begin() + long(cut));
            // Row by row, as the strip engine is driven by the reader.
            std::vector<std::vector<uint8_t>> rows;
            std::vector<std::string> texts;
            {
                test::Recorder recorder;
                for (uint32_t k = 0; k < strips.size() && texts.empty(); ++k) {
                    Strip strip(kind.compression, width, strips[k], kind.group3Options);
                    TiffImage.currentRow = k * rowsPerStrip;
                    for (uint32_t y = k * rowsPerStrip; y < height && y < (k + 1) * rowsPerStrip; ++y) {
                        int32_t result = 1;
                        rows.push_back(strip.Next(&result));
                        ASSERT_NE(result, 0) << "a cut stream gives no bad code";
                    }
                }
                for (const auto &r : recorder.reports) texts.push_back(r.text);
            }
            const std::string path =
                test::WriteTemp("strips.tif", TiffFile(kind.compression, width, height, strips, rowsPerStrip,
                                                       kind.group3Options));
            auto expectRows = [&](TL_HANDLE block) {
                const std::vector<uint8_t> dib = test::BlockBytes(block);
                const uint32_t dibRow = TiffRowBytes(width);
                ASSERT_EQ(dib.size(), 48 + size_t(dibRow) * height);
                for (uint32_t y = 0; y < height; ++y)
                    EXPECT_EQ(std::vector<uint8_t>(dib.begin() + 48 + long((height - 1 - y) * dibRow),
                                                   dib.begin() + 48 + long((height - 1 - y) * dibRow) + 5),
                              rows[y])
                        << "row " << y;
                test::FreeBlock(block);
            };
            test::LeakGuard guard;
            {
                test::Recorder recorder;
                TL_HANDLE block = ReadTIF(path.c_str(), 0);
                std::vector<std::string> heard;
                for (const auto &r : recorder.reports) heard.push_back(r.text);
                EXPECT_EQ(heard, texts);
                if (block != nullptr) expectRows(block);
            }
            test::QuietDefaults();
            TL_HANDLE block = ReadTIF(path.c_str(), 0);
            EXPECT_EQ(block == nullptr, !texts.empty());
            EXPECT_EQ(ErrorStatus(), texts.empty() ? 0 : 1);
            if (block != nullptr) expectRows(block);
            test::QuietDefaults();
            EXPECT_TRUE(guard.Same());
        }
    }
}

}  // namespace
