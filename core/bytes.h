// bytes.h - little-endian loads and stores on unaligned bytes.
#pragma once

#include <cstdint>
#include <cstddef>
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
