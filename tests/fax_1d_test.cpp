// fax_1d_test.cpp - the bit stream, run codes, EOL search, spans and the
// one-dimensional rows of compressions 2 and 3, on hand-made streams.
#include <gtest/gtest.h>

#include <random>

#include "fax_stream.h"
#include "support/support.h"
#include "tiff/fax_bits.h"

namespace {

using faxtest::BitWriter;
using faxtest::Strip;

std::vector<uint8_t> Reversed(std::vector<uint8_t> bytes) {
    for (auto &b : bytes) {
        uint8_t r = 0;
        for (int i = 0; i < 8; ++i)
            if (b & (1 << i)) r |= uint8_t(0x80 >> i);
        b = r;
    }
    return bytes;
}

TEST(FaxRuns, MakeUpChainsEolsBadCodesAndBoundaries) {
    struct Case {
        const char *what;
        int skip;  // bits before the run (the run starts at this position)
        bool black;
        std::vector<uint32_t> makeUps;  // codes of these lengths first
        int32_t terminating;            // -1: EOL instead, -2: a bad pattern
        int32_t expected;
    };
    const std::vector<Case> cases = {
        {"1728 + 5", 0, false, {1728}, 5, 1733},
        {"1728 + 5 black", 3, true, {1728}, 5, 1733},
        {"2560 + 2560 + 10", 5, false, {2560, 2560}, 10, 5130},
        {"2560 + 2560 + 10 black", 1, true, {2560, 2560}, 10, 5130},
        {"make-up then EOL loses the make-up", 2, false, {64}, -1, -1},
        {"EOL first", 7, true, {}, -1, -1},
        {"black 0", 6, true, {}, 0, 0},
        {"white 0", 0, false, {}, 0, 0},
        {"black 63 across a byte", 7, true, {}, 63, 63},
        {"white bad pattern", 4, false, {}, -2, -2},
        {"black bad pattern after a make-up", 0, true, {128}, -2, -2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        test::Recorder recorder;
        BitWriter w;
        w.Zeros(c.skip);
        for (uint32_t m : c.makeUps) {
            if (m > 1728)
                w.Bits(faxcodes::ExtendedMakeUp[m / 64 - 28]);
            else
                w.Bits(c.black ? faxcodes::BlackMakeUp[m / 64 - 1] : faxcodes::WhiteMakeUp[m / 64 - 1]);
        }
        if (c.terminating >= 0)
            w.Run(c.black, uint32_t(c.terminating));
        else if (c.terminating == -1)
            w.Eol();
        else
            w.Bits("000000000000");  // twelve zero bits: no code word of either colour
        uint32_t end = w.bits;
        w.Bits("1011");  // a white 4 follows
        Strip strip(2, 8000, w.bytes);
        ASSERT_EQ(strip.prepared, 1);
        faxState->position = int16_t(c.skip % 8);
        TiffImage.rawCursor += c.skip / 8;
        TiffImage.rawLeft -= c.skip / 8;
        if (c.skip % 8) {
            FaxFetchByte();
            faxState->position = int16_t(c.skip % 8);
        }
        EXPECT_EQ(FaxDecodeRun(c.black ? FaxBlack : 0), c.expected);
        if (c.terminating != -2) {
            // The position stands behind the last word, so the next run is the 4.
            EXPECT_EQ(int32_t(end % 8), faxState->position);
            EXPECT_EQ(FaxDecodeRun(0), 4);
        }
        EXPECT_TRUE(recorder.reports.empty());  // the run decoder reports nothing
    }
}

TEST(FaxRuns, DataRunningOutAndHugeMakeUpChains) {
    // A word cut off by the end of the data: -3, and the position of the
    // last completed word stays.
    BitWriter w;
    w.Run(false, 3).Bits("0000");  // white 3, then a black code cut off by the end
    Strip strip(2, 100, w.bytes);
    EXPECT_EQ(FaxDecodeRun(0), 3);
    EXPECT_EQ(faxState->position, 4);
    EXPECT_EQ(FaxDecodeRun(FaxBlack), -3);
    EXPECT_EQ(faxState->position, 4);
    EXPECT_EQ(TiffImage.rawLeft, 0);

    // 500 000 make-up codes of 2560 sum past 2^31: the run is held at a
    // ceiling above every width and the row is simply full.
    BitWriter big;
    for (int i = 0; i < 500000; ++i) big.Bits(faxcodes::ExtendedMakeUp[12]);
    big.Run(false, 7);
    Strip longRun(2, 1000, big.bytes);
    int32_t run = FaxDecodeRun(0);
    EXPECT_GE(run, int32_t(FaxRunCeiling));
    EXPECT_GT(run, 0);
}

TEST(FaxSkipToEol, CountsZerosAcrossBytesAndRestartsAfterAnEarlyOne) {
    struct Case {
        const char *what;
        int lead;       // bits used before the search
        int zerosSeen;  // argument
        std::string bits;
        int32_t endBit;  // bit index behind the EOL, -1: none found
    };
    const std::vector<Case> cases = {
        {"11 zeros and a 1", 0, 0, std::string(11, '0') + "1" + "0101", 12},
        {"from bit 5", 5, 0, std::string(11, '0') + "1" + "0101", 17},
        {"30 zeros and a 1", 3, 0, std::string(30, '0') + "1" + "11", 34},
        {"10 zeros restart the count", 0, 0, std::string(10, '0') + "1" + std::string(11, '0') + "1", 23},
        {"10 zeros and nothing after", 2, 0, std::string(10, '0') + "1" + "0000", -1},
        {"7 seen, four more", 6, 7, "00001" "111", 11},
        {"7 seen, three more is too few", 6, 7, "0001" + std::string(11, '0') + "1", 22},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        BitWriter w;
        w.Bits(std::string(size_t(c.lead), '1'));
        w.Bits(c.bits);
        Strip strip(2, 100, w.bytes);
        if (c.lead) {
            FaxFetchByte();
            faxState->position = int16_t(c.lead);
        }
        uint16_t byteBefore = faxState->curByte;
        int16_t posBefore = faxState->position;
        FaxSkipToEol(c.zerosSeen);
        if (c.endBit < 0) {
            EXPECT_EQ(TiffImage.rawLeft, 0);
            EXPECT_EQ(faxState->curByte, byteBefore);
            EXPECT_EQ(faxState->position, posBefore);
        } else {
            int32_t consumedBytes = int32_t(TiffImage.rawCursor - strip.data.data());
            int32_t pos = faxState->position;
            int32_t bitIndex = pos == 0 ? consumedBytes * 8 : (consumedBytes - 1) * 8 + pos;
            EXPECT_EQ(bitIndex, c.endBit);
        }
    }
}

TEST(FaxSpans, EveryStartAndCountWithinTheRow) {
    for (int32_t start = 0; start < 40; ++start) {
        for (int32_t count = 1; start + count <= 160; ++count) {
            std::vector<uint8_t> buf(24, 0);
            FaxSetSpan(buf.data() + 2, start, count);
            for (int32_t i = -16; i < 176; ++i) {
                bool set = buf[size_t(16 + i) / 8] & (0x80 >> ((16 + i) % 8));
                ASSERT_EQ(set, i >= start && i < start + count) << start << "+" << count << " at " << i;
            }
            if (count > 8 - (start & 7)) {  // the long form, given the byte of pixel start
                std::vector<uint8_t> fill(24, 0);
                FaxFillSpan(fill.data() + 2 + start / 8, start, count);
                ASSERT_EQ(fill, buf);
            }
        }
    }
}

// Rows of compression 2: a row starts on a byte boundary, whatever the row
// before left in its last byte.
TEST(FaxRows1D, CompressionTwoRowsEndingsAndFaults) {
    test::Recorder recorder;
    BitWriter w;
    w.Run(false, 3).Run(true, 2).Run(false, 5).Bits("0111").Align();  // row 0 and a stray white 2
    w.Run(false, 0).Run(true, 4).Run(false, 6).Align();                 // row 1: starts black
    w.Run(false, 2).Run(true, 0).Run(false, 3).Run(true, 50).Align();   // row 2: black 0, a run past width
    w.Run(false, 2).Run(true, 2).Run(false, 2).Run(true, 2).Eol();       // row 3: EOL inside, ends on a byte
    w.Run(false, 2).Bits("000000000000").Align();                        // row 4: a bad code
    w.Run(false, 1).Run(true, 1);                                        // row 5: data end mid-row
    Strip strip(2, 10, w.bytes);
    std::vector<std::vector<uint8_t>> expect = {
        {0x18, 0x00}, {0xF0, 0x00}, {0x07, 0xC0}, {0x33, 0x00}, {0x00, 0x00}, {0x40, 0x00}, {0x00, 0x00},
    };
    for (size_t r = 0; r < expect.size(); ++r) {
        SCOPED_TRACE(r);
        int32_t result = 0;
        EXPECT_EQ(strip.Next(&result), expect[r]);
        EXPECT_EQ(result, 1);
    }
    EXPECT_FALSE(strip.overrun);
    ASSERT_EQ(recorder.reports.size(), 1u);
    EXPECT_EQ(recorder.reports[0].title, "TIFF Read");
    EXPECT_EQ(recorder.reports[0].text, "Unexpected code in line 4");
    EXPECT_EQ(recorder.reports[0].withSystemText, 0);
}

// Compression 3: an EOL before every row, rows of any coding, fill bits,
// the tag bit, and the same pixels in FillOrder 2.
TEST(FaxRows1D, CompressionThreeAgainstAPixelEncoder) {
    std::mt19937 rng(11);
    for (int trial = 0; trial < 60; ++trial) {
        SCOPED_TRACE(trial);
        uint32_t width = 1 + rng() % 300;
        bool tagged = trial % 3 != 0;
        bool fill = trial % 2 == 0;
        std::vector<faxtest::Row> rows;
        faxtest::Row ref(width, false);
        BitWriter w;
        for (int y = 0; y < 12; ++y) {
            faxtest::Row row(width);
            for (uint32_t x = 0; x < width; ++x) {
                bool prev = x ? bool(row[x - 1]) : false;
                row[x] = rng() % 100 < 15 ? !prev : prev;
                if (y > 0 && rng() % 4) row[x] = ref[x];
            }
            if (fill) w.Zeros(int((8 - (w.bits + 12) % 8) % 8));  // EOLs end on a byte boundary
            w.Eol();
            bool twoD = tagged && y > 0 && rng() % 2;
            if (tagged) w.Bit(twoD ? 0 : 1);
            if (twoD)
                faxtest::Encode2D(w, row, ref);
            else
                faxtest::Encode1D(w, row);
            rows.push_back(row);
            ref = row;
        }
        for (int order = 1; order <= 2; ++order) {
            test::Recorder recorder;
            Strip strip(3, width, order == 1 ? w.bytes : Reversed(w.bytes), tagged ? 1 : 0, uint16_t(order));
            for (const auto &row : rows) ASSERT_EQ(strip.Next(), faxtest::Pack(row));
            EXPECT_TRUE(recorder.reports.empty());
            EXPECT_FALSE(strip.overrun);
        }
    }
}

TEST(FaxRows1D, TagBitAfterCompressionTwoRowsAndStripRestart) {
    // Compression 2 with group3Options bit 0: a tag bit at the byte boundary
    // where the next row would start; 0 makes the next row two-dimensional.
    BitWriter w;
    w.Run(false, 2).Run(true, 3).Run(false, 3).Align();
    w.Bit(0);
    w.Bits("1").Bits("1").Bits("1").Align();  // V0 V0 V0: the row above again
    Strip strip(2, 8, w.bytes, 1);
    EXPECT_EQ(strip.Next(), std::vector<uint8_t>{0x38});
    EXPECT_EQ(strip.Next(), std::vector<uint8_t>{0x38});
    // A new strip starts from a white reference line and a 1D row.
    strip.Restart();
    EXPECT_EQ(faxState->nextIs2D, 0u);
    EXPECT_EQ(strip.Next(), std::vector<uint8_t>{0x38});
}

}  // namespace

namespace {

TEST(FaxState, RecordReferenceLineGuardAndRelease) {
    struct Case {
        uint16_t compression;
        uint32_t group3Options;
        bool hasRef;
    };
    for (const Case &c : {Case{2, 0, false}, Case{3, 0, false}, Case{3, 1, true}, Case{2, 1, true}, Case{4, 0, true}}) {
        SCOPED_TRACE(c.compression * 10 + c.group3Options);
        test::LeakGuard guard;
        {
            BitWriter w;
            w.Eol().Bit(1);
            w.Run(false, 20);
            Strip strip(c.compression, 20, w.bytes, c.group3Options);
            ASSERT_EQ(strip.prepared, 1);
            ASSERT_NE(faxState, nullptr);
            EXPECT_EQ(faxState->rowBytes, 3u);
            EXPECT_EQ(faxState->rowPixels, 20u);
            EXPECT_EQ(faxState->refLine != nullptr, c.hasRef);
            if (c.hasRef) {
                EXPECT_EQ(faxState->refLine[-1], 0);  // the guard byte
                EXPECT_EQ(faxState->refLine, reinterpret_cast<uint8_t *>(faxState) + sizeof(FaxState) + 1);
                faxState->refLine[0] = 0xFF;  // a later strip starts white again
                strip.Restart();
                EXPECT_EQ(faxState->refLine[0], 0);
            }
        }
        EXPECT_EQ(faxState, nullptr);
        EXPECT_TRUE(guard.Same());
        FaxRelease();  // a second release finds no block
    }
    // A width whose byte count wrapped in 32 bits, or past the ceiling, gets
    // no record.
    for (uint32_t width : {0xFFFFFFFFu, FaxMaxWidth + 1}) {
        test::LeakGuard guard;
        std::memset(&TiffImage, 0, sizeof TiffImage);
        TiffImage.imageWidth = width;
        TiffImage.scanlineSize = (width + 7) / 8;
        TiffImage.compression = 4;
        FaxStart(4);
        EXPECT_EQ(FaxPrepareStrip(), 0);
        EXPECT_EQ(faxState, nullptr);
        FaxRelease();
        EXPECT_TRUE(guard.Same());
    }
}

}  // namespace
