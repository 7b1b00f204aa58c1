#include "fuzz/harness.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "tolimage.h"
#include "tolimage_posix.h"

namespace {

const std::string &ScratchPath() {
    static std::string path;
    if (path.empty()) {
        char pattern[] = "/dev/shm/tolimage-fuzz-XXXXXX";
        int fd = mkstemp(pattern);
        if (fd >= 0) close(fd);
        path = pattern;
    }
    return path;
}

void Load(const std::string &path, int32_t number) {
    char name[260] = {};
    strncpy(name, path.c_str(), sizeof name - 1);
    TL_HANDLE block = TL_IMAGE_E(name, number);
    if (block) {
        // Touch every byte the header claims, so an undersized block shows.
        auto *bytes = static_cast<volatile uint8_t *>(GlobalLock(block));
        uint8_t sum = 0;
        for (size_t i = 0; i < 40; ++i) sum = uint8_t(sum + bytes[i]);
        (void)sum;
        GlobalUnlock(block);
        GlobalFree(block);
    }
}

// Reads every raster byte the record claims, so a raster that promises
// more rows than its block holds shows.
void TouchRaster(const uint8_t *record) {
    auto address = [&](int offset) {
        uint32_t value = 0;
        for (int i = 3; i >= 0; --i) value = value << 8 | record[offset + i];
        return reinterpret_cast<const volatile uint8_t *>(uintptr_t(value));
    };
    const volatile uint8_t *raster = address(TL_RECORD_RASTER);
    const int32_t rows = int16_t(raster[0] | raster[1] << 8), columns = int16_t(raster[2] | raster[3] << 8);
    if (rows < 0 || columns < 0) abort();  // the raster's sides are never negative
    const size_t bytes = size_t(rows) * size_t((columns + 7) / 8);
    const volatile uint8_t *pixels = address(TL_RECORD_PIXELS);
    uint8_t sum = 0;
    for (size_t i = 0; i < bytes; ++i) sum = uint8_t(sum + pixels[i]);
    (void)sum;
}

// The hand-over: the file through the record, and the bytes behind a BMP
// file header as a bitmap the host holds.
void HandOver(const std::string &path, const uint8_t *data, size_t size) {
    uint8_t record[TL_RECORD_MIN_SIZE] = {};
    char name[260] = {};
    strncpy(name, path.c_str(), sizeof name - 1);
    TL_HANDLE block = TLC_IMAGE_E(record, name, 0);
    if (block) {
        TouchRaster(record);
        GlobalUnlock(block);
        GlobalFree(block);
    }
    if (size <= 14) return;
    TL_HANDLE host = GlobalAlloc(GHND, size - 14);
    if (!host) return;
    memcpy(GlobalLock(host), data + 14, size - 14);
    GlobalUnlock(host);
    TL_CLEARERROR_E();
    TL_HANDLE raster = TLC_BITMAP_E(record, host);
    if (raster) {
        TouchRaster(record);
        GlobalUnlock(raster);
        GlobalFree(raster);
    }
    GlobalFree(host);
}

}  // namespace

void RunImageHarness(const uint8_t *data, size_t size) {
    ERROR_FLAGS_E(1, 0, 1, nullptr);
    const std::string &path = ScratchPath();
    FILE *file = fopen(path.c_str(), "wb");
    if (!file) return;
    if (size) fwrite(data, 1, size, file);
    fclose(file);

    Load(path, 0);
    for (int step = 0; step < 4; ++step) Load(path, -1);
    Load(path, 2);
    HandOver(path, data, size);
    TL_IMAGE_E(nullptr, 0);  // forget any walk still open
    TL_CLEARERROR_E();
}
