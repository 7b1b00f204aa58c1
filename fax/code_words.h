// code_words.h - the code words of ITU-T T.4 and T.6 and the compile-time
// builder of the decoders' state tables.
//
// Each code word is written as its bits; the builder grows a binary tree of
// the words of one table, numbers the inner nodes (the begun words), and
// follows every (state, byte) pair through the tree to get the entry.  The
// same lists serve the generator test, which walks each word through the
// stored tables from every bit position.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "fax/code_tables.h"

namespace faxcodes {

struct Code {
    std::string_view bits;  // '0' and '1', first bit first
    uint32_t action;
};

// Run lengths 0..63 of the terminating codes, by colour.
inline constexpr std::array<std::string_view, 64> WhiteTerminating = {
    "00110101", "000111",   "0111",     "1000",     "1011",     "1100",     "1110",     "1111",
    "10011",    "10100",    "00111",    "01000",    "001000",   "000011",   "110100",   "110101",
    "101010",   "101011",   "0100111",  "0001100",  "0001000",  "0010111",  "0000011",  "0000100",
    "0101000",  "0101011",  "0010011",  "0100100",  "0011000",  "00000010", "00000011", "00011010",
    "00011011", "00010010", "00010011", "00010100", "00010101", "00010110", "00010111", "00101000",
    "00101001", "00101010", "00101011", "00101100", "00101101", "00000100", "00000101", "00001010",
    "00001011", "01010010", "01010011", "01010100", "01010101", "00100100", "00100101", "01011000",
    "01011001", "01011010", "01011011", "01001010", "01001011", "00110010", "00110011", "00110100",
};

inline constexpr std::array<std::string_view, 64> BlackTerminating = {
    "0000110111",   "010",          "11",           "10",           "011",          "0011",
    "0010",         "00011",        "000101",       "000100",       "0000100",      "0000101",
    "0000111",      "00000100",     "00000111",     "000011000",    "0000010111",   "0000011000",
    "0000001000",   "00001100111",  "00001101000",  "00001101100",  "00000110111",  "00000101000",
    "00000010111",  "00000011000",  "000011001010", "000011001011", "000011001100", "000011001101",
    "000001101000", "000001101001", "000001101010", "000001101011", "000011010010", "000011010011",
    "000011010100", "000011010101", "000011010110", "000011010111", "000001101100", "000001101101",
    "000011011010", "000011011011", "000001010100", "000001010101", "000001010110", "000001010111",
    "000001100100", "000001100101", "000001010010", "000001010011", "000000100100", "000000110111",
    "000000111000", "000000100111", "000000101000", "000001011000", "000001011001", "000000101011",
    "000000101100", "000001011010", "000001100110", "000001100111",
};

// Make-up codes of 64, 128, ... 1728, by colour.
inline constexpr std::array<std::string_view, 27> WhiteMakeUp = {
    "11011",     "10010",     "010111",    "0110111",   "00110110",  "00110111",  "01100100",
    "01100101",  "01101000",  "01100111",  "011001100", "011001101", "011010010", "011010011",
    "011010100", "011010101", "011010110", "011010111", "011011000", "011011001", "011011010",
    "011011011", "010011000", "010011001", "010011010", "011000",    "010011011",
};

inline constexpr std::array<std::string_view, 27> BlackMakeUp = {
    "0000001111",    "000011001000",  "000011001001",  "000001011011",  "000000110011",
    "000000110100",  "000000110101",  "0000001101100", "0000001101101", "0000001001010",
    "0000001001011", "0000001001100", "0000001001101", "0000001110010", "0000001110011",
    "0000001110100", "0000001110101", "0000001110110", "0000001110111", "0000001010010",
    "0000001010011", "0000001010100", "0000001010101", "0000001011010", "0000001011011",
    "0000001100100", "0000001100101",
};

// Make-up codes of 1792, 1856, ... 2560, the same for both colours.
inline constexpr std::array<std::string_view, 13> ExtendedMakeUp = {
    "00000001000",  "00000001100",  "00000001101",  "000000010010", "000000010011",
    "000000010100", "000000010101", "000000010110", "000000010111", "000000011100",
    "000000011101", "000000011110", "000000011111",
};

// EOL: eleven zero bits and a 1.  In FaxRunTable a twelfth zero bit is no
// code word (action 1): more zero bits are fill, which only FaxSkipToEol
// accepts, and they never stand inside a row.
inline constexpr std::string_view Eol = "000000000001";

// The 105 code words of one colour with their FaxRunTable actions.
constexpr std::array<Code, 105> RunCodes(bool black) {
    std::array<Code, 105> codes{};
    size_t n = 0;
    for (uint32_t run = 0; run < 64; ++run)
        codes[n++] = {black ? BlackTerminating[run] : WhiteTerminating[run], FaxRunTerm + run};
    for (uint32_t i = 0; i < 27; ++i)
        codes[n++] = {black ? BlackMakeUp[i] : WhiteMakeUp[i], FaxRunMakeUp + i + 1};
    for (uint32_t i = 0; i < 13; ++i) codes[n++] = {ExtendedMakeUp[i], FaxRunMakeUp + 28 + i};
    codes[n++] = {Eol, FaxRunEol};
    return codes;
}

// Mode codes of two-dimensional rows (T.4 and T.6).  Seven zero bits are
// taken as the start of an EOL.
inline constexpr std::array<Code, 11> ModeCodes = {{
    {"0001", FaxModePass},
    {"001", FaxModeHorizontal},
    {"0000010", 3},
    {"000010", 4},
    {"010", 5},
    {"1", 6},
    {"011", 7},
    {"000011", 8},
    {"0000011", 9},
    {"0000001111", FaxModeUncompressed},
    {"0000000", FaxModeEolBegun},
}};

// Code words of uncompressed mode.  Eleven zero bits are no code word: the
// pattern is refused at the eleventh.
inline constexpr std::array<Code, 12> UncompressedCodes = {{
    {"1", 2},
    {"01", 3},
    {"001", 4},
    {"0001", 5},
    {"00001", 6},
    {"000001", 7},
    {"0000001", 8},
    {"00000001", 9},
    {"000000001", 10},
    {"0000000001", 11},
    {"00000000001", 12},
    {"00000000000", uint32_t(FaxUncInvalid)},
}};

// ---- the builder ----

constexpr uint32_t MaxNodes = 256;

// A binary tree of code words: an inner node is a begun word, a leaf a
// complete one.  Node 0 is the root (no bits read).
struct Tree {
    int16_t child[MaxNodes][2]{};
    uint32_t action[MaxNodes]{};  // of a leaf; 0 for an inner node
    uint32_t state[MaxNodes]{};   // table state of an inner node other than the root
    uint32_t nodes = 1;
    uint32_t begun = 0;  // inner nodes other than the root
};

// Grows the tree of `codes`.  A word that is a prefix of another, or that
// repeats one, leaves the tree unusable: the builder then fails to compile.
template <size_t N>
constexpr Tree BuildTree(const std::array<Code, N> &codes, uint32_t firstState) {
    Tree t;
    for (const Code &code : codes) {
        uint32_t node = 0;
        for (char bit : code.bits) {
            if (t.action[node] != 0) throw "a code word is a prefix of another";
            int b = bit == '1';
            if (t.child[node][b] == 0) {
                if (t.nodes >= MaxNodes) throw "tree too large";
                t.child[node][b] = int16_t(t.nodes++);
            }
            node = uint32_t(t.child[node][b]);
        }
        if (t.child[node][0] != 0 || t.child[node][1] != 0 || t.action[node] != 0)
            throw "a code word repeats or begins another";
        t.action[node] = code.action;
    }
    // Number the begun words in the order of their nodes.
    for (uint32_t n = 1; n < t.nodes; ++n)
        if (t.action[n] == 0) t.state[n] = firstState + t.begun++;
    return t;
}

// A refused pattern leaves the position behind its refused bit, as a
// completed word does: every look-up that isn't action 0 consumes at least
// one bit, so no fault can make the decoders stand still, and the EOL
// search or byte alignment behind a bad code starts after it.
//
// Fills the entries of table row `row` for every byte whose bits from the
// top up to bit `bit` are those of `high`, the code word being followed
// having reached `node`: a completed word gives its action and the position
// behind it; a bit that leaves every word gives `refused` and the position
// behind that bit; a byte that ends inside a word gives action 0 and the
// begun word's state.  One completed word or refusal fills the whole range
// of bytes that share the bits read so far.
template <size_t Size>
constexpr void Follow(std::array<uint16_t, Size> &table, const Tree &t, uint32_t row, uint32_t node, uint32_t bit,
                      uint32_t high, uint32_t refused) {
    const uint16_t key = FaxTableKey(row);
    if (bit == 8) {
        table[row * 256 + high] = uint16_t(t.state[node]) ^ key;
        return;
    }
    for (uint32_t b = 0; b < 2; ++b) {
        uint32_t bits = high | (b << (7 - bit));
        int next = t.child[node][b];
        uint32_t action = next == 0 ? refused : t.action[next];
        if (action == 0) {
            Follow(table, t, row, uint32_t(next), bit + 1, bits, refused);
            continue;
        }
        uint16_t entry = uint16_t((action << 8) | ((bit + 1) & 7)) ^ key;
        for (uint32_t c = bits; c < bits + (1u << (7 - bit)); ++c) table[row * 256 + c] = entry;
    }
}

// Fills rows [offset + 0, offset + 8) with the positions and the rows of
// the begun words (their states plus offset) of one tree, scrambled.
template <size_t Size>
constexpr void FillRows(std::array<uint16_t, Size> &table, const Tree &t, uint32_t offset, uint32_t refused) {
    for (uint32_t pos = 0; pos < 8; ++pos)
        for (uint32_t top = 0; top < (1u << pos); ++top)  // the bits before the position: any
            Follow(table, t, pos + offset, 0, pos, top << (8 - pos), refused);
    for (uint32_t n = 1; n < t.nodes; ++n)
        if (t.action[n] == 0) Follow(table, t, t.state[n] + offset, n, 0, 0, refused);
}

// White begun words are rows 16..122, black ones rows 123..229; a black
// entry names the row minus 8, the colour offset the decoder adds back.
constexpr uint32_t RunBegunWords = 107;
constexpr uint32_t WhiteFirstState = 16;
constexpr uint32_t BlackFirstState = WhiteFirstState + RunBegunWords - FaxBlack;

constexpr std::array<uint16_t, FaxRunRows * 256> BuildRunTable() {
    std::array<uint16_t, FaxRunRows * 256> table{};
    Tree white = BuildTree(RunCodes(false), WhiteFirstState);
    Tree black = BuildTree(RunCodes(true), BlackFirstState);
    if (white.begun != RunBegunWords || black.begun != RunBegunWords) throw "wrong number of begun words";
    FillRows(table, white, 0, FaxRunInvalid);
    FillRows(table, black, FaxBlack, FaxRunInvalid);
    return table;
}

constexpr std::array<uint16_t, FaxModeRows * 256> BuildModeTable() {
    std::array<uint16_t, FaxModeRows * 256> table{};
    Tree t = BuildTree(ModeCodes, 8);
    if (t.begun + 8 != FaxModeRows) throw "wrong number of begun mode codes";
    FillRows(table, t, 0, FaxModeInvalid);
    return table;
}

constexpr std::array<uint16_t, FaxUncompressedRows * 256> BuildUncompressedTable() {
    std::array<uint16_t, FaxUncompressedRows * 256> table{};
    Tree t = BuildTree(UncompressedCodes, 8);
    if (t.begun + 8 != FaxUncompressedRows) throw "wrong number of begun uncompressed codes";
    FillRows(table, t, 0, uint32_t(FaxUncInvalid));
    return table;
}

}  // namespace faxcodes

// ---- the look-up tables of the fast path ----
//
// The row decoders look a code word up in the bits ahead of a 64-bit
// window instead of walking the state tables a byte at a time.  A run entry
// holds the code's length in its low 4 bits and its run (0..63 terminating,
// 64..2560 make-up) above; 0 is "not here".  The first table is indexed by
// the next 8 bits and holds the words of up to 8 bits; the long table is
// indexed by the next 13 bits and holds the longer ones.  EOL, fill and bad
// patterns are 0 in both: the state tables decide them.

namespace faxcodes {

constexpr uint32_t RunValue(uint32_t action) {
    return action < FaxRunMakeUp ? action - FaxRunTerm : (action - FaxRunMakeUp) * 64;
}

constexpr std::array<uint16_t, 2 * 256> BuildRunFirst() {
    std::array<uint16_t, 2 * 256> table{};
    for (uint32_t colour = 0; colour < 2; ++colour)
        for (const Code &code : RunCodes(colour != 0)) {
            const auto len = uint32_t(code.bits.size());
            if (code.action < FaxRunTerm || len > 8) continue;
            uint32_t prefix = 0;
            for (char c : code.bits) prefix = (prefix << 1) | uint32_t(c == '1');
            for (uint32_t i = 0; i < (1u << (8 - len)); ++i)
                table[colour * 256 + (prefix << (8 - len)) + i] = uint16_t((RunValue(code.action) << 4) | len);
        }
    return table;
}

constexpr std::array<uint16_t, 2 * 8192> BuildRunLong() {
    std::array<uint16_t, 2 * 8192> table{};
    for (uint32_t colour = 0; colour < 2; ++colour)
        for (const Code &code : RunCodes(colour != 0)) {
            const auto len = uint32_t(code.bits.size());
            if (code.action < FaxRunTerm) continue;
            uint32_t prefix = 0;
            for (char c : code.bits) prefix = (prefix << 1) | uint32_t(c == '1');
            for (uint32_t i = 0; i < (1u << (13 - len)); ++i)
                table[colour * 8192 + (prefix << (13 - len)) + i] = uint16_t((RunValue(code.action) << 4) | len);
        }
    return table;
}

// Mode codes of up to seven bits, indexed by the next 7 bits: the action
// (pass, horizontal, vertical) times 8 plus the length; 0 for the others.
constexpr std::array<uint8_t, 128> BuildModeFirst() {
    std::array<uint8_t, 128> table{};
    for (const Code &code : ModeCodes) {
        const auto len = uint32_t(code.bits.size());
        if (code.action > FaxModeVertical0 + 3 || len > 7) continue;
        uint32_t prefix = 0;
        for (char c : code.bits) prefix = (prefix << 1) | uint32_t(c == '1');
        for (uint32_t i = 0; i < (1u << (7 - len)); ++i)
            table[(prefix << (7 - len)) + i] = uint8_t((code.action << 3) | len);
    }
    return table;
}

}  // namespace faxcodes

namespace faxcodes {

// Two terminating codes of runs of opposite colours, white first in the
// first FaxPairEntries entries and black first in the others, in the next
// FaxPairBits bits: first run * 16 + second run * 1024 + the bits of both;
// 0 where the two don't fit.
constexpr std::array<uint16_t, 2 * FaxPairEntries> BuildPairFirst() {
    std::array<uint16_t, 2 * FaxPairEntries> table{};
    for (uint32_t blackFirst = 0; blackFirst < 2; ++blackFirst)
        for (uint32_t first = 0; first < 64; ++first)
            for (uint32_t second = 0; second < 64; ++second) {
                const std::string_view a = blackFirst ? BlackTerminating[first] : WhiteTerminating[first];
                const std::string_view b = blackFirst ? WhiteTerminating[second] : BlackTerminating[second];
                const auto len = uint32_t(a.size() + b.size());
                if (len > FaxPairBits) continue;
                uint32_t prefix = 0;
                for (char c : a) prefix = (prefix << 1) | uint32_t(c == '1');
                for (char c : b) prefix = (prefix << 1) | uint32_t(c == '1');
                for (uint32_t i = 0; i < (1u << (FaxPairBits - len)); ++i)
                    table[blackFirst * FaxPairEntries + (prefix << (FaxPairBits - len)) + i] = uint16_t((second << 10) | (first << 4) | len);
            }
    return table;
}

}  // namespace faxcodes

namespace faxcodes {

// The mode codes that begin the next 8 bits (code_tables.h).
constexpr std::array<uint16_t, 256> BuildModePair() {
    std::array<uint16_t, 256> table{};
    auto prefixOf = [](const Code &code) {
        uint32_t prefix = 0;
        for (char c : code.bits) prefix = (prefix << 1) | uint32_t(c == '1');
        return prefix;
    };
    // A pass or horizontal code, and a vertical code alone (whatever
    // follows it), first; two vertical codes over them.
    for (const Code &a : ModeCodes) {
        const auto len = uint32_t(a.bits.size());
        if (a.action > 9 || len > 8) continue;
        const bool vertical = a.action >= 3;
        const uint32_t entry = vertical ? (a.action - 3) | (len << 3) : 7u | (len << 3) | (a.action << 6);
        for (uint32_t i = 0; i < (1u << (8 - len)); ++i) table[(prefixOf(a) << (8 - len)) + i] = uint16_t(entry);
    }
    for (const Code &a : ModeCodes)
        for (const Code &b : ModeCodes) {
            if (a.action < 3 || a.action > 9 || b.action < 3 || b.action > 9) continue;
            const auto len = uint32_t(a.bits.size() + b.bits.size());
            if (len > 8) continue;
            const uint32_t prefix = (prefixOf(a) << b.bits.size()) | prefixOf(b);
            for (uint32_t i = 0; i < (1u << (8 - len)); ++i)
                table[(prefix << (8 - len)) + i] =
                    uint16_t((a.action - 3) | (a.bits.size() << 3) | ((b.action - 3) << 6) | (b.bits.size() << 9));
        }
    return table;
}

}  // namespace faxcodes
