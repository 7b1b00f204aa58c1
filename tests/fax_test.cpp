// The CCITT decoders: every code word of every state table from every bit
// position, and the working record.  The fax
// files of independent encoders are in the sources test, damaged streams by
// the thousand in the replay of the kept inputs.
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <tuple>

#include "fax/code_words.h"
#include "fax/fax.h"
#include "fax/state.h"
#include "platform/win32.h"
#include "tiff/directory.h"
#include "support/support.h"
#include "tiff/record.h"

namespace faxtest {

// Appends bits, first bit at the top of a byte.
struct BitWriter {
    std::vector<uint8_t> bytes;
    uint32_t bits = 0;

    void Bit(int b) {
        if (bits % 8 == 0) bytes.push_back(0);
        if (b) bytes.back() |= uint8_t(0x80u >> (bits % 8));
        ++bits;
    }
    BitWriter &Bits(std::string_view text) {
        for (char c : text)
            if (c == '0' || c == '1') Bit(c == '1');
        return *this;
    }
    // Make-up codes of 2560 while more is left, then one make-up and the terminating code.
    BitWriter &Run(bool black, uint32_t n) {
        for (; n > 2623; n -= 2560) Bits(faxcodes::ExtendedMakeUp[12]);
        if (const uint32_t m = n / 64; m > 0)
            Bits(m > 27 ? faxcodes::ExtendedMakeUp[m - 28] : (black ? faxcodes::BlackMakeUp : faxcodes::WhiteMakeUp)[m - 1]);
        n %= 64;
        return Bits(black ? faxcodes::BlackTerminating[n] : faxcodes::WhiteTerminating[n]);
    }
    BitWriter &Eol() { return Bits(faxcodes::Eol); }
    BitWriter &Align() {
        while (bits % 8) Bit(0);
        return *this;
    }
};

// TiffImage set up for one strip of `data` as the directory and strip engine would.
struct Strip {
    std::vector<uint8_t> data;
    int32_t prepared = 0;

    Strip(uint16_t compression, uint32_t width, std::vector<uint8_t> bytes, uint32_t group3Options = 0)
        : data(std::move(bytes)) {
        std::memset(&TiffImage, 0, sizeof TiffImage);
        TiffImage.imageWidth = width;
        TiffImage.scanlineSize = (width + 7) / 8;
        TiffImage.compression = compression;
        TiffImage.group3Options = group3Options;
        TiffImage.fillOrder = 1;
        TiffImage.isCcitt = true;
        FaxStart(compression);
        Restart();
    }
    ~Strip() { FaxRelease(); }
    // Back to the strip's first byte, as a new strip starts.
    void Restart() {
        TiffImage.rawCursor = data.data();
        TiffImage.rawLeft = int32_t(data.size());
        TiffImage.currentRow = 0;
        prepared = FaxPrepareStrip();
    }
    // Decodes one row as TIFFDecodeLine does.
    std::vector<uint8_t> Next() {
        std::vector<uint8_t> row(TiffImage.scanlineSize);
        TiffImage.compression == 4 ? FaxDecodeRowsG4(row.data(), int32_t(row.size()))
                                   : FaxDecodeRows(row.data(), int32_t(row.size()));
        ++TiffImage.currentRow;
        return row;
    }
};

}  // namespace faxtest

namespace {

using faxtest::BitWriter;
using faxtest::Strip;
using Bytes = std::vector<uint8_t>;

// ---- the state tables ---------------------------------------------------------

struct Outcome {
    uint32_t action = 0, next = 0, lookups = 0;
};

// Decodes the first word of `bits` begun at bit `start`, a look-up per byte as the decoders do.
Outcome Walk(const uint16_t *table, uint32_t rows, uint32_t offset, const std::string &bits, uint32_t start,
             std::mt19937 &rng) {
    std::string stream;
    for (uint32_t i = 0; i < start; ++i) stream += char('0' + (rng() & 1));
    stream += bits;
    while (stream.size() % 8 || stream.size() < 40) stream += char('0' + (rng() & 1));
    Outcome out;
    for (uint32_t s = start; out.lookups < 5;) {
        const uint32_t row = s + offset, byte = uint32_t(std::stoul(stream.substr(8 * out.lookups++, 8), nullptr, 2));
        if (row >= rows) {
            ADD_FAILURE() << "row " << row << " outside the table";
            return out;
        }
        const uint32_t entry = uint32_t(table[row * 256 + byte] ^ FaxTableKey(row));
        s = entry & 0xFF;
        if (entry >> 8) return {entry >> 8, s, out.lookups};
        EXPECT_GT(s, 7u) << "a begun word must not be a position";
    }
    return out;
}

template <size_t N>
void CheckTable(const uint16_t *table, uint32_t rows, uint32_t offset, const std::array<faxcodes::Code, N> &codes,
                uint32_t refused) {
    std::mt19937 rng(7);
    std::set<std::string> words, prefixes = {""};
    for (const auto &c : codes) {
        words.insert(std::string(c.bits));
        for (size_t l = 1; l < c.bits.size(); ++l) prefixes.insert(std::string(c.bits.substr(0, l)));
    }
    for (uint32_t start = 0; start < 8; ++start) {
        for (const auto &c : codes)
            for (int trial = 0; trial < 3; ++trial) {
                const Outcome o = Walk(table, rows, offset, std::string(c.bits), start, rng);
                const uint32_t end = start + uint32_t(c.bits.size());
                ASSERT_EQ(std::tuple(o.action, o.next, o.lookups), std::tuple(c.action, end % 8, (end + 7) / 8))
                    << c.bits << " from bit " << start;
            }
        // Every pattern that leaves all words is refused behind the bit that leaves them.
        for (const std::string &p : prefixes)
            for (const std::string &bits : {p + '0', p + '1'}) {
                if (words.count(bits) || prefixes.count(bits)) continue;
                const Outcome o = Walk(table, rows, offset, bits, start, rng);
                ASSERT_EQ(std::tuple(o.action, o.next), std::tuple(refused, uint32_t(start + bits.size()) % 8))
                    << bits << " from bit " << start;
            }
    }
}

TEST(FaxTables, EveryCodeWordFromEveryBitPosition) {
    for (bool black : {false, true}) {
        SCOPED_TRACE(black ? "black" : "white");
        CheckTable(FaxRunTable.data(), FaxRunRows, black ? FaxBlack : 0, faxcodes::RunCodes(black), FaxRunInvalid);
    }
    SCOPED_TRACE("mode, uncompressed");
    CheckTable(FaxModeTable.data(), FaxModeRows, 0, faxcodes::ModeCodes, FaxModeInvalid);
    CheckTable(FaxUncompressedTable.data(), FaxUncompressedRows, 0, faxcodes::UncompressedCodes, uint32_t(FaxUncInvalid));
}

// ---- the working record --------------------------------------------------------

TEST(FaxState, TheRecordHasAGuardedReferenceLineWhereRowsAreTwoDimensional) {
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
                EXPECT_EQ(faxState->refLine[-1], 0) << "the guard byte, right before the line";
                faxState->refLine[0] = 0xFF;  // a later strip starts white again
                strip.Restart();
                EXPECT_EQ(faxState->refLine[0], 0);
            }
        }
        EXPECT_EQ(faxState, nullptr);
        EXPECT_TRUE(guard.Same());
    }
    // A width whose byte count wrapped in 32 bits, or past the ceiling, gets no record.
    for (uint32_t width : {0xFFFFFFFFu, FaxMaxWidth + 1}) {
        test::LeakGuard guard;
        EXPECT_EQ(Strip(4, width, {}).prepared, 0);
        EXPECT_EQ(faxState, nullptr);
        EXPECT_TRUE(guard.Same());
    }
    // Compression 2 with group3Options 1: a tag bit 0 at the next byte makes the next row 2D (V0 V0 V0);
    // a new strip starts with a white reference line and a one-dimensional row.
    Strip strip(2, 8, BitWriter().Run(false, 2).Run(true, 3).Run(false, 3).Align().Bits("0111").bytes, 1);
    EXPECT_EQ(strip.Next(), Bytes{0x38});
    EXPECT_EQ(strip.Next(), Bytes{0x38});
    strip.Restart();
    EXPECT_EQ(faxState->nextIs2D, 0u);
    EXPECT_EQ(strip.Next(), Bytes{0x38});
    // 500 000 make-up codes of 2560 sum past 2^31: the run is held above every width, and the row is white.
    BitWriter big;
    for (int i = 0; i < 500000; ++i) big.Bits(faxcodes::ExtendedMakeUp[12]);
    Strip longRun(2, 1000, big.Run(false, 7).bytes);
    FaxBits bits = LoadBits();
    const int32_t run = FaxDecodeRun(bits, 0);
    EXPECT_TRUE(run >= int32_t(FaxRunCeiling) && run > 0) << run;
}

}  // namespace
