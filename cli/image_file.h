// image_file.h - what the tolimage tool knows about a loaded bitmap block,
// read through the library's exported calls only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tolimage.h"

namespace cli {

// A copy of a bitmap block, with its header fields decoded.
struct Bitmap {
    int32_t width = 0;
    int32_t height = 0;  // negative: rows top-down
    uint16_t planes = 0;
    uint16_t bits = 0;
    uint32_t compression = 0;
    uint32_t sizeImage = 0;
    int32_t xPelsPerMeter = 0;
    int32_t yPelsPerMeter = 0;
    uint32_t colours = 0;
    std::vector<uint8_t> palette;  // 4 bytes per entry: blue, green, red, 0
    std::vector<uint8_t> pixels;   // rows as the block holds them
    uint32_t stride = 0;
};

// Installs the callback that prints the library's reports on standard error.
void ReportToStderr();

// The format the file's first bytes name, as a word ("BMP", "TIFF", ...).
std::string FormatOf(const std::string &path);

// Copies the block's header, palette and pixels; false when the header
// describes more than it can hold.
bool CopyBitmap(TL_HANDLE block, Bitmap &out);

// True when pixel (x, y), y counted from the top, is dark.
bool IsDark(const Bitmap &bitmap, int32_t x, int32_t y);
// Blue, green, red of pixel (x, y), y counted from the top.
void PixelColour(const Bitmap &bitmap, int32_t x, int32_t y, uint8_t rgb[3]);

// True when WriteBitmap can write the bitmap: uncompressed, and of at least
// one bit a pixel.  A header of 0 bits a pixel holds no pixels however wide
// it says the image is; written out, a file of a hundred bytes would come
// out as a PPM of hundreds of gigabytes.
bool CanWrite(const Bitmap &bitmap);

// What an output name's extension asks for: ".pbm", ".ppm", ".pnm" (or no
// extension) the netpbm output, ".png" PNG; any other extension is refused
// before a file is read.
enum class OutputKind { Netpbm, Png, Unknown };
// Where the extension of a file name begins (its dot), or npos when the
// last part of the name has none (a leading dot is no extension).
size_t ExtensionDot(const std::string &path);
OutputKind OutputKindOf(const std::string &path);

// Checks an output name for a command: prints why it cannot be written
// (unknown extension, or PNG in a build without it) and gives false.
bool UsableOutput(const std::string &path);

// Writes the bitmap in the form its name asks for.  Netpbm: a 1-bit bitmap
// as PBM (dark pixels set), any other as PPM.  PNG: a 1-bit bitmap as 1-bit
// greyscale (dark pixels black), 2, 4 and 8 bits through their palette, any
// other as RGB; the resolution goes into the pHYs chunk.
bool WriteBitmap(const Bitmap &bitmap, const std::string &path);

// Loads image `number` of `path` (a copy of the name is handed over, so the
// library may write the path the user chose into it; `chosen` receives the
// name the image came from).  0 when there is none.
TL_HANDLE LoadImageFile(const std::string &path, int32_t number, std::string *chosen = nullptr);

}  // namespace cli
