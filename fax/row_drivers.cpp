// row_drivers.cpp - the row drivers of the CCITT compressions: each row of
// a strip decoded one- or two-dimensionally as its compression and tag bit
// say, through a list of changes where the record has them, else into the
// bitmap; the reference line moved on after it; the rows that follow in a
// strip decoded in one loop with the stream in registers; and a row whose
// bits repeat those of the row before, where that row's changes are sure to
// be this one's too, given them without being decoded again.
#include "fax/fax.h"

#include <cstring>
#include <utility>

#include "fax/changes.h"
#include "fax/row_decoders.h"
#include "fax/state.h"
#include "services/errors.h"
#include "tiff/record.h"

namespace {

bool FaxStreamSpent(const FaxBits &bits) { return bits.left == 0 && uint32_t(bits.position - 1) >= 7u; }

bool FaxStalledAt(const FaxState &f, const FaxBits &bits, bool twoDimensional) {
    return f.stallCursor == bits.cursor && bits.left == 0 && f.stallPosition == bits.position &&
           f.stallCurByte == bits.curByte && f.stall2D == uint32_t(twoDimensional);
}

bool FaxRowIsWhite(const uint8_t *row, uint32_t rowBytes) {
    for (uint32_t i = 0; i < rowBytes; ++i)
        if (row[i] != 0) return false;
    return true;
}

// Where the stream stands, as the byte its next bit is in and the bits of
// that byte before it; false for a state inside a begun code word, or one
// whose byte in hand is not the one before the cursor (none is, but the
// bits compared must be the ones the decoders would read).
bool FaxStreamAt(const FaxBits &bits, const uint8_t *&at, uint32_t &shift) {
    if (bits.position == 0) {
        at = bits.cursor;
        shift = 0;
        return true;
    }
    if (bits.position > 7 || bits.cursor <= TiffImage.rawStart || bits.byteMap[bits.cursor[-1]] != bits.curByte)
        return false;
    at = bits.cursor - 1;
    shift = uint32_t(bits.position);
    return true;
}

// The 56 bits of the strip from bit `shift` of byte `at` on, in stream
// order from the top; the 8 bytes from `at` are in the strip.
inline uint64_t FaxStripBits(const uint8_t *at, uint32_t shift, bool reversed) {
    uint64_t v;
    std::memcpy(&v, at, 8);
    if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
    if (reversed) v = FaxReverseBytes(v);
    return (v << shift) & ~uint64_t(0xFF);
}

// The bits a row took from `start` to `bits`, and the byte and bit its
// first one is in; 0 when either end is a state FaxStreamAt does not know.
uint64_t FaxBitsTaken(const FaxBits &start, const FaxBits &bits, const uint8_t *&from, uint32_t &fromShift) {
    const uint8_t *to;
    uint32_t toShift;
    if (!FaxStreamAt(start, from, fromShift) || !FaxStreamAt(bits, to, toShift) || to < from) return 0;
    const uint64_t taken = uint64_t(to - from) * 8 + toShift - fromShift;
    return taken <= 0xFFFFFFFFu ? taken : 0;
}

// Whether the two-dimensional row just decoded, which took `taken` bits,
// repeated its reference line.  It did when its codes were all V0 (a 1 bit
// each, one per change before the width and one for the width); every
// other code takes more bits than it makes changes.  Under compression 4
// the bits tell that alone.  Under compression 3 they hold the row's EOL
// too, so the lists are compared, where the bits leave room for V0 codes
// alone and an EOL with a little fill.
bool FaxRepeatedReference(const FaxState &f, uint64_t taken) {
    const int32_t count = FaxClosedSize;
    const int32_t changes = count > 0 && f.curChanges[count - 1] >= int32_t(f.rowPixels) ? count - 1 : count;
    const uint64_t codes = uint64_t(changes) + 1;
    if (faxScheme == TiffCompressionCcittG4) return taken == codes;
    return taken >= codes && taken - codes <= 32 &&
           std::memcmp(f.curChanges, f.refChanges, (size_t(count) + 1) * sizeof(int32_t)) == 0;
}

// Keeps the row just decoded from `start` to `bits` as the one a next row
// may repeat, when it took a bit or more from states FaxStreamAt knows
// and, if two-dimensional, repeated its reference line.
void FaxKeepLastRow(FaxState &f, const FaxBits &start, const FaxBits &bits, bool twoDimensional) {
    const uint8_t *from;
    uint32_t fromShift;
    const uint64_t taken = FaxBitsTaken(start, bits, from, fromShift);
    if (taken == 0 || (twoDimensional && !FaxRepeatedReference(f, taken))) return;
    f.repeatFrom = from;
    f.repeatShift = fromShift;
    f.repeatBits = uint32_t(taken);
    f.repeatCount = FaxClosedSize;
}

// Whether the stream's next `count` bits are the bits from bit `oldShift`
// of byte `old` on (those of the kept row); if so they are taken, and
// the stream left as decoding them would leave it: it ends on the same bit
// of a byte, and that byte is in hand.  The bits are compared 56 at a time,
// and only where every load stays in the strip.
bool FaxTakeRepeatedBits(FaxBits &bits, uint32_t count, const uint8_t *old, uint32_t oldShift) {
    const uint8_t *at;
    uint32_t shift;
    if (!FaxStreamAt(bits, at, shift)) return false;
    // A row of compression 2 ends with the rest of its byte: the bits it
    // takes depend on where in a byte it starts, as well as on its codes.
    if (faxScheme == TiffCompressionCcittRle && shift != oldShift) return false;
    const uint64_t endBit = uint64_t(shift) + count;  // from the start of byte `at`
    const uint8_t *const stripEnd = bits.cursor + bits.left;
    if (uint64_t(stripEnd - at) < (endBit >> 3) + 8) return false;
    const bool reversed = bits.byteMap[1] != 1;
    const uint8_t *now = at;
    uint32_t nowShift = shift;
    while (count > 0) {
        const uint32_t n = count < 56 ? count : 56;
        if ((FaxStripBits(old, oldShift, reversed) ^ FaxStripBits(now, nowShift, reversed)) >> (64 - n) != 0)
            return false;
        old += (oldShift + n) >> 3;
        oldShift = (oldShift + n) & 7;
        now += (nowShift + n) >> 3;
        nowShift = (nowShift + n) & 7;
        count -= n;
    }
    const uint8_t *const end = at + (endBit >> 3) + ((endBit & 7) != 0);
    bits.left -= int32_t(end - bits.cursor);
    bits.cursor = end;
    bits.position = int32_t(endBit & 7);
    if (end > TiffImage.rawStart) bits.curByte = bits.byteMap[end[-1]];
    return true;
}

int32_t FaxDecodeRowFrom(FaxBits &bits, uint8_t *row, bool twoDimensional) {
    FaxState &f = *faxState;
    const auto width = int32_t(f.rowPixels);
    if (f.curChanges != nullptr) {
        const FaxBits start = bits;
        // One-dimensional rows repeat each other only where no row is
        // two-dimensional.  So a kept row is of the kind of the row after
        // it: where both kinds come, the one-dimensional rows are not kept.
        const bool repeatable =
            twoDimensional || (faxScheme != TiffCompressionCcittG4 && (TiffImage.group3Options & 1u) == 0);
        if (repeatable && f.repeatFrom != nullptr &&
            FaxTakeRepeatedBits(bits, f.repeatBits, f.repeatFrom, f.repeatShift)) {
            FaxRenderChanges(row, f.rowBytes, f.curChanges, width, TiffImage.rowsZeroed, f.repeatCount);
            return 1;
        }
        // Whatever this row is, the row kept before no longer comes right
        // before the next one.
        f.repeatFrom = nullptr;
        const uint32_t reportsBefore = faxReportCount;
        const int32_t result = twoDimensional ? FaxDecodeChanges2D(bits, f.refChanges, f.curChanges, width)
                                              : FaxDecodeChanges1D(bits, f.curChanges, width);
        if (result != FaxRowToBitmap) {
            FaxRenderChanges(row, f.rowBytes, f.curChanges, width, TiffImage.rowsZeroed, FaxClosedSize);
            if (repeatable && result == 1 && faxReportCount == reportsBefore)
                FaxKeepLastRow(f, start, bits, twoDimensional);
            return result;
        }
        // Again from the row's start, into the bitmap against refLine.
        bits = start;
        if (f.refLineStale) FaxRenderChanges(f.refLine, f.rowBytes, f.refChanges, width);
        f.refLineStale = 0;
        f.rowFromBitmap = 1;
    }
    std::memset(row, 0, f.rowBytes);
    return twoDimensional ? FaxDecodeRow2D(bits, row, f.refLine, width) : FaxDecodeRow1D(bits, row, width);
}

}  // namespace

static int32_t FaxDecodeNextRow(FaxBits &bits, uint8_t *row, bool twoDimensional) {
    FaxState &f = *faxState;
    f.rowFromBitmap = 0;
    if (bits.left == 0) {
        if (FaxStreamSpent(bits)) {
            // Nothing left in the strip: what the decoders give for such a
            // row, without their set-up, since a file may declare many more
            // rows than it holds.  A two-dimensional row reports the missing
            // code.
            std::memset(row, 0, f.rowBytes);
            if (twoDimensional) {
                if (bits.position >= int32_t(FaxModeRows)) bits.position = 0;
                FaxReportUnexpectedCode();
            }
            return -3;
        }
        if (FaxStalledAt(f, bits, twoDimensional)) {
            std::memset(row, 0, f.rowBytes);
            return -3;
        }
    }
    const FaxBits start = bits;
    const uint32_t reportsBefore = faxReportCount;
    const int32_t result = FaxDecodeRowFrom(bits, row, twoDimensional);
    // A row that took no bit, found no data, reported nothing and left a
    // white row stalls the strip: the rows after it are given the same.
    if (result == -3 && bits.left == 0 && bits.cursor == start.cursor && bits.position == start.position &&
        bits.curByte == start.curByte && faxReportCount == reportsBefore && FaxRowIsWhite(row, f.rowBytes)) {
        f.stallCursor = bits.cursor;
        f.stallPosition = bits.position;
        f.stallCurByte = bits.curByte;
        f.stall2D = uint32_t(twoDimensional);
    }
    return result;
}

bool FaxRowsStayBlank() {
    if (faxState == nullptr) return false;
    const FaxState &f = *faxState;
    const FaxBits bits = LoadBits();
    const bool twoDimensional = faxScheme == TiffCompressionCcittG4 || f.nextIs2D != 0;
    // A two-dimensional row past the data reports, and may first reset a
    // begun mode code; both are left to the row itself while they matter.
    if (FaxStreamSpent(bits))
        return !twoDimensional || (bits.position < int32_t(FaxModeRows) && !ReportIsHeard());
    return FaxStalledAt(f, bits, twoDimensional);
}

static void FaxAdvanceReference(const uint8_t *row) {
    FaxState &f = *faxState;
    if (f.curChanges == nullptr || f.rowFromBitmap) {
        if (f.refLine != nullptr) std::memcpy(f.refLine, row, f.rowBytes);
        if (f.curChanges != nullptr) FaxChangesOfLine(f.refLine, f.curChanges, int32_t(f.rowPixels));
        f.refLineStale = 0;
    } else {
        f.refLineStale = 1;
    }
    if (f.curChanges != nullptr) std::swap(f.refChanges, f.curChanges);
}

int32_t FaxDecodeRows(uint8_t *row, int32_t size) {
    if (size < 1 || faxState == nullptr || faxState->rowBytes == 0) {
        if (size > 0) std::memset(row, 0, size_t(size));
        return 1;
    }
    const uint32_t rowBytes = faxState->rowBytes;
    const bool tagged = (TiffImage.group3Options & 1u) != 0;
    // A row takes rowBytes bytes; a size that holds no whole row more ends
    // the call, so that no row is written past the caller's buffer.
    FaxBits bits = LoadBits();
    while (uint32_t(size) >= rowBytes) {
        int32_t result = FaxDecodeNextRow(bits, row, faxState->nextIs2D != 0);
        row += rowBytes;
        size -= int32_t(rowBytes);
        if (result == -3) break;
        if (tagged) {
            faxState->nextIs2D = FaxReadTagBit(bits) == 0 ? 1 : 0;
            FaxAdvanceReference(row - rowBytes);
        }
        if (size != 0) ++TiffImage.currentRow;
    }
    if (size > 0) std::memset(row, 0, size_t(size));
    StoreBits(bits);
    return 1;
}

uint32_t FaxDecodeRowsUpward(uint8_t *row, uint32_t rowBytes, uint32_t rows, bool &failed) {
    auto &t = TiffImage;
    if (faxState == nullptr || faxState->rowBytes == 0 || faxState->rowBytes > rowBytes) return 0;
    FaxState &f = *faxState;
    const bool g4 = faxScheme == TiffCompressionCcittG4;
    const bool tagged = !g4 && (t.group3Options & 1u) != 0;
    const uint32_t pad = rowBytes - f.rowBytes;
    FaxBits bits = LoadBits();
    uint32_t done = 0;
    while (done < rows) {
        const int32_t result = FaxDecodeNextRow(bits, row, g4 || f.nextIs2D != 0);
        // As FaxDecodeRowsG4 and FaxDecodeRows take a row: a row that found
        // no data is not the next one's reference, nor followed by a tag bit.
        if (g4) {
            if (result >= 0) FaxAdvanceReference(row);
        } else if (result != -3 && tagged) {
            f.nextIs2D = FaxReadTagBit(bits) == 0 ? 1 : 0;
            FaxAdvanceReference(row);
        }
        ++t.currentRow;
        if (g4 && result < 0 && result != -3) {
            failed = true;
            break;
        }
        if (!t.rowsZeroed && pad > 0) std::memset(row + f.rowBytes, 0, pad);
        ++done;
        if (bits.left == 0) break;
        row -= rowBytes;
    }
    StoreBits(bits);
    return done;
}


int32_t FaxDecodeRowsG4(uint8_t *row, int32_t size) {
    if (size < 1 || faxState == nullptr || faxState->refLine == nullptr) {
        if (size > 0) std::memset(row, 0, size_t(size));
        return 1;
    }
    const uint32_t rowBytes = faxState->rowBytes;
    int32_t result = 1;
    FaxBits bits = LoadBits();
    while (rowBytes != 0 && uint32_t(size) >= rowBytes) {
        int32_t rowResult = FaxDecodeNextRow(bits, row, true);
        if (rowResult < 0) {
            result = rowResult == -3 ? 1 : 0;
            row += rowBytes;
            size -= int32_t(rowBytes);
            break;
        }
        FaxAdvanceReference(row);
        row += rowBytes;
        size -= int32_t(rowBytes);
        if (size != 0) ++TiffImage.currentRow;
    }
    if (size > 0) std::memset(row, 0, size_t(size));
    StoreBits(bits);
    return result;
}
