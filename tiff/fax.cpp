// fax.cpp - CCITT decoding shared by all three compressions: the working
// record, its start, strip preparation and release; the routines of the bit
// stream on the static state; one-dimensional rows and the row driver of
// compressions 2 and 3.
#include "tiff/fax.h"

#include <cstring>

#include "core/checked.h"
#include "platform/win32.h"
#include "services/blocks.h"
#include "services/errors.h"
#include "tiff/directory.h"
#include "tiff/fax_bits.h"
#include "tiff/fax_changes.h"
#include "tiff/lines.h"

FaxState *faxState = nullptr;
uint16_t faxScheme = 0;

namespace {

const char *const FaxBlockLabel = "TIFFDFAX STARTCCITT fax3_h_sp";

bool HasReferenceLine() { return (TiffImage.group3Options & 1u) != 0 || faxScheme == TiffCompressionCcittG4; }

}  // namespace

FaxBits LoadBits() {
    FaxBits bits;
    bits.cursor = TiffImage.rawCursor;
    bits.left = TiffImage.rawLeft;
    bits.curByte = faxState->curByte;
    bits.position = faxState->position;
    bits.byteMap = faxState->byteMap;
    return bits;
}

void StoreBits(const FaxBits &bits) {
    TiffImage.rawCursor = bits.cursor;
    TiffImage.rawLeft = bits.left;
    faxState->curByte = uint16_t(bits.curByte);
    faxState->position = int16_t(bits.position);
}

namespace {
// Calls of FaxReportUnexpectedCode, heard or not, to tell which rows made one.
uint32_t faxReportCount = 0;
}  // namespace

void FaxReportUnexpectedCode() {
    ++faxReportCount;
    // A damaged stream reports on every later row; once nobody can hear it,
    // the text is not built again for each of them.
    if (!ReportIsHeard()) return;
    wsprintfA(TiffImage.messageBuffer, "Unexpected code in line %ld", int32_t(TiffImage.currentRow));
    ReportError("TIFF Read", TiffImage.messageBuffer, 0);
}

uint32_t FaxZeroRunsDropped = 0;
uint32_t FaxZeroRunWidth = 0;

void FaxStart(uint16_t scheme) {
    FaxZeroRunWidth = TiffImage.imageWidth;
    TiffImage.ccittBlock = MemoryBlock{0, 0, nullptr};
    faxState = nullptr;
    faxScheme = scheme;
}

int32_t FaxPrepareStrip() {
    if (faxState == nullptr) {
        // The decoders write rowPixels pixels into rows of rowBytes bytes; a
        // width whose byte count wrapped in 32 bits, or one past the ceiling
        // of run lengths, is refused here rather than trusted.
        uint32_t width = TiffImage.imageWidth;
        if (width > FaxMaxWidth || TiffImage.scanlineSize != (width + 7) / 8) return 0;
        uint32_t size = sizeof(FaxState);
        bool withRef = HasReferenceLine();
        // Record, guard byte, reference line, and FaxRefSlack zero bytes
        // that the reference line's cursor may read behind its end.
        if (withRef && !checked::Add(size + 1 + FaxRefSlack, TiffImage.scanlineSize, &size)) return 0;
        // Then, for rows narrow enough (so that no sum here can wrap), the
        // two lists of changes.
        const bool withChanges = width <= FaxChangesMaxWidth;
        const uint32_t changesAt = (size + 3) & ~3u;
        if (withChanges) size = changesAt + 2 * 4 * FaxChangesStride(width);
        if (!BlockAlloc(&TiffImage.ccittBlock, 0, 1, size, FaxBlockLabel)) return 0;
        auto *base = static_cast<uint8_t *>(BlockLock(&TiffImage.ccittBlock));
        if (base == nullptr) {
            BlockFree(&TiffImage.ccittBlock);
            return 0;
        }
        faxState = reinterpret_cast<FaxState *>(base);
        faxState->rowBytes = TiffImage.scanlineSize;
        faxState->rowPixels = width;
        faxState->byteMap = BitOrderTable(TiffImage.fillOrder != 1);
        if (withRef) {
            base[sizeof(FaxState)] = 0;  // the guard byte: white pixels before pixel 0
            faxState->refLine = base + sizeof(FaxState) + 1;
            std::memset(faxState->refLine + faxState->rowBytes, 0, FaxRefSlack);  // read, never written
        } else {
            faxState->refLine = nullptr;
        }
        if (withChanges) {
            faxState->refChanges = reinterpret_cast<int32_t *>(base + changesAt) + 1;
            faxState->curChanges = faxState->refChanges + FaxChangesStride(width);
            faxState->refChanges[-1] = faxState->curChanges[-1] = -1;
        } else {
            faxState->refChanges = faxState->curChanges = nullptr;
        }
    }
    faxState->position = 0;
    faxState->curByte = 0;
    faxState->nextIs2D = 0;
    if (faxState->refLine != nullptr) std::memset(faxState->refLine, 0, faxState->rowBytes);
    // A strip starts against a white line.
    if (faxState->refChanges != nullptr)
        FaxCloseChanges(faxState->refChanges, faxState->refChanges, 0, int32_t(faxState->rowPixels));
    faxState->refLineStale = 0;
    faxState->rowFromBitmap = 0;
    faxState->stallCursor = nullptr;
    if (faxScheme != TiffCompressionCcittG3) return 1;
    FaxBits bits = LoadBits();
    FaxSkipToEol(bits, 0);
    if (TiffImage.group3Options & 1u) faxState->nextIs2D = FaxReadTagBit(bits) == 0 ? 1 : 0;
    StoreBits(bits);
    return 1;
}

void FaxRelease() {
    if (TiffImage.ccittBlock.handle != 0) {
        BlockUnlock(&TiffImage.ccittBlock);
        BlockFree(&TiffImage.ccittBlock);
    }
    faxState = nullptr;
}

// ---- the bit stream on the static state ----

bool FaxFetchByte() {
    FaxBits bits = LoadBits();
    bool fetched = FaxFetchByte(bits);
    StoreBits(bits);
    return fetched;
}

void FaxSkipToEol(int32_t zerosSeen) {
    FaxBits bits = LoadBits();
    FaxSkipToEol(bits, zerosSeen);
    StoreBits(bits);
}

uint32_t FaxReadTagBit() {
    FaxBits bits = LoadBits();
    uint32_t bit = FaxReadTagBit(bits);
    StoreBits(bits);
    return bit;
}

int32_t FaxDecodeRun(int32_t colour) {
    FaxBits bits = LoadBits();
    int32_t run = FaxDecodeRun(bits, colour);
    StoreBits(bits);
    return run;
}

int32_t FaxDecodeRow1D(uint8_t *row, int32_t width) {
    FaxBits bits = LoadBits();
    int32_t result = FaxDecodeRow1D(bits, row, width);
    StoreBits(bits);
    return result;
}

int32_t FaxReadUncompressedCode() {
    FaxBits bits = LoadBits();
    int32_t code = FaxReadUncompressedCode(bits);
    StoreBits(bits);
    return code;
}

int32_t FaxDecodeRow2D(uint8_t *row, int32_t width) {
    FaxBits bits = LoadBits();
    int32_t result = FaxDecodeRow2D(bits, row, faxState->refLine, width);
    StoreBits(bits);
    return result;
}

int32_t FaxFindZeros(const uint8_t *line, int32_t start, int32_t end) { return FaxFindSpan<false>(line, start, end); }
int32_t FaxFindOnes(const uint8_t *line, int32_t start, int32_t end) { return FaxFindSpan<true>(line, start, end); }

// ---- one-dimensional rows ----

namespace {

// What ends every row: under compression 3 the search for its EOL, under
// compression 2 the drop of the rest of the byte.
inline void FaxEndRow1D(FaxBits &bits) {
    if (faxScheme == TiffCompressionCcittG3)
        FaxSkipToEol(bits, 0);
    else if (faxScheme == TiffCompressionCcittRle)
        bits.position = 0;
}

}  // namespace

// A run from the window (fax_bits.h) where it can tell, else byte by byte,
// the window given back first and taken up again after.
static inline __attribute__((always_inline)) int32_t FaxRun1D(FaxWindow &w, FaxBits &bits, int32_t colour) {
    uint32_t sum = 0;
    int32_t run = w.on ? FaxWindowRun(w, bits, colour, sum) : -4;
    if (run != -4) return run;
    FaxWindowSync(w, bits);
    run = FaxDecodeRunFrom(bits, colour, sum);
    FaxWindowStart(w, bits);
    return run;
}

// The row decoder works on a copy of the stream in locals, which writes to
// the row (bytes, which may alias anything) can't force back to memory.  The
// runs come from a window of up to 64 bits of the stream, given back before
// the row's end is searched for and on every exit.
static inline __attribute__((always_inline)) int32_t FaxDecodeRow1DLocal(FaxBits &bits, uint8_t *row,
                                                                         int32_t width) {
    int32_t pos = 0;
    int32_t run;
    FaxWindow w;
    FaxWindowStart(w, bits);
    for (;;) {
        run = FaxRun1D(w, bits, 0);
        if (run < 0) break;
        // Compared as width - pos, never as pos + run, so that no sum wraps.
        if (run >= width - pos) {
            pos = width;  // the codes behind this run aren't part of the row
            FaxWindowSync(w, bits);
            FaxEndRow1D(bits);
            return 1;
        }
        pos += run;
        run = FaxRun1D(w, bits, FaxBlack);
        if (run < 0) break;
        if (run > 0) {
            if (run >= width - pos) {
                FaxBlackSpan(row, pos, width, (width - 1) >> 3);  // clipped at the row's end
                FaxWindowSync(w, bits);
                FaxEndRow1D(bits);
                return 1;
            }
            FaxBlackSpan(row, pos, pos + run, (width - 1) >> 3);
            pos += run;
        }
    }
    FaxWindowSync(w, bits);
    if (run == -3) return -3;
    if (run == -1) return 1;  // EOL inside the row: the rest stays white
    FaxReportUnexpectedCode();
    FaxEndRow1D(bits);
    return pos == width ? 1 : -1;
}

int32_t FaxDecodeRow1D(FaxBits &bits, uint8_t *row, int32_t width) {
    FaxBits local;
    FaxCopyBits(local, bits);
    int32_t result = FaxDecodeRow1DLocal(local, row, width);
    FaxCopyBits(bits, local);
    return result;
}

// FaxDecodeRow1D into a list of changes (fax_changes.h): the same codes,
// reports and results.
static inline __attribute__((always_inline)) int32_t FaxDecodeChanges1DLocal(FaxBits &bits, int32_t *changes,
                                                                             int32_t width) {
    int32_t *end = changes;
    int32_t pos = 0;
    int32_t run;
    int32_t result;
    FaxWindow w;
    FaxWindowStart(w, bits);
    // A run that reaches the width ends the row there.  Under compression
    // 3 the EOL behind it is mostly in the window: eleven 0 bits or more,
    // then the 1 that ends the search, taken at once.
    auto rowFull = [&]() {
        if (w.on && faxScheme == TiffCompressionCcittG3) {
            if (w.nb < 32) FaxWindowFill(w, bits);
            const int32_t zeros = w.acc != 0 ? __builtin_clzll(w.acc) : 64;
            if (zeros >= 11 && zeros < w.nb) {
                FaxWindowTake(w, uint32_t(zeros + 1));
                FaxWindowSync(w, bits);
                FaxCloseChanges(end, changes, width, width);
                return 1;
            }
        }
        FaxWindowSync(w, bits);
        FaxEndRow1D(bits);
        FaxCloseChanges(end, changes, width, width);
        return 1;
    };
    for (;;) {
        // Mostly a white and a black run by one look-up, where both lie
        // inside the row; else one run at a time.
        if (w.on) {
            if (w.nb < 32) FaxWindowFill(w, bits);
            const uint32_t pair = FaxPairFirst[w.acc >> 52];
            const int32_t white = int32_t(pair >> 4) & 63, black = int32_t(pair >> 10);
            if (pair != 0 && int32_t(pair & 15u) <= w.nb && white + black < width - pos) {
                FaxWindowTake(w, pair & 15u);
                pos += white;
                end = FaxPushChange(end, pos);
                pos += black;
                end = FaxPushChange(end, pos);
                continue;
            }
            // A white run of 64 pixels or more, as the blank stretches of
            // forms give: one make-up code, then the pair, looked up
            // together before either is taken.
            if (pair == 0) {
                uint32_t makeup = FaxRunFirst[w.acc >> 56];
                if ((makeup & 15u) == 0) makeup = FaxRunLong[w.acc >> 51];
                const uint32_t n = makeup & 15u;
                const uint32_t more = makeup >> 4;
                if (n != 0 && more >= 64) {
                    const uint32_t after = FaxPairFirst[(w.acc << n) >> 52];
                    const int32_t whole = int32_t(more) + (int32_t(after >> 4) & 63);
                    const int32_t next = int32_t(after >> 10);
                    if (after != 0 && int32_t(n + (after & 15u)) <= w.nb && whole + next < width - pos) {
                        FaxWindowTake(w, n + (after & 15u));
                        pos += whole;
                        end = FaxPushChange(end, pos);
                        pos += next;
                        end = FaxPushChange(end, pos);
                        continue;
                    }
                    // The white run that ends the row: the make-up code and
                    // a terminating code (of 8 bits at most) to the width.
                    const uint32_t term = FaxRunFirst[(w.acc << n) >> 56];
                    const uint32_t termBits = term & 15u;
                    if (termBits != 0 && (term >> 4) < 64 && int32_t(n + termBits) <= w.nb &&
                        int32_t(more + (term >> 4)) >= width - pos) {
                        FaxWindowTake(w, n + termBits);
                        return rowFull();
                    }
                }
            }
        }
        run = FaxRun1D(w, bits, 0);
        if (run < 0) break;
        if (run >= width - pos) return rowFull();  // compared so, no sum can wrap
        pos += run;
        end = FaxPushChange(end, pos);
        run = FaxRun1D(w, bits, FaxBlack);
        if (run < 0) break;
        if (run >= width - pos) {  // clipped at the row's end
            end = FaxPushChange(end, width);
            return rowFull();
        }
        pos += run;
        end = FaxPushChange(end, pos);
    }
    FaxWindowSync(w, bits);
    if (run == -3) {
        result = -3;
    } else if (run == -1) {
        result = 1;  // EOL inside the row: the rest stays white
    } else {
        FaxReportUnexpectedCode();
        FaxEndRow1D(bits);
        result = pos == width ? 1 : -1;
    }
    FaxCloseChanges(end, changes, pos, width);
    return result;
}

int32_t FaxDecodeChanges1D(FaxBits &bits, int32_t *changes, int32_t width) {
    FaxBits local;
    FaxCopyBits(local, bits);
    int32_t result = FaxDecodeChanges1DLocal(local, changes, width);
    FaxCopyBits(bits, local);
    return result;
}

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

int32_t FaxDecodeRowFrom(FaxBits &bits, uint8_t *row, bool twoDimensional) {
    FaxState &f = *faxState;
    const auto width = int32_t(f.rowPixels);
    if (f.curChanges != nullptr) {
        const FaxBits start = bits;
        const int32_t result = twoDimensional ? FaxDecodeChanges2D(bits, f.refChanges, f.curChanges, width)
                                              : FaxDecodeChanges1D(bits, f.curChanges, width);
        if (result != FaxRowToBitmap) {
            FaxRenderChanges(row, f.rowBytes, f.curChanges, width, TiffImage.rowsZeroed);
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

int32_t FaxDecodeNextRow(FaxBits &bits, uint8_t *row, bool twoDimensional) {
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

void FaxAdvanceReference(const uint8_t *row) {
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
