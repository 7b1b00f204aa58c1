// row_decoders.h - the one- and two-dimensional row decoders of the CCITT
// compressions (row_1d.cpp, row_2d.cpp).  Each decodes one row from the
// stream, either into a list of its changing elements (changes.h) or, for
// the rows a list can't hold, into a cleared bitmap row.  The row drivers
// (row_drivers.cpp) choose which.
#pragma once

#include <cstdint>

#include "fax/bit_window.h"

// One one-dimensional row into a cleared row: 1 done, -1 ended short, -3 no data.
int32_t FaxDecodeRow1D(FaxBits &bits, uint8_t *row, int32_t width);
// The same row into a list of changes: the same codes, reports and results.
int32_t FaxDecodeChanges1D(FaxBits &bits, int32_t *changes, int32_t width);
// One two-dimensional row into a cleared row against refLine: 1 done (or
// ended by EOL under compression 3), -1 ended short at a bad code, -3 no
// data, 0 an action above 12.
int32_t FaxDecodeRow2D(FaxBits &bits, uint8_t *row, const uint8_t *refLine, int32_t width);
// The same against the reference line's list of changes, into a list; or
// FaxRowToBitmap for a row the lists can't hold.
int32_t FaxDecodeChanges2D(FaxBits &bits, const int32_t *ref, int32_t *changes, int32_t width);
