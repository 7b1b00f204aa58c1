// pixels.h - the pixels of packed rows, as the CCITT decoders write and
// read them: black spans set into a row, and the searches of a reference
// line for its next white or black pixel.  The last step of decoding a row,
// and the first of reading the row before it.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#include "fax/code_tables.h"

// Sets count (> 0) pixels from pixel start of row to 1.
inline void FaxSetSpan(uint8_t *row, int32_t start, int32_t count);
// The same for a span past the end of its first byte; dest holds pixel start.
inline void FaxFillSpan(uint8_t *dest, int32_t start, int32_t count);
// Pixels from start (before end) that are 0 (or 1) in an unbroken span.
// start may be as low as -8: index -1 is the guard byte before the line.
template <bool Ones>
inline int32_t FaxFindSpan(const uint8_t *line, int32_t start, int32_t end);
inline int32_t FaxFindZeros(const uint8_t *line, int32_t start, int32_t end) { return FaxFindSpan<false>(line, start, end); }
inline int32_t FaxFindOnes(const uint8_t *line, int32_t start, int32_t end) { return FaxFindSpan<true>(line, start, end); }

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

inline void FaxSetSpan(uint8_t *row, int32_t start, int32_t count) {
    int32_t k = start & 7;
    uint8_t *dest = row + (start >> 3);
    if (count <= 8 - k) {
        *dest |= uint8_t(FaxLeftMask[count] >> k);
    } else if (count <= 16 - k) {  // the span ends in the next byte
        dest[0] |= uint8_t(0xFFu >> k);
        dest[1] |= FaxLeftMask[count + k - 8];
    } else {
        FaxFillSpan(dest, start, count);
    }
}


// The search of FaxFindZeros (skip 0x00) and FaxFindOnes (skip 0xFF).
template <bool Ones>
inline int32_t FaxFindSpan(const uint8_t *line, int32_t start, int32_t end) {
    const uint8_t *lead = Ones ? FaxLeadingOnes.data() : FaxLeadingZeros.data();
    constexpr uint8_t skip = Ones ? 0xFF : 0x00;
    constexpr uint32_t skipWord = Ones ? 0xFFFFFFFFu : 0u;
    int32_t n = end - start;
    const uint8_t *p = line + (start >> 3);  // arithmetic shift: -1 is the guard byte
    int32_t k = start & 7;
    int32_t r = 0;
    if (n > 0 && k != 0) {
        r = lead[uint8_t(*p << k)];
        if (r > 8 - k) r = 8 - k;
        if (r > n) r = n;
        if (r + k < 8) return r;
        n -= r;
        ++p;
    }
    if (n >= 64) {
        while (reinterpret_cast<uintptr_t>(p) & 3) {
            if (*p != skip) return r + lead[*p];
            r += 8;
            n -= 8;
            ++p;
        }
        for (;;) {
            if (n < 32) break;
            uint32_t word;
            std::memcpy(&word, p, 4);
            if (word != skipWord) break;
            r += 32;
            n -= 32;
            p += 4;
        }
    }
    while (n >= 8) {
        if (*p != skip) return r + lead[*p];
        r += 8;
        n -= 8;
        ++p;
    }
    if (n < 1) return r;
    int32_t last = lead[*p];
    return r + (last < n ? last : n);
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
// decoder: it gives what FaxFindOnes/FaxFindZeros give for a span up to
// width (x + the span), with one 64-pixel window per step instead of a
// byte at a time.  It may read up to FaxRefSlack bytes behind the line's
// last byte, and the guard byte before it.
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
