// png_file.h - writing PNG files with libpng, for the tool's outputs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

// An image ready for PNG: rows of `rowBytes` bytes, top row first, packed as
// PNG packs them (the leftmost pixel in the top bits of a byte).
struct PngImage {
    uint32_t width = 0;
    uint32_t height = 0;
    int bitDepth = 1;                // 1, 4 or 8
    int colourType = 0;              // 0 greyscale, 2 RGB, 3 palette
    std::vector<uint8_t> palette;    // red, green, blue per entry (type 3 only)
    int32_t xPelsPerMeter = 0;       // written as pHYs when both are above 0
    int32_t yPelsPerMeter = 0;
    size_t rowBytes = 0;
    std::vector<uint8_t> rows;       // height x rowBytes
};

// True when the PNG built with this tool (libpng found when it was built).
bool CanWritePng();

// Writes `image` to `path`; false when the file cannot be written.
bool WritePng(const PngImage &image, const std::string &path);

}  // namespace cli
