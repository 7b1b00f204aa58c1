// Differential libFuzzer target: a TIFF file that libtiff decodes with
// neither an error nor a warning, and that TolImage loads, must give the same
// pixels.  The cases where the library differs on purpose are skipped, each
// for its own reason, and listed in fuzz/README.md.  The harness's checks of
// blocks and files apply as in the other targets.
#include <tiffio.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "fuzz/harness.h"
#include "fax/changes.h"
#include "tolimage.h"
#include "tolimage_posix.h"

namespace {

bool complained = false;
void Complaint(const char *, const char *, va_list) { complained = true; }

struct Memory {
    const uint8_t *data;
    toff_t size, at;
};
tsize_t MemRead(thandle_t h, tdata_t buffer, tsize_t n) {
    auto *m = static_cast<Memory *>(h);
    const toff_t left = m->at < m->size ? m->size - m->at : 0;
    const toff_t take = toff_t(n) < left ? toff_t(n) : left;
    memcpy(buffer, m->data + m->at, take);
    m->at += take;
    return tsize_t(take);
}
tsize_t MemWrite(thandle_t, tdata_t, tsize_t) { return -1; }
toff_t MemSeek(thandle_t h, toff_t offset, int whence) {
    auto *m = static_cast<Memory *>(h);
    const toff_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? m->at : m->size;
    m->at = base + offset;
    return m->at;
}
int MemClose(thandle_t) { return 0; }
toff_t MemSize(thandle_t h) { return static_cast<Memory *>(h)->size; }
int MapNone(thandle_t, tdata_t *, toff_t *) { return 0; }
void UnmapNone(thandle_t, tdata_t, toff_t) {}

// The first image as libtiff decodes it: rows of (width + 7) / 8 bytes, a set
// bit dark.  False when libtiff complained, or the image is not one TolImage
// compares (see fuzz/README.md).
bool DecodeWithLibtiff(const uint8_t *data, size_t size, uint32_t &width, uint32_t &height,
                       std::vector<uint8_t> &rows) {
    Memory memory{data, size, 0};
    complained = false;
    TIFF *tif = TIFFClientOpen("input", "rm", &memory, MemRead, MemWrite, MemSeek, MemClose, MemSize, MapNone,
                               UnmapNone);
    if (!tif) return false;
    bool ok = false;
    uint16_t bits = 1, samples = 1, photometric = 0, planar = 1;
    if (TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &width) && TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &height) &&
        TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric) && !TIFFIsTiled(tif)) {
        TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &bits);
        TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &samples);
        TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &planar);
        const uint64_t line = (uint64_t(width) + 7) / 8;
        ok = bits == 1 && samples == 1 && photometric <= 1 && width > 0 && height > 0 && line * height <= (16u << 20) &&
             uint64_t(TIFFScanlineSize64(tif)) == line;
        if (ok) {
            rows.assign(size_t(line * height), 0);
            for (uint32_t y = 0; y < height && ok; ++y) ok = TIFFReadScanline(tif, &rows[size_t(y * line)], y, 0) == 1;
            if (photometric == PHOTOMETRIC_MINISBLACK)
                for (uint8_t &b : rows) b = uint8_t(~b);
        }
    }
    TIFFClose(tif);
    return ok && !complained;
}

// True when a tag of the first directory that TolImage reads as a number
// has a type other than SHORT or LONG: TolImage leaves such a field at its
// default, libtiff converts BYTE, SBYTE and the other integer types.
bool HasOtherTypedNumber(const uint8_t *data, size_t size) {
    const bool mm = data[0] == 'M';
    auto u16 = [&](size_t at) { return uint16_t(mm ? data[at] << 8 | data[at + 1] : data[at] | data[at + 1] << 8); };
    auto u32 = [&](size_t at) {
        return mm ? uint32_t(data[at]) << 24 | data[at + 1] << 16 | data[at + 2] << 8 | data[at + 3]
                  : uint32_t(data[at + 3]) << 24 | data[at + 2] << 16 | data[at + 1] << 8 | data[at];
    };
    const uint32_t directory = u32(4);
    if (uint64_t(directory) + 2 > size) return false;
    const uint16_t count = u16(directory);
    for (uint32_t i = 0; i < count && uint64_t(directory) + 2 + (i + 1) * 12 <= size; ++i) {
        const size_t entry = directory + 2 + size_t(i) * 12;
        const uint16_t tag = u16(entry), type = u16(entry + 2);
        const bool number = tag == 256 || tag == 257 || tag == 258 || tag == 259 || tag == 262 || tag == 266 ||
                            tag == 273 || tag == 277 || tag == 278 || tag == 279 || tag == 284 || tag == 292 ||
                            tag == 293 || tag == 296 || tag == 317;
        if (number && type != 3 && type != 4) return true;
    }
    return false;
}

std::string ScratchFile() {
    char pattern[] = "/dev/shm/tolimage-diff-XXXXXX";
    int fd = mkstemp(pattern);
    if (fd >= 0) close(fd);
    return pattern;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    TIFFSetErrorHandler(Complaint);
    TIFFSetWarningHandler(Complaint);
    // The library's own checks of blocks and files, on these bytes as TIFF.
    RunHarness(Harness::Tiff, data, size);
    if (size < 8 || !((data[0] == 'I' && data[1] == 'I') || (data[0] == 'M' && data[1] == 'M'))) return 0;
    uint32_t width = 0, height = 0;
    std::vector<uint8_t> theirs;
    if (HasOtherTypedNumber(data, size) || !DecodeWithLibtiff(data, size, width, height, theirs)) return 0;

    static const std::string path = ScratchFile();
    FILE *file = fopen(path.c_str(), "wb");
    if (!file) return 0;
    fwrite(data, 1, size, file);
    fclose(file);
    char name[260] = {};
    strncpy(name, path.c_str(), sizeof name - 1);
    ERROR_FLAGS_E(1, 0, 1, nullptr);
    FaxZeroRunsDropped = 0;
    TL_HANDLE block = TL_IMAGE_E(name, 0);
    TL_CLEARERROR_E();
    if (!block) return 0;
    if (FaxZeroRunsDropped != 0) {
        // A run of zero pixels inside a row: its next row is decoded against
        // the row's pixels here, against the runs in libtiff (fuzz/README.md).
        GlobalFree(block);
        return 0;
    }
    const auto *dib = static_cast<const uint8_t *>(GlobalLock(block));
    const uint32_t line = (width + 7) / 8, stride = (width + 31) / 32 * 4;
    const uint8_t last = uint8_t(0xFF << ((8 - width % 8) % 8));  // the bits of the last byte that are pixels
    for (uint32_t y = 0; y < height; ++y) {
        const uint8_t *ours = dib + 48 + size_t(height - 1 - y) * stride;  // bottom row first; entry 1 is black
        const uint8_t *row = &theirs[size_t(y) * line];
        for (uint32_t x = 0; x < line; ++x) {
            const uint8_t mask = x + 1 == line ? last : 0xFF;
            if ((ours[x] ^ row[x]) & mask) {
                fprintf(stderr, "pixels differ from libtiff's in row %u, byte %u: %02X against %02X\n", y, x, ours[x],
                        row[x]);
                abort();
            }
        }
    }
    GlobalUnlock(block);
    GlobalFree(block);
    return 0;
}
