// row_2d.cpp - two-dimensional rows (T.4 two-dimensional coding, T.6).
//
// A row is decoded against the reference line (the row before, white at a
// strip's start) by mode codes.  a0 is the pixel reached, colour the colour
// of the run that starts there.  Two decoders do the same: the row drivers
// use FaxDecodeChanges2D, which works on lists of changing elements (see
// changes.h); FaxDecodeRow2D works on the bitmap and takes the rows
// the lists can't hold.  There b1 and b2 are found on the reference line
// by a cursor of 64-pixel windows (FaxNextPixel) that only moves forward
// from a0.  It reads the guard byte before the line for the positions
// -8..-1, all white, and the zero bytes behind the line's end.
#include <cstring>

#include "fax/changes.h"
#include "fax/row_decoders.h"
#include "fax/state.h"
#include "tiff/record.h"

namespace {

constexpr uint64_t White = 0;
constexpr uint64_t Black = ~uint64_t(0);

// b1: the next change of the reference line to the colour opposite
// `colour`, right of a0.  The pixels of the opposite colour that a0 may
// stand on are passed first, then those of a0's colour.  Mostly both lie in
// the 57 or more pixels of one 64-pixel window from a0, which one load
// gives; only a longer search goes on pixel window by window.
inline int32_t FaxFindB1(const uint8_t *ref, int32_t a0, int32_t colour, int32_t width) {
    const uint64_t flip = colour ? Black : White;
    const int32_t k = a0 & 7;
    // Pixels from a0 on, 1 where the colour is the opposite of `colour`; the
    // k bits shifted in at the bottom are 0, and no pixel.
    const uint64_t opposite = (FaxLoad64(ref + (a0 >> 3)) ^ flip) << k;
    const uint64_t same = ~opposite;  // the shifted-in bits count as found: checked below
    const int32_t valid = 64 - k;
    if (same != 0) {
        int32_t s = __builtin_clzll(same);
        if (s < valid) {
            uint64_t after = opposite & (~uint64_t(0) >> s);
            if (after != 0) {
                int32_t b1 = a0 + __builtin_clzll(after);
                return b1 < width ? b1 : width;
            }
            return FaxNextPixel(ref, a0 + valid, ~flip, width);
        }
    }
    return FaxNextPixel(ref, FaxNextPixel(ref, a0 + valid, flip, width), ~flip, width);
}

// b2: the change behind b1.
inline int32_t FaxFindB2(const uint8_t *ref, int32_t b1, int32_t colour, int32_t width) {
    return FaxNextPixel(ref, b1, colour == 0 ? White : Black, width);
}

// Black pixels from a0 (from 0 while a0 is before the row) up to `to`,
// clipped at width: a vertical code may put a1 up to three pixels behind
// the row's end, and those pixels are never written, not even into the
// bits of the last byte behind pixel width - 1.
inline void FaxBlackTo(uint8_t *row, int32_t a0, int32_t to, int32_t width) {
    int32_t start = a0 < 0 ? 0 : a0;
    if (to > width) to = width;
    if (to > start) FaxBlackSpan(row, start, to, (width - 1) >> 3);
}

// The run from a0 (from 0 while a0 is before the row) up to `to`, clipped
// at width, in `colour`: black pixels are set, white ones are already
// there.  The colour and an empty run don't branch: they make a mask of 0.
inline void FaxRunTo(uint8_t *row, int32_t a0, int32_t to, int32_t colour, int32_t width) {
    const int32_t start = a0 < 0 ? 0 : a0;  // below width: a0 is
    if (to > width) to = width;
    const int32_t count = (to - start) & -int32_t(colour != 0 && to > start);
    const int32_t k = start & 7;
    const int32_t b = start >> 3;
    const int32_t lastByte = (width - 1) >> 3;
    if (k + count < 64 && b + 8 <= lastByte + 1) {
        FaxOr64(row + b, FaxSpanMask64(k, k + count));
    } else if (k + count <= 16) {
        const uint32_t mask = (0xFFFFu >> k) & ~(0xFFFFu >> (k + count));
        row[b] |= uint8_t(mask >> 8);
        row[b < lastByte ? b + 1 : b] |= uint8_t(mask);
    } else {
        FaxFillSpan(row + b, start, count);
    }
}

// A pass, horizontal or vertical code from the window: its action, taken;
// 0 where the window can't tell, and nothing is taken.
inline uint32_t FaxWindowModeCode(FaxWindow &w) {
    const uint32_t entry = FaxModeFirst[w.acc >> 57];
    if (entry == 0 || int32_t(entry & 7u) > w.nb) return 0;
    FaxWindowTake(w, entry & 7u);
    return entry >> 3;
}

// What ends a row: under compression 3 the search for its EOL.
inline int32_t FaxEndRow2D(FaxBits &bits, int32_t a0, int32_t width) {
    if (faxScheme == TiffCompressionCcittG3) FaxSkipToEol(bits, 0);
    return a0 < width ? -1 : 1;
}

}  // namespace

// The row decoder works on a copy of the stream in locals, which writes to
// the row (bytes, which may alias anything) can't force back to memory.
static inline __attribute__((always_inline)) int32_t FaxDecodeRow2DLocal(FaxBits &bits, uint8_t *row,
                                                                         const uint8_t *ref, int32_t width) {
    int32_t a0 = -1;
    int32_t colour = 0;
    // A state of a begun code of another table is left only when the data
    // ran out; it is read as "byte used up".
    if (bits.position >= int32_t(FaxModeRows)) bits.position = 0;
    FaxWindow w;
    for (;;) {
        // One mode code: pass, horizontal and vertical codes (up to seven
        // bits) by one look-up in the window; the others, and the strip's
        // last bits, a look-up per byte the code touches.
        if (!w.on) FaxWindowStart(w, bits);
        uint32_t action = 0;
        if (w.on) {
            if (w.nb < 32) FaxWindowFill(w, bits);
            action = FaxWindowModeCode(w);
        }
        if (action == 0) {
            FaxWindowSync(w, bits);
            action = FaxModeCodeByBytes(bits);
            if (action == 0) {
                FaxReportUnexpectedCode();
                return -3;
            }
        }
        if (action >= 3 && action <= 9) {
            // Vertical: a1 = b1 + action - 6; the run up to a1 has colour.
            int32_t a1 = FaxFindB1(ref, a0, colour, width) + int32_t(action) - 6;
            FaxRunTo(row, a0, a1, colour, width);
            a0 = a1;  // may move back by up to three pixels; set pixels stay
            colour ^= 1;
        } else if (action == FaxModeHorizontal) {
            uint32_t sum = 0;
            int32_t first = w.on ? FaxWindowRun(w, bits, colour ? FaxBlack : 0, sum) : -4;
            if (first == -4) {
                FaxWindowSync(w, bits);
                first = FaxDecodeRunFrom(bits, colour ? FaxBlack : 0, sum);
            }
            sum = 0;
            int32_t second = w.on ? FaxWindowRun(w, bits, colour ? 0 : FaxBlack, sum) : -4;
            if (second == -4) {
                FaxWindowSync(w, bits);
                second = FaxDecodeRunFrom(bits, colour ? 0 : FaxBlack, sum);
            }
            if (first >= 0 && second >= 0) {
                if (a0 < 0) a0 = 0;
                if (first > width - a0) first = width - a0;
                if (colour && first > 0) FaxBlackSpan(row, a0, a0 + first, (width - 1) >> 3);
                a0 += first;
                if (second > width - a0) second = width - a0;
                if (!colour && second > 0) FaxBlackSpan(row, a0, a0 + second, (width - 1) >> 3);
                a0 += second;
            }
            // A negative run drops both, silently; the bit position stays
            // where the run decoder left it.
        } else if (action == FaxModePass) {
            int32_t b1 = FaxFindB1(ref, a0, colour, width);
            int32_t b2 = FaxFindB2(ref, b1, colour, width);
            if (colour) FaxBlackTo(row, a0, b2, width);
            a0 = b2;
        } else if (action == FaxModeUncompressed) {
            // Pixels are written only below width, and a0 is held at width:
            // the codes of this mode aren't checked against the row's end,
            // and whatever lies behind it ends the row at the exit code.
            if (a0 < 0) a0 = 0;
            for (;;) {
                int32_t code = FaxReadUncompressedCode(bits);
                if (code >= FaxUncBlack1 && code < FaxUncWhite5) {
                    int32_t pixel = a0 + code - FaxUncBlack1;
                    if (pixel < width) row[pixel >> 3] |= FaxBitMask[pixel & 7];
                    a0 = pixel + 1 < width ? pixel + 1 : width;
                } else if (code == FaxUncWhite5) {
                    a0 = a0 + 5 < width ? a0 + 5 : width;
                } else if (code >= FaxUncExit0 && code < FaxUncNoData) {
                    a0 = a0 + code - FaxUncExit0 < width ? a0 + code - FaxUncExit0 : width;
                    colour = FaxReadTagBit(bits) != 0 ? 1 : 0;
                    break;
                } else if (code == FaxUncNoData) {
                    FaxReportUnexpectedCode();
                    return -3;
                } else {
                    FaxReportUnexpectedCode();
                    return FaxEndRow2D(bits, a0, width);
                }
            }
        } else if (action == FaxModeEolBegun) {
            if (faxScheme == TiffCompressionCcittG3) {
                FaxSkipToEol(bits, 7);  // the seven zero bits count for the EOL
                return 1;
            }
            FaxReportUnexpectedCode();
            return FaxEndRow2D(bits, a0, width);
        } else if (action == FaxModeInvalid) {
            FaxReportUnexpectedCode();
            return FaxEndRow2D(bits, a0, width);
        } else {
            FaxReportUnexpectedCode();  // an action the table doesn't give
            return 0;
        }
        if (a0 >= width) {
            FaxWindowSync(w, bits);
            return FaxEndRow2D(bits, a0, width);
        }
    }
}

int32_t FaxDecodeRow2D(FaxBits &bits, uint8_t *row, const uint8_t *ref, int32_t width) {
    FaxBits local;
    FaxCopyBits(local, bits);
    int32_t result = FaxDecodeRow2DLocal(local, row, ref, width);
    FaxCopyBits(bits, local);
    return result;
}

// FaxWindowRun out of line: the two-dimensional decoder takes most
// horizontal codes by the pair table, and keeps its loop small without it.
static __attribute__((noinline)) int32_t FaxWindowRunOutOfLine(FaxWindow &w, FaxBits &bits, int32_t colour,
                                                               uint32_t &sum) {
    return FaxWindowRun(w, bits, colour, sum);
}

// The runs of a horizontal code: from the window where it can tell, else
// byte by byte; the window is given back for the latter.
static inline __attribute__((always_inline)) int32_t FaxHorizontalRun(FaxWindow &w, FaxBits &bits,
                                                                      int32_t colour) {
    uint32_t sum = 0;
    int32_t run = w.on ? FaxWindowRunOutOfLine(w, bits, colour ? FaxBlack : 0, sum) : -4;
    if (run == -4) {
        FaxWindowSync(w, bits);
        run = FaxDecodeRunFrom(bits, colour ? FaxBlack : 0, sum);
    }
    return run;
}

// FaxDecodeRow2D into a list of changes (changes.h) against the
// reference line's list: the same codes are taken, the same reports made
// and the same results given, or FaxRowToBitmap before any report when the
// row needs the bitmap.
//
// b1 is kept as a pointer into ref that only moves forward: the first
// change behind a0 whose index has the parity of `colour` (even, a change
// to black, for a white a0).  A vertical code moves it to the entry just
// after, or, where a1 went back before an earlier change, the one before;
// a pass code two on; a horizontal code past a0 in steps of two.  So b1
// and b2 are mostly the next entries, known before a1 is.
static inline __attribute__((always_inline)) int32_t FaxDecodeChanges2DLocal(FaxBits &bits, const int32_t *ref,
                                                                             int32_t *changes, int32_t width) {
    int32_t *end = changes;
    const int32_t *b1 = ref;  // ref[-1] is -1, behind no a1
    // a0 starts at 0, not before the row: no code here tells the two apart
    // (a1 is never before pixel 0, and the runs of a horizontal code start
    // at 0 either way), and so a1 has one bound to keep.
    int32_t a0 = 0;
    int32_t colour = 0;
    int32_t result = 1;
    if (bits.position >= int32_t(FaxModeRows)) bits.position = 0;
    FaxWindow w;
    // A vertical code: a1 = b1 + d.  0 when the row goes on, 1 when it has
    // ended (result set), FaxRowToBitmap when a1 went back before a0.
    auto vertical = [&](int32_t d) __attribute__((always_inline)) -> int32_t {
        int32_t a1 = *b1 + d;
        // One test for both rare cases: a1 before a0, or at the width or
        // beyond (the difference wraps for the first).
        if (uint32_t(a1 - a0) >= uint32_t(width - a0)) [[unlikely]] {
            if (a1 < a0) return FaxRowToBitmap;
            a1 = width;  // up to three pixels behind: never written
            end = FaxPushChange(end, a1);
            a0 = a1;
            colour ^= 1;
            FaxWindowSync(w, bits);
            result = FaxEndRow2D(bits, a0, width);
            return 1;
        }
        end = FaxPushChange(end, a1);
        a0 = a1;
        colour ^= 1;
        // The first change behind a1 of the other parity: the one before
        // b1 when it lies behind a1 (a1 < b1 - 1, after a change of a pixel
        // or two), else the one after b1 or later.
        if (b1[-1] > a1) [[unlikely]] {
            --b1;
        } else {
            ++b1;
            while (*b1 <= a1) b1 += 2;
        }
        return 0;
    };
    for (;;) {
        if (!w.on) FaxWindowStart(w, bits);
        uint32_t action = 0;
        if (w.on) {
            if (w.nb < 32) FaxWindowFill(w, bits);
            // The mode codes that begin the next 8 bits, by one look-up:
            // two vertical codes, the commonest case of text (the second is
            // taken only if the first leaves the row going on), or one, or
            // a pass or horizontal code; the mode table decides the rest.
            const uint32_t two = FaxModePair[w.acc >> 56];
            const uint32_t bits1 = (two >> 3) & 7u, bits2 = two >> 9;
            if (two != 0 && int32_t(bits1 + bits2) <= w.nb) {
                FaxWindowTake(w, bits1);
                if ((two & 7u) == 7u) {
                    action = (two >> 6) & 7u;  // a pass or horizontal code
                } else {
                    int32_t step = vertical(int32_t(two & 7u) - 3);
                    if (step == 0 && bits2 != 0) {
                        FaxWindowTake(w, bits2);
                        step = vertical(int32_t((two >> 6) & 7u) - 3);
                    }
                    if (step == 0) continue;
                    if (step == 1) break;
                    return FaxRowToBitmap;
                }
            } else {
                action = FaxWindowModeCode(w);
            }
        }
        if (action == 0) {
            FaxWindowSync(w, bits);
            action = FaxModeCodeByBytes(bits);
            if (action == 0) {
                FaxReportUnexpectedCode();
                result = -3;
                break;
            }
        }
        if (action >= 3 && action <= 9) {
            const int32_t step = vertical(int32_t(action) - FaxModeVertical0);
            if (step == 0) continue;
            if (step == 1) break;
            return FaxRowToBitmap;
        }
        if (action == FaxModeHorizontal) {
            // Mostly both runs by one look-up; else one at a time.
            int32_t first, second;
            uint32_t pair = 0;
            if (w.on) {
                if (w.nb < 32) FaxWindowFill(w, bits);
                pair = FaxPairFirst[uint32_t(colour) * FaxPairEntries + uint32_t(w.acc >> (64 - FaxPairBits))];
                if (int32_t(pair & 15u) > w.nb) pair = 0;
            }
            // A white run of 64 pixels or more, as a strip's first row of
            // a form gives them: its make-up code, then the pair of its
            // terminating code and the black run, looked up together
            // before either is taken.
            uint32_t makeupBits = 0, makeupRun = 0;
            if (pair == 0 && colour == 0 && w.on) {
                uint32_t makeup = FaxRunFirst[w.acc >> 56];
                if ((makeup & 15u) == 0) makeup = FaxRunLong[w.acc >> 51];
                const uint32_t n = makeup & 15u;
                if (n != 0 && (makeup >> 4) >= 64) {
                    const uint32_t after = FaxPairFirst[(w.acc << n) >> (64 - FaxPairBits)];
                    if (after != 0 && int32_t(n + (after & 15u)) <= w.nb) {
                        pair = after;
                        makeupBits = n;
                        makeupRun = makeup >> 4;
                    }
                }
            }
            if (pair != 0) {
                FaxWindowTake(w, makeupBits + (pair & 15u));
                first = int32_t(makeupRun) + (int32_t(pair >> 4) & 63);
                second = int32_t(pair >> 10);
            } else {
                first = FaxHorizontalRun(w, bits, colour);
                second = FaxHorizontalRun(w, bits, colour ^ 1);
            }
            if (first >= 0 && second >= 0) {
                if (first > width - a0) first = width - a0;
                a0 += first;
                end = FaxPushChange(end, a0);
                if (second > width - a0) second = width - a0;
                a0 += second;
                end = FaxPushChange(end, a0);
                while (*b1 <= a0 && a0 < width) b1 += 2;
            }
            // A negative run drops both, silently.
        } else if (action == FaxModePass) {
            a0 = b1[1];  // b2; a black run goes on through it
            b1 += 2;
        } else if (action == FaxModeEolBegun) {
            if (faxScheme == TiffCompressionCcittG3) {
                FaxSkipToEol(bits, 7);
                result = 1;
                break;
            }
            FaxReportUnexpectedCode();
            result = FaxEndRow2D(bits, a0, width);
            break;
        } else if (action == FaxModeInvalid) {
            FaxReportUnexpectedCode();
            result = FaxEndRow2D(bits, a0, width);
            break;
        } else {
            return FaxRowToBitmap;  // uncompressed mode, or an action no table gives
        }
        if (a0 >= width) {
            FaxWindowSync(w, bits);
            result = FaxEndRow2D(bits, a0, width);
            break;
        }
    }
    FaxCloseChanges(end, changes, a0 < width ? a0 : width, width);
    return result;
}

int32_t FaxDecodeChanges2D(FaxBits &bits, const int32_t *ref, int32_t *changes, int32_t width) {
    FaxBits local;
    FaxCopyBits(local, bits);
    int32_t result = FaxDecodeChanges2DLocal(local, ref, changes, width);
    FaxCopyBits(bits, local);
    return result;
}
