// handover.h - handing an image over to the host: the packed 1-bit raster
// the engine reads, and the three fields of the host's parameter record
// that point at it.
//
// A HostRaster is i16 rows, i16 columns, then the rows of (columns + 7) / 8
// bytes each, top row first, leftmost pixel in the top bit, a set bit dark.
// The record receives the tag "a1" with its NUL, the 32-bit address of the
// raster and that address plus 4 (the first pixel row).
#pragma once

#include <array>
#include <cstdint>

#include "tolimage.h"

// The largest width and height a raster can describe in its i16 fields.
constexpr int32_t MaxRasterSide = 32767;
// The number the limit reports print (the engine's historical wording).
constexpr int32_t ReportedRasterLimit = 65535;

// Room for a limit report with its numbers.
constexpr int RasterMessageBytes = 128;

// The report for a width or height the raster cannot hold, formatted into
// `buffer`; nullptr when both fit.
const char *RasterLimitText(int32_t width, int32_t height, char (&buffer)[RasterMessageBytes]);

// Loads an image file and turns its bitmap block in place into a
// HostRaster; the block stays locked and its handle is returned.  The
// selector ('c', 'l' or 'p') names the record variant; all three are
// written alike.  0 on failure or when there is no image; the record is
// then untouched.
TL_HANDLE ImageIntoRecord(void *record, char selector, char *name, int32_t imageNumber);

// Builds a HostRaster in a new locked block from a bitmap block the host
// holds.  The variant (1, 2 or 3) names the record variant; all three are
// written alike.  The host's block keeps everything but a biClrUsed of 0,
// which gets the colour count.  0 on failure, for a NULL bitmap, and when
// an error is pending from before.
TL_HANDLE BitmapIntoRecord(void *record, int32_t variant, TL_HANDLE bitmap);

// Writes the tag, the raster's address and the address of its first row
// into the record.  Touches no other byte of it.
void WriteRecord(void *record, uint32_t rasterAddress);

// The 32-bit form of a locked block's address, as the record holds it.
// False when the address (or the address plus 4) does not fit 32 bits,
// which the platform never lets happen.
bool RecordAddress(const void *address, uint32_t *out);

// 1 for each of the first 16 palette entries that counts as a dark colour
// in a bitmap of 4 bits per pixel, 0 for a light one.  `palette` holds
// `entries` entries of blue, green, red, 0; positions past `entries` are
// light (see BitmapIntoRecord for why).
std::array<uint8_t, 16> DarkTable(const uint8_t *palette, uint32_t entries);

// Whether one palette colour is dark by the table's rule.
bool IsDarkColour(uint8_t blue, uint8_t green, uint8_t red);

