// fax_2d_test.cpp - reference-line searches, hand-made rows, uncompressed mode, cut strips.
#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "core/image.h"
#include "core/bytes.h"
#include "fax_stream.h"
#include "support/support.h"
#include "support/tiff_builder.h"
#include "fax/pixels.h"
#include "tiff/record.h"

namespace {

using faxtest::BitWriter;
using faxtest::Row;
using faxtest::Strip;

// Pixels from start (before end) equal to `value`, counted one at a time; negative ones are white.
int32_t CountSlowly(const std::vector<uint8_t> &bytes, int32_t start, int32_t end, bool value) {
    int32_t i = start;
    while (i < end && (i >= 0 && (bytes[size_t(i) / 8] & (0x80 >> (i % 8)))) == value) ++i;
    return i - start;
}

// Lines of long spans (64 and more) starting white or black, short spans, noise; at each alignment
// of the address behind a guard byte 0, from every start (-1 too).
TEST(FaxFind, AgreesWithAPixelCountFromEveryStartAndAlignment) {
    std::mt19937 rng(5);
    const int32_t width = 300;
    for (int pattern : {0, 1, 3, 5}) {
        std::vector<uint8_t> line((width + 7) / 8, 0);
        bool black = pattern % 2;
        for (int32_t x = 0; x < width; black = !black) {
            const int32_t len = pattern < 2 ? 1 + int32_t(rng() % 140) : pattern < 4 ? 1 + int32_t(rng() % 9) : 1;
            for (const int32_t end = std::min(width, x + len); x < end; ++x)
                if (pattern == 5 ? rng() % 2 : black) line[size_t(x) / 8] |= uint8_t(0x80 >> (x % 8));
        }
        for (int shift = 0; shift < 4; ++shift) {
            std::vector<uint8_t> buffer(line.size() + 8, 0);
            uint8_t *at = buffer.data() + 4 + shift;
            std::copy(line.begin(), line.end(), at);
            for (int32_t start = -3; start <= width; ++start)
                for (int32_t end : {start, start + 1, start + 8, start + 64, start + 65, width}) {
                    if (end > width) continue;
                    ASSERT_EQ(FaxFindZeros(at, start, end), CountSlowly(line, start, end, false))
                        << pattern << " " << shift << " " << start << ".." << end;
                    ASSERT_EQ(FaxFindOnes(at, start, end), CountSlowly(line, start, end, true))
                        << pattern << " " << shift << " " << start << ".." << end;
                }
        }
    }
}

// Tokens: W<n>/B<n> a white/black run, E an EOL, A fill to a byte, anything else bits.
BitWriter Codes(const std::string &tokens) {
    BitWriter w;
    std::istringstream in(tokens);
    for (std::string t; in >> t;) {
        if (t[0] == 'W' || t[0] == 'B') w.Run(t[0] == 'B', uint32_t(std::stoi(t.substr(1))));
        else if (t == "E") w.Eol();
        else if (t == "A") w.Align();
        else w.Bits(t);
    }
    return w;
}

Row Pixels(const std::string &text) {
    Row row(text.size());
    for (size_t i = 0; i < text.size(); ++i) row[i] = text[i] == '1';
    return row;
}

// Hand-made rows; under compression 4 `above` is coded first (horizontal codes) as the reference line.
TEST(FaxRows2D, HandMadeStreams) {
    const std::string pad = " 1111111111111111", u = "0000001111 ";  // u enters uncompressed mode
    struct Case {
        const char *what;
        uint16_t compression;
        std::string above, codes;
        std::vector<std::string> rows, reports = {};
        int32_t result = 1;  // of the last row
    } cases[] = {
        {"black pixel 0 above, a0 = -1: V0 then V0", 4, "1110000000", "1 1 1", {"1110000000"}},
        {"VL1 at the row start: a1 = 0", 4, "0111000000", "010 1 1", {"1111000000"}},
        {"VL1 with b1 = 0: a0 = -1, colour black", 4, "1100000000", "010 1 1", {"1100000000"}},
        {"VL3 with b1 = 0: the search starts in the guard byte", 4, "1000000000", "0000010 1 1", {"1000000000"}},
        {"VL2 then VR1", 4, "0011110000", "000010 011 1", {"1111111000"}},
        {"pass in white writes nothing", 4, "0110000110", "0001 1 1 1", {"0000000110"}},
        {"pass in black fills to b2", 4, "0110011000", "1 0001 010 1", {"0111110000"}},
        {"pass to width ends the row", 4, "0000000111", "0001 1", {"0000000000"}},
        {"horizontal past width: first cut, second read", 4, "0000000000", "001 W20 B3 1", {"0000000000"}},
        {"VR3 past a change near the end", 4, "0000000110", "0000011 1", {"0000000000"}},
        {"a1 behind width ends the row, nothing written behind", 4, "0000000011", "1 0000011 1", {"0000000011"}},
        // Uncompressed: 1 black; 01 white black; 000001 five white; 0000001T..00000000001T exit with 0..4 white.
        {"uncompressed at a0 = -1 starts at pixel 0", 4, "", u + "1 01 0000001 0 1" + pad, {"1010000000"}},
        {"uncompressed, exit with one white and tag 1", 4, "", u + "000001 1 00000001 1 011 1" + pad, {"000001011111"}},
        {"uncompressed past width writes nothing outside", 4, "", u + "000001 000001 00001 0000001 0 1" + pad, {"000000"}},
        {"uncompressed behind a0", 4, "", "001 W2 B1 " + u + "1 0000001 0 1" + pad, {"0011000000"}},
        {"uncompressed: eleven zero bits", 4, "", u + "1 00000000000" + pad, {"10000000"}, {"Unexpected code in line 0"}, 0},
        {"uncompressed: out of data, the row so far stays", 4, "", u + "1 01 0", {"1010000000000000"}, {"Unexpected code in line 0"}},
        // Compression 2: rows start on a byte; a stray white 2, black 0, a run past width, an EOL inside a
        // row, a bad code and the data end each cost their row only.
        {"compression 2", 2, "", "W3 B2 W5 0111 A W0 B4 W6 A W2 B0 W3 B50 A W2 B2 W2 B2 E W2 000000000000 A W1 B1",
         {"0001100000", "1111000000", "0000011111", "0011001100", "0000000000", "0100000000", "0000000000"},
         {"Unexpected code in line 4"}},
        // Compression 3: seven zero bits in a mode code begin an EOL; the next row follows its tag.
        {"EOL inside a 2D row", 3, "", "E 1 W2 B3 W11 E 0 1 1 E 0 1 1 1 E 1",
         {"0011100000000000", "0011100000000000", "0011100000000000"}},
        {"seven zeros under compression 4: no code", 4, "", "001 W2 B3 0000000 1111", {"0011100000000000"},
         {"Unexpected code in line 0"}, 0},
        {"the data end one bit into a vertical pair", 4, "", "001 W2 B2 1 1 1 1 1 01", {"00110000", "00110000", "00000000", "00000000"},
         {"Unexpected code in line 2", "Unexpected code in line 3"}},
        {"G4 data end: each later row reported", 4, "", "001 W2 B3 1 1 1 1", {"0011100000", "0011100000", "0000000000", "0000000000", "0000000000"},
         {"Unexpected code in line 2", "Unexpected code in line 3", "Unexpected code in line 4"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        const uint32_t width = uint32_t(c.rows[0].size());
        BitWriter w;
        std::vector<std::string> rows = c.rows;
        if (!c.above.empty()) {
            faxtest::Encode2D(w, Pixels(c.above), Row(width, false));
            rows.insert(rows.begin(), c.above);
        }
        const BitWriter codes = Codes(c.codes);
        for (uint32_t i = 0; i < codes.bits; ++i) w.Bit(codes.bytes[i / 8] & (0x80 >> i % 8));
        test::Recorder recorder;
        Strip strip(c.compression, width, w.bytes, c.compression == 3 ? 1 : 0);
        for (size_t y = 0; y < rows.size(); ++y) {
            int32_t result = -9;
            EXPECT_EQ(strip.Next(&result), faxtest::Pack(Pixels(rows[y]))) << "row " << y;
            EXPECT_EQ(result, y + 1 == rows.size() ? c.result : 1) << "row " << y;
        }
        std::vector<std::string> texts;
        for (const auto &r : recorder.reports) {
            texts.push_back(r.text);
            EXPECT_EQ(r.title, "TIFF Read");
            EXPECT_EQ(r.withSystemText, 0);
        }
        EXPECT_EQ(texts, c.reports);
        EXPECT_FALSE(strip.overrun);
    }
}

std::vector<uint8_t> TiffFile(uint16_t compression, uint32_t width, uint32_t height,
                              const std::vector<std::vector<uint8_t>> &strips, uint32_t rowsPerStrip,
                              uint32_t group3Options = 0) {
    auto b = test::TiffBuilder::Bilevel(width, height, compression, strips, rowsPerStrip);
    if (group3Options) b.Long(292, group3Options);
    return b.Short(262, 0).Build();
}

// However the first strip is cut, the reader gives what row-by-row decoding gives, with and
// without a callback (unheard reports let the reader pass such rows by).
TEST(FaxReader, StripsThatRunOutGiveWhatRowByRowDecodingGives) {
    const uint32_t width = 40, perStrip = 8, height = 21;
    std::mt19937 random(7);
    std::vector<Row> image(height, Row(width, false));
    for (auto &row : image)
        for (uint32_t x = random() % 6; x < width; x += 1 + random() % 9)
            for (uint32_t end = x + 1 + random() % 5; x < end && x < width; ++x) row[x] = true;
    for (const auto &[compression, options] : {std::pair<uint16_t, uint32_t>{2, 0}, {3, 0}, {3, 1}, {4, 0}}) {
        std::vector<std::vector<uint8_t>> strips;
        for (uint32_t first = 0; first < height; first += perStrip)
            strips.push_back(faxtest::EncodePage(compression, options,
                                                 {image.begin() + first, image.begin() + std::min(height, first + perStrip)}));
        const std::vector<uint8_t> whole = strips[0];
        for (size_t cut = 1; cut <= whole.size(); ++cut) {
            SCOPED_TRACE(std::to_string(compression) + "/" + std::to_string(options) + " cut to " + std::to_string(cut));
            strips[0].assign(whole.begin(), whole.begin() + long(cut));
            std::vector<std::vector<uint8_t>> rows;
            std::vector<std::string> texts;
            {
                test::Recorder recorder;
                for (uint32_t k = 0; k < strips.size(); ++k) {
                    Strip strip(compression, width, strips[k], options);
                    TiffImage.currentRow = k * perStrip;
                    for (uint32_t y = k * perStrip; y < height && y < (k + 1) * perStrip; ++y) {
                        int32_t result = 1;
                        rows.push_back(strip.Next(&result));
                        ASSERT_NE(result, 0) << "a cut stream gives no bad code";
                    }
                }
                for (const auto &r : recorder.reports) texts.push_back(r.text);
            }
            const std::string path =
                test::WriteTemp("strips.tif", TiffFile(compression, width, height, strips, perStrip, options));
            test::LeakGuard guard;
            for (bool heard : {true, false}) {
                test::Recorder recorder;
                if (!heard) test::QuietDefaults();
                TL_HANDLE block = ReadTIF(path.c_str(), 0);
                if (heard) {
                    std::vector<std::string> got;
                    for (const auto &r : recorder.reports) got.push_back(r.text);
                    EXPECT_EQ(got, texts);
                } else {
                    EXPECT_EQ(block == nullptr, !texts.empty());
                    EXPECT_EQ(ErrorStatus(), texts.empty() ? 0 : 1);
                }
                if (block == nullptr) continue;
                const std::vector<uint8_t> dib = test::BlockBytes(block);
                const size_t dibRow = TiffRowBytes(width);
                ASSERT_EQ(dib.size(), 48 + dibRow * height);
                for (uint32_t y = 0; y < height; ++y) {
                    const auto at = dib.begin() + long(48 + (height - 1 - y) * dibRow);
                    EXPECT_EQ(std::vector<uint8_t>(at, at + 5), rows[y]) << "row " << y;
                }
                test::FreeBlock(block);
            }
            test::QuietDefaults();
            EXPECT_TRUE(guard.Same());
        }
    }
}

}  // namespace
