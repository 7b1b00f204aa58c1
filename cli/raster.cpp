// raster.cpp - `tolimage raster` and `tolimage show`: the host raster that
// TLC_IMAGE_E builds, read back the way a host reads it, through the
// addresses in its record.
#include "cli/raster.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli/image_file.h"
#include "cli/png_file.h"
#include "platform/terminal.h"
#include "tolimage_posix.h"

namespace {

constexpr int NameBytes = 260;       // the library's path buffer
constexpr int DefaultColumns = 80;   // when the terminal tells nothing
constexpr int MaxColumns = 1000;     // a COLUMNS beyond this is taken as garbage

// One host raster, as the record points at it.
struct HostView {
    TL_HANDLE block = nullptr;  // locked; the record points into it
    int32_t rows = 0;
    int32_t columns = 0;
    int32_t packed = 0;  // bytes of one row
    const uint8_t *bits = nullptr;
};

uint32_t RecordU32(const uint8_t *record, int offset) {
    return uint32_t(record[offset]) | uint32_t(record[offset + 1]) << 8 | uint32_t(record[offset + 2]) << 16 |
           uint32_t(record[offset + 3]) << 24;
}

int16_t RasterI16(const uint8_t *raster, int offset) { return int16_t(raster[offset] | raster[offset + 1] << 8); }

// Loads FILE through TLC_IMAGE_E and finds the raster through the record's
// addresses.  False (with a word on standard error) when there is none.
bool LoadHostView(const char *file, HostView &view) {
    char name[NameBytes];
    if (std::strlen(file) >= sizeof name) {
        fprintf(stderr, "tolimage: %s: name too long\n", file);
        return false;
    }
    std::strcpy(name, file);
    uint8_t record[TL_RECORD_MIN_SIZE] = {};
    view.block = TLC_IMAGE_E(record, name, 0);
    if (!view.block) {
        fprintf(stderr, "tolimage: %s: no image\n", file);
        return false;
    }
    const auto *raster = reinterpret_cast<const uint8_t *>(uintptr_t(RecordU32(record, TL_RECORD_RASTER)));
    view.rows = std::max<int32_t>(0, RasterI16(raster, 0));
    view.columns = std::max<int32_t>(0, RasterI16(raster, 2));
    view.packed = (view.columns + 7) / 8;
    view.bits = reinterpret_cast<const uint8_t *>(uintptr_t(RecordU32(record, TL_RECORD_PIXELS)));
    return true;
}

void ReleaseHostView(HostView &view) {
    GlobalUnlock(view.block);
    GlobalFree(view.block);
    view.block = nullptr;
}

// Set bits of `row` in the pixel columns [from, to).
uint32_t CountDark(const uint8_t *row, int32_t from, int32_t to) {
    if (from >= to) return 0;
    const int32_t first = from >> 3, last = (to - 1) >> 3;
    const uint8_t headMask = uint8_t(0xFFu >> (from & 7));
    const uint8_t tailMask = uint8_t(0xFF00u >> (((to - 1) & 7) + 1));
    if (first == last) return std::popcount(uint8_t(row[first] & headMask & tailMask));
    uint32_t count = std::popcount(uint8_t(row[first] & headMask)) + std::popcount(uint8_t(row[last] & tailMask));
    for (int32_t i = first + 1; i < last; ++i) count += std::popcount(row[i]);
    return count;
}

int TerminalColumns() {
    if (const char *env = std::getenv("COLUMNS")) {
        const int value = std::atoi(env);
        if (value > 0 && value <= MaxColumns) return value;
    }
    const int columns = platform::StdoutColumns();
    return columns > 0 ? columns : DefaultColumns;
}

// Quadrant characters indexed by upper-left 1, upper-right 2, lower-left 4,
// lower-right 8.
constexpr const char *Quadrants[16] = {" ", "▘", "▝", "▀", "▖", "▌", "▞", "▛",
                                       "▗", "▚", "▐", "▜", "▄", "▙", "▟", "█"};

// Draws the raster, each character cell standing for 2 x 2 quadrants.  A
// terminal cell is about twice as tall as wide, so a quadrant covers
// `across` pixels across and twice that down.  A quadrant is ink when a
// quarter of its pixels are dark -- or, on a sparse page, twice the page's
// share of dark pixels, so that lines of small print stay visible at a
// strong reduction while a dark (inverted) page still shows as dark.
void Draw(const HostView &view, int columns, bool colour) {
    uint64_t pageDark = 0;
    for (int32_t y = 0; y < view.rows; ++y) pageDark += CountDark(view.bits + size_t(y) * view.packed, 0, view.columns);
    const double inkShare = std::min(0.25, 2.0 * double(pageDark) / (double(view.rows) * view.columns));
    const int32_t across = std::max(1, (view.columns + 2 * columns - 1) / (2 * columns));
    const int32_t down = 2 * across;
    const int32_t quadColumns = (view.columns + across - 1) / across;
    const int32_t cellColumns = (quadColumns + 1) / 2;
    std::vector<uint32_t> dark(size_t(quadColumns) * 2);
    std::string line;
    for (int32_t top = 0; top < view.rows; top += 2 * down) {
        std::fill(dark.begin(), dark.end(), 0);
        const int32_t bottom = std::min(view.rows, top + 2 * down);
        for (int32_t y = top; y < bottom; ++y) {
            const uint8_t *row = view.bits + size_t(y) * view.packed;
            uint32_t *half = dark.data() + (y - top < down ? 0 : quadColumns);
            for (int32_t q = 0; q < quadColumns; ++q)
                half[q] += CountDark(row, q * across, std::min(view.columns, (q + 1) * across));
        }
        line.assign(colour ? "\x1b[30;107m" : "");
        for (int32_t cell = 0; cell < cellColumns; ++cell) {
            int index = 0;
            for (int part = 0; part < 4; ++part) {
                const int32_t q = 2 * cell + (part & 1);
                const int32_t y0 = top + (part >= 2 ? down : 0);
                const int32_t height = std::max(0, std::min(view.rows, y0 + down) - y0);
                const int32_t width = std::max(0, std::min(view.columns, (q + 1) * across) - q * across);
                if (q >= quadColumns || height == 0) continue;
                const uint32_t count = dark[size_t(part >= 2 ? quadColumns : 0) + size_t(q)];
                if (count > 0 && double(count) >= inkShare * width * height) index |= 1 << part;
            }
            line += Quadrants[index];
        }
        if (colour) line += "\x1b[0m";
        line += '\n';
        fputs(line.c_str(), stdout);
    }
}

}  // namespace

int RasterCommand(const char *file, const char *out) {
    HostView view;
    if (!LoadHostView(file, view)) return 1;
    // The raster's rows go out as they are, but for the bits past the last
    // column, which are cleared so that the same image always gives the
    // same file.  PBM's 1 is black, as the raster's set bit is dark; a grey
    // PNG's 1 is white, so its rows are the raster's inverted.
    const bool png = cli::OutputKindOf(out) == cli::OutputKind::Png;
    const uint8_t lastMask = uint8_t(0xFF00u >> (view.columns % 8 ? view.columns % 8 : 8));
    std::vector<uint8_t> rows(size_t(view.packed) * view.rows);
    for (int32_t y = 0; y < view.rows && view.packed > 0; ++y) {
        uint8_t *row = rows.data() + size_t(y) * view.packed;
        std::memcpy(row, view.bits + size_t(y) * view.packed, size_t(view.packed));
        if (png)
            for (int32_t i = 0; i < view.packed; ++i) row[i] = uint8_t(~row[i]);
        row[view.packed - 1] &= lastMask;
    }
    cli::PngImage image;
    image.width = uint32_t(view.columns);
    image.height = uint32_t(view.rows);
    image.rowBytes = size_t(view.packed);
    ReleaseHostView(view);
    bool written;
    if (png) {
        image.rows = std::move(rows);
        written = cli::WritePng(image, out);
    } else {
        FILE *file = fopen(out, "wb");
        written = file != nullptr;
        if (file) {
            fprintf(file, "P4\n%d %d\n", int(image.width), int(image.height));
            written = fwrite(rows.data(), 1, rows.size(), file) == rows.size();
            written = fclose(file) == 0 && written;
        }
    }
    if (!written) fprintf(stderr, "tolimage: cannot write %s\n", out);
    return written ? 0 : 1;
}

int ShowCommand(const char *file) {
    HostView view;
    if (!LoadHostView(file, view)) return 1;
    const int columns = TerminalColumns();
    // Black on white when drawing to a terminal that takes colours, so the
    // page looks as on paper whatever the terminal's own colours are.
    const char *term = std::getenv("TERM");
    const bool colour = platform::StdoutIsTerminal() && !std::getenv("NO_COLOR") && !(term && std::strcmp(term, "dumb") == 0);
    printf("%s: %d x %d\n", file, int(view.columns), int(view.rows));
    if (view.columns > 0) Draw(view, columns, colour);
    ReleaseHostView(view);
    return 0;
}
