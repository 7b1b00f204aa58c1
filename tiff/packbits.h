// packbits.h - the line decoder of PackBits (compression 32773) strips.
//
// It takes its input from the strip in memory at TiffImage.rawCursor and
// delivers exactly one row of `count` bytes per call, keeping its place in
// the strip between calls.
#pragma once

#include <cstdint>

// Delivers one row of a PackBits strip; 1 when it is complete, else 0
// (reported).
int32_t PackBitsDecodeLine(uint8_t *row, int32_t count);
