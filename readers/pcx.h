// pcx.h - the PCX reader: 1 bit per pixel in one plane (bilevel) or four
// planes (16 colours), run-length coded.
#pragma once

#include <array>
#include <cstdint>

#include "core/image.h"
#include "services/files.h"

constexpr int32_t PcxHeaderBytes = 128;

// The four bits of the index in reverse order.
inline constexpr std::array<uint8_t, 16> NibbleReverse = {0, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15};

// The palette of every 4-plane image, as the bitmap block stores it: blue,
// green, red, 0.
inline constexpr std::array<uint8_t, 64> DefaultPalette16 = {
    0,   0,   0,   0,  0,   0,   128, 0,  0,   128, 0,   0,  0,   128, 128, 0,  //  0- 3
    128, 0,   0,   0,  128, 0,   128, 0,  128, 128, 0,   0,  128, 128, 128, 0,  //  4- 7
    192, 192, 192, 0,  0,   0,   255, 0,  0,   255, 0,   0,  0,   255, 255, 0,  //  8-11
    255, 0,   0,   0,  255, 0,   255, 0,  255, 255, 0,   0,  255, 255, 255, 0,  // 12-15
};

// 1 when the 128 header bytes describe a file this reader takes: maker 10,
// version 0, 2, 3 or 5, encoding 0 or 1, 1 bit per pixel, 1 or 4 planes.
// The edges and the line length are not looked at here.
int32_t PcxHeaderOk(const uint8_t *header);

// Decodes `count` bytes of one scan line (all its planes) into `buffer`.
// 1 when the buffer is full; 0 after a failed read, which is reported with
// the path of the file being read.  A run that passes `count` is cut there.
// Reads through a read-ahead buffer that ReadPCX empties for every file.
int32_t PcxReadLine(int32_t count, uint8_t *buffer, ManagedFile file);

// The resolution of the block in pixels per metre from the header's dots
// per inch: times 39.37 as a float, in extended precision, cut toward zero.
int32_t PcxPelsPerMeter(int16_t dpi);
