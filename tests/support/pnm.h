// pnm.h - reading the PBM, PGM and PPM files the fixtures are compared with,
// and reading pixels back out of a bitmap block.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace test {

// An image as red, green, blue bytes, top row first.
struct Rgb {
    int32_t width = 0;
    int32_t height = 0;
    std::vector<uint8_t> pixels;  // 3 bytes a pixel
    bool Dark(int32_t x, int32_t y) const;  // black in a bilevel source
};

// Reads a binary PBM (P4) or PPM (P6) file.
bool ReadPnm(const std::string &path, Rgb &out);

// Decodes a bitmap block's bytes (header, palette, rows) through its
// palette into an Rgb image; 1, 4 and 8 bits.  False when the bytes do
// not hold what the header says.
bool DibToRgb(const std::vector<uint8_t> &block, Rgb &out);

// Describes the first difference of two images, or returns "".
std::string FirstDifference(const Rgb &expected, const Rgb &actual);
// The first difference of a block from the source file at `pnmPath` (its
// colours inverted when told), or "" when they agree.
std::string BlockDiffers(const std::vector<uint8_t> &block, const std::string &pnmPath, bool inverted = false);

}  // namespace test
