// state.h - the working record of the CCITT decoders: what a strip's rows
// share between calls, and the stream it is decoded from.
//
// FaxStart forgets the record when a directory has been read, FaxPrepareStrip
// makes it on an image's first strip and resets it at each strip's start,
// and FaxRelease frees it when the image is closed (state.cpp).  Every row
// decoder works on the stream LoadBits takes out of it and StoreBits gives
// back.
#pragma once

#include <cstdint>

#include "fax/bit_window.h"

// The working record of the decoders; it lives in TiffImage's ccittBlock,
// followed by a guard byte of 0 and the reference line when the image has
// two-dimensional rows.
struct FaxState {
    uint16_t curByte;        // byte under decoding, already through byteMap
    int16_t position;        // 0: fetch next; 1..7: bits of curByte used; >7: begun word
    uint32_t rowBytes;       // copy of scanlineSize
    uint32_t rowPixels;      // copy of imageWidth
    uint32_t nextIs2D;       // 1: the next row of FaxDecodeRows is two-dimensional
    const uint8_t *byteMap;  // BitOrderTable(fillOrder != 1)
    uint8_t *refLine;        // reference line, behind the guard byte; null if none
    // The rows as lists of changing elements (see changes.h), for rows
    // of up to FaxChangesMaxWidth pixels; both null for wider rows, which
    // are decoded into the bitmap and against refLine alone.
    int32_t *refChanges;     // the reference line's changes, closed by sentinels
    int32_t *curChanges;     // the changes of the row under decoding
    uint32_t refLineStale;   // 1: refLine does not hold refChanges' pixels yet
    uint32_t rowFromBitmap;  // 1: the last row was decoded against refLine
    // A row that found no data (-3) but a few bits too short for a code
    // leaves the stream as it was, so every later row of the strip would
    // decode those bits again to the same end.  The stream it stopped on
    // and its kind are kept to give those rows at once, when the row made
    // no report and left a white row; stallCursor is null when no row has
    // stalled so in this strip.
    const uint8_t *stallCursor;
    int32_t stallPosition;
    uint32_t stallCurByte;
    uint32_t stall2D;
    // The last row, kept when a next row whose bits are the same decodes to
    // the same changes, which are still in curChanges: a one-dimensional
    // row of a strip of such rows alone (whose list is never swapped into
    // the reference), or a two-dimensional row that repeated its reference
    // line (the list swapped out for it is that line's, entry for entry).
    // It decoded to its end and made no report.  Blank stretches and ruled
    // boxes give most rows of a page so.  repeatFrom is null when no row
    // is kept.
    const uint8_t *repeatFrom;  // the byte its first bit is in
    uint32_t repeatShift;       // bits of that byte before it, 0 to 7
    uint32_t repeatBits;        // its bits, 1 or more
    int32_t repeatCount;        // entries of its closed list, as FaxClosedSize
};

extern FaxState *faxState;  // null while no record exists
extern uint16_t faxScheme;  // the image's compression

// The stream of the current strip, taken from the statics (the strip
// cursor and the record's byte in hand) and given back to them.
FaxBits LoadBits();
void StoreBits(const FaxBits &bits);

// Reports "Unexpected code in line %ld" with currentRow under "TIFF Read".
[[gnu::cold]] void FaxReportUnexpectedCode();
// Calls of FaxReportUnexpectedCode, heard or not, to tell which rows made one.
extern uint32_t faxReportCount;
