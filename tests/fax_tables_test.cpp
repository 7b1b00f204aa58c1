// fax_tables_test.cpp - the CCITT state tables against the code-word lists:
// every word and every refused pattern, from every bit position of a byte,
// decoded through the stored (scrambled) tables as the decoders look up.
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>

#include "tiff/fax.h"
#include "tiff/fax_codes.h"

namespace {

struct Outcome {
    uint32_t action;
    uint32_t next;
    uint32_t lookups;
};

// Decodes the first code word of `bits`, which starts at bit `start` of the
// first byte, as the decoders do: a look-up per byte, the row being the
// state plus the colour offset.
Outcome Walk(const uint16_t *table, uint32_t rows, uint32_t offset, const std::string &bits, uint32_t start,
             std::mt19937 &rng) {
    std::string stream;
    for (uint32_t i = 0; i < start; ++i) stream += char('0' + (rng() & 1));
    stream += bits;
    while (stream.size() % 8 || stream.size() < 40) stream += char('0' + (rng() & 1));
    auto byteAt = [&](size_t i) {
        uint32_t v = 0;
        for (size_t b = 0; b < 8; ++b) v = (v << 1) | uint32_t(stream[i * 8 + b] == '1');
        return v;
    };
    uint32_t s = start;
    size_t next = 0;
    Outcome out{0, 0, 0};
    for (;;) {
        uint32_t byte = byteAt(next++);
        uint32_t row = s + offset;
        EXPECT_LT(row, rows);
        if (row >= rows) return out;
        uint32_t entry = uint32_t(table[row * 256 + byte] ^ FaxTableKey(row));
        ++out.lookups;
        s = entry & 0xFF;
        if (entry >> 8) {
            out.action = entry >> 8;
            out.next = s;
            return out;
        }
        EXPECT_GT(s, 7u) << "a begun word must not be a position";
        if (out.lookups > 4) return out;
    }
}

template <size_t N>
void CheckTable(const uint16_t *table, uint32_t rows, uint32_t offset, const std::array<faxcodes::Code, N> &codes,
                uint32_t refused, const char *name) {
    std::mt19937 rng(7);
    std::set<std::string> words, prefixes;
    for (const auto &c : codes) {
        words.insert(std::string(c.bits));
        for (size_t l = 1; l < c.bits.size(); ++l) prefixes.insert(std::string(c.bits.substr(0, l)));
    }
    for (uint32_t start = 0; start < 8; ++start) {
        for (const auto &c : codes) {
            std::string bits(c.bits);
            for (int trial = 0; trial < 3; ++trial) {
                Outcome o = Walk(table, rows, offset, bits, start, rng);
                ASSERT_EQ(o.action, c.action) << name << " word " << bits << " from bit " << start;
                ASSERT_EQ(o.next, (start + bits.size()) % 8) << name << " word " << bits;
                ASSERT_EQ(o.lookups, (start + bits.size() + 7) / 8) << name << " word " << bits;
            }
        }
        // Every pattern that leaves all words is refused at that bit.
        std::set<std::string> begun = prefixes;
        begun.insert("");
        for (const std::string &p : begun) {
            for (char b : {'0', '1'}) {
                std::string bits = p + b;
                if (words.count(bits) || prefixes.count(bits)) continue;
                Outcome o = Walk(table, rows, offset, bits, start, rng);
                ASSERT_EQ(o.action, refused) << name << " pattern " << bits << " from bit " << start;
                ASSERT_EQ(o.next, (start + bits.size()) % 8) << name << " pattern " << bits;
            }
        }
    }
}

TEST(FaxTables, EveryCodeWordFromEveryBitPosition) {
    CheckTable(FaxRunTable.data(), FaxRunRows, 0, faxcodes::RunCodes(false), FaxRunInvalid, "white");
    CheckTable(FaxRunTable.data(), FaxRunRows, FaxBlack, faxcodes::RunCodes(true), FaxRunInvalid, "black");
    CheckTable(FaxModeTable.data(), FaxModeRows, 0, faxcodes::ModeCodes, FaxModeInvalid, "mode");
    CheckTable(FaxUncompressedTable.data(), FaxUncompressedRows, 0, faxcodes::UncompressedCodes,
               uint32_t(FaxUncInvalid), "uncompressed");
}

TEST(FaxTables, StorageAndShape) {
    // The worked example: white, position 3, byte 0xAE: 0111 is the white
    // run 2, so action 5, next state 7, stored XORed with 0xFCFF.
    EXPECT_EQ(FaxTableKey(3), 0xFCFF);
    EXPECT_EQ(FaxRunTable[3 * 256 + 0xAE], uint16_t((5 << 8 | 7) ^ 0xFCFF));
    EXPECT_EQ(FaxTableKey(229), 0x1AFF);

    // Each colour's words have 107 proper prefixes; the sizes follow.
    static_assert(FaxRunRows == 16 + 2 * 107);
    // Every entry: action 0 goes to a begun word of its table, any other
    // action to a position.
    auto shape = [](const uint16_t *table, uint32_t rows, uint32_t maxAction, uint32_t stateLimit) {
        for (uint32_t r = 0; r < rows; ++r)
            for (uint32_t c = 0; c < 256; ++c) {
                uint32_t e = uint32_t(table[r * 256 + c] ^ FaxTableKey(r));
                uint32_t action = e >> 8, next = e & 0xFF;
                ASSERT_LE(action, maxAction) << r << "," << c;
                if (action == 0) {
                    ASSERT_GT(next, 7u) << r << "," << c;
                    ASSERT_LT(next, stateLimit) << r << "," << c;
                } else {
                    ASSERT_LE(next, 7u) << r << "," << c;
                }
            }
    };
    shape(FaxRunTable.data(), 16, FaxRunMakeUp + 40, FaxRunRows);  // white positions
    shape(FaxModeTable.data(), FaxModeRows, FaxModeEolBegun, FaxModeRows);
    shape(FaxUncompressedTable.data(), FaxUncompressedRows, uint32_t(FaxUncInvalid), FaxUncompressedRows);
    // A black begun word is named by its row minus 8.
    for (uint32_t r = 8; r < 16; ++r) {
        for (uint32_t c = 0; c < 256; ++c) {
            uint32_t e = uint32_t(FaxRunTable[r * 256 + c] ^ FaxTableKey(r));
            if ((e >> 8) == 0) {
                ASSERT_GE((e & 0xFF) + 8, 16u + 107u);
            }
        }
    }
}

// Bits a word took in a walk from bit 0.
uint32_t WordBits(const Outcome &o) { return (o.lookups - 1) * 8 + (o.next ? o.next : 8); }

std::string BitsOf(uint32_t v, uint32_t n) {
    std::string s;
    for (uint32_t i = n; i-- > 0;) s += char('0' + ((v >> i) & 1));
    return s;
}

// The one-look-up tables give, for every pattern of the bits they see,
// what the state tables give, or 0 where those find no run (mode) code.
TEST(FaxTables, FastTablesAgreeWithTheStateTables) {
    std::mt19937 rng(5);
    auto run = [&](uint32_t colour, const std::string &bits) {
        return Walk(FaxRunTable.data(), FaxRunRows, colour ? FaxBlack : 0, bits, 0, rng);
    };
    for (uint32_t colour = 0; colour < 2; ++colour)
        for (uint32_t v = 0; v < 8192; ++v) {
            uint32_t entry = FaxRunFirst[colour * 256 + (v >> 5)];
            if ((entry & 15) == 0) entry = FaxRunLong[colour * 8192 + v];
            const Outcome o = run(colour, BitsOf(v, 13));
            const bool isRun = o.action >= FaxRunTerm;
            ASSERT_EQ(entry != 0, isRun) << colour << " " << BitsOf(v, 13);
            if (isRun) {
                ASSERT_EQ(entry & 15, WordBits(o));
                ASSERT_EQ(entry >> 4, faxcodes::RunValue(o.action));
            }
        }
    for (uint32_t v = 0; v < 128; ++v) {
        const uint32_t entry = FaxModeFirst[v];
        const Outcome o = Walk(FaxModeTable.data(), FaxModeRows, 0, BitsOf(v, 7), 0, rng);
        const bool fast = o.action >= FaxModePass && o.action <= FaxModeVertical0 + 3 && WordBits(o) <= 7;
        ASSERT_EQ(entry != 0, fast) << BitsOf(v, 7);
        if (fast) {
            ASSERT_EQ(entry, o.action * 8 + WordBits(o));
        }
    }
    for (uint32_t blackFirst = 0; blackFirst < 2; ++blackFirst)
        for (uint32_t v = 0; v < 4096; ++v) {
            const uint32_t entry = FaxPairFirst[blackFirst * 4096 + v];
            const std::string bits = BitsOf(v, 12);
            const Outcome a = run(blackFirst, bits);
            const bool firstTerm = a.action >= FaxRunTerm && a.action < FaxRunMakeUp;
            const uint32_t used = firstTerm ? WordBits(a) : 12;
            const Outcome b = run(blackFirst ^ 1, bits.substr(used < 12 ? used : 12) + "0");
            const bool pair = firstTerm && used < 12 && b.action >= FaxRunTerm && b.action < FaxRunMakeUp &&
                              used + WordBits(b) <= 12;
            ASSERT_EQ(entry != 0, pair) << blackFirst << " " << bits;
            if (pair) {
                ASSERT_EQ(entry, (b.action - FaxRunTerm) * 1024 + (a.action - FaxRunTerm) * 16 + used + WordBits(b));
            }
        }
}

TEST(FaxTables, SmallTables) {
    for (uint32_t v = 0; v < 256; ++v) {
        uint32_t zeros = 0, ones = 0;
        while (zeros < 8 && !(v & (0x80u >> zeros))) ++zeros;
        while (ones < 8 && (v & (0x80u >> ones))) ++ones;
        ASSERT_EQ(FaxLeadingZeros[v], zeros) << v;
        ASSERT_EQ(FaxLeadingOnes[v], ones) << v;
    }
    for (int i = 0; i < 8; ++i) EXPECT_EQ(FaxBitMask[i], 0x80 >> i);
    for (int n = 0; n <= 8; ++n) EXPECT_EQ(FaxLeftMask[n], uint8_t(0xFF00 >> n));
}

}  // namespace
