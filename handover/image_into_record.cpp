// image_into_record.cpp - an image file straight into the host's record.
//
// The bitmap block a reader returns is turned in place into the host
// raster: the pixels are complemented when the first palette entry is the
// darker one, the rows are reversed to run top first, and the packed rows
// are slid down over the header and palette.  The block stays locked since
// the record points into it.
#include "handover/handover.h"

#include <algorithm>
#include <cstring>

#include "core/bytes.h"
#include "core/image.h"
#include "platform/win32.h"
#include "services/errors.h"

namespace {

constexpr char ImageTitle[] = "TLx_IMAGE";
constexpr char TolmarVersion[] = TL_TOLMAR_VERSION;
constexpr uint32_t PaletteEntryBytes = 4;

// Gives the bitmap block back, then reports; the record stays untouched.
TL_HANDLE ImageFailure(TL_HANDLE block, bool locked, const char *text) {
    if (locked) GlobalUnlock(block);
    GlobalFree(block);
    ReportError(ImageTitle, text, 0);
    return nullptr;
}

uint32_t ColourSum(const uint8_t *entry) { return uint32_t(entry[0]) + entry[1] + entry[2]; }

// Exchanges rows i and count - 1 - i of `count` rows of `stride` bytes,
// through the one-row buffer.
void ReverseRows(uint8_t *rows, uint32_t count, uint32_t stride, uint8_t *rowBuffer) {
    for (uint32_t i = 0; i < count / 2; ++i) {
        uint8_t *upper = rows + uint64_t(i) * stride;
        uint8_t *lower = rows + uint64_t(count - 1 - i) * stride;
        std::memcpy(rowBuffer, upper, stride);
        std::memcpy(upper, lower, stride);
        std::memcpy(lower, rowBuffer, stride);
    }
}

}  // namespace

bool RecordAddress(const void *address, uint32_t *out) {
    const uintptr_t value = reinterpret_cast<uintptr_t>(address);
    // The record holds 32-bit addresses, and the first row's address is the
    // raster's plus 4.  The platform places every block below 2^31, so this
    // never fails; should it, the caller refuses the block instead of
    // writing a truncated address.
    if (value > uintptr_t(0xFFFFFFFFu - 4)) return false;
    *out = uint32_t(value);
    return true;
}

void WriteRecord(void *record, uint32_t rasterAddress) {
    auto *bytes = static_cast<uint8_t *>(record);
    bytes[TL_RECORD_TAG] = 'a';
    bytes[TL_RECORD_TAG + 1] = '1';
    bytes[TL_RECORD_TAG + 2] = 0;
    StoreU32(bytes + TL_RECORD_RASTER, rasterAddress);
    StoreU32(bytes + TL_RECORD_PIXELS, rasterAddress + 4);
}

const char *RasterLimitText(int32_t width, int32_t height, char (&buffer)[RasterMessageBytes]) {
    // %ld is the 32-bit integer of wsprintfA, so the i32 values go as they are.
    // A negative width describes no image at all; it is refused with the
    // width report, whose number shows the cause.  A negative height is a
    // top-down bitmap and is held to the same limit by its magnitude.
    if (width > MaxRasterSide || width < 0) {
        wsprintfA(buffer, "Bitmap width=%ld bigger than %d", width, ReportedRasterLimit);
        return buffer;
    }
    if (height > MaxRasterSide || height < -MaxRasterSide) {
        wsprintfA(buffer, "Bitmap height=%ld bigger than %d", height, ReportedRasterLimit);
        return buffer;
    }
    return nullptr;
}

TL_HANDLE ImageIntoRecord(void *record, char selector, char *name, int32_t imageNumber) {
    (void)selector;  // the three record variants take the same three fields

    TL_HANDLE block = OpenImageFile(name, imageNumber);
    if (!block) return nullptr;  // no image, or the reader has reported

    auto *base = static_cast<uint8_t *>(GlobalLock(block));
    if (!base) return ImageFailure(block, false, "Lock Error (1)");
    uint32_t address = 0;
    if (!RecordAddress(base, &address)) return ImageFailure(block, true, "Lock Error (1)");

    // Every reader's block holds at least the header; two palette entries
    // that would lie past the block's end count as missing colours.
    const uint64_t blockBytes = GlobalSize(block);
    if (blockBytes < TL_DIB_HEADER_SIZE + 2 * PaletteEntryBytes || LoadU32(base + TL_DIB_BI_CLRUSED) < 2)
        return ImageFailure(block, true, "Bitmap with two or more colors expected");

    const uint8_t *palette = base + TL_DIB_HEADER_SIZE;
    const bool invert = ColourSum(palette) < ColourSum(palette + PaletteEntryBytes);

    const int32_t width = LoadI32(base + TL_DIB_BI_WIDTH);
    const int32_t height = LoadI32(base + TL_DIB_BI_HEIGHT);
    char message[RasterMessageBytes];
    if (const char *text = RasterLimitText(width, height, message)) return ImageFailure(block, true, text);

    // A negative height marks a top-down bitmap, as on Windows: its rows
    // already run from the top, so they are packed without reversal, and the
    // raster gets the magnitude as its height.
    const bool topDown = height < 0;
    const uint32_t rows = uint32_t(topDown ? -height : height);

    // Every depth is taken as 1 bit per pixel; a deeper block gives a
    // raster without meaning, as the hand-over has always done.
    const uint32_t stride = ((uint32_t(width) + 31) >> 3) & ~3u;
    const uint32_t packed = (uint32_t(width) + 7) >> 3;
    uint64_t sizeImage = LoadU32(base + TL_DIB_BI_SIZEIMAGE);
    if (sizeImage == 0) sizeImage = uint64_t(stride) * rows;

    // biSizeImage comes from the file unchecked.  All work is held to the
    // pixel bytes that are both declared and inside the block: a smaller
    // biSizeImage (or a palette count that pushes the pixels past the
    // block) leaves fewer whole rows, and the raster then holds only those
    // rows -- the lowest rows of a bottom-up image, the highest of a
    // top-down one -- with its height field saying so.  The host thus never
    // reads past the block either.
    const uint64_t pixelOffset = TL_DIB_HEADER_SIZE + uint64_t(PaletteEntryBytes) * LoadU32(base + TL_DIB_BI_CLRUSED);
    const uint64_t pixelBytes = pixelOffset < blockBytes ? blockBytes - pixelOffset : 0;
    const uint64_t workBytes = std::min(sizeImage, pixelBytes);
    uint8_t *pixels = base + std::min(pixelOffset, blockBytes);

    // After this a set bit means the darker of the first two palette entries.
    if (invert) ComplementBytes(pixels, workBytes);

    // The one-row block; a zero-width image still gets one byte, so that it
    // passes as an empty raster rather than as a failed allocation.
    TL_HANDLE rowBlock = GlobalAlloc(GMEM_MOVEABLE, std::max<uint32_t>(stride, 1));
    if (!rowBlock) return ImageFailure(block, true, "Allocation Error (1)");
    auto *rowBuffer = static_cast<uint8_t *>(GlobalLock(rowBlock));
    if (!rowBuffer) {
        GlobalFree(rowBlock);
        return ImageFailure(block, true, "Lock Error (2)");
    }

    const uint32_t rasterRows = stride ? uint32_t(std::min<uint64_t>(rows, workBytes / stride)) : rows;
    if (!topDown && rasterRows >= 2) ReverseRows(pixels, rasterRows, stride, rowBuffer);

    StoreU16(base, uint16_t(rasterRows));
    StoreU16(base + 2, uint16_t(width));
    // The target starts below the pixel data and moves by packed <= stride,
    // so it never overtakes its source; the first rows may overlap it.
    for (uint32_t row = 0; row < rasterRows; ++row)
        std::memmove(base + 4 + uint64_t(row) * packed, pixels + uint64_t(row) * stride, packed);

    WriteRecord(record, address);

    GlobalUnlock(rowBlock);
    GlobalFree(rowBlock);
    return block;
}

TL_HANDLE TL_CALL TLC_IMAGE_E(void *record, char *name, int32_t imageNumber) {
    platform::ExportLock hold;
    return ImageIntoRecord(record, 'c', name, imageNumber);
}
TL_HANDLE TL_CALL TLL_IMAGE_E(void *record, char *name, int32_t imageNumber) {
    platform::ExportLock hold;
    return ImageIntoRecord(record, 'l', name, imageNumber);
}
TL_HANDLE TL_CALL TLP_IMAGE_E(void *record, char *name, int32_t imageNumber) {
    platform::ExportLock hold;
    return ImageIntoRecord(record, 'p', name, imageNumber);
}

int32_t TL_CALL TOLMAR_VERSION_E(char *version) {
    platform::ExportLock hold;
    if (!version) return 0;
    if (version[0] == 0) std::memcpy(version, TolmarVersion, sizeof TolmarVersion);
    if (std::strcmp(version, TolmarVersion) == 0) return 1;
    ReportError("TOLIMAGE.DLL", "Wrong TOLMAR Version", 0);
    return 0;
}
