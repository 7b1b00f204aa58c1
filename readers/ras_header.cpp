// ras_header.cpp - the RAS header: variant, record layout and palette.
//
// RasParseHeader draws from the 2444 header bytes what the reader needs to
// walk the records: where the stored size and the pixels lie in a record,
// the picture's extents, depth and direction, and the palette.  Every
// rejection is silent; the reader closes the file and gives 0.
#include <cstring>

#include "core/bytes.h"
#include "readers/ras.h"

RasStateRecord RasState = {};

namespace {

// Largest byte count the reader takes from a header: every size, sum and
// file position of a RAS file is a signed 32-bit value.
constexpr int64_t RasMaxBytes = INT32_MAX;

bool IsLowerLetter(uint8_t c) { return c >= 'a' && c <= 'z'; }
bool IsDecimal(uint8_t c) { return c >= '0' && c <= '9'; }
int64_t Magnitude(int32_t v) { return v < 0 ? -int64_t(v) : int64_t(v); }

// Bytes of `count` values of `bits` bits each, rounded up; -1 when that is
// more than RasMaxBytes or the depth is negative.
int64_t BitBytes(int64_t count, int64_t bits) {
    if (bits < 0 || count < 0) return -1;
    if (bits != 0 && count > (RasMaxBytes * 8) / bits) return -1;
    return (count * bits + 7) >> 3;
}

// atoi over one 128-char value that need not be terminated: blanks, a sign,
// then decimal digits.  A number past 32 bits saturates, as the run-time's
// atoi does, instead of overflowing.
int32_t ValueToInt(const uint8_t *text) {
    int i = 0;
    while (i < RasValueBytes && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) ++i;
    bool negative = false;
    if (i < RasValueBytes && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    int64_t value = 0;
    for (; i < RasValueBytes && IsDecimal(text[i]); ++i) {
        value = value * 10 + (text[i] - '0');
        if (value > int64_t(INT32_MAX) + 1) value = int64_t(INT32_MAX) + 1;
    }
    if (negative) value = -value;
    if (value > INT32_MAX) value = INT32_MAX;
    return int32_t(value);
}

// The first key slot equal to `key` over 4 chars, or -1.
int FindKey(const uint8_t *header, const char *key) {
    for (int i = 0; i < RasSlots; ++i)
        if (memcmp(header + RasKeyAt + 4 * i, key, 4) == 0) return i;
    return -1;
}

// Colours entries of zero, entry 0 white: with 2 colours, white and black.
void DefaultPalette() {
    RasState.Colours = 2;
    RasState.Palette[0][0] = RasState.Palette[0][1] = RasState.Palette[0][2] = 255;
}

}  // namespace

void RasParseColour(uint8_t *entry, const char *text) {
    auto nibble = [](uint8_t c) -> int {
        if (IsDecimal(c)) return c - '0';
        if (IsLowerLetter(c)) c = uint8_t(c - 'a' + 'A');
        return int(c) - 55;  // 'A'..'F' give 10..15; other chars are taken as they come
    };
    for (int j = 0; j < 4; ++j) {
        auto hi = uint8_t(text[2 * j]);
        auto lo = uint8_t(text[2 * j + 1]);
        entry[j] = uint8_t(nibble(hi) * 16 + nibble(lo));
    }
}

int32_t RasParseHeader() {
    RasStateRecord &s = RasState;
    const uint8_t *h = s.Header;

    if (memcmp(h + RasMagicAt, "bild", 4) == 0)
        s.Variant = 'r';
    else if (memcmp(h + RasMagicAt, "bimp", 4) == 0)
        s.Variant = 'b';
    else
        return 0;

    s.Variable = s.Rows = s.Cols = s.Bits = 0;
    s.Order0 = s.Order1 = 0;
    s.PixelBytes = s.PrefixBytes = s.GapBytes = s.TailBytes = 0;
    s.Colours = 0;
    memset(s.Palette, 0, sizeof s.Palette);
    bool pictureSeen = false;
    int64_t gap = 0;          // GapBytes as it grows, wider than the field
    int64_t pixelBytes = -1;  // of the last fixed picture; -1 past RasMaxBytes

    bool listEnded = false;
    for (int i = 0; i < RasSlots; ++i) {
        const uint8_t *name = h + RasElementNameAt + 4 * i;
        if (!IsLowerLetter(name[0])) {
            listEnded = true;
            break;
        }
        int32_t dim0 = LoadI32(h + RasDimAt + 8 * i);
        int32_t dim1 = LoadI32(h + RasDimAt + 8 * i + 4);
        int32_t bits = LoadI32(h + RasElementBitsAt + 4 * i);
        auto order0 = int8_t(h[RasOrderAt + 2 * i]);
        auto order1 = int8_t(h[RasOrderAt + 2 * i + 1]);

        if (dim0 < 0 || dim1 < 0) {
            // The picture of a file whose records carry their own size.
            if (pictureSeen) return 0;
            if (s.Variant == 'r') {
                s.PrefixBytes = int32_t(gap);
                gap = 0;
            }
            s.Bits = bits;
            s.Order0 = order0;
            s.Order1 = order1;
            s.Variable = 1;
            pictureSeen = true;
            continue;
        }
        if (s.Variant == 'b' && memcmp(name, "dim", 3) == 0) {
            // Marks where the stored size stands; its own bytes follow it.
            s.PrefixBytes = int32_t(gap);
            gap = 0;
        }
        if (memcmp(name, "bild", 4) == 0) {
            pictureSeen = true;
            s.Rows = dim0 < 2 ? 1 : dim0;
            s.Cols = dim1 < 2 ? 1 : dim1;
            s.Bits = bits;
            s.Order0 = order0;
            s.Order1 = order1;
            pixelBytes = BitBytes(int64_t(s.Rows) * s.Cols, bits);
            continue;
        }
        // Other data, stepped over.  An element whose size is negative (a
        // negative bit count) or past 32 bits describes no file we can read:
        // it is rejected, so that no record is taken to have a negative or
        // wrapped length and a walk always moves forward.
        int64_t n = dim0 == 0 ? 1 : Magnitude(dim0);
        if (dim1 != 0) n *= Magnitude(dim1);
        int64_t size = BitBytes(n, bits);
        if (size < 0) return 0;
        gap += size;
        if (gap > RasMaxBytes) return 0;
    }
    s.GapBytes = int32_t(gap);

    if (!listEnded) return 0;
    if ((s.Order0 != 1 && s.Order0 != -1) || s.Order1 != 2) return 0;
    if (!(s.Bits == 1 || s.Bits == 8 || (s.Bits == 4 && s.Variant == 'b'))) return 0;

    s.HeaderRows = s.Rows;
    s.HeaderCols = s.Cols;
    if (s.Variable == 0) {
        // A fixed picture whose pixel bytes pass 32 bits cannot be in a file.
        if (pixelBytes < 0) return 0;
        s.PixelBytes = int32_t(pixelBytes);
        // A record of a fixed-size file is RecordSize bytes long; a size of
        // 0 or below (which the format test refuses too) would stop a walk
        // from moving on, so such a header is rejected.
        int32_t recordSize = LoadI32(h + RasRecordSizeAt);
        if (recordSize <= 0) return 0;
        // In variant 'b' the 8 bytes of the stored size belong to the record.
        // A fixed "bild" record has no stored size; its length is left open
        // by the format, and we take it as RecordSize bytes in a walk as in a
        // numbered read, so that both find the same records and every step
        // moves RecordSize bytes forward.
        int64_t tail = int64_t(recordSize) - s.GapBytes - s.PixelBytes;
        if (s.Variant == 'b') tail -= int64_t(s.PrefixBytes) + 8;
        if (tail < INT32_MIN) return 0;
        s.TailBytes = int32_t(tail);
    }

    if (s.Variant == 'r') {
        DefaultPalette();
        return 1;
    }
    int clrs = FindKey(h, "clrs");
    if (clrs < 0) {
        DefaultPalette();
        return 1;
    }
    s.Colours = int16_t(uint16_t(uint32_t(ValueToInt(h + RasValueAt + RasValueBytes * clrs))));
    if (s.Colours > RasMaxColours) return 0;
    // A negative count has no meaning and would size the palette and the
    // block: such a header is rejected like one with too many colours.
    if (s.Colours < 0) return 0;
    int k = FindKey(h, "rgbq");
    if (k < 0) return 0;
    // Entries of 9 chars; from entry 8 on the list goes on at the start of
    // slot k + 1.  For k = 15 that "slot" lies in the element names, still
    // inside the header.
    for (int e = 0; e < s.Colours; ++e) {
        int32_t at = e < 8 ? RasValueAt + RasValueBytes * k + 9 * e
                           : RasValueAt + RasValueBytes * (k + 1) + 9 * (e - 8);
        RasParseColour(s.Palette[e], reinterpret_cast<const char *>(h + at));
    }
    return 1;
}
