// pixels.h - the pixels of packed rows, as the CCITT decoders write and
// read them: black spans set into a row, and the search of a reference
// line for its next white or black pixel.  The last step of decoding a row,
// and the first of reading the row before it.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#include "fax/code_tables.h"

// Sets count (> 8 - start % 8) pixels from pixel start to 1, a span past
// the end of its first byte; dest holds pixel start.
inline void FaxFillSpan(uint8_t *dest, int32_t start, int32_t count) {
    int32_t k = start & 7;
    if (k != 0) {
        *dest++ |= uint8_t(0xFFu >> k);
        count -= 8 - k;
    }
    uint32_t bytes = uint32_t(count) >> 3;
    // From 8 whole bytes on: single bytes up to a 4-byte boundary of the
    // address, then words of all ones, then the last bytes singly.
    if (bytes >= 8) {
        while (reinterpret_cast<uintptr_t>(dest) & 3) {
            *dest++ = 0xFF;
            --bytes;
        }
        const uint32_t ones = 0xFFFFFFFFu;
        for (; bytes >= 4; bytes -= 4, dest += 4) std::memcpy(dest, &ones, 4);
    }
    for (; bytes > 0; --bytes) *dest++ = 0xFF;
    if (count & 7) *dest |= FaxLeftMask[count & 7];
}

// Bits k .. reach - 1 (k <= reach < 64) from the top of a 64-bit word.
inline uint64_t FaxSpanMask64(int32_t k, int32_t reach) { return (~uint64_t(0) >> k) & ~(~uint64_t(0) >> reach); }

// ORs the pixels of mask (first pixel in the top bit) into the 8 bytes at p.
inline void FaxOr64(uint8_t *p, uint64_t mask) {
    if constexpr (std::endian::native == std::endian::little) mask = __builtin_bswap64(mask);
    uint64_t v;
    std::memcpy(&v, p, 8);
    v |= mask;
    std::memcpy(p, &v, 8);
}

// Sets pixels start .. end - 1 (end > start, end <= width) of a row whose
// last byte is row[lastByte].  A span within two bytes, the common case, is
// two ORs with no test of its length: where the span ends in the row's last
// byte, the second OR (of 0) goes to that byte again, never behind it.
inline void FaxBlackSpan(uint8_t *row, int32_t start, int32_t end, int32_t lastByte) {
    const int32_t k = start & 7;
    const int32_t b = start >> 3;
    const int32_t reach = k + (end - start);  // bits from the top of row[b]
    if (reach < 64 && b + 8 <= lastByte + 1) {
        FaxOr64(row + b, FaxSpanMask64(k, reach));
    } else if (reach <= 16) {
        const uint32_t mask = (0xFFFFu >> k) & ~(0xFFFFu >> reach);
        const int32_t next = b < lastByte ? b + 1 : b;
        row[b] |= uint8_t(mask >> 8);
        row[next] |= uint8_t(mask);
    } else {
        FaxFillSpan(row + b, start, end - start);
    }
}

// Bytes behind the reference line that FaxNextPixel may read: they are 0
// and never written.
constexpr uint32_t FaxRefSlack = 8;

// 64 pixels of a line from the byte at p, the first in the top bit.
inline uint64_t FaxLoad64(const uint8_t *p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
    return v;
}

// The first pixel from x on (x >= -8) that is black (black all ones) or
// white (black 0) on the reference line, or width when there is none before
// width.  This is the reference line's cursor of the two-dimensional
// decoder, one 64-pixel window per step instead of a byte at a time.  It
// may read up to FaxRefSlack bytes behind the line's last byte, and the
// guard byte before it.
inline int32_t FaxNextPixel(const uint8_t *line, int32_t x, uint64_t black, int32_t width) {
    while (x < width) {
        int32_t k = x & 7;
        uint64_t hits = (FaxLoad64(line + (x >> 3)) ^ ~black) << k;  // the wanted pixels as 1
        if (hits != 0) {
            int32_t found = x + __builtin_clzll(hits);
            return found < width ? found : width;
        }
        x += 64 - k;
    }
    return width;
}
