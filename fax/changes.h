// changes.h - rows as lists of changing elements, between the row decoders
// that make them and the pixels of the row they are written into.
//
// The row drivers decode a row of up to FaxChangesMaxWidth pixels into the
// list of its changing elements, the pixels whose colour differs from the
// pixel before (pixel -1 is white): strictly increasing, each at most the
// width, so that entries 2i and 2i + 1 bound the i-th black span.  A list
// is closed by FaxChangesSentinels entries of the width.  Two-dimensional
// rows look b1 and b2 up in the reference line's list with a cursor that
// only moves forward, and each row is written once from its list, word by
// word, with no pixel of it read back.
//
// The list holds what the bitmap would: a change equal to the last one
// takes that one back (an empty span), and a row whose changes would go
// back (a vertical code before a0, uncompressed mode) is not decoded here:
// the driver decodes it again into the bitmap against refLine.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#include "fax/bit_window.h"
#include "fax/pixels.h"

// Rows wider than this are decoded into the bitmap alone: a list takes 4
// bytes a pixel, and the record holds two.
constexpr uint32_t FaxChangesMaxWidth = 1u << 16;
// Entries of the width behind a list's last change: b2 is read up to two
// entries behind the first change at or past the width.
constexpr uint32_t FaxChangesSentinels = 3;
// Entries a list takes in the record: one before it that holds -1 (the
// last change of an empty list, which is no pixel), a change at every
// pixel, one at the width, the sentinels.
constexpr uint32_t FaxChangesStride(uint32_t width) { return 1 + width + 1 + FaxChangesSentinels; }

// A row decoder's result beyond those of FaxDecodeRow2D: the row must be
// decoded into the bitmap instead.
constexpr int32_t FaxRowToBitmap = 2;

// Runs of zero pixels inside a row that the lists have dropped since the
// count was last cleared: damaged codes (a vertical code that ends a run
// where it began) give them.  The row's reference for the next row is its
// pixels, where such a run leaves no changing element; a decoder that keeps
// its runs instead finds one there.  Kept for the comparisons of the fuzz
// targets, which skip such images.
extern uint32_t FaxZeroRunsDropped;
extern uint32_t FaxZeroRunWidth;  // the width of the rows being decoded

// Appends change x (at or behind the last one): an equal one takes the
// last back instead.
inline int32_t *FaxPushChange(int32_t *end, int32_t x) {
    if (end[-1] == x) [[unlikely]] {
        if (x > 0 && uint32_t(x) < FaxZeroRunWidth) ++FaxZeroRunsDropped;
        return end - 1;
    }
    *end = x;
    return end + 1;
}

// The entries of the list closed last, for the writer of its row.
inline int32_t FaxClosedSize = 0;

// Closes a row that stopped at pixel x: a black span left open ends there,
// as the bitmap decoder writes black pixels only up to a0.  Then the
// sentinels.  x is at or behind the last change and at most width.
inline void FaxCloseChanges(int32_t *end, const int32_t *begin, int32_t x, int32_t width) {
    if ((end - begin) & 1) end = FaxPushChange(end, x);
    for (uint32_t i = 0; i < FaxChangesSentinels; ++i) end[i] = width;
    FaxClosedSize = int32_t(end - begin);
}

// Changes from which a dense row is written by parity (FaxRenderByParity).
constexpr int32_t FaxParityFrom = 32;

// Stores the 64 pixels of word (first pixel in the top bit) at p.
inline void FaxStore64(uint8_t *p, uint64_t word) {
    if constexpr (std::endian::native == std::endian::little) word = __builtin_bswap64(word);
    std::memcpy(p, &word, 8);
}

// The spans of a list of many changes, written into a cleared row by
// parity: each change toggles its pixel, and a running XOR over the row,
// within each 64-pixel word by shifts and from word to word by a carry,
// makes every pixel black that has an odd number of changes at or before
// it.  The cost goes with the words up to the last change, not the spans.
inline void FaxRenderByParity(uint8_t *row, uint32_t rowBytes, const int32_t *changes, int32_t width) {
    const int32_t *c = changes;
    for (; c[0] < width; ++c) row[c[0] >> 3] ^= uint8_t(0x80u >> (c[0] & 7));
    int32_t last = c == changes ? -1 : c[-1];
    // A span still open ends at the width: its end is toggled too where the
    // row has bits behind the width, so that they stay white.
    if ((c - changes) & 1) {
        if (uint32_t(width) < rowBytes * 8) row[width >> 3] ^= uint8_t(0x80u >> (width & 7));
        last = uint32_t(width) < rowBytes * 8 ? width : width - 1;
    }
    if (last < 0) return;
    const uint32_t lastByte = uint32_t(last) >> 3;
    uint64_t carry = 0;  // all ones where the colour coming into a word is black
    uint32_t i = 0;
    for (; i + 8 <= rowBytes && i <= lastByte; i += 8) {
        uint64_t x;
        std::memcpy(&x, row + i, 8);
        if constexpr (std::endian::native == std::endian::little) x = __builtin_bswap64(x);
        x ^= x >> 1;
        x ^= x >> 2;
        x ^= x >> 4;
        x ^= x >> 8;
        x ^= x >> 16;
        x ^= x >> 32;
        x ^= carry;
        carry = 0 - (x & 1);
        FaxStore64(row + i, x);
    }
    for (; i < rowBytes && i <= lastByte; ++i) {
        uint32_t b = row[i];
        b ^= b >> 1;
        b ^= b >> 2;
        b ^= b >> 4;
        b ^= uint32_t(carry) & 0xFFu;
        carry = 0 - uint64_t(b & 1);
        row[i] = uint8_t(b);
    }
}

// Writes all rowBytes bytes of row from a closed list: the black spans, 0
// elsewhere.  The row is cleared, unless the caller knows that it holds
// zeros; then the pixels of each 64-pixel word are gathered in a register
// and the word is stored again after each span that reaches it: words are
// only written, never read back, so that no load waits for a store.  The
// bytes behind the last whole word are gathered in the same way and copied
// at the end.
inline void FaxRenderChanges(uint8_t *row, uint32_t rowBytes, const int32_t *changes, int32_t width,
                             bool cleared = false, int32_t count = 0) {
    const uint32_t whole = rowBytes >> 3;
    if (!cleared) std::memset(row, 0, rowBytes);
    // A row dense with changes (text: two or more a 64-pixel word up to its
    // last change), when its count is known, by parity; else span by span.
    if (count >= FaxParityFrom && count >= 3 * ((changes[count - 1] >> 6) + 1))
        return FaxRenderByParity(row, rowBytes, changes, width);
    uint32_t current = 0;  // the word whose pixels acc holds
    uint64_t acc = 0;
    uint64_t tail = 0;  // the pixels of word `whole`
    auto put = [&](uint32_t i, uint64_t pixels) {
        if (i < whole) [[likely]]
            FaxStore64(row + size_t(i) * 8, pixels);
        else
            tail = pixels;
    };
    for (const int32_t *c = changes; c[0] < width; c += 2) {
        const auto s = uint32_t(c[0]);
        const auto e = uint32_t(c[1]) - 1;  // the span's last pixel
        const uint32_t ws = s >> 6;
        const uint32_t we = e >> 6;
        const uint64_t head = ~uint64_t(0) >> (s & 63);
        const uint64_t last = ~uint64_t(0) << (63 - (e & 63));
        acc = ws == current ? acc : 0;
        if (ws == we) [[likely]] {
            acc |= head & last;
        } else {
            put(ws, acc | head);
            for (uint32_t i = ws + 1; i < we; ++i) FaxStore64(row + size_t(i) * 8, ~uint64_t(0));
            acc = last;
        }
        current = we;
        put(current, acc);
    }
    if (const uint32_t rest = rowBytes & 7) {
        uint8_t bytes[8];
        FaxStore64(bytes, tail);
        // Two moves that may overlap, not a loop of rest bytes.
        uint8_t *to = row + size_t(whole) * 8;
        if (rest >= 4) {
            std::memcpy(to, bytes, 4);
            std::memcpy(to + rest - 4, bytes + rest - 4, 4);
        } else if (rest >= 2) {
            std::memcpy(to, bytes, 2);
            std::memcpy(to + rest - 2, bytes + rest - 2, 2);
        } else {
            to[0] = bytes[0];
        }
    }
}

// The changes of a line in the bitmap (with the guard byte before it and
// FaxRefSlack zero bytes behind it), closed.
inline void FaxChangesOfLine(const uint8_t *line, int32_t *changes, int32_t width) {
    int32_t *end = changes;
    int32_t x = 0;
    uint64_t want = ~uint64_t(0);  // black first
    for (;;) {
        x = FaxNextPixel(line, x, want, width);
        if (x >= width) break;
        *end++ = x;
        want = ~want;
    }
    FaxCloseChanges(end, changes, width, width);
}

// One mode code a look-up per byte it touches, from the stream's state:
// its action, or 0 with no data left.
inline uint32_t FaxModeCodeByBytes(FaxBits &bits) {
    const uint16_t *modes = FaxModeTable.data();
    uint32_t s = uint32_t(bits.position);
    for (;;) {
        if (s == 0 || s > 7) {
            if (!FaxFetchByte(bits)) {
                bits.position = int32_t(s);
                return 0;
            }
        }
        const uint32_t entry = FaxLookup(modes, s, bits.curByte);
        s = entry & 0xFFu;
        if (entry >> 8) {
            bits.position = int32_t(s);
            return entry >> 8;
        }
    }
}
