// strips.h - the TIFF strip engine.
//
// The strip engine holds one strip of the open image at a time, in the
// strip buffer or in the file's read window, starts its decoder, and moves
// TiffImage.rawCursor / rawLeft for the line decoders.  TIFFDecodeLine
// delivers any line of the image through it; ReadTIF (read_tif.cpp) asks it
// for the first row of each strip.
#pragma once

#include <cstdint>

// Decodes image line `line` (counted from 0) into `row`; nonzero on success.
// Lines must come in order for the compressed schemes.
int32_t TIFFDecodeLine(uint8_t *row, uint32_t line);
// The line decoder of a compression: it delivers the next row of the strip
// in the buffer; one that delivers nothing for a compression not read.
using RowDecoder = int32_t (*)(uint8_t *row, int32_t count);
RowDecoder RowDecoderOf(uint16_t compression);
int32_t SeekToLine(uint32_t line);
int32_t LoadStrip(uint32_t strip);
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
