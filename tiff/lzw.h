// lzw.h - the line decoder of LZW (compression 5) strips.
//
// It takes its input from the strip in memory at TiffImage.rawCursor and
// delivers exactly one row of `count` bytes per call, keeping its place in
// the strip between calls.
#pragma once

#include <cstdint>

// One string of the LZW table, stored as a link to the string without its
// last byte, and where the string already stands whole in the rows of the
// strip, so that it can be written again with one copy.  A string that ran
// over the end of a row stands in pieces: `head` bytes to the end of the
// row it begins in (where the decoder's state keeps its start), the rest at
// the start of the rows after it.
struct LzwEntry {
    const uint8_t *where;  // its bytes in an earlier row, earlier in this one, or in a static table (one byte); null when in no one piece
    uint16_t prefix;       // entry of the string without its last byte; LzwNoPrefix for one byte
    uint16_t length;       // bytes of the whole string
    uint16_t head;         // with no `where`: its bytes in the row it begins in, 0 when not known
    uint8_t value;         // its last byte
    uint8_t firstChar;     // its first byte
};
constexpr uint16_t LzwNoPrefix = 0xFFFF;

constexpr uint32_t LzwTableSize = 4096;
constexpr uint32_t LzwCodeClear = 256;
constexpr uint32_t LzwCodeEoi = 257;
constexpr uint32_t LzwFirstFree = 258;

// Starts a strip: makes the state on the first strip of a file and resets
// it.  1, or 0 (no message) when there is no memory or the strip starts
// with CLEAR in the reversed bit order.
int32_t LzwStartStrip();
// Delivers one row; 1 when it is complete, else 0 (reported).  The rows
// delivered earlier in the strip must stay as they were written until the
// strip ends: later strings are copied from them.  The rows of a strip lie
// in one block: every byte between the lowest row and the end of the
// highest is readable, since short strings are read 16 bytes at a time
// (never past the end of the highest row).  A row left short may hold
// bytes behind its last string.
int32_t LzwDecodeLine(uint8_t *row, int32_t count);
// Frees the state and the table; safe when there is none.
void LzwRelease();
