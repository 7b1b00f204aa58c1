// lzw.cpp - LZW (compression 5) rows.
//
// LZW keeps a table of 4096 linked entries: a string is its last byte and a
// link to the string without it.  Each entry also remembers where its
// string stands whole in the rows already written: a new string is the
// previous code's string, just written, and one byte more, so a string is
// written again with one copy of that span and its last byte.  Only a string
// that is in no one piece (it crossed the end of a row) is written from its
// tail by walking the links.  A string that does not fit the rest of a row
// is delivered in parts: its head ends this row and `restart` remembers how
// much of it is delivered.

#include "tiff/lzw.h"

#include <bit>
#include <cstring>

#include "platform/win32.h"
#include "services/blocks.h"
#include "services/errors.h"
#include "tiff/byte_spans.h"
#include "tiff/record.h"

namespace {

constexpr uint16_t MinCodeWidth = 9;
constexpr uint16_t MaxCodeWidth = 12;

struct LzwState {
    uint16_t codeWidth;        // bits of the next code, 9 to 12
    uint64_t nextData;         // bit accumulator: the next bits at its top, in stream order
    int32_t nextBits;          // bits at its top not yet used
    uint32_t restart;          // bytes of the string under delivery already delivered
    LzwEntry *restartEntry;    // the string under delivery
    LzwEntry *oldEntry;        // string of the previous code; null at a strip's start
    LzwEntry *freeEntry;       // next entry to fill
    LzwEntry *maxEntry;        // filling it raises codeWidth
    LzwEntry *table;           // entry 0
    MemoryBlock tableBlock;
    const uint8_t *inputEnd;   // end of the strip's bytes: the decoder reads nothing behind it
    uintptr_t readLimit;       // end of the highest row of the strip delivered so far; 0 at its start
};

// The state's block; a null pointer says that no state exists.
MemoryBlock LzwStateBlock{};

LzwState *State() { return static_cast<LzwState *>(LzwStateBlock.pointer); }

void ReportRow(const char *format) {
    wsprintfA(TiffImage.messageBuffer, format, TiffImage.currentRow);
    ReportError(TiffReadTitle, TiffImage.messageBuffer, 0);
}

// Writes bytes [from, from + n) of the string of `e` to `out`; false when
// its chain ends early, which no table built here gives.
//
// A string that stands whole in the rows written is copied from there.  Its
// last byte is there too, but for an entry made by the very code being
// written (`fresh`): that byte is the one at `out`, so it comes from
// `value`.  A string in no one piece (it crossed a row's end) is written
// from its tail along its chain, but only down to the first shorter string
// of the chain that stands whole somewhere, whose bytes begin this one: that
// is usually one link.  When the whole string goes into this row, it stands
// whole from now on.
inline bool WritePart(LzwEntry *table, LzwEntry *e, uint32_t from, uint32_t n, uint8_t *out, bool fresh) {
    const uint32_t stop = from + n;
    if (e->where != nullptr) {
        if (fresh && stop == e->length) {
            CopySpan(out, e->where + from, n - 1);
            out[n - 1] = e->value;
        } else {
            CopySpan(out, e->where + from, n);
        }
        return true;
    }
    uint8_t *const base = out - from;  // where byte 0 of the string would go
    LzwEntry *link = e;
    uint32_t low = stop;  // bytes from here to `stop` are written
    while (link != nullptr && low > from) {
        const uint32_t length = link->length;
        if (length <= from) return false;  // the chain's lengths do not step down one by one
        if (link->where != nullptr) {
            const uint32_t end = length < low ? length : low;
            if (end > from) CopySpan(out, link->where + from, end - from);
            low = from;
            break;
        }
        if (length <= low) {
            base[length - 1] = link->value;
            low = length - 1;
        }
        link = link->prefix == LzwNoPrefix ? nullptr : table + link->prefix;
    }
    if (low > from) return false;
    if (from == 0 && n == e->length) e->where = out;
    return true;
}

}  // namespace

int32_t LzwStartStrip() {
    if (State() == nullptr) {
        BlockAlloc(&LzwStateBlock, 0, 1, sizeof(LzwState), "LZW  h_state_buffer");
        BlockLock(&LzwStateBlock);
        LzwState *s = State();
        if (s == nullptr) {
            BlockFree(&LzwStateBlock);
            return 0;
        }
        BlockAlloc(&s->tableBlock, 0, LzwTableSize, sizeof(LzwEntry), "LZW h_dec_code");
        s->table = static_cast<LzwEntry *>(BlockLock(&s->tableBlock));
        if (s->table == nullptr) {
            LzwRelease();
            return 0;
        }
        for (int i = 255; i >= 0; --i) {
            s->table[i].value = uint8_t(i);
            s->table[i].firstChar = uint8_t(i);
            s->table[i].length = 1;
            s->table[i].prefix = LzwNoPrefix;
            s->table[i].where = nullptr;
        }
    }
    LzwState *s = State();
    const auto &t = TiffImage;
    // Nine bits spelling CLEAR lowest bit first: a bit order not decoded.
    // The strip buffer holds at least 1024 bytes, so both bytes are in it;
    // a strip read in place is two bytes long at least (StripsReadInPlace).
    if (t.rawCursor[0] == 0 && (t.rawCursor[1] & 1) != 0) return 0;
    s->codeWidth = MinCodeWidth;
    s->freeEntry = s->table + LzwFirstFree;
    s->maxEntry = s->table + (1u << MinCodeWidth) - 2;
    s->nextData = 0;
    s->nextBits = 0;
    s->restart = 0;
    s->restartEntry = nullptr;
    s->oldEntry = nullptr;
    s->inputEnd = t.rawCursor + (t.rawLeft > 0 ? t.rawLeft : 0);
    s->readLimit = 0;
    return 1;
}

void LzwRelease() {
    LzwState *s = State();
    if (s != nullptr) {
        BlockUnlock(&s->tableBlock);
        BlockFree(&s->tableBlock);
    }
    BlockUnlock(&LzwStateBlock);
    BlockFree(&LzwStateBlock);
}

int32_t LzwDecodeLine(uint8_t *row, int32_t count) {
    LzwState *s = State();
    if (s == nullptr) {
        if (!TiffImage.rowsZeroed && count > 0) std::memset(row, 0, size_t(count));
        ReportError(TiffReadTitle, "Internal error in LZW decoding", 0);
        return 0;
    }
    uint8_t *out = row;
    int32_t left = count > 0 ? count : 0;
    // Every byte from the strip's lowest row up to here is readable (the
    // rows lie in one block): a short string is copied as 16 bytes.
    const uintptr_t rowEnd = reinterpret_cast<uintptr_t>(row) + uint32_t(left);
    if (rowEnd > s->readLimit) s->readLimit = rowEnd;
    const uintptr_t readLimit = s->readLimit;

    // The tail of a string begun in an earlier row.
    if (s->restart != 0) {
        LzwEntry *e = s->restartEntry;
        const uint32_t rest = e->length - s->restart;
        const uint32_t part = rest < uint32_t(left) ? rest : uint32_t(left);
        if (!WritePart(s->table, e, s->restart, part, out, false) && !TiffImage.rowsZeroed) std::memset(out, 0, part);
        out += part;
        left -= int32_t(part);
        if (part < rest) {
            // It reaches past this row as well.
            s->restart += part;
            return 1;
        }
        s->restart = 0;
    }

    auto &t = TiffImage;
    const uint8_t *in = t.rawCursor;
    const uint8_t *const end = s->inputEnd;
    uint64_t nextData = s->nextData;
    int32_t nextBits = s->nextBits;
    int32_t codeWidth = s->codeWidth;
    LzwEntry *oldEntry = s->oldEntry;
    LzwEntry *freeEntry = s->freeEntry;
    LzwEntry *maxEntry = s->maxEntry;
    LzwEntry *const table = s->table;
    LzwEntry *const tableEnd = table + LzwTableSize;
    // Where the previous code's string starts in this row; null when it is
    // not whole in this row, right before `out`.
    const uint8_t *previous = nullptr;

    // Next code, top bits of each byte first.  The accumulator is refilled
    // with eight bytes at once while eight are left, taking the whole bytes
    // that fit: the bits of a byte taken only in part lie below the used
    // bits and are put there again, the same, by the next fill.  The end of
    // the strip counts as an EOI: nothing behind the strip's bytes is read.
    auto nextCode = [&](uint32_t &code) -> bool {
        if (nextBits < codeWidth) {
            if (end - in >= 8) {
                uint64_t bytes;
                std::memcpy(&bytes, in, 8);
                if constexpr (std::endian::native == std::endian::little) bytes = __builtin_bswap64(bytes);
                nextData |= bytes >> nextBits;
                in += (63 - nextBits) >> 3;
                nextBits |= 56;
            } else {
                while (nextBits <= 56 && in < end) {
                    nextData |= uint64_t(*in++) << (56 - nextBits);
                    nextBits += 8;
                }
                if (nextBits < codeWidth) return false;
            }
        }
        code = uint32_t(nextData >> (64 - codeWidth));
        nextData <<= codeWidth;
        nextBits -= codeWidth;
        return true;
    };

    while (left > 0) {
        uint32_t code;
        if (!nextCode(code) || code == LzwCodeEoi) break;
        if (code == LzwCodeClear) {
            freeEntry = table + LzwFirstFree;
            codeWidth = MinCodeWidth;
            maxEntry = table + (1u << MinCodeWidth) - 2;
            if (!nextCode(code) || code == LzwCodeEoi) break;
            // A code of 256 or above right after CLEAR names no string: it
            // is taken as the end of the data, and the short row reports.
            if (code >= LzwCodeClear) break;
            previous = out;
            *out++ = uint8_t(code);
            --left;
            oldEntry = table + code;
            continue;
        }

        LzwEntry *e = table + code;
        const bool fresh = e == freeEntry;  // the code names the entry it makes
        if (freeEntry >= tableEnd) {
            if (!t.rowsZeroed) std::memset(out, 0, size_t(left));
            ReportError(TiffReadTitle, "Internal error in LZW decoding", 0);
            return 0;
        }
        if (oldEntry == nullptr) {
            // The strip did not start with CLEAR: a single byte starts the
            // string chain, any other code names no string and ends the data.
            if (code >= LzwCodeClear) break;
            previous = out;
            *out++ = uint8_t(code);
            --left;
            oldEntry = e;
            continue;
        }
        // A code above the next free entry names an entry not filled since
        // the last CLEAR; its old contents are not used: the data end here.
        if (e > freeEntry) break;

        freeEntry->prefix = uint16_t(oldEntry - table);
        freeEntry->firstChar = oldEntry->firstChar;
        freeEntry->length = uint16_t(oldEntry->length + 1);
        freeEntry->value = e < freeEntry ? e->firstChar : freeEntry->firstChar;
        // The previous string, whole before `out`, and the first byte of
        // this one, which goes to `out` in this row.
        freeEntry->where = previous;
        if (++freeEntry > maxEntry) {
            // One code early, as TIFF writers do: 10 bits once entry 510 is
            // filled, 11 after 1022, 12 after 2046.
            if (++codeWidth > MaxCodeWidth) codeWidth = MaxCodeWidth;
            maxEntry = table + (1u << codeWidth) - 2;
        }
        oldEntry = e;

        previous = out;
        if (code < LzwCodeClear) {
            *out++ = uint8_t(code);
            --left;
            continue;
        }
        const int32_t length = e->length;
        const uint8_t *from = e->where;
        if (from != nullptr && length <= 16 && left >= 16 && reinterpret_cast<uintptr_t>(from) + 16 <= readLimit) {
            // Most strings: one 16-byte move, read whole before it is
            // written, so that the span may run into `out`.  Its first
            // `length` bytes count; the rest lie inside this row, and the
            // codes after write over them (a row left short fails).  The
            // last byte of a string made by this very code is not yet
            // there to copy (see WritePart).
            uint8_t chunk[16];
            std::memcpy(chunk, from, 16);
            std::memcpy(out, chunk, 16);
            out[length - 1] = e->value;  // the last byte, also of a string made by this code
            out += length;
            left -= length;
            continue;
        }
        if (from != nullptr && length <= 64 && left >= 64 && reinterpret_cast<uintptr_t>(from) + 64 <= readLimit) {
            // The longer strings of blank stretches: the same with four
            // 16-byte moves, all read before any is written.
            const Bytes16 a = Load16(from), b = Load16(from + 16), c = Load16(from + 32), d = Load16(from + 48);
            Store16(out, a);
            Store16(out + 16, b);
            Store16(out + 32, c);
            Store16(out + 48, d);
            out[length - 1] = e->value;  // the last byte, also of a string made by this code
            out += length;
            left -= length;
            continue;
        }
        if (length <= left) {
            // The string stands whole before `out` (in this row or an
            // earlier one), so the copy never overlaps.
            if (!WritePart(table, e, 0, uint32_t(length), out, fresh)) {
                ReportRow("Unexpected code in line %ld");
                break;
            }
            out += length;
            left -= length;
            continue;
        }
        // The string does not fit the row: its head ends this row.
        previous = nullptr;
        s->restartEntry = e;
        s->restart = uint32_t(left);
        if (!WritePart(table, e, 0, uint32_t(left), out, fresh)) {
            if (!t.rowsZeroed) std::memset(out, 0, size_t(left));
            ReportRow("Unexpected code in line %ld");
        }
        left = 0;
        break;
    }

    t.rawCursor = in;
    s->nextData = nextData;
    s->nextBits = nextBits;
    s->codeWidth = uint16_t(codeWidth);
    s->oldEntry = oldEntry;
    s->freeEntry = freeEntry;
    s->maxEntry = maxEntry;
    if (left > 0) {
        // The rest of the row is white, not what an earlier block left.
        if (!t.rowsZeroed) std::memset(out, 0, size_t(left));
        ReportRow("Unexpected code in line %ld");
        return 0;
    }
    return 1;
}
