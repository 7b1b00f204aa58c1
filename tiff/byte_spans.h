// byte_spans.h - short spans of bytes copied and filled without a call:
// the moves that the LZW and PackBits decoders make by the thousand a row.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// Sixteen bytes as one value: one vector register where the target has
// them; two words elsewhere (a 32-bit x86 build without SSE, where a vector
// type would change how functions pass it).
#if defined(__SSE2__) || defined(__ARM_NEON)
typedef uint8_t Bytes16 __attribute__((vector_size(16)));
inline Bytes16 Splat16(uint8_t value) { return Bytes16{} + value; }
#else
struct Bytes16 {
    uint64_t low, high;
};
inline Bytes16 Splat16(uint8_t value) {
    const uint64_t word = value * 0x0101010101010101u;
    return {word, word};
}
#endif
inline Bytes16 Load16(const uint8_t *p) {
    Bytes16 v;
    std::memcpy(&v, p, 16);
    return v;
}
inline void Store16(uint8_t *p, Bytes16 v) { std::memcpy(p, &v, 16); }

// Copies `n` bytes from `from` to `to`, which do not overlap: short spans
// with loads and stores that may overlap each other, reading and writing
// nothing outside the spans (up to 64 bytes); longer ones with memcpy.
inline void CopySpan(uint8_t *to, const uint8_t *from, size_t n) {
    if (n >= 8 && n <= 16) {
        uint64_t head, tail;
        std::memcpy(&head, from, 8);
        std::memcpy(&tail, from + n - 8, 8);
        std::memcpy(to, &head, 8);
        std::memcpy(to + n - 8, &tail, 8);
    } else if (n >= 4 && n < 8) {
        uint32_t head, tail;
        std::memcpy(&head, from, 4);
        std::memcpy(&tail, from + n - 4, 4);
        std::memcpy(to, &head, 4);
        std::memcpy(to + n - 4, &tail, 4);
    } else if (n >= 2 && n < 4) {
        uint16_t head, tail;
        std::memcpy(&head, from, 2);
        std::memcpy(&tail, from + n - 2, 2);
        std::memcpy(to, &head, 2);
        std::memcpy(to + n - 2, &tail, 2);
    } else if (n == 1) {
        *to = *from;
    } else if (n > 16 && n <= 32) {
        const Bytes16 head = Load16(from), tail = Load16(from + n - 16);
        Store16(to, head);
        Store16(to + n - 16, tail);
    } else if (n > 32 && n <= 64) {
        const Bytes16 a = Load16(from), b = Load16(from + 16), c = Load16(from + n - 32), d = Load16(from + n - 16);
        Store16(to, a);
        Store16(to + 16, b);
        Store16(to + n - 32, c);
        Store16(to + n - 16, d);
    } else if (n > 64) {
        std::memcpy(to, from, n);
    }
}

// Writes `n` bytes of `value` to `to`, as CopySpan copies: short spans with
// stores that may overlap each other, nothing outside the span.
inline void FillSpan(uint8_t *to, uint8_t value, size_t n) {
    const uint64_t word = value * 0x0101010101010101u;
    if (n >= 16) {
        std::memset(to, value, n);
    } else if (n >= 8) {
        std::memcpy(to, &word, 8);
        std::memcpy(to + n - 8, &word, 8);
    } else if (n >= 4) {
        std::memcpy(to, &word, 4);
        std::memcpy(to + n - 4, &word, 4);
    } else if (n >= 2) {
        std::memcpy(to, &word, 2);
        std::memcpy(to + n - 2, &word, 2);
    } else if (n == 1) {
        *to = value;
    }
}
