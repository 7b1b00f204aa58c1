// fax_bench.cpp - CCITT decoding speed: TL_IMAGE_E against libtiff on the
// same files, in one binary and one run.
//
// Pages: bench/data/a4-text.tif (2480 x 3508, 300 dpi, dense text) and
// bench/data/fax-text.tif (1728 x 2200).  At start-up each is written with
// libtiff in Group 4, Group 3 two-dimensional, Group 3 one-dimensional and
// CCITT run-length coding (64 rows a strip) into a scratch folder.  For
// each file the benchmark times TL_IMAGE_E (open, decode, bitmap block,
// free) and libtiff (TIFFOpen, TIFFReadEncodedStrip of every strip into one
// buffer, TIFFClose), and prints megapixels per second for both, their
// ratio, and TolImage's nanoseconds per changing element of the page.  The
// summary uses processor time, the least of the repetitions when
// --benchmark_repetitions is given: on a shared machine wall time mostly
// measures the other processes.
#include <benchmark/benchmark.h>
#include <tiffio.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "fax/fax.h"
#include "tiff/directory.h"
#include "tolimage.h"
#include "tolimage_posix.h"

namespace {

struct Page {
    std::string name;
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<uint8_t> rows;  // packed, min-is-white: 1 black
    uint64_t changes = 0;       // colour changes along all rows
};

struct Coding {
    const char *name;
    uint16_t compression;
    uint32_t group3Options;
};

const Coding Codings[] = {
    {"g4", COMPRESSION_CCITTFAX4, 0},
    {"g3-2d", COMPRESSION_CCITTFAX3, GROUP3OPT_2DENCODING},
    {"g3-1d", COMPRESSION_CCITTFAX3, 0},
    {"rle", COMPRESSION_CCITTRLE, 0},
};

bool ReadPage(const std::string &path, Page &page) {
    TIFF *tif = TIFFOpen(path.c_str(), "r");
    if (!tif) return false;
    uint16_t photometric = PHOTOMETRIC_MINISWHITE;
    TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &page.width);
    TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &page.height);
    TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric);
    tmsize_t line = TIFFScanlineSize(tif);
    page.rows.assign(size_t(line) * page.height, 0);
    for (uint32_t y = 0; y < page.height; ++y) TIFFReadScanline(tif, &page.rows[size_t(y) * size_t(line)], y, 0);
    TIFFClose(tif);
    if (photometric == PHOTOMETRIC_MINISBLACK)
        for (auto &b : page.rows) b = uint8_t(~b);
    for (uint32_t y = 0; y < page.height; ++y) {
        const uint8_t *row = &page.rows[size_t(y) * size_t(line)];
        bool prev = false;
        for (uint32_t x = 0; x < page.width; ++x) {
            bool black = row[x / 8] & (0x80 >> (x % 8));
            page.changes += black != prev;
            prev = black;
        }
    }
    return true;
}

bool WritePage(const Page &page, const Coding &coding, const std::string &path) {
    TIFF *tif = TIFFOpen(path.c_str(), "w");
    if (!tif) return false;
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, page.width);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, page.height);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 1);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, coding.compression);
    if (coding.compression == COMPRESSION_CCITTFAX3) TIFFSetField(tif, TIFFTAG_GROUP3OPTIONS, coding.group3Options);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, 64);
    tmsize_t line = TIFFScanlineSize(tif);
    std::vector<uint8_t> copy(page.rows);
    for (uint32_t y = 0; y < page.height; ++y)
        if (TIFFWriteScanline(tif, &copy[size_t(y) * size_t(line)], y, 0) < 0) {
            TIFFClose(tif);
            return false;
        }
    TIFFClose(tif);
    return true;
}

void TolImageLoad(benchmark::State &state, std::string path, const Page *page) {
    char name[260];
    for (auto _ : state) {
        std::snprintf(name, sizeof name, "%s", path.c_str());
        TL_HANDLE block = TL_IMAGE_E(name, 0);
        if (!block) {
            state.SkipWithError("TL_IMAGE_E gave no image");
            break;
        }
        benchmark::DoNotOptimize(block);
        GlobalFree(block);
    }
    state.counters["Mpx/s"] = benchmark::Counter(double(page->width) * page->height / 1e6,
                                                 benchmark::Counter::kIsIterationInvariantRate);
}

void LibtiffLoad(benchmark::State &state, std::string path, const Page *page) {
    for (auto _ : state) {
        TIFF *tif = TIFFOpen(path.c_str(), "r");
        if (!tif) {
            state.SkipWithError("TIFFOpen failed");
            break;
        }
        // A fresh buffer for each image, as a caller that keeps the image
        // would have, like the block that TL_IMAGE_E returns.
        tmsize_t stripSize = TIFFStripSize(tif);
        uint32_t strips = TIFFNumberOfStrips(tif);
        auto *image = static_cast<uint8_t *>(_TIFFmalloc(stripSize * tmsize_t(strips)));
        for (uint32_t s = 0; s < strips; ++s) TIFFReadEncodedStrip(tif, s, image + size_t(s) * size_t(stripSize), stripSize);
        benchmark::DoNotOptimize(image);
        _TIFFfree(image);
        TIFFClose(tif);
    }
    state.counters["Mpx/s"] = benchmark::Counter(double(page->width) * page->height / 1e6,
                                                 benchmark::Counter::kIsIterationInvariantRate);
}

// The decoders alone: the raw strips in memory, decoded row by row into one
// buffer through the strip engine's calls (FaxStart, FaxPrepareStrip per
// strip, FaxDecodeRows / FaxDecodeRowsG4 per row).  No file, no block.
void DecoderOnly(benchmark::State &state, std::string path, const Page *page) {
    TIFF *tif = TIFFOpen(path.c_str(), "r");
    if (!tif) {
        state.SkipWithError("TIFFOpen failed");
        return;
    }
    uint16_t compression = 0, fillOrder = 1;
    uint32_t group3 = 0, rowsPerStrip = 0;
    TIFFGetField(tif, TIFFTAG_COMPRESSION, &compression);
    TIFFGetField(tif, TIFFTAG_GROUP3OPTIONS, &group3);
    TIFFGetField(tif, TIFFTAG_ROWSPERSTRIP, &rowsPerStrip);
    std::vector<std::vector<uint8_t>> strips(TIFFNumberOfStrips(tif));
    for (uint32_t s = 0; s < strips.size(); ++s) {
        strips[s].resize(size_t(TIFFRawStripSize(tif, s)));
        TIFFReadRawStrip(tif, s, strips[s].data(), tmsize_t(strips[s].size()));
    }
    TIFFClose(tif);
    const uint32_t line = (page->width + 7) / 8;
    std::vector<uint8_t> image(size_t(line) * page->height);
    for (auto _ : state) {
        std::memset(&TiffImage, 0, sizeof TiffImage);
        TiffImage.imageWidth = page->width;
        TiffImage.imageLength = page->height;
        TiffImage.scanlineSize = line;
        TiffImage.compression = compression;
        TiffImage.group3Options = group3;
        TiffImage.fillOrder = fillOrder;
        FaxStart(compression);
        for (uint32_t y = 0; y < page->height; ++y) {
            if (y % rowsPerStrip == 0) {
                auto &strip = strips[y / rowsPerStrip];
                TiffImage.rawCursor = strip.data();
                TiffImage.rawLeft = int32_t(strip.size());
                TiffImage.currentRow = y;
                FaxPrepareStrip();
            }
            uint8_t *row = &image[size_t(y) * line];
            if (compression == 4)
                FaxDecodeRowsG4(row, int32_t(line));
            else
                FaxDecodeRows(row, int32_t(line));
            ++TiffImage.currentRow;
        }
        FaxRelease();
        benchmark::DoNotOptimize(image.data());
    }
    if (image != page->rows) state.SkipWithError("the decoded image differs from the page");
    state.counters["Mpx/s"] = benchmark::Counter(double(page->width) * page->height / 1e6,
                                                 benchmark::Counter::kIsIterationInvariantRate);
}

// What every image costs before a pixel is decoded: its bitmap block,
// allocated, written once and freed, as TL_IMAGE_E must.
void BlockFloor(benchmark::State &state, const Page *page) {
    const uint32_t bytes = ((page->width + 31) / 8 & ~3u) * page->height + 48;
    for (auto _ : state) {
        TL_HANDLE block = GlobalAlloc(0x42, bytes);
        auto *p = static_cast<uint8_t *>(GlobalLock(block));
        std::memset(p, 0, bytes);
        benchmark::DoNotOptimize(p);
        GlobalUnlock(block);
        GlobalFree(block);
    }
}

// Keeps each run's time per iteration, so that the ratios can be printed
// at the end.
class Reporter : public benchmark::ConsoleReporter {
  public:
    std::map<std::string, double> seconds;  // processor time per iteration, by name
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs)
            if (run.run_type == Run::RT_Iteration && run.iterations > 0 && !run.error_occurred) {
                // With repetitions, the fastest: the others were slowed by
                // whatever else the machine was doing.
                const std::string name = run.run_name.function_name;
                double t = run.cpu_accumulated_time / double(run.iterations);
                auto found = seconds.find(name);
                if (found == seconds.end() || t < found->second) seconds[name] = t;
            }
    }
};

}  // namespace

int main(int argc, char **argv) {
    TIFFSetWarningHandler(nullptr);
    char folder[] = "/tmp/tolimage-bench-XXXXXX";
    if (!mkdtemp(folder)) return 1;
    std::vector<Page> pages(2);
    const char *sources[2] = {"a4-text", "fax-text"};
    for (int i = 0; i < 2; ++i) {
        pages[size_t(i)].name = sources[i];
        if (!ReadPage(std::string(TL_BENCH_DATA) + "/" + sources[i] + ".tif", pages[size_t(i)])) {
            std::fprintf(stderr, "cannot read %s\n", sources[i]);
            return 1;
        }
    }
    std::vector<std::string> files;
    for (const Page &page : pages) {
        for (const Coding &coding : Codings) {
            std::string path = std::string(folder) + "/" + page.name + "-" + coding.name + ".tif";
            if (!WritePage(page, coding, path)) return 1;
            files.push_back(path);
            std::string tag = page.name + "/" + coding.name;
            benchmark::RegisterBenchmark(("TolImage/" + tag).c_str(), TolImageLoad, path, &page)
                ->Unit(benchmark::kMillisecond);
            benchmark::RegisterBenchmark(("libtiff/" + tag).c_str(), LibtiffLoad, path, &page)
                ->Unit(benchmark::kMillisecond);
            benchmark::RegisterBenchmark(("decoder/" + tag).c_str(), DecoderOnly, path, &page)
                ->Unit(benchmark::kMillisecond);
        }
        benchmark::RegisterBenchmark(("block/" + page.name).c_str(), BlockFloor, &page)->Unit(benchmark::kMillisecond);
    }
    ERROR_FLAGS_E(1, 0, 0, nullptr);
    benchmark::Initialize(&argc, argv);
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    std::printf("\n%-18s %10s %10s %7s %10s %10s %8s\n", "file", "TolImage", "libtiff", "ratio", "TolImage",
                "decoders", "decoders");
    std::printf("%-18s %10s %10s %7s %10s %10s %8s\n", "", "Mpx/s", "Mpx/s", "", "ns/change", "Mpx/s", "ratio");
    for (const Page &page : pages) {
        double pixels = double(page.width) * page.height;
        for (const Coding &coding : Codings) {
            std::string tag = page.name + "/" + coding.name;
            auto ours = reporter.seconds.find("TolImage/" + tag);
            auto theirs = reporter.seconds.find("libtiff/" + tag);
            auto decoders = reporter.seconds.find("decoder/" + tag);
            if (ours == reporter.seconds.end() || theirs == reporter.seconds.end() ||
                decoders == reporter.seconds.end())
                continue;
            std::printf("%-18s %10.1f %10.1f %7.2f %10.2f %10.1f %8.2f\n", tag.c_str(), pixels / ours->second / 1e6,
                        pixels / theirs->second / 1e6, theirs->second / ours->second,
                        ours->second * 1e9 / double(page.changes), pixels / decoders->second / 1e6,
                        theirs->second / decoders->second);
        }
        auto block = reporter.seconds.find("block/" + page.name);
        if (block != reporter.seconds.end())
            std::printf("  (%s: the bitmap block alone, allocated, written and freed: %.2f ms)\n", page.name.c_str(),
                        block->second * 1e3);
        std::printf("  (%s: %u x %u, %llu changing elements)\n", page.name.c_str(), page.width, page.height,
                    static_cast<unsigned long long>(page.changes));
    }
    for (const std::string &f : files) std::remove(f.c_str());
    std::remove(folder);
    return 0;
}
