// uncompressed.h - rows of uncompressed strips (compression 1).
//
// Each row is the strip's next scanlineSize bytes, copied as they stand;
// the bytes of a row behind what the file held come out as zeros.
#pragma once

#include <cstdint>

// An uncompressed strip longer than a piece that the file's read window
// cannot give whole (larger than the window, or reaching past the file's
// end) is not copied into a strip buffer of its own size: it comes from the
// window a piece of whole rows at a time (LoadStrip starts it), the next
// piece taken as soon as the rows of one are used up, so that rawCursor
// stands at rawHeldEnd only when the file holds no more of the strip.
// Pieces are at most this long; a row longer than a piece is never streamed.
constexpr uint32_t StreamPieceBytes = 64 * 1024;
// Takes the next piece of a streamed strip into [rawCursor, rawHeldEnd).
// False when the file gave none (cut since it was opened): the strip's rest
// then counts as not held.
bool NextStreamPiece();

// Line decoder of uncompressed strips: delivers the next row of `count`
// bytes; 1 when the row is delivered, 0 when the strip table promises too
// few bytes for it (reported).
int32_t CopyLine(uint8_t *row, int32_t count);
// The row loop of uncompressed strips: copies up to `most` rows that lie
// whole in the buffer, the first into `row`, each next one rowBytes below
// the one before; returns how many.  It stops one row short of the held
// bytes' end, leaving that row to CopyLine.
uint32_t CopyHeldRows(uint8_t *row, uint32_t rowBytes, uint32_t most, bool &failed);
