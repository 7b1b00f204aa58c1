// ras_writer.h - RAS headers and files for the tests, written from the format
// and not from the reader: records of prefix, stored size, gap and pixels.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace test {

// The 2444 header bytes: magic, RecordSize, Field8 1, keys and elements.
struct RasHeader {
    std::vector<uint8_t> bytes;
    int slot = 0;
    explicit RasHeader(const char *magic, int32_t recordSize = 100);
    // Type "un" for 8 bits, else "bi", unless given.
    RasHeader &Element(const char *name, int32_t dim0, int32_t dim1, int32_t bits, int8_t order0 = 0,
                       int8_t order1 = 0, const char *type = nullptr);
    RasHeader &Key(int slot, const char *key, const std::string &value);
};

// Palette indices (0/1, 0..15 or 0..255), top row first.
struct RasPicture {
    int32_t rows = 0, cols = 0;
    std::vector<uint8_t> values;
    uint8_t At(int32_t x, int32_t y) const { return values[size_t(y) * size_t(cols) + size_t(x)]; }
};

struct RasLayout {
    bool bimp = false;       // "bimp" or "bild"
    int32_t bits = 1;        // 1, 8, or 4 in "bimp"
    int8_t order0 = 1;       // +1: first stored row is the top row; -1: the bottom row
    bool variable = true;    // records carry their own rows and columns
    int32_t headerRows = 0;  // extents of a fixed picture (0: those of the first picture)
    int32_t headerCols = 0;
    int32_t before = 0;      // bytes of an element in front of the picture
    int32_t dim = 0;         // "bimp": bytes of a "dims" element behind `before` (0: none)
    int32_t after = 0;       // bytes of an element behind the picture
    std::vector<std::array<uint8_t, 4>> palette = {};  // "bimp": blue, green, red, 0; empty: no "clrs"
};

// A whole file: header, then one record per picture.
std::vector<uint8_t> MakeRas(const RasLayout &layout, const std::vector<RasPicture> &pictures);

// Where MakeRas put each record's parts.
struct RasRecordPlace {
    size_t start, size, pixels, end;  // record, stored size, first pixel byte, one behind
};
std::vector<RasRecordPlace> RasPlaces(const RasLayout &layout, const std::vector<RasPicture> &pictures);

// A picture whose values follow a pattern of `seed`, each below 2^bits.
RasPicture PatternPicture(int32_t rows, int32_t cols, int32_t bits, uint32_t seed);
// `count` recognisable palette entries.
std::vector<std::array<uint8_t, 4>> TestPalette(int count);

}  // namespace test
