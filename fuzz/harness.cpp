#include "fuzz/harness.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <filesystem>
#include <random>
#include <vector>

#include "platform/win32.h"
#include "tolimage.h"
#include "tolimage_posix.h"

namespace {

const std::string &ScratchPath() {
    static std::string path;
    if (path.empty()) {
        // In memory where the system offers it, else the temporary folder;
        // a random name, so that parallel fuzzers keep apart.
        std::error_code error;
        std::filesystem::path folder = "/dev/shm";
        if (!std::filesystem::is_directory(folder, error)) folder = std::filesystem::temp_directory_path(error);
        std::random_device random;
        char name[40];
        snprintf(name, sizeof name, "tolimage-fuzz-%08x%08x", random(), random());
        path = (folder / name).string();
    }
    return path;
}

// The digest of the run under way (FNV-1a over what it produced); null
// when none is asked for.
uint64_t *runDigest = nullptr;

void Mix(const volatile uint8_t *bytes, uint64_t size) {
    if (!runDigest) return;
    uint64_t h = *runDigest;
    for (uint64_t i = 0; i < size; ++i) h = (h ^ bytes[i]) * 0x100000001B3u;
    *runDigest = h;
}
void MixValue(uint64_t value) {
    uint8_t bytes[8];
    for (int i = 0; i < 8; ++i) bytes[i] = uint8_t(value >> (8 * i));
    Mix(bytes, 8);
}

// A report as the digest takes it: the scratch file's path, as given or in
// its full form, is left out, since it differs from run to run.
void TL_CALL MixReport(const char *title, const char *text, int32_t withSystemText) {
    std::string t = text ? text : "";
    for (const std::string &form : {ScratchPath(), std::string()}) {
        std::string path = form;
        if (path.empty()) {
            char full[260];
            if (!_fullpath(full, ScratchPath().c_str(), sizeof full)) continue;
            path = full;
        }
        for (size_t at; (at = t.find(path)) != std::string::npos;) t.erase(at, path.size());
    }
    const std::string whole = std::string(title ? title : "") + "|" + t + "|" + std::to_string(withSystemText);
    Mix(reinterpret_cast<const uint8_t *>(whole.data()), whole.size() + 1);
}

void Check(bool good, const char *what) {
    if (good) return;
    fprintf(stderr, "harness check failed: %s\n", what);
    abort();
}

uint32_t U32(const volatile uint8_t *p) { return p[0] | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24; }
uint16_t U16(const volatile uint8_t *p) { return uint16_t(p[0] | p[1] << 8); }

// Reads every byte the bitmap's header claims: header, palette and, for
// an uncompressed bitmap, its rows.  A claim beyond the block aborts.
void TouchBitmap(TL_HANDLE block) {
    const uintptr_t size = GlobalSize(block);
    auto *bytes = static_cast<const volatile uint8_t *>(GlobalLock(block));
    Check(bytes != nullptr && size >= 40, "a returned bitmap holds its header");
    const int32_t width = int32_t(U32(bytes + 4)), height = int32_t(U32(bytes + 8));
    const uint32_t bits = U16(bytes + 14), compression = U32(bytes + 16), colours = U32(bytes + 32);
    const uint32_t sizeImage = U32(bytes + 20);
    uint64_t claimed = 40 + uint64_t(colours) * 4;
    // biSizeImage, where it is given, is the pixels' size: a BMP file's own
    // may be smaller than its rows, and the block then holds just that much.
    // Where it is 0 the rows count, unless their size, taken in 32 bits as
    // the BMP reader computes it, wraps to 0: that block holds no pixels.
    if (sizeImage != 0) {
        claimed += sizeImage;
    } else if (compression == 0 && width > 0) {
        const uint64_t rows = height < 0 ? uint64_t(-int64_t(height)) : uint64_t(height);
        const uint64_t pixels = (uint64_t(width) * bits + 31) / 32 * 4 * rows;
        if (uint32_t(((uint32_t(width) * bits + 31) >> 3 & ~3u) * uint32_t(height)) != 0) claimed += pixels;
    }
    Check(claimed <= size, "a returned bitmap holds what its header claims");
    // The block is one mapping: its first and last claimed bytes readable,
    // all between are.
    uint8_t sum = uint8_t(bytes[0] + bytes[claimed - 1]);
    (void)sum;
    Mix(bytes, claimed);
    GlobalUnlock(block);
}

void Load(const std::string &path, int32_t number) {
    char name[260] = {};
    strncpy(name, path.c_str(), sizeof name - 1);
    if (TL_HANDLE block = TL_IMAGE_E(name, number)) {
        TouchBitmap(block);
        GlobalFree(block);
    }
    MixValue(uint64_t(TL_ERRORSTATUS_E()));
}

// Reads every raster byte the record claims: the raster's sides are never
// negative, and its rows fit the block the export returned.
void TouchRaster(const uint8_t *record, TL_HANDLE block) {
    auto address = [&](int offset) {
        uint32_t value = 0;
        for (int i = 3; i >= 0; --i) value = value << 8 | record[offset + i];
        return reinterpret_cast<const volatile uint8_t *>(uintptr_t(value));
    };
    Check(record[TL_RECORD_TAG] == 'a' && record[TL_RECORD_TAG + 1] == '1', "the record's tag");
    const volatile uint8_t *raster = address(TL_RECORD_RASTER);
    const int32_t rows = int16_t(U16(raster)), columns = int16_t(U16(raster + 2));
    Check(rows >= 0 && columns >= 0, "the raster's sides are never negative");
    const uint64_t bytes = 4 + uint64_t(rows) * uint64_t((columns + 7) / 8);
    Check(bytes <= GlobalSize(block), "the raster fits its block");
    Check(address(TL_RECORD_PIXELS) == raster + 4, "the pixels follow the raster's sides");
    const auto *base = static_cast<const volatile uint8_t *>(GlobalLock(block));
    GlobalUnlock(block);
    Check(raster >= base && raster + bytes <= base + GlobalSize(block), "the raster lies in its block");
    uint8_t sum = uint8_t(raster[0] + raster[bytes - 1]);  // one mapping: all between is readable too
    (void)sum;
    Mix(raster, bytes);
}

using RecordExport = TL_HANDLE(TL_CALL *)(void *, char *, int32_t);
using BitmapExport = TL_HANDLE(TL_CALL *)(void *, TL_HANDLE);

void LoadIntoRecord(const std::string &path, RecordExport load) {
    uint8_t record[TL_RECORD_MIN_SIZE] = {};
    char name[260] = {};
    strncpy(name, path.c_str(), sizeof name - 1);
    if (TL_HANDLE block = load(record, name, 0)) {
        TouchRaster(record, block);
        GlobalUnlock(block);
        GlobalFree(block);
    }
    MixValue(uint64_t(TL_ERRORSTATUS_E()));
}

// `bytes` as a bitmap in a block the host owns, handed over; the host's
// block is freed after.
void HandBitmap(const uint8_t *bytes, size_t size, BitmapExport hand) {
    if (size == 0) return;
    TL_HANDLE host = GlobalAlloc(GHND, size);
    if (!host) return;
    memcpy(GlobalLock(host), bytes, size);
    GlobalUnlock(host);
    uint8_t record[TL_RECORD_MIN_SIZE] = {};
    TL_CLEARERROR_E();
    if (TL_HANDLE raster = hand(record, host)) {
        TouchRaster(record, raster);
        GlobalUnlock(raster);
        GlobalFree(raster);
    }
    MixValue(uint64_t(TL_ERRORSTATUS_E()));
    GlobalFree(host);
}

// The bytes with the format's magic over their start.
std::vector<uint8_t> WithMagic(Harness harness, const uint8_t *data, size_t size) {
    std::vector<uint8_t> bytes(data, data + size);
    auto put = [&](const char *magic, size_t n) {
        if (bytes.size() < n) bytes.resize(n);
        memcpy(bytes.data(), magic, n);
    };
    switch (harness) {
    case Harness::Bmp: put("BM", 2); break;
    case Harness::Pcx: put("\x0A", 1); break;
    case Harness::Ras: put(size > 4 && (data[4] & 1) ? "bimp" : "bild", 4); break;
    case Harness::Tiff: put(size > 0 && (data[0] & 1) ? "MM\0*" : "II*\0", 4); break;
    default: break;
    }
    return bytes;
}

}  // namespace

Harness HarnessNamed(const char *name) {
    const struct { const char *name; Harness harness; } names[] = {
        {"bmp", Harness::Bmp}, {"pcx", Harness::Pcx}, {"ras", Harness::Ras}, {"tiff", Harness::Tiff},
        {"fax", Harness::Tiff}, {"tiff_libtiff", Harness::Tiff}, {"record", Harness::Record},
        {"bitmap", Harness::Bitmap},
    };
    for (const auto &n : names)
        if (strcmp(name, n.name) == 0) return n.harness;
    return Harness::Image;
}

namespace {

// The largest block an input may have.  A few hundred bytes can declare an
// image of hundreds of megabytes, which the library then rightly writes in
// full (zero rows, complemented rows); loaded several times under the
// sanitizers such an input takes longer than a fuzzer waits.  Larger blocks
// fail as out of memory, a path worth fuzzing in its own right.
constexpr uintptr_t HarnessBlockCeiling = uintptr_t(64) << 20;

// The ceiling for the length of one run, the one before put back after.
struct BlockCeiling {
    uintptr_t before = platform::LimitBlockBytes(HarnessBlockCeiling);
    BlockCeiling() = default;
    BlockCeiling(const BlockCeiling &) = delete;
    BlockCeiling &operator=(const BlockCeiling &) = delete;
    ~BlockCeiling() { platform::LimitBlockBytes(before); }
};

}  // namespace

void RunHarness(Harness harness, const uint8_t *data, size_t size, uint64_t *digest) {
    const BlockCeiling ceiling;
    runDigest = digest;
    if (digest) *digest = 0xCBF29CE484222325u;
    ERROR_FLAGS_E(1, 0, 1, digest ? MixReport : nullptr);
    TL_IMAGE_E(nullptr, 0);  // no walk left from before
    const int32_t blocks = platform::LiveBlocks(), files = platform::OpenFiles();
    const std::string &path = ScratchPath();
    if (harness == Harness::Bitmap) {
        HandBitmap(data, size, TLC_BITMAP_E);
        HandBitmap(data, size, TLL_BITMAP_E);
        HandBitmap(data, size, TLP_BITMAP_E);
    } else {
        const std::vector<uint8_t> bytes = WithMagic(harness, data, size);
        FILE *file = fopen(path.c_str(), "wb");
        if (!file) {
            ERROR_FLAGS_E(1, 0, 1, nullptr);
            runDigest = nullptr;
            return;
        }
        if (!bytes.empty()) fwrite(bytes.data(), 1, bytes.size(), file);
        fclose(file);
        switch (harness) {
        case Harness::Record:
            LoadIntoRecord(path, TLC_IMAGE_E);
            LoadIntoRecord(path, TLL_IMAGE_E);
            LoadIntoRecord(path, TLP_IMAGE_E);
            break;
        case Harness::Ras:
            Load(path, 0);
            for (int step = 0; step < 6; ++step) Load(path, -1);
            Load(path, 1);
            Load(path, 3);
            Load(path, -1);
            Load(path, 2);  // a numbered read in the middle of a walk
            break;
        case Harness::Image:
            Load(path, 0);
            for (int step = 0; step < 4; ++step) Load(path, -1);
            Load(path, 2);
            LoadIntoRecord(path, TLC_IMAGE_E);
            if (bytes.size() > 14) HandBitmap(bytes.data() + 14, bytes.size() - 14, TLC_BITMAP_E);
            break;
        default:
            Load(path, 0);
            Load(path, -1);
            Load(path, -1);
            LoadIntoRecord(path, TLC_IMAGE_E);
            break;
        }
    }
    TL_IMAGE_E(nullptr, 0);  // forget any walk still open, and close its file
    TL_CLEARERROR_E();
    ERROR_FLAGS_E(1, 0, 1, nullptr);
    runDigest = nullptr;
    Check(platform::LiveBlocks() == blocks, "no block is left behind");
    Check(platform::OpenFiles() == files, "no file is left open");
}

void RunImageHarness(const uint8_t *data, size_t size) { RunHarness(Harness::Image, data, size); }
