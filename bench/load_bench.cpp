// load_bench.cpp - whole loads, file name to bitmap block: TL_IMAGE_E against
// libtiff on the same files, in one binary and one run.
//
// Pages: an A4 page of dense text at 300 dpi (bench/data/a4-text.tif,
// 2480 x 3508) and a form drawn from it (ruled cells, some filled with
// text); the two inverted (a4-textb, a4-formb: black-dominant, in the CCITT
// codings); a second form of wide margins and ruled boxes (a4-form2, LZW,
// PackBits and G4), and a Floyd-Steinberg halftone of a grey picture
// (a4-dither, G4 and LZW).  Each is written by libtiff in the codings it
// lists (the first two in every compression the library reads: none, CCITT
// RLE, Group 3 1D and 2D, Group 4, LZW, PackBits, and RLE min-is-black in
// 211-row strips), once with libtiff's default strip size (about 8 KB of raw
// rows a strip, as tiffcp and most scanners write) and once as one strip.  For each file the rounds
// alternate: TolImage (TL_IMAGE_E, free), then libtiff (TIFFOpen,
// TIFFReadEncodedStrip of every strip into one buffer, TIFFClose); the best
// round of each is kept, in wall and in processor time.  The floor is what
// the output costs alone: a block of the bitmap's size allocated, written
// once and freed.
//
//   load_bench [ROUNDS [MILLISECONDS]]   defaults 7 rounds of at least 150 ms
//   TL_BENCH_ONLY=none,lzw               only the codings named
#include <tiffio.h>

#include <algorithm>
#include <cmath>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "tolimage.h"
#include "tolimage_posix.h"

namespace {

struct Page {
    std::string name;
    uint32_t width = 0, height = 0, line = 0;
    std::vector<uint8_t> rows;  // packed, 1 black
    uint64_t changes = 0;       // colour changes along all rows
    std::string codings;        // the codings it is written in, a comma list; empty: all
};

struct Coding {
    const char *name;
    uint16_t compression;
    uint32_t group3Options;
    bool ccitt;
    uint16_t photometric = PHOTOMETRIC_MINISWHITE;  // MINISBLACK: the bits stored inverted
    uint32_t rowsPerStrip = 0;                      // 0: libtiff's default strips of about 8 KB
};

constexpr Coding Codings[] = {
    {"none", COMPRESSION_NONE, 0, false},
    {"rle", COMPRESSION_CCITTRLE, 0, true},
    {"g3-1d", COMPRESSION_CCITTFAX3, 0, true},
    {"g3-2d", COMPRESSION_CCITTFAX3, GROUP3OPT_2DENCODING, true},
    {"g4", COMPRESSION_CCITTFAX4, 0, true},
    {"lzw", COMPRESSION_LZW, 0, false},
    {"packbits", COMPRESSION_PACKBITS, 0, false},
    // CCITT RLE as some writers store bilevel images: min-is-black, in
    // strips of 211 rows (about 8 KB coded).
    {"rle-mb", COMPRESSION_CCITTRLE, 0, true, PHOTOMETRIC_MINISBLACK, 211},
};

bool ReadPage(const std::string &path, Page &page) {
    TIFF *tif = TIFFOpen(path.c_str(), "r");
    if (!tif) return false;
    uint16_t photometric = PHOTOMETRIC_MINISWHITE;
    TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &page.width);
    TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &page.height);
    TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric);
    page.line = uint32_t(TIFFScanlineSize(tif));
    page.rows.assign(size_t(page.line) * page.height, 0);
    for (uint32_t y = 0; y < page.height; ++y) TIFFReadScanline(tif, &page.rows[size_t(y) * page.line], y, 0);
    TIFFClose(tif);
    if (photometric == PHOTOMETRIC_MINISBLACK)
        for (auto &b : page.rows) b = uint8_t(~b);
    return true;
}

void CountChanges(Page &page) {
    page.changes = 0;
    for (uint32_t y = 0; y < page.height; ++y) {
        const uint8_t *row = &page.rows[size_t(y) * page.line];
        bool previous = false;
        for (uint32_t x = 0; x < page.width; ++x) {
            bool black = row[x / 8] & (0x80 >> (x % 8));
            page.changes += black != previous;
            previous = black;
        }
    }
}

// A white page of the size of `like`, to draw a page of the benchmark on.
Page BlankPage(const Page &like, const char *name, const char *codings) {
    Page page = like;
    page.name = name;
    page.codings = codings;
    std::fill(page.rows.begin(), page.rows.end(), 0);
    return page;
}

bool IsBlack(const Page &page, uint32_t x, uint32_t y) {
    return (page.rows[size_t(y) * page.line + x / 8] & (0x80 >> (x % 8))) != 0;
}

void SetBlack(Page &page, uint32_t x, uint32_t y) { page.rows[size_t(y) * page.line + x / 8] |= uint8_t(0x80 >> (x % 8)); }

// A form: a frame, bands of cells ruled by lines, and in every other cell
// the text of the same place on the text page, its first 48 rows.
Page MakeForm(const Page &text) {
    Page form = BlankPage(text, "a4-form", "");
    const uint32_t left = 150, right = form.width - 150, top = 200, bottom = form.height - 200, band = 140;
    for (uint32_t y = top; y < bottom; ++y)
        for (uint32_t x = left; x < right; ++x) {
            const bool frame = x < left + 6 || x >= right - 6 || y < top + 6 || y >= bottom - 6;
            const bool rule = (y - top) % band < 3;
            const uint32_t cell = (x - left) * 4 / (right - left);
            const bool divider = x == left + (right - left) * cell / 4 || x == left + (right - left) * cell / 4 + 1;
            if (frame || rule || divider) {
                SetBlack(form, x, y);
                continue;
            }
            const uint32_t inBand = (y - top) % band;
            if ((cell + (y - top) / band) % 2 == 0 && inBand > 70 && inBand < 70 + 48 && IsBlack(text, x, y))
                SetBlack(form, x, y);
        }
    CountChanges(form);
    return form;
}

// The page with every bit inverted, stored min-is-white: its long runs are
// black runs, as a negative or a dark scan gives them.
Page Inverted(const Page &page, const char *name) {
    Page black = page;
    black.name = name;
    black.codings = "rle,g3-1d,g3-2d,g4";
    for (uint8_t &b : black.rows) b = uint8_t(~b);
    for (uint32_t y = 0; y < black.height; ++y)  // the pad bits of each row stay white
        if (black.width % 8) black.rows[size_t(y) * black.line + black.line - 1] &= uint8_t(0xFF00 >> (black.width % 8));
    CountChanges(black);
    return black;
}

// A second form: wide white margins, ruled boxes of two sizes, a few lines
// of the text page in some boxes.
Page MakeSecondForm(const Page &text) {
    Page form = BlankPage(text, "a4-form2", "lzw,packbits,g4");
    const uint32_t left = 400, right = form.width - 400, top = 500, bottom = form.height - 600;
    for (uint32_t y = top; y < bottom; ++y) {
        const uint32_t rowHeight = (y - top) < 1200 ? 100 : 240, inRow = (y - top) % rowHeight;
        const uint32_t boxes = (y - top) < 1200 ? 3 : 2;
        for (uint32_t x = left; x < right; ++x) {
            const uint32_t boxWidth = (right - left) / boxes, inBox = (x - left) % boxWidth;
            if (inRow < 2 || inBox < 2 || x >= right - 2 || y >= bottom - 2) {
                SetBlack(form, x, y);
            } else if (inRow > 30 && inRow < 78 && inBox > 20 && (x - left) / boxWidth == 0 && IsBlack(text, x, y)) {
                SetBlack(form, x, y);
            }
        }
    }
    CountChanges(form);
    return form;
}

// A photo-like page: a grey picture (soft gradients and rings) halftoned
// by Floyd-Steinberg error diffusion, as pgmtopbm -floyd does, so that runs
// stay short and a row has hundreds of changes.
Page MakeDithered(const Page &text) {
    Page page = BlankPage(text, "a4-dither", "g4,lzw");
    std::vector<float> error(size_t(page.width) + 2, 0.0f), next(size_t(page.width) + 2, 0.0f);
    for (uint32_t y = 0; y < page.height; ++y) {
        std::fill(next.begin(), next.end(), 0.0f);
        for (uint32_t x = 0; x < page.width; ++x) {
            const double dx = double(x) - page.width * 0.4, dy = double(y) - page.height * 0.35;
            const double grey = 0.5 + 0.3 * std::sin(std::sqrt(dx * dx + dy * dy) / 90.0) * std::exp(-(dx * dx + dy * dy) / 4e6) +
                                0.2 * double(x) / page.width - 0.15 * double(y) / page.height;
            const float want = float(std::clamp(grey, 0.0, 1.0)) + error[x + 1];  // 1 white
            const float got = want < 0.5f ? 0.0f : 1.0f;
            if (got == 0.0f) SetBlack(page, x, y);
            const float e = want - got;
            error[x + 2] += e * 7 / 16;
            next[x] += e * 3 / 16;
            next[x + 1] += e * 5 / 16;
            next[x + 2] += e * 1 / 16;
        }
        error.swap(next);
    }
    CountChanges(page);
    return page;
}

bool WritePage(const Page &page, const Coding &coding, bool oneStrip, const std::string &path) {
    TIFF *tif = TIFFOpen(path.c_str(), "w");
    if (!tif) return false;
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, page.width);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, page.height);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 1);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, coding.photometric);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, coding.compression);
    TIFFSetField(tif, TIFFTAG_XRESOLUTION, 300.0);
    TIFFSetField(tif, TIFFTAG_YRESOLUTION, 300.0);
    TIFFSetField(tif, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    if (coding.compression == COMPRESSION_CCITTFAX3) TIFFSetField(tif, TIFFTAG_GROUP3OPTIONS, coding.group3Options);
    const uint32_t rowsPerStrip = coding.rowsPerStrip ? coding.rowsPerStrip : TIFFDefaultStripSize(tif, 0);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, oneStrip ? page.height : rowsPerStrip);
    std::vector<uint8_t> copy(page.rows);
    if (coding.photometric == PHOTOMETRIC_MINISBLACK)  // the same picture, its bits stored inverted
        for (uint8_t &b : copy) b = uint8_t(~b);
    bool ok = true;
    for (uint32_t y = 0; y < page.height && ok; ++y) ok = TIFFWriteScanline(tif, &copy[size_t(y) * page.line], y, 0) >= 0;
    TIFFClose(tif);
    return ok;
}

struct Times {
    double wall = 1e30, cpu = 1e30;  // seconds a load, the best round
};

double CpuNow() {
    timespec t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}
double WallNow() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// One round: `load` repeated for at least `seconds`; the round's times a load.
template <typename Load>
void Round(Load load, double seconds, Times &best) {
    load();  // warm
    const double wall0 = WallNow(), cpu0 = CpuNow();
    int count = 0;
    do {
        load();
        ++count;
    } while (WallNow() - wall0 < seconds);
    best.wall = std::min(best.wall, (WallNow() - wall0) / count);
    best.cpu = std::min(best.cpu, (CpuNow() - cpu0) / count);
}

bool TolImageLoad(const std::string &path) {
    char name[260];
    std::snprintf(name, sizeof name, "%s", path.c_str());
    TL_HANDLE block = TL_IMAGE_E(name, 0);
    if (!block) return false;
    GlobalFree(block);
    return true;
}

void LibtiffLoad(const std::string &path) {
    TIFF *tif = TIFFOpen(path.c_str(), "r");
    if (!tif) return;
    // A fresh buffer for each image, as the block that TL_IMAGE_E returns.
    const tmsize_t stripSize = TIFFStripSize(tif);
    const uint32_t strips = TIFFNumberOfStrips(tif);
    auto *image = static_cast<uint8_t *>(_TIFFmalloc(stripSize * tmsize_t(strips)));
    for (uint32_t s = 0; s < strips; ++s) TIFFReadEncodedStrip(tif, s, image + size_t(s) * size_t(stripSize), stripSize);
    _TIFFfree(image);
    TIFFClose(tif);
}

// The output alone: the bitmap's block allocated, every byte written once
// (as the decoders write it), freed.
void FloorLoad(const Page &page) {
    const uint32_t bytes = ((page.width + 31) / 32 * 4) * page.height + 48;
    TL_HANDLE block = GlobalAlloc(0x2, bytes);
    auto *p = static_cast<uint8_t *>(GlobalLock(block));
    std::memset(p, 0x5A, bytes);
    GlobalUnlock(block);
    GlobalFree(block);
}

}  // namespace

int main(int argc, char **argv) {
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
    const double seconds = (argc > 2 ? std::max(1, std::atoi(argv[2])) : 150) / 1000.0;
    TIFFSetWarningHandler(nullptr);
    ERROR_FLAGS_E(1, 0, 0, nullptr);
    // TL_BENCH_KEEP keeps the pages written: in the folder it names, if it
    // names one, else in the temporary folder.
    const char *keep = std::getenv("TL_BENCH_KEEP");
    char temporary[] = "/tmp/tolimage-bench-XXXXXX";
    const bool keepHere = keep && std::filesystem::is_directory(keep);
    if (!keepHere && !mkdtemp(temporary)) return 1;
    const std::string folder = keepHere ? keep : temporary;
    std::vector<Page> pages(1);
    pages[0].name = "a4-text";
    if (!ReadPage(std::string(TL_BENCH_DATA) + "/a4-text.tif", pages[0])) {
        std::fprintf(stderr, "cannot read a4-text.tif\n");
        return 1;
    }
    CountChanges(pages[0]);
    pages.push_back(MakeForm(pages[0]));
    pages.push_back(Inverted(pages[0], "a4-textb"));
    pages.push_back(Inverted(pages[1], "a4-formb"));
    pages.push_back(MakeSecondForm(pages[0]));
    pages.push_back(MakeDithered(pages[0]));

    std::printf("%-9s %-9s %-7s %6s | %9s %9s | %9s %9s | %6s %6s | %9s\n", "page", "coding", "strips", "KB",
                "TolImage", "libtiff", "TolImage", "libtiff", "ratio", "ratio", "TolImage");
    std::printf("%-9s %-9s %-7s %6s | %9s %9s | %9s %9s | %6s %6s | %9s\n", "", "", "", "file", "ms wall",
                "ms wall", "ms CPU", "ms CPU", "wall", "CPU", "ns/change");
    for (const Page &page : pages) {
        for (bool oneStrip : {false, true})
            for (const Coding &coding : Codings) {
                // TL_BENCH_ONLY=lzw,packbits times only the codings named.
                const char *only = std::getenv("TL_BENCH_ONLY");
                const std::string name = std::string(",") + coding.name + ",";
                if (only && !std::strstr((std::string(",") + only + ",").c_str(), name.c_str())) continue;
                if (!page.codings.empty() && (std::string(",") + page.codings + ",").find(name) == std::string::npos)
                    continue;
                const std::string path =
                    folder + "/" + page.name + "-" + coding.name + (oneStrip ? "-1strip" : "") + ".tif";
                if (!WritePage(page, coding, oneStrip, path)) return 1;
                if (!TolImageLoad(path)) {
                    std::fprintf(stderr, "TL_IMAGE_E gave no image for %s\n", path.c_str());
                    return 1;
                }
                TIFF *tif = TIFFOpen(path.c_str(), "rc");  // the strips as written, not chopped
                const uint32_t strips = TIFFNumberOfStrips(tif);
                TIFFClose(tif);
                FILE *f = std::fopen(path.c_str(), "rb");
                std::fseek(f, 0, SEEK_END);
                const long size = std::ftell(f);
                std::fclose(f);
                Times ours, theirs;
                for (int r = 0; r < rounds; ++r) {
                    Round([&] { TolImageLoad(path); }, seconds, ours);
                    Round([&] { LibtiffLoad(path); }, seconds, theirs);
                }
                char perChange[16] = "";
                if (coding.ccitt) std::snprintf(perChange, sizeof perChange, "%.2f", ours.cpu * 1e9 / double(page.changes));
                std::printf("%-9s %-9s %-7u %6ld | %9.2f %9.2f | %9.2f %9.2f | %6.2f %6.2f | %9s\n", page.name.c_str(),
                            coding.name, strips, size / 1024, ours.wall * 1e3, theirs.wall * 1e3, ours.cpu * 1e3,
                            theirs.cpu * 1e3, theirs.wall / ours.wall, theirs.cpu / ours.cpu, perChange);
                std::fflush(stdout);
                if (!keep) std::remove(path.c_str());
            }
        Times floor;
        for (int r = 0; r < rounds; ++r) Round([&] { FloorLoad(page); }, seconds, floor);
        std::printf("%-9s %-9s %-7s %6s | %9.2f %9s | %9.2f %9s |\n", page.name.c_str(), "floor", "", "",
                    floor.wall * 1e3, "", floor.cpu * 1e3, "");
        std::printf("  (%s: %u x %u, %llu changing elements)\n", page.name.c_str(), page.width, page.height,
                    static_cast<unsigned long long>(page.changes));
    }
    if (!keepHere) std::remove(folder.c_str());
    return 0;
}
