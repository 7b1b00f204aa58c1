// lzw.cpp - LZW (compression 5) rows.
//
// LZW keeps a table of 4096 linked entries: a string is its last byte and a
// link to the string without it.  Each entry also remembers where its
// string stands whole in the rows already written: a new string is the
// previous code's string, just written, and one byte more, so a string is
// written again with one copy of that span and its last byte.  A string
// that ran over the end of a row stands in pieces, the first at the end of
// its row, the others at the start of the rows after it; the rows of a strip
// come one after another at one distance (the bitmap's rows), so the pieces
// are found from where the string begins, which the state keeps for its
// entry.  Only a string of which that is not known (its rows were not at one
// distance) is written from its tail by walking the links.  A string that
// does not fit the rest of a row is delivered in parts: its head ends this
// row and `restart` remembers how much of it is delivered.

#include "tiff/lzw.h"

#include <array>
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
    const uint8_t *lastRow;    // the row delivered last in the strip; null before its first
    intptr_t rowStep;          // from one row's start to the next one's; 0 until two rows are seen
    bool rowsInStep;           // every row of the strip so far came rowStep after the one before
    const uint8_t *carryWhere; // the last code's string when it ended its row or ran over the end; else null
    uint32_t carryHead;        // its bytes from there to the end of that row
    uint32_t rowBytes;         // bytes of the row under decoding
    LzwEntry *firstMade;       // the entry the row's first code makes
    bool clearedInRow;         // a CLEAR came in the row under decoding
};

// The start of the string of an entry that stands in pieces (a head): read
// only for such an entry, so it needs no clearing.
const uint8_t *SplitWhere[LzwTableSize];

// The one-byte strings, each with the 63 bytes after it readable, so that
// a literal code goes through the same 16- or 64-byte move as a string.
constexpr auto MakeLiterals() {
    std::array<uint8_t, 256 + 64> bytes{};
    for (unsigned i = 0; i < 256; ++i) bytes[i] = uint8_t(i);
    return bytes;
}
constexpr std::array<uint8_t, 256 + 64> Literals = MakeLiterals();

// The state's block; a null pointer says that no state exists.
MemoryBlock LzwStateBlock{};

LzwState *State() { return static_cast<LzwState *>(LzwStateBlock.pointer); }

void ReportRow(const char *format) {
    wsprintfA(TiffImage.messageBuffer, format, TiffImage.currentRow);
    ReportError(TiffReadTitle, TiffImage.messageBuffer, 0);
}

// Copies bytes [from, from + n) of the string of `e`, which stands in
// pieces: its head at SplitWhere to the end of its row, its rest at the
// start of the rows after.  Out of line: the decoder's loop keeps its
// registers for the common strings.
__attribute__((noinline)) void CopyPieces(uint8_t *out, const LzwEntry *e, const LzwEntry *table, uint32_t from,
                                          uint32_t n) {
    const LzwState *s = State();
    const uint8_t *piece = SplitWhere[e - table];
    uint32_t pieceBytes = e->head;
    while (from >= pieceBytes) {
        from -= pieceBytes;
        piece = piece + pieceBytes - s->rowBytes + s->rowStep;
        pieceBytes = s->rowBytes;
    }
    piece += from;
    pieceBytes -= from;
    while (n > 0) {
        const uint32_t take = n < pieceBytes ? n : pieceBytes;
        CopySpan(out, piece, take);
        out += take;
        n -= take;
        piece = piece + pieceBytes - s->rowBytes + s->rowStep;
        pieceBytes = s->rowBytes;
    }
}

// Copies bytes [from, from + n) of the string of an entry that stands
// somewhere: whole at `where`, or in pieces.
inline void CopyStanding(uint8_t *out, const LzwEntry *e, const LzwEntry *table, uint32_t from, uint32_t n) {
    if (e->where != nullptr)
        CopySpan(out, e->where + from, n);
    else
        CopyPieces(out, e, table, from, n);
}

// Writes bytes [from, from + n) of the string of `e` to `out`; false when
// its chain ends early, which no table built here gives.
//
// A string that stands whole in the rows written, or in pieces from the end
// of a row on, is copied from there.  Its last byte is there too, but for an
// entry made by the very code being written (`fresh`): that byte is the one
// at `out`, so it comes from `value`.  Any other string is written from its
// tail along its chain, but only down to the first shorter string of the
// chain that stands somewhere, whose bytes begin this one: that is usually
// one link.  When the whole string goes into this row, it stands whole from
// now on.
inline bool WritePart(LzwEntry *table, LzwEntry *e, uint32_t from, uint32_t n, uint8_t *out, bool fresh) {
    const uint32_t stop = from + n;
    if (e->where != nullptr || e->head != 0) {
        const uint32_t copied = fresh && stop == e->length ? n - 1 : n;
        CopyStanding(out, e, table, from, copied);
        if (copied < n) out[n - 1] = e->value;
        return true;
    }
    uint8_t *const base = out - from;  // where byte 0 of the string would go
    LzwEntry *link = e;
    uint32_t low = stop;  // bytes from here to `stop` are written
    while (link != nullptr && low > from) {
        const uint32_t length = link->length;
        if (length <= from) return false;  // the chain's lengths do not step down one by one
        if (link->where != nullptr || link->head != 0) {
            const uint32_t end = length < low ? length : low;
            if (end > from) CopyStanding(out, link, table, from, end - from);
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
            s->table[i].head = 0;
            s->table[i].where = Literals.data() + i;
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
    s->lastRow = nullptr;
    s->rowStep = 0;
    s->rowsInStep = true;
    s->carryWhere = nullptr;
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
    // The rows of the strip so far, one rowStep after another?  A row that
    // is not (it never is in a bitmap) leaves strings that ran over a row's
    // end to the links, for the rest of the strip.
    if (s->lastRow != nullptr) {
        const intptr_t step = row - s->lastRow;
        if (s->rowStep == 0) s->rowStep = step;
        const uintptr_t apart = uintptr_t(step < 0 ? -step : step);
        if (step != s->rowStep || apart < uint32_t(left)) s->rowsInStep = false;
    }
    s->lastRow = row;
    s->rowBytes = uint32_t(left);

    // The tail of a string begun in an earlier row.
    if (s->restart != 0) {
        LzwEntry *e = s->restartEntry;
        const uint32_t rest = e->length - s->restart;
        const uint32_t part = rest < uint32_t(left) ? rest : uint32_t(left);
        if (!WritePart(s->table, e, s->restart, part, out, false) && !TiffImage.rowsZeroed)
            std::memset(out, 0, part);
        out += part;
        left -= int32_t(part);
        if (part < rest) {
            // It reaches past this row as well.
            s->restart += part;
            return 1;
        }
        s->restart = 0;
    }
    // The string that ended the row before or ran over its end: the entry
    // the first code of this row makes is it and one byte more, in pieces.
    // Kept in the state, out of the registers of the loop below.
    if (!s->rowsInStep) s->carryWhere = nullptr;
    s->firstMade = s->freeEntry;
    s->clearedInRow = false;

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
            s->clearedInRow = true;
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
        freeEntry->value = e->firstChar;  // the first byte just set, when e is this entry
        // The previous string, whole before `out`, and the first byte of
        // this one, which goes to `out` in this row.
        freeEntry->where = previous;
        freeEntry->head = 0;
        if (++freeEntry > maxEntry) {
            // One code early, as TIFF writers do: 10 bits once entry 510 is
            // filled, 11 after 1022, 12 after 2046.
            if (++codeWidth > MaxCodeWidth) codeWidth = MaxCodeWidth;
            maxEntry = table + (1u << codeWidth) - 2;
        }
        oldEntry = e;

        previous = out;
        // A literal takes the same moves as a string, from Literals: one
        // branch less, where literals and strings alternate at random.  The
        // readable span is measured back from readLimit, as an unsigned
        // difference, which a row before readLimit bounds and the static
        // table, wherever it lies, always passes (its 64 bytes are there).
        const int32_t length = e->length;
        const uint8_t *from = e->where;
        if (from != nullptr && length <= 16 && left >= 16 && readLimit - reinterpret_cast<uintptr_t>(from) >= 16) {
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
        if (from != nullptr && length <= 64 && left >= 64 && readLimit - reinterpret_cast<uintptr_t>(from) >= 64) {
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
        s->restartEntry = e;
        s->restart = uint32_t(left);
        if (!WritePart(table, e, 0, uint32_t(left), out, fresh)) {
            if (!t.rowsZeroed) std::memset(out, 0, size_t(left));
            ReportRow("Unexpected code in line %ld");
        }
        left = 0;
        break;
    }

    // The entry the row's first code made, from the string carried over:
    // where its pieces are, unless a CLEAR made it anew since.
    LzwEntry *const firstMade = s->firstMade;
    const bool madeInRow = !s->clearedInRow && firstMade < freeEntry;
    if (s->carryWhere != nullptr && madeInRow && firstMade->where == nullptr && s->carryHead < firstMade->length) {
        firstMade->head = uint16_t(s->carryHead);
        SplitWhere[firstMade - table] = s->carryWhere;
    }
    // The string that ends this row or runs over its end, for the next; the
    // carried one still, when it filled this row and goes on.
    if (left == 0 && previous != nullptr) {
        s->carryWhere = previous;
        s->carryHead = uint32_t(row + count - previous);
    } else if (left != 0 || madeInRow || s->clearedInRow) {
        s->carryWhere = nullptr;
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
