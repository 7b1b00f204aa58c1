// lines.h - the TIFF strip engine and line reader.
//
// ReadTIF turns the first image of a TIFF file into a bitmap block.  Beneath
// it the strip engine holds one strip at a time, in the strip buffer or in
// the file's read window, and moves TiffImage.rawCursor / rawLeft for the
// line decoders.
#pragma once

#include <cstdint>

#include "tolimage.h"

// ReadTIF (name, imageNumber) is declared in core/image.h.

uint32_t TiffImageLength();
uint32_t TiffImageWidth();
uint16_t TiffPhotometric();
// Resolution in whole pixels per metre; 0 when the file gives none.
int32_t TiffXPelsPerMeter();
int32_t TiffYPelsPerMeter();

// Decodes image line `line` (counted from 0) into `row`; nonzero on success.
// Lines must come in order for the compressed schemes.
int32_t TIFFDecodeLine(uint8_t *row, uint32_t line);
// The line decoder of a compression: it delivers the next row of the strip
// in the buffer; one that delivers nothing for a compression not read.
using RowDecoder = int32_t (*)(uint8_t *row, int32_t count);
RowDecoder RowDecoderOf(uint16_t compression);
int32_t SeekToLine(uint32_t line);
int32_t LoadStrip(uint32_t strip);
// Whether the strips of the image just opened can be decoded where the
// file's read window has them (see LoadStrip).
bool StripsReadInPlace();
int32_t StartStrip(uint32_t strip);
// Replaces the strip buffer by one of `size` bytes, not zero-filled (LoadStrip
// zeroes what its read leaves); nonzero on success.
int32_t ResizeStripBuffer(int32_t size);
// Puts the file's position at `offset` for a strip's bytes, with no seek
// where the bytes read last end there; false when the seek failed.
bool SeekForStrip(uint32_t offset);
// Reads `count` bytes of strip `strip`; -1 if the seek failed, else what
// the read gave.
int32_t ReadStripBytes(uint32_t strip, uint8_t *buffer, int32_t count);
// Line decoder of uncompressed strips; 1 when the row is delivered.
int32_t CopyLine(uint8_t *row, int32_t count);

// Replaces each of `count` bytes by its bit reversal.
void ReverseBits(uint8_t *buffer, uint32_t count);
// 256-byte map of each byte to its bit reversal (reversed nonzero) or to
// itself (0).
const uint8_t *BitOrderTable(int32_t reversed);

// Row bytes of a bitmap row of `width` one-bit pixels, padded to 4 bytes.
constexpr uint32_t TiffRowBytes(uint32_t width) { return uint32_t(((uint64_t(width) + 31) / 8) & ~uint64_t(3)); }
