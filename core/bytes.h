// bytes.h - little-endian loads and stores on unaligned bytes, and the
// bytes of a bitmap complemented or put in the other bit order.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

inline uint16_t LoadU16(const void *p) {
    const auto *b = static_cast<const uint8_t *>(p);
    return uint16_t(b[0] | (b[1] << 8));
}
inline uint32_t LoadU32(const void *p) {
    const auto *b = static_cast<const uint8_t *>(p);
    return uint32_t(b[0]) | (uint32_t(b[1]) << 8) | (uint32_t(b[2]) << 16) | (uint32_t(b[3]) << 24);
}
inline int32_t LoadI32(const void *p) { return int32_t(LoadU32(p)); }
inline int16_t LoadI16(const void *p) { return int16_t(LoadU16(p)); }
inline void StoreU16(void *p, uint16_t v) {
    auto *b = static_cast<uint8_t *>(p);
    b[0] = uint8_t(v);
    b[1] = uint8_t(v >> 8);
}
inline void StoreU32(void *p, uint32_t v) {
    auto *b = static_cast<uint8_t *>(p);
    b[0] = uint8_t(v);
    b[1] = uint8_t(v >> 8);
    b[2] = uint8_t(v >> 16);
    b[3] = uint8_t(v >> 24);
}

// Complements `count` bytes in place, a 64-bit word at a time.
inline void ComplementBytes(uint8_t *bytes, uint64_t count) {
    uint64_t i = 0;
    for (; i + 8 <= count; i += 8) {
        uint64_t word;
        std::memcpy(&word, bytes + i, 8);
        word = ~word;
        std::memcpy(bytes + i, &word, 8);
    }
    for (; i < count; ++i) bytes[i] = uint8_t(~bytes[i]);
}

// 256-byte maps of each byte to itself and to its bit reversal.
constexpr std::array<uint8_t, 256> MakeBitOrder(bool reversed) {
    std::array<uint8_t, 256> t{};
    for (uint32_t v = 0; v < 256; ++v) {
        uint32_t r = v;
        if (reversed) {
            r = 0;
            for (int b = 0; b < 8; ++b)
                if (v & (1u << b)) r |= 0x80u >> b;
        }
        t[v] = uint8_t(r);
    }
    return t;
}
inline constexpr std::array<uint8_t, 256> IdentityBitOrder = MakeBitOrder(false);
inline constexpr std::array<uint8_t, 256> ReversedBitOrder = MakeBitOrder(true);

// The map of each byte to its bit reversal (reversed nonzero) or to itself (0).
inline const uint8_t *BitOrderTable(int32_t reversed) {
    return reversed ? ReversedBitOrder.data() : IdentityBitOrder.data();
}

// Replaces each of `count` bytes by its bit reversal.
inline void ReverseBits(uint8_t *buffer, uint32_t count) {
    const uint8_t *map = ReversedBitOrder.data();
    for (uint32_t i = 0; i < count; ++i) buffer[i] = map[buffer[i]];
}
