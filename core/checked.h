// checked.h - size arithmetic on values read from files.
//
// Every product or sum that sizes a buffer or moves a pointer goes through
// these helpers; the ceilings of the library stand here in one place.
#pragma once

#include <cstdint>

namespace checked {

// Largest block the library asks for.  Bigger images are refused as out of
// memory rather than computed into a wrapped size.
constexpr uint64_t MaxBlockBytes = 0x40000000u;  // 1 GiB

// a * b into *out; false when the result leaves 32 bits.
inline bool Mul(uint32_t a, uint32_t b, uint32_t *out) {
    uint64_t r = uint64_t(a) * b;
    if (r > 0xFFFFFFFFu) return false;
    *out = uint32_t(r);
    return true;
}

// a + b into *out; false when the result leaves 32 bits.
inline bool Add(uint32_t a, uint32_t b, uint32_t *out) {
    uint64_t r = uint64_t(a) + b;
    if (r > 0xFFFFFFFFu) return false;
    *out = uint32_t(r);
    return true;
}

// Bytes of one DIB row of `width` pixels at `bits` per pixel, padded to 4.
// False for a negative width or a result past 32 bits.
inline bool DibStride(int32_t width, uint32_t bits, uint32_t *out) {
    if (width < 0) return false;
    uint64_t r = ((uint64_t(uint32_t(width)) * bits + 31) >> 3) & ~uint64_t(3);
    if (r > 0xFFFFFFFFu) return false;
    *out = uint32_t(r);
    return true;
}

}  // namespace checked
