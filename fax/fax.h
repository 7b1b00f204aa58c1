// fax.h - the CCITT decoders as the TIFF reader sees them: compression 2
// (run-length rows), 3 (T.4, one- and two-dimensional) and 4 (T.6).
//
// The order of a load: the directory calls FaxStart when it has read a
// CCITT image's directory; the strip engine calls FaxPrepareStrip at the
// start of each strip (state.cpp), then FaxDecodeRows (compressions 2 and
// 3) or FaxDecodeRowsG4 (compression 4) for a strip's first row, and
// FaxDecodeRowsUpward for the rows that follow it (row_drivers.cpp); the
// directory calls FaxRelease when the image is closed.  The input is the
// strip in memory at TiffImage's rawCursor/rawLeft; the output is packed
// rows, leftmost pixel in the top bit, black 1.
//
// Beneath the drivers, in the order a row is decoded: the bit window
// (bit_window.h) feeds the code tables (code_tables.h, built from the code
// words of code_words.h), which the one- and two-dimensional row decoders
// (row_1d.cpp, row_2d.cpp) read into lists of changing elements
// (changes.h), and those are written into the row (pixels.h).
#pragma once

#include <cstdint>

// Forgets any record (without freeing: FaxRelease does that) and remembers
// the compression.  Allocates nothing.
void FaxStart(uint16_t scheme);
// Makes the record on the first call of an image, then resets the per-strip
// state; under compression 3 skips to the first EOL and reads the tag bit.
// 1, or 0 when no record exists and none can be made (no report here).
int32_t FaxPrepareStrip();
// Decodes size / rowBytes rows of compression 2 or 3 into row.  Always 1:
// a fault is reported ("Unexpected code in line %ld") and decoding goes on.
int32_t FaxDecodeRows(uint8_t *row, int32_t size);
// Decodes rows of compression 4.  1, or 0 when a row ended short at a bad
// code (reported).
int32_t FaxDecodeRowsG4(uint8_t *row, int32_t size);
// Decodes up to `rows` rows of any of the three compressions, each as one
// call of FaxDecodeRows or FaxDecodeRowsG4 would, with currentRow counted
// on after each: the first into `row`, each next one rowBytes below the one
// before (the bitmap's rows run upward).  Returns the rows delivered; stops
// before a row of compression 4 that failed (reported; `failed` set,
// currentRow counted), and after a row that leaves the strip with no byte:
// ReadTIF then decodes the next row itself and asks whether the ones behind
// it stay blank.  That row comes out white and unreported, as the rows
// passed by do.
uint32_t FaxDecodeRowsUpward(uint8_t *row, uint32_t rowBytes, uint32_t rows, bool &failed);
// Whether every later row of the current strip would come out white, with
// result -3, without a report anyone hears and without a change of state
// but the row count: the strip has no bits left, or only the bits a row
// has stalled on.  The reader then need not ask for those rows one by one.
bool FaxRowsStayBlank();
// Unlocks and frees the record's block if there is one; faxState is null after.
void FaxRelease();
