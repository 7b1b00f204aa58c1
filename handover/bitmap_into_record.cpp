// bitmap_into_record.cpp - a bitmap the host holds, handed over to its record.
//
// The host's block is only read (but for a biClrUsed of 0, which gets the
// colour count).  The raster is built in a new block: 1-bit rows are
// copied, 4-bit rows go through a table of dark palette colours, and other
// depths leave the rows blank.
#include "handover/handover.h"

#include <algorithm>
#include <cstring>

#include "core/bytes.h"
#include "platform/win32.h"
#include "services/errors.h"

namespace {

constexpr char BitmapTitle[] = "TLx_BITMAP";
constexpr uint32_t PaletteEntryBytes = 4;
constexpr uint8_t LightFrom = 192;  // a colour byte from here up is bright

// For a byte of two 4-bit pixels, their two dark bits, left pixel high.
std::array<uint8_t, 256> PairTable(const std::array<uint8_t, 16> &dark) {
    std::array<uint8_t, 256> pairs{};
    for (uint32_t b = 0; b < 256; ++b) pairs[b] = uint8_t((dark[b >> 4] << 1) | dark[b & 15]);
    return pairs;
}

// One row of `width` 4-bit pixels into packed 1-bit pixels: four source
// bytes make a target byte.  Reads (width + 1) / 2 bytes; bits past the
// last pixel stay 0.
void ConvertRow4(const uint8_t *source, uint8_t *target, uint32_t width, const std::array<uint8_t, 256> &pairs) {
    const uint32_t whole = width / 8;
    for (uint32_t i = 0; i < whole; ++i, source += 4)
        target[i] = uint8_t(pairs[source[0]] << 6 | pairs[source[1]] << 4 | pairs[source[2]] << 2 | pairs[source[3]]);
    const uint32_t rest = width % 8;
    if (rest == 0) return;
    uint32_t byte = 0;
    for (uint32_t k = 0; k < (rest + 1) / 2; ++k) byte |= uint32_t(pairs[source[k]]) << (6 - 2 * k);
    target[whole] = uint8_t(byte & (0xFF00u >> rest));
}

TL_HANDLE BitmapFailure(TL_HANDLE bitmap, const char *text) {
    GlobalUnlock(bitmap);
    ReportError(BitmapTitle, text, 0);
    return nullptr;
}

uint32_t ColourSum(const uint8_t *entry) { return uint32_t(entry[0]) + entry[1] + entry[2]; }

}  // namespace

bool IsDarkColour(uint8_t blue, uint8_t green, uint8_t red) {
    const bool bright = blue >= LightFrom || green >= LightFrom || red >= LightFrom;
    const bool pureRedOrBlue = (blue == 0 && green == 0) || (green == 0 && red == 0);
    return !bright || pureRedOrBlue;
}

std::array<uint8_t, 16> DarkTable(const uint8_t *palette, uint32_t entries) {
    std::array<uint8_t, 16> dark{};
    const uint32_t count = std::min<uint32_t>(entries, 16);
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t *entry = palette + PaletteEntryBytes * i;
        dark[i] = IsDarkColour(entry[0], entry[1], entry[2]) ? 1 : 0;
    }
    return dark;
}

TL_HANDLE BitmapIntoRecord(void *record, int32_t variant, TL_HANDLE bitmap) {
    (void)variant;  // the three record variants take the same three fields
    if (!bitmap) return nullptr;

    auto *source = static_cast<uint8_t *>(GlobalLock(bitmap));
    if (!source) {
        ReportError(BitmapTitle, "Image Lock Error", 0);
        return nullptr;
    }
    // A block too small for the bitmap header cannot be read as a bitmap; it
    // is refused as one that could not be locked for reading.
    const uint64_t blockBytes = GlobalSize(bitmap);
    if (blockBytes < TL_DIB_HEADER_SIZE) return BitmapFailure(bitmap, "Image Lock Error");

    const uint16_t bitCount = LoadU16(source + TL_DIB_BI_BITCOUNT);
    uint32_t colours = LoadU32(source + TL_DIB_BI_CLRUSED);
    if (colours == 0) {
        colours = 1u << (bitCount % 32);
        StoreU32(source + TL_DIB_BI_CLRUSED, colours);
    }
    // Palette entries are read only where the block holds them.
    const uint64_t paletteEntriesInBlock = (blockBytes - TL_DIB_HEADER_SIZE) / PaletteEntryBytes;
    const uint8_t *palette = source + TL_DIB_HEADER_SIZE;
    const bool invert =
        colours == 2 && paletteEntriesInBlock >= 2 && ColourSum(palette) < ColourSum(palette + PaletteEntryBytes);

    const int32_t width = LoadI32(source + TL_DIB_BI_WIDTH);
    const int32_t height = LoadI32(source + TL_DIB_BI_HEIGHT);
    char message[RasterMessageBytes];
    if (const char *text = RasterLimitText(width, height, message)) return BitmapFailure(bitmap, text);

    // A negative height marks a top-down bitmap, as on Windows: the walk
    // starts at the first row in memory and goes forward, and the raster
    // gets the magnitude as its height.
    const bool topDown = height < 0;
    const uint32_t rows = uint32_t(topDown ? -height : height);
    const uint16_t planes = LoadU16(source + TL_DIB_BI_PLANES);
    const uint32_t rowStep = planes ? planes : 1;

    const uint32_t packed = (uint32_t(width) + 7) >> 3;
    const uint64_t stride = ((uint64_t(uint32_t(width)) * bitCount + 31) >> 3) & ~uint64_t(3);
    const uint64_t total = uint64_t(packed) * rows;  // at most 4096 x 32767

    TL_HANDLE target = GlobalAlloc(GHND, uintptr_t(total + 4));
    if (!target) return BitmapFailure(bitmap, "Out of memory");
    auto *raster = static_cast<uint8_t *>(GlobalLock(target));
    uint32_t address = 0;
    if (!raster || !RecordAddress(raster, &address)) {
        if (raster) GlobalUnlock(target);
        GlobalFree(target);
        return BitmapFailure(bitmap, "Out of memory");
    }

    if (bitCount == 1 || bitCount == 4) {
        // Bytes of one source row that hold its pixels.
        const uint64_t rowBytes = bitCount == 1 ? packed : (uint64_t(uint32_t(width)) + 1) / 2;
        const uint64_t pixelOffset = TL_DIB_HEADER_SIZE + uint64_t(PaletteEntryBytes) * colours;
        // With fewer than 16 palette entries the table's remaining positions
        // would lie in the pixel data; they are not read and count as light,
        // so that such pixels stay blank whatever the bytes there hold.
        const uint32_t tableEntries = uint32_t(std::min<uint64_t>(colours, paletteEntriesInBlock));
        const auto pairs = PairTable(DarkTable(palette, tableEntries));

        // The walk goes by biPlanes rows per raster row.  Above 1 it leaves
        // the pixel rows (backward past the first row of a bottom-up bitmap,
        // forward past the last of a top-down one).  Only source rows that
        // are among the bitmap's rows and lie wholly inside the block are
        // read; the raster rows that have none stay blank, as the rows of
        // other depths do, and take part in the inversion like them.  The
        // same holds for rows a too short block does not hold.
        for (uint32_t row = 0; row < rows; ++row) {
            const uint64_t step = uint64_t(row) * rowStep;
            if (step >= rows) break;  // every further row lies outside too
            const uint64_t index = topDown ? step : rows - 1 - step;
            const uint64_t offset = pixelOffset + index * stride;
            if (offset > blockBytes || blockBytes - offset < rowBytes) continue;
            uint8_t *out = raster + 4 + uint64_t(row) * packed;
            if (bitCount == 1)
                std::memcpy(out, source + offset, packed);
            else
                ConvertRow4(source + offset, out, uint32_t(width), pairs);
        }
    }
    // Any other depth: no pixel is written and the rows stay zero.

    if (invert) ComplementBytes(raster + 4, total);
    StoreU16(raster, uint16_t(rows));
    StoreU16(raster + 2, uint16_t(width));
    WriteRecord(record, address);

    GlobalUnlock(bitmap);
    // These exports do not clear the error state: an error left from before
    // makes this call fail too, after the record has been written.
    if (ErrorStatus()) {
        GlobalUnlock(target);
        GlobalFree(target);
        return nullptr;
    }
    return target;
}

TL_HANDLE TL_CALL TLC_BITMAP_E(void *record, TL_HANDLE bitmap) {
    platform::ExportLock hold;
    return BitmapIntoRecord(record, 1, bitmap);
}
TL_HANDLE TL_CALL TLL_BITMAP_E(void *record, TL_HANDLE bitmap) {
    platform::ExportLock hold;
    return BitmapIntoRecord(record, 2, bitmap);
}
TL_HANDLE TL_CALL TLP_BITMAP_E(void *record, TL_HANDLE bitmap) {
    platform::ExportLock hold;
    return BitmapIntoRecord(record, 3, bitmap);
}
