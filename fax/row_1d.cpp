// row_1d.cpp - one-dimensional rows (compression 2, and the 1D rows of
// compression 3): a white and a black run in turn, from the bit window
// where it can tell, else a byte at a time through the run table.
#include "fax/changes.h"
#include "fax/row_decoders.h"
#include "fax/state.h"
#include "tiff/record.h"

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

// A run from the window (bit_window.h) where it can tell, else byte by byte,
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

// FaxDecodeRow1D into a list of changes (changes.h): the same codes,
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
            const uint32_t pair = FaxPairFirst[w.acc >> (64 - FaxPairBits)];
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
                    const uint32_t after = FaxPairFirst[(w.acc << n) >> (64 - FaxPairBits)];
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
            // A short white run and a longer black one, whose codes are too
            // long together for the pair table, as the black background of a
            // dark page gives: the white code, then the black one (a make-up
            // code and a terminating code from 64 pixels on), each looked up
            // on its own, all taken together.
            const uint32_t lone = FaxRunFirst[w.acc >> 56];
            const uint32_t whiteBits = lone & 15u;
            if (whiteBits != 0 && (lone >> 4) < 64) {
                const uint64_t rest = w.acc << whiteBits;
                const uint32_t black = FaxRunLong[8192 + (rest >> 51)];
                uint32_t n = whiteBits + (black & 15u);
                uint32_t run = black >> 4;
                bool known = (black & 15u) != 0;
                if (known && run >= 64) {
                    const uint64_t after = rest << (black & 15u);
                    const uint32_t term = FaxRunLong[8192 + (after >> 51)];
                    known = (term & 15u) != 0 && (term >> 4) < 64;
                    n += term & 15u;
                    run += term >> 4;
                }
                if (known && int32_t(n) <= w.nb && int32_t(lone >> 4) < width - pos) {
                    FaxWindowTake(w, n);
                    pos += int32_t(lone >> 4);
                    end = FaxPushChange(end, pos);
                    // A black run that reaches the width (all of a dark
                    // page's blank rows) ends the row: rowFull closes it.
                    if (int32_t(run) >= width - pos) return rowFull();
                    pos += int32_t(run);
                    end = FaxPushChange(end, pos);
                    continue;
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
