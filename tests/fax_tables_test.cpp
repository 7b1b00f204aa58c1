// fax_tables_test.cpp - the state tables and the one-look-up tables against the code-word lists.
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <tuple>

#include "fax/code_words.h"

namespace {

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

// Bits a word took in a walk from bit 0, and the bits of v.
uint32_t WordBits(const Outcome &o) { return (o.lookups - 1) * 8 + (o.next ? o.next : 8); }
std::string BitsOf(uint32_t v, uint32_t n) {
    std::string s;
    for (uint32_t i = n; i-- > 0;) s += char('0' + ((v >> i) & 1));
    return s;
}

// For every pattern they see: what the state tables give, or 0 where those find no run or mode code.
TEST(FaxTables, FastTablesAgreeWithTheStateTables) {
    std::mt19937 rng(5);
    auto run = [&](uint32_t black, const std::string &bits) {
        return Walk(FaxRunTable.data(), FaxRunRows, black ? FaxBlack : 0, bits, 0, rng);
    };
    for (uint32_t black = 0; black < 2; ++black)
        for (uint32_t v = 0; v < 8192; ++v) {
            uint32_t entry = FaxRunFirst[black * 256 + (v >> 5)];
            if ((entry & 15) == 0) entry = FaxRunLong[black * 8192 + v];
            const Outcome o = run(black, BitsOf(v, 13));
            ASSERT_EQ(entry, o.action >= FaxRunTerm ? faxcodes::RunValue(o.action) * 16 + WordBits(o) : 0)
                << black << " " << BitsOf(v, 13);
        }
    for (uint32_t v = 0; v < 128; ++v) {
        const Outcome o = Walk(FaxModeTable.data(), FaxModeRows, 0, BitsOf(v, 7), 0, rng);
        const bool fast = o.action >= FaxModePass && o.action <= FaxModeVertical0 + 3 && WordBits(o) <= 7;
        ASSERT_EQ(FaxModeFirst[v], fast ? o.action * 8 + WordBits(o) : 0) << BitsOf(v, 7);
    }
    auto terminating = [](const Outcome &o) { return o.action >= FaxRunTerm && o.action < FaxRunMakeUp; };
    for (uint32_t blackFirst = 0; blackFirst < 2; ++blackFirst)
        for (uint32_t v = 0; v < 4096; ++v) {
            const std::string bits = BitsOf(v, 12);
            const Outcome a = run(blackFirst, bits);
            const uint32_t used = terminating(a) ? WordBits(a) : 12;
            const Outcome b = run(blackFirst ^ 1, bits.substr(used) + "0");
            const bool pair = terminating(a) && used < 12 && terminating(b) && used + WordBits(b) <= 12;
            ASSERT_EQ(FaxPairFirst[blackFirst * 4096 + v],
                      pair ? (b.action - FaxRunTerm) * 1024 + (a.action - FaxRunTerm) * 16 + used + WordBits(b) : 0)
                << blackFirst << " " << bits;
        }
}

}  // namespace
