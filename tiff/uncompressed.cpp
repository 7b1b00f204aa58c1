// uncompressed.cpp - rows of uncompressed strips (compression 1): copied
// from the strip a row at a time (CopyLine), or, for the rows that follow
// in a strip, all that the buffer holds in one loop (CopyHeldRows).
#include "tiff/uncompressed.h"

#include <cstring>

#include "platform/win32.h"
#include "services/errors.h"
#include "services/files.h"
#include "tiff/record.h"

bool NextStreamPiece() {
    auto &t = TiffImage;
    const uint32_t rows = t.scanlineSize == 0 ? 1 : StreamPieceBytes / t.scanlineSize;
    uint32_t bytes = (rows > 0 ? rows : 1) * t.scanlineSize;
    if (bytes > t.rawStreamLeft) bytes = t.rawStreamLeft;
    const uint8_t *piece = bytes > 0 ? ReadInPlace(t.tiffFile, bytes) : nullptr;
    if (piece == nullptr) {
        t.rawStreamLeft = 0;
        t.rawHeldEnd = t.rawCursor;
        return false;
    }
    t.rawCursor = piece;
    t.rawHeldEnd = piece + bytes;
    t.rawStreamLeft -= bytes;
    return true;
}

int32_t CopyLine(uint8_t *row, int32_t count) {
    auto &t = TiffImage;
    if (t.rawLeft < count) {
        wsprintfA(t.messageBuffer, "Internal allocation error in line %d", t.currentRow);
        ReportError(TiffReadTitle, t.messageBuffer, 0);
        if (!t.rowsZeroed && count > 0) std::memset(row, 0, size_t(count));
        return 0;
    }
    // Bytes behind what the file held are not in the buffer: they are
    // zeros, as the zeroed row has them or as written here.
    const ptrdiff_t held = t.rawHeldEnd - t.rawCursor;
    const int32_t copied = held <= 0 ? 0 : held < count ? int32_t(held) : count;
    std::memcpy(row, t.rawCursor, size_t(copied));
    if (!t.rowsZeroed && copied < count) std::memset(row + copied, 0, size_t(count - copied));
    t.rawCursor += copied;
    t.rawLeft -= count;
    if (t.rawCursor == t.rawHeldEnd && t.rawStreamLeft > 0) NextStreamPiece();
    return 1;
}

// The row loop of uncompressed strips: copies up to `most` rows that lie
// whole in the buffer, the first into `row`, each next one rowBytes below
// the one before, clearing each pad in a block that is not zero-filled;
// returns how many.  It stops one row short of the held bytes' end and of
// the bytes the strip table promises: that row goes to CopyLine, so that
// what follows it (a short strip's report, rows passed by as blank) is
// found as row by row.  Each row copied here would have been copied whole
// by CopyLine, and SkipBlankLines would have passed none by after it.  It
// fails no row.
uint32_t CopyHeldRows(uint8_t *row, uint32_t rowBytes, uint32_t most, bool & /* failed */) {
    auto &t = TiffImage;
    const uint32_t count = t.scanlineSize;
    if (count == 0 || t.rawLeft <= 0 || t.rawCursor >= t.rawHeldEnd) return 0;
    // Whole rows that the strip table promises and the buffer holds.
    const uint64_t promised = uint64_t(t.rawLeft) / count;
    const uint64_t held = uint64_t(t.rawHeldEnd - t.rawCursor) / count;
    const uint64_t ready = promised < held ? promised : held;
    if (ready == 0) return 0;
    const uint64_t rows = ready - 1 < most ? ready - 1 : most;
    const uint8_t *from = t.rawCursor;
    const uint32_t padBytes = rowBytes - count;
    const bool clearPads = !t.rowsZeroed && padBytes > 0;
    for (uint64_t i = 0; i < rows; ++i, from += count, row -= rowBytes) {
        std::memcpy(row, from, count);
        if (clearPads) TiffClearPad(row, count, padBytes);
    }
    t.rawCursor += rows * count;
    t.rawLeft -= int32_t(rows * count);
    t.currentRow += uint32_t(rows);
    return uint32_t(rows);
}
