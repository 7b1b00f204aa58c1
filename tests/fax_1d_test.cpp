// fax_1d_test.cpp - run codes, the EOL search, spans, the decoder's record.
#include <gtest/gtest.h>

#include "fax_stream.h"
#include "support/support.h"
#include "fax/pixels.h"

namespace {

using faxtest::BitWriter;
using faxtest::Strip;
using Bytes = std::vector<uint8_t>;

// Puts the decoder at bit `bit` of its strip, as if the bits before it were read.
void SeekBit(int bit) {
    TiffImage.rawCursor += bit / 8;
    TiffImage.rawLeft -= bit / 8;
    if (bit % 8) {
        FaxFetchByte();
        faxState->position = int16_t(bit % 8);
    }
}

// Bits of the strip read so far.
int32_t BitIndex(const Strip &strip) {
    const int32_t bytes = int32_t(TiffImage.rawCursor - strip.data.data()), pos = faxState->position;
    return pos == 0 ? bytes * 8 : (bytes - 1) * 8 + pos;
}

TEST(FaxRuns, MakeUpChainsEolsBadCodesDataEndAndBoundaries) {
    const int32_t eol = -1, bad = -2, cut = -3;
    struct Case {
        const char *what;
        int skip;  // the run starts at this bit
        bool black;
        std::vector<uint32_t> makeUps;  // codes of these lengths first
        int32_t terminating;            // or eol, a bad pattern, or a word cut off by the end of the data
        int32_t expected;
    } cases[] = {
        {"1728 + 5", 0, false, {1728}, 5, 1733},
        {"2560 + 2560 + 10", 5, false, {2560, 2560}, 10, 5130},
        {"make-up then EOL loses the make-up", 2, false, {64}, eol, -1},
        {"EOL first", 7, true, {}, eol, -1},
        {"black 0", 6, true, {}, 0, 0},
        {"black 63 across a byte", 7, true, {}, 63, 63},
        {"white bad pattern", 4, false, {}, bad, -2},
        {"black bad pattern after a make-up", 0, true, {128}, bad, -2},
        {"black word cut off by the end of the data", 4, true, {}, cut, -3},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        test::Recorder recorder;
        BitWriter w;
        w.Zeros(c.skip);
        for (uint32_t m : c.makeUps)
            w.Bits(m > 1728 ? faxcodes::ExtendedMakeUp[m / 64 - 28]
                            : (c.black ? faxcodes::BlackMakeUp : faxcodes::WhiteMakeUp)[m / 64 - 1]);
        if (c.terminating >= 0) w.Run(c.black, uint32_t(c.terminating));
        else if (c.terminating == eol) w.Eol();
        else w.Bits(c.terminating == bad ? "000000000000" : "0000");  // 12 zero bits are no word of either colour
        const int32_t end = c.terminating == cut ? c.skip : int32_t(w.bits);
        if (c.terminating != cut) w.Bits("1011");  // a white 4 follows
        Strip strip(2, 8000, w.bytes);
        ASSERT_EQ(strip.prepared, 1);
        SeekBit(c.skip);
        EXPECT_EQ(FaxDecodeRun(c.black ? FaxBlack : 0), c.expected);
        if (c.terminating == cut) {
            EXPECT_EQ(BitIndex(strip), end) << "the position of the last whole word stays";
            EXPECT_EQ(TiffImage.rawLeft, 0);
        } else if (c.terminating != bad) {
            EXPECT_EQ(BitIndex(strip), end) << "behind the last word";
            EXPECT_EQ(FaxDecodeRun(0), 4);
        }
        EXPECT_TRUE(recorder.reports.empty()) << "the run decoder reports nothing";
    }
    // 500 000 make-up codes of 2560 sum past 2^31: the run is held above every width.
    BitWriter big;
    for (int i = 0; i < 500000; ++i) big.Bits(faxcodes::ExtendedMakeUp[12]);
    Strip longRun(2, 1000, big.Run(false, 7).bytes);
    const int32_t run = FaxDecodeRun(0);
    EXPECT_TRUE(run >= int32_t(FaxRunCeiling) && run > 0) << run;
}

TEST(FaxSkipToEol, CountsZerosAcrossBytesAndRestartsAfterAnEarlyOne) {
    const std::string z10(10, '0'), z11(11, '0');
    struct Case {
        const char *what;
        int lead;       // bits used before the search
        int zerosSeen;  // argument
        std::string bits;
        int32_t endBit;  // bit behind the EOL, -1: none found
    } cases[] = {
        {"11 zeros and a 1", 0, 0, z11 + "1" + "0101", 12},
        {"30 zeros and a 1", 3, 0, std::string(30, '0') + "1" + "11", 34},
        {"10 zeros restart the count", 0, 0, z10 + "1" + z11 + "1", 23},
        {"10 zeros and nothing after", 2, 0, z10 + "1" + "0000", -1},
        {"7 seen, four more", 6, 7, "00001" "111", 11},
        {"7 seen, three more is too few", 6, 7, "0001" + z11 + "1", 22},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Strip strip(2, 100, BitWriter().Bits(std::string(size_t(c.lead), '1')).Bits(c.bits).bytes);
        SeekBit(c.lead);
        const uint16_t byteBefore = faxState->curByte;
        const int16_t posBefore = faxState->position;
        FaxSkipToEol(c.zerosSeen);
        if (c.endBit < 0) {  // the strip used up, the byte and position as before
            EXPECT_EQ(TiffImage.rawLeft, 0);
            EXPECT_EQ(faxState->curByte, byteBefore);
            EXPECT_EQ(faxState->position, posBefore);
        } else {
            EXPECT_EQ(BitIndex(strip), c.endBit);
        }
    }
}

TEST(FaxSpans, EveryStartAndCountWithinTheRow) {
    for (int32_t start = 0; start < 40; ++start)
        for (int32_t count = 1; start + count <= 160; ++count) {
            Bytes buf(24, 0);
            FaxSetSpan(buf.data() + 2, start, count);
            for (int32_t i = -16; i < 176; ++i)
                ASSERT_EQ(bool(buf[size_t(16 + i) / 8] & (0x80 >> ((16 + i) % 8))), i >= start && i < start + count)
                    << start << "+" << count << " at " << i;
        }
}

TEST(FaxState, RecordReferenceLineGuardAndRelease) {
    // {compression, group3Options, has a reference line}
    for (auto [compression, options, hasRef] : {std::tuple<uint16_t, uint32_t, bool>{2, 0, false}, {3, 0, false},
                                                {3, 1, true}, {2, 1, true}, {4, 0, true}}) {
        SCOPED_TRACE(compression * 10 + options);
        test::LeakGuard guard;
        {
            Strip strip(compression, 20, BitWriter().Eol().Bits("1").Run(false, 20).bytes, options);
            ASSERT_EQ(strip.prepared, 1);
            ASSERT_NE(faxState, nullptr);
            EXPECT_EQ(faxState->refLine != nullptr, hasRef);
            if (hasRef) {
                EXPECT_EQ(faxState->refLine, reinterpret_cast<uint8_t *>(faxState) + sizeof(FaxState) + 1);
                EXPECT_EQ(faxState->refLine[-1], 0) << "the guard byte, right behind the record";
                faxState->refLine[0] = 0xFF;  // a later strip starts white again
                strip.Restart();
                EXPECT_EQ(faxState->refLine[0], 0);
            }
        }
        EXPECT_EQ(faxState, nullptr);
        EXPECT_TRUE(guard.Same());
        FaxRelease();  // a second release finds no block
    }
    // A width whose byte count wrapped in 32 bits, or past the ceiling, gets no record.
    for (uint32_t width : {0xFFFFFFFFu, FaxMaxWidth + 1}) {
        test::LeakGuard guard;
        EXPECT_EQ(Strip(4, width, {}).prepared, 0);
        EXPECT_EQ(faxState, nullptr);
        EXPECT_TRUE(guard.Same());
    }
}

// Compression 2 with group3Options 1: a tag bit 0 at the next byte makes the next row 2D (V0 V0 V0);
// a new strip starts with a white reference line and a one-dimensional row.
TEST(FaxRows1D, TagBitAfterCompressionTwoRowsAndStripRestart) {
    Strip strip(2, 8, BitWriter().Run(false, 2).Run(true, 3).Run(false, 3).Align().Bits("0111").bytes, 1);
    EXPECT_EQ(strip.Next(), Bytes{0x38});
    EXPECT_EQ(strip.Next(), Bytes{0x38});
    strip.Restart();
    EXPECT_EQ(faxState->nextIs2D, 0u);
    EXPECT_EQ(strip.Next(), Bytes{0x38});
}

}  // namespace
