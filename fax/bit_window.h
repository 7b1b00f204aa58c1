// bit_window.h - the bit stream of a CCITT strip, and the code words taken
// from it: the first step of decoding a row.
//
// A row decoder copies the stream (the strip cursor and the working
// record's byte in hand, state.h) into a FaxBits, works on that with the
// routines here, inline so that a row is decoded with the stream in
// registers, and stores it back when the row is done.  Code words are
// looked up in the tables of code_tables.h: a byte at a time through the
// state tables, or many bits at a time through the 64-bit FaxWindow.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#include "fax/code_tables.h"

// The bit stream of one strip while a row is decoded.
struct FaxBits {
    const uint8_t *cursor;   // next byte of the strip
    int32_t left;            // bytes behind cursor
    uint32_t curByte;        // byte under decoding, through byteMap
    int32_t position;        // as FaxState::position
    const uint8_t *byteMap;  // the bit order of the strip
};

// Copies a stream state one field at a time.  A plain copy of the record
// is made with 16-byte moves, and such a move that reads fields the row
// decoder has just stored one by one waits until those stores are done (a
// store the processor can't forward): many cycles a row, on every row.
// The empty asm keeps each field in a register of its own, so that the
// compiler doesn't merge the copies into such moves again.
inline void FaxCopyBits(FaxBits &to, const FaxBits &from) {
    const uint8_t *cursor = from.cursor;
    int32_t left = from.left;
    uint32_t curByte = from.curByte;
    int32_t position = from.position;
    const uint8_t *byteMap = from.byteMap;
    asm("" : "+r"(cursor), "+r"(left), "+r"(curByte));
    asm("" : "+r"(position), "+r"(byteMap));
    to.cursor = cursor;
    to.left = left;
    to.curByte = curByte;
    to.position = position;
    to.byteMap = byteMap;
}

// The widest row the decoders take.  Run lengths are held below
// FaxRunCeiling, which is above every width, so that a0 + run and the
// make-up sum of a run cannot overflow.
constexpr uint32_t FaxMaxWidth = 1u << 29;
constexpr uint32_t FaxRunCeiling = 1u << 30;

// Entry of a state table: action in bits 8..15, next state in bits 0..7.
inline uint32_t FaxLookup(const uint16_t *table, uint32_t row, uint32_t byte) {
    return uint32_t(table[row * 256 + byte] ^ FaxTableKey(row));
}

inline bool FaxFetchByte(FaxBits &bits) {
    if (bits.left < 1) [[unlikely]]
        return false;
    --bits.left;
    bits.curByte = bits.byteMap[*bits.cursor++];
    return true;
}

// Skips to the bit behind the first 1 that follows at least eleven 0 bits,
// zerosSeen of which the caller has consumed already.  A 1 that comes too
// early starts the count anew.  With the data used up, curByte and position
// stay as they were before the search and the strip is empty.  The search
// counts the zero bits of a byte by table; the result is the one of a test
// of each bit in turn.
inline void FaxSkipToEol(FaxBits &bits, int32_t zerosSeen) {
    uint32_t byte = bits.curByte;
    uint32_t pos = (bits.position <= 0 || bits.position > 7) ? 8u : uint32_t(bits.position);
    uint32_t zeros = zerosSeen < 0 ? 0u : (zerosSeen > 11 ? 11u : uint32_t(zerosSeen));
    for (;;) {
        if (pos == 8) {
            if (bits.left < 1) return;
            --bits.left;
            byte = bits.byteMap[*bits.cursor++];
            pos = 0;
        }
        uint32_t rest = (byte << pos) & 0xFFu;  // the unread bits, from the top
        if (rest == 0) {
            zeros += 8 - pos;
            if (zeros > 11) zeros = 11;  // more zero bits change nothing
            pos = 8;
            continue;
        }
        uint32_t run = FaxLeadingZeros[rest];
        pos += run + 1;  // behind the 1 bit
        if (zeros + run >= 11) {
            bits.position = int32_t(pos & 7);
            bits.curByte = byte;
            return;
        }
        zeros = 0;
    }
}

inline uint32_t FaxReadTagBit(FaxBits &bits) {
    // A state of a begun word is left only when data ran out; it holds no
    // bit, and is read as "byte used up".
    if (bits.position > 7) bits.position = 0;
    if (bits.position == 0 && bits.left > 0) FaxFetchByte(bits);
    uint32_t bit = bits.curByte & FaxBitMask[bits.position];
    bits.position = (bits.position + 1) & 7;
    return bit;
}

// Run decoding a look-up per byte touched, the sum of make-up codes so far
// carried in.
inline int32_t FaxDecodeRunFrom(FaxBits &bits, int32_t colour, uint32_t sum) {
    const uint16_t *table = FaxRunTable.data();
    // A larger state is a mode or uncompressed code cut off by the end of the
    // data; nothing of it belongs to a run, and the next read fetches.
    uint32_t s = (bits.position > 0 && bits.position <= 7) ? uint32_t(bits.position) : 0u;
    for (;;) {
        uint32_t entry = 0;
        if (s != 0) {
            entry = FaxLookup(table, s + uint32_t(colour), bits.curByte);
            s = entry & 0xFFu;
        }
        while ((entry >> 8) == 0) {
            if (!FaxFetchByte(bits)) return -3;
            entry = FaxLookup(table, s + uint32_t(colour), bits.curByte);
            s = entry & 0xFFu;
        }
        bits.position = int32_t(s);
        int32_t v = int32_t(entry >> 8) - int32_t(FaxRunTerm);
        if (v < 0) return v;
        if (v < 64) return int32_t(sum + uint32_t(v));
        // A chain of make-up codes has no bound but the data; the sum is
        // held at FaxRunCeiling, past every width, and so cannot wrap.
        sum += uint32_t(v - 64) * 64;
        if (sum > FaxRunCeiling) sum = FaxRunCeiling;
    }
}

inline int32_t FaxDecodeRun(FaxBits &bits, int32_t colour) { return FaxDecodeRunFrom(bits, colour, 0); }

// Up to 64 bits of the stream ahead, taken from it in whole bytes, for the
// two-dimensional row decoder: a code word is looked up in the next eight
// bits (acc's top byte) in a table's row of bit position 0 and, where a run
// code is begun there, in the row of its begun state with the eight bits
// after; the state tables are automata over the bits, so where the byte
// boundaries fall does not change what they complete.  A code word is taken
// only when all of its bits are there (n <= nb).  Before any other routine
// reads the stream, FaxWindowSync gives back the bytes not used.
struct FaxWindow {
    uint64_t acc = 0;     // unread bits from the top; behind the nb-th, 0 or the stream's next bits
    int32_t nb = 0;       // unread bits in acc
    const uint8_t *start = nullptr;  // the stream's cursor at FaxWindowStart
    bool on = false;      // the stream's state is in the window
    bool reversed = false;  // the strip's bytes are in reversed bit order
};

// Takes the stream's state into the window: its unread bits of curByte.
// Not for a state of a begun code word (position above 7).
inline void FaxWindowStart(FaxWindow &w, const FaxBits &bits) {
    w.start = bits.cursor;
    w.on = uint32_t(bits.position) <= 7;
    w.reversed = bits.byteMap[1] != 1;
    if (bits.position >= 1 && bits.position <= 7) {
        w.nb = 8 - bits.position;
        w.acc = uint64_t((bits.curByte << bits.position) & 0xFFu) << 56;
    } else {
        w.nb = 0;
        w.acc = 0;
    }
}

// The bits of each byte of v in reverse order.
inline uint64_t FaxReverseBytes(uint64_t v) {
    v = ((v >> 1) & 0x5555555555555555u) | ((v & 0x5555555555555555u) << 1);
    v = ((v >> 2) & 0x3333333333333333u) | ((v & 0x3333333333333333u) << 2);
    return ((v >> 4) & 0x0F0F0F0F0F0F0F0Fu) | ((v & 0x0F0F0F0F0F0F0F0Fu) << 4);
}

// Tops the window up to 57 bits or more while the strip has bytes.  With 8
// bytes left or more, one load: the whole bytes that fit are taken, and the
// first bits of the next byte may stand behind nb, which is harmless since
// they are its own bits and a code is taken only from bits below nb.
inline void FaxWindowFill(FaxWindow &w, FaxBits &bits) {
    if (bits.left >= 8 && w.nb < 64) {
        uint64_t v;
        std::memcpy(&v, bits.cursor, 8);
        if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
        if (w.reversed) v = FaxReverseBytes(v);
        w.acc |= v >> w.nb;
        const int32_t taken = (63 - w.nb) >> 3;
        bits.cursor += taken;
        bits.left -= taken;
        w.nb += taken * 8;
        return;
    }
    while (w.nb <= 56 && bits.left > 0) {
        w.acc |= uint64_t(bits.byteMap[*bits.cursor++]) << (56 - w.nb);
        w.nb += 8;
        --bits.left;
    }
}

inline void FaxWindowTake(FaxWindow &w, uint32_t n) {
    w.acc <<= n;
    w.nb -= int32_t(n);
}

// Gives the whole unread bytes back to the stream and leaves curByte and
// position as the byte-by-byte path would have them.
inline void FaxWindowSync(FaxWindow &w, FaxBits &bits) {
    if (!w.on) return;
    w.on = false;
    const int32_t back = w.nb >> 3;
    const int32_t part = w.nb & 7;
    bits.cursor -= back;
    bits.left += back;
    // A byte taken into the window and read (in part or whole) is curByte;
    // with none, curByte is still the one the window started in.
    if (bits.cursor > w.start) bits.curByte = bits.byteMap[bits.cursor[-1]];
    bits.position = part ? 8 - part : 0;
}

// A run from the window: its length, or -4 when the window can't tell (a
// code of no run, EOL, too few bits): then sum holds the make-up codes taken
// so far, and the byte-by-byte decoder goes on from there.
__attribute__((always_inline)) inline int32_t FaxWindowRun(FaxWindow &w, FaxBits &bits, int32_t colour,
                                                        uint32_t &sum) {
    const uint16_t *first = FaxRunFirst.data() + (colour ? 256 : 0);
    const uint16_t *longer = FaxRunLong.data() + (colour ? 8192 : 0);
    sum = 0;
    for (;;) {
        if (w.nb < 16) FaxWindowFill(w, bits);
        uint32_t entry = first[w.acc >> 56];
        if ((entry & 15u) == 0) entry = longer[w.acc >> 51];
        const uint32_t n = entry & 15u;
        if (n == 0 || int32_t(n) > w.nb) return -4;
        FaxWindowTake(w, n);
        const uint32_t v = entry >> 4;
        if (v < 64) return int32_t(sum + v);
        sum += v;
        if (sum > FaxRunCeiling) sum = FaxRunCeiling;
    }
}

inline int32_t FaxReadUncompressedCode(FaxBits &bits) {
    const uint16_t *table = FaxUncompressedTable.data();
    for (;;) {
        if (bits.position == 0 || bits.position > 7) {
            if (!FaxFetchByte(bits)) return FaxUncNoData;
        }
        uint32_t entry = FaxLookup(table, uint32_t(bits.position), bits.curByte);
        bits.position = int32_t(entry & 0xFFu);
        if (entry >> 8) return int32_t(entry >> 8);
    }
}
