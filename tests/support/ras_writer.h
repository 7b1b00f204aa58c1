// ras_writer.h - makes RAS files for the tests, in every variant the reader
// knows: "bild" and "bimp", 1, 4 and 8 bits, both row directions, records
// of fixed size or carrying their own size, with or without a palette.
//
// It works from the format's description, not from the reader: a record is
// laid out as prefix, stored size, gap, pixels, tail, and the header's
// element list is written so that it describes exactly that layout.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace test {

// A picture as palette indices (0/1, 0..15 or 0..255), top row first.
struct RasPicture {
    int32_t rows = 0;
    int32_t cols = 0;
    std::vector<uint8_t> values;  // rows x cols
    uint8_t At(int32_t x, int32_t y) const { return values[size_t(y) * size_t(cols) + size_t(x)]; }
};

struct RasLayout {
    bool bimp = false;       // "bimp" (variant 'b') or "bild" (variant 'r')
    int32_t bits = 1;        // 1, 8, or 4 in "bimp"
    int8_t order0 = 1;       // +1: first stored row is the top row; -1: the bottom row
    bool variable = true;    // records carry their own rows and columns
    int32_t headerRows = 0;  // extents of a fixed picture (0: those of the first picture)
    int32_t headerCols = 0;
    int32_t before = 0;      // bytes of an element listed in front of the picture
    int32_t dim = 0;         // "bimp": bytes of a "dim" element (0: none), listed after `before`
    int32_t after = 0;       // bytes of an element listed behind the picture
    int32_t recordSize = 0;  // fixed files: 0 for the exact size of a record
    // "bimp" palette: entries as blue, green, red, 0; empty for no "clrs" key.
    std::vector<std::array<uint8_t, 4>> palette;
    int rgbqSlot = 3;        // key slot of "rgbq"; entries 8.. go on in the next slot
};

// The 2444-byte header for `layout`, with `first` giving the fixed extents
// when the layout leaves them 0.
std::vector<uint8_t> RasHeaderFor(const RasLayout &layout, const RasPicture &first);

// The stored pixel bytes of one picture as a record holds them (without
// any padding up to a fixed record's pixel size).
std::vector<uint8_t> RasPixelsFor(const RasLayout &layout, const RasPicture &picture);

// A whole file: header, then one record per picture.
std::vector<uint8_t> MakeRas(const RasLayout &layout, const std::vector<RasPicture> &pictures);

// Offset of record `index` and of its stored size, as laid out by MakeRas.
struct RasRecordPlace {
    size_t start;    // first byte of the record
    size_t size;     // the stored rows and columns (no meaning for a fixed "bild")
    size_t pixels;   // first pixel byte
    size_t end;      // one behind the record
};
std::vector<RasRecordPlace> RasPlaces(const RasLayout &layout, const std::vector<RasPicture> &pictures);

// A picture of the given size whose values follow a pattern of `seed`, each
// below 2^bits.
RasPicture PatternPicture(int32_t rows, int32_t cols, int32_t bits, uint32_t seed);

// The 16 entries of a recognisable test palette (blue, green, red, 0).
std::vector<std::array<uint8_t, 4>> TestPalette(int count);

}  // namespace test
