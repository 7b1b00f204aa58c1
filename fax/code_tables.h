// code_tables.h - the tables the CCITT decoders look code words up in.
//
// Code words are decoded a byte at a time through three state tables of one
// form (FaxRunTable, FaxModeTable, FaxUncompressedTable): 256 columns, one
// per input byte after the strip's bit order, and a row per decoder state.
// An entry holds an action in its high byte and the next state in its low
// byte, and is stored XORed with FaxTableKey(row).  States 0..7 are bit
// positions in a byte; a larger state is a code word begun in an earlier
// byte.  The row decoders take the common code words from a 64-bit window
// of the stream (bit_window.h) by the one-look-up tables below, and leave
// the rest (EOL, fill, bad patterns, long make-up chains, a strip's last
// bits) to the state tables.  code_tables.cpp builds all of them at compile
// time from the code words of code_words.h.
#pragma once

#include <array>
#include <cstdint>

// ---- state tables ----
constexpr uint32_t FaxRunRows = 230;           // 8 white + 8 black positions, 2 x 107 begun words
constexpr uint32_t FaxModeRows = 20;           // 8 positions, 12 begun mode codes
constexpr uint32_t FaxUncompressedRows = 18;   // 8 positions, 10 begun codes (0 .. ten zeros)
constexpr int32_t FaxBlack = 8;                // colour offset of the black rows of FaxRunTable

// Key that an entry of table row r is XORed with in storage.
constexpr uint16_t FaxTableKey(uint32_t r) { return uint16_t(((~r & 0xFFu) << 8) | 0xFFu); }

extern const std::array<uint16_t, FaxRunRows * 256> FaxRunTable;
extern const std::array<uint16_t, FaxModeRows * 256> FaxModeTable;
extern const std::array<uint16_t, FaxUncompressedRows * 256> FaxUncompressedTable;

// Look-up tables of the fast path, built from the same code words: run
// codes by colour (0 white, 1 black) of up to 8 bits in the next 8, and
// every run code in the next 13 (one look-up for a code of any length,
// where the dark pages' long black codes are many); mode codes of up to 7
// bits in the next 7.  A run entry is run * 16 + bits, a mode entry action
// * 8 + bits; 0 where the state tables must decide.
extern const std::array<uint16_t, 2 * 256> FaxRunFirst;
extern const std::array<uint16_t, 2 * 8192> FaxRunLong;
extern const std::array<uint8_t, 128> FaxModeFirst;
// Two runs of opposite colours, both terminating codes, in the next
// FaxPairBits bits, white first (entries 0 .. FaxPairEntries - 1) or black
// first (FaxPairEntries ..): first * 16 + second * 1024 + bits; 0 where
// they don't fit.  15 bits, the most the entry's 4 bits of length hold,
// take most pairs of a dark page too: a short white code and a black code
// of up to 10 or 11 bits (64 KB a colour).
constexpr uint32_t FaxPairBits = 15;
constexpr uint32_t FaxPairEntries = 1u << FaxPairBits;
static_assert(FaxPairBits <= 15, "a pair entry keeps the pair's length in 4 bits");
extern const std::array<uint16_t, 2 * FaxPairEntries> FaxPairFirst;
// The mode codes that begin the next 8 bits: two vertical codes, (d1 + 3)
// + bits1 * 8 + (d2 + 3) * 64 + bits2 * 512; one vertical code not followed
// by another in the 8 bits, the same with bits2 0; a pass or horizontal
// code, 7 + bits * 8 + action * 64.  0 where no code of 8 bits or fewer
// begins them.
extern const std::array<uint16_t, 256> FaxModePair;

// FaxRunTable actions.
constexpr uint32_t FaxRunNone = 0;      // no code word completed in this byte
constexpr uint32_t FaxRunInvalid = 1;   // no code word of this colour
constexpr uint32_t FaxRunEol = 2;       // EOL
constexpr uint32_t FaxRunTerm = 3;      // 3 + n: terminating code of run n (0..63)
constexpr uint32_t FaxRunMakeUp = 67;   // 67 + m / 64: make-up code of run m (64..2560)

// FaxModeTable actions.
enum FaxMode : uint32_t {
    FaxModeNone = 0,
    FaxModePass = 1,
    FaxModeHorizontal = 2,
    FaxModeVertical0 = 6,        // 3..9: vertical, a1 = b1 + action - 6
    FaxModeUncompressed = 10,
    FaxModeInvalid = 11,
    FaxModeEolBegun = 12,
};

// FaxReadUncompressedCode results.
constexpr int32_t FaxUncBlack1 = 2;        // 2..6: (code - 2) white, one black
constexpr int32_t FaxUncWhite5 = 7;        // five white
constexpr int32_t FaxUncExit0 = 8;         // 8..12: (code - 8) white, the mode ends
constexpr int32_t FaxUncNoData = 13;       // data exhausted
constexpr int32_t FaxUncInvalid = 14;      // eleven or more zero bits: no code word

// ---- small fixed tables ----
extern const uint8_t FaxBitMask[8];         // the bit at position 0..7 from the top
extern const uint8_t FaxLeftMask[9];        // n bits set from the top
extern const std::array<uint8_t, 256> FaxLeadingZeros;  // 0 bits at the top of a byte, 8 for 0x00
