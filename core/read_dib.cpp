// read_dib.cpp - the BMP and DIB reader.
//
// The file's header, palette and rows are copied into the block as they
// stand: rows stay bottom-up and compressed pixel data are not expanded.
// A 12-byte core header is widened to the 40-byte form, with 4-byte
// palette entries.
#include <cstring>

#include "core/bytes.h"
#include "core/checked.h"
#include "core/image.h"
#include "platform/win32.h"
#include "services/errors.h"
#include "services/files.h"

namespace {

constexpr const char *Title = "ReadDIB";
constexpr uint32_t FileHeaderBytes = 14;
constexpr uint32_t InfoHeaderBytes = 40;
constexpr uint32_t CoreHeaderBytes = 12;

ReaderMemo DibMemo;
ManagedFile DibFile = NoFile;

// The pieces of one call that its single failure exit gives back.
struct DibCall {
    TL_HANDLE block = nullptr;
    uint8_t *bytes = nullptr;
};

TL_HANDLE FailureExit(DibCall &call) {
    TL_CLOSE(DibFile);
    DibFile = NoFile;
    if (call.bytes != nullptr) GlobalUnlock(call.block);
    if (call.block != nullptr) GlobalFree(call.block);
    return nullptr;
}

}  // namespace

uint16_t DibColorCount(const uint8_t *header) {
    uint32_t size = LoadU32(header);
    uint16_t bits;
    if (size == InfoHeaderBytes) {
        uint32_t used = LoadU32(header + 32);
        if (used != 0) return uint16_t(used);
        bits = LoadU16(header + 14);
    } else {
        bits = LoadU16(header + 10);
    }
    switch (bits) {
        case 1:
            return 2;
        case 4:
            return 16;
        case 8:
            return 256;
        default:
            ReportError(Title, "No colors in bitmap file", 0);
            return 0;
    }
}

TL_HANDLE ReadDIB(const char *name, int32_t imageNumber) {
    char path[PathBytes];
    if (MemoHead(DibMemo, DibFile, name, path) != MemoStep::Read) return nullptr;

    DibCall call;
    DibFile = TL_OPEN(path, "rb");
    if (ErrorStatus()) return nullptr;

    uint8_t fileHeader[FileHeaderBytes];
    if (TL_READ(fileHeader, FileHeaderBytes, DibFile) < FileHeaderBytes) {
        ReportError(Title, "Can't read BitMapFileHeader", 1);
        return FailureExit(call);
    }
    if (LoadU16(fileHeader) != 0x4D42) return FailureExit(call);
    uint32_t offBits = LoadU32(fileHeader + 10);

    uint8_t header[InfoHeaderBytes] = {};
    if (TL_READ(header, 4, DibFile) < 4) {
        ReportError(Title, "Can't read size of BitMapInfoHeader", 1);
        return FailureExit(call);
    }
    uint32_t headerSize = LoadU32(header);
    if (headerSize == InfoHeaderBytes) {
        if (TL_READ(header + 4, InfoHeaderBytes - 4, DibFile) < InfoHeaderBytes - 4) {
            ReportError(Title, "Can't read BitMapInfoHeader", 1);
            return FailureExit(call);
        }
    } else if (headerSize == CoreHeaderBytes) {
        if (TL_READ(header + 4, CoreHeaderBytes - 4, DibFile) < CoreHeaderBytes - 4) {
            ReportError(Title, "Can't read BitMapCoreHeader", 1);
            return FailureExit(call);
        }
    } else {
        ReportError(Title, "Wrong header size in bitmap file", 0);
        return FailureExit(call);
    }

    uint16_t colours = DibColorCount(header);
    if (colours == 0) {
        ReportError(Title, "No colors in bitmap file", 0);
        return FailureExit(call);
    }

    if (headerSize == CoreHeaderBytes) {
        uint16_t width = LoadU16(header + 4), height = LoadU16(header + 6);
        uint16_t planes = LoadU16(header + 8), bits = LoadU16(header + 10);
        memset(header, 0, sizeof header);
        StoreU32(header + TL_DIB_BI_SIZE, InfoHeaderBytes);
        StoreU32(header + TL_DIB_BI_WIDTH, width);
        StoreU32(header + TL_DIB_BI_HEIGHT, height);
        StoreU16(header + TL_DIB_BI_PLANES, planes);
        StoreU16(header + TL_DIB_BI_BITCOUNT, bits);
    }
    // A biClrUsed above 65535 is wider than the colour count that sizes the
    // block; the block records the count it really holds, so that its pixel
    // rows begin right behind the palette that was read.
    uint32_t used = LoadU32(header + TL_DIB_BI_CLRUSED);
    if (used == 0) {
        StoreU32(header + TL_DIB_BI_CLRUSED, colours);
        StoreU32(header + TL_DIB_BI_CLRIMPORTANT, colours);
    } else if (used > 0xFFFF) {
        StoreU32(header + TL_DIB_BI_CLRUSED, colours);
    }
    uint32_t sizeImage = LoadU32(header + TL_DIB_BI_SIZEIMAGE);
    if (sizeImage == 0) {
        uint32_t width = LoadU32(header + TL_DIB_BI_WIDTH);
        uint32_t bits = LoadU16(header + TL_DIB_BI_BITCOUNT);
        uint32_t height = LoadU32(header + TL_DIB_BI_HEIGHT);
        sizeImage = (((width * bits + 31) >> 3) & ~3u) * height;
        StoreU32(header + TL_DIB_BI_SIZEIMAGE, sizeImage);
    }

    // The block holds header, palette and biSizeImage bytes of pixels; a size
    // past the block ceiling is no memory to be had.
    uint32_t paletteBytes = 4u * colours;
    uint32_t blockBytes = 0;
    if (!checked::Add(InfoHeaderBytes + paletteBytes, sizeImage, &blockBytes) || blockBytes > checked::MaxBlockBytes ||
        (call.block = GlobalAlloc(GHND, blockBytes)) == nullptr ||
        (call.bytes = static_cast<uint8_t *>(GlobalLock(call.block))) == nullptr) {
        ReportError(Title, "Out of memory", 0);
        return FailureExit(call);
    }
    memcpy(call.bytes, header, InfoHeaderBytes);

    uint8_t *palette = call.bytes + InfoHeaderBytes;
    if (headerSize == InfoHeaderBytes) {
        if (TL_READ(palette, paletteBytes, DibFile) < paletteBytes) {
            ReportError(Title, "Can't read RGBPalette", 1);
            return FailureExit(call);
        }
    } else {
        uint32_t coreBytes = 3u * colours;
        if (TL_READ(palette, coreBytes, DibFile) < coreBytes) {
            ReportError(Title, "Can't read RGBPalette", 1);
            return FailureExit(call);
        }
        for (int32_t i = colours - 1; i >= 0; --i) {
            uint8_t blue = palette[3 * i], green = palette[3 * i + 1], red = palette[3 * i + 2];
            palette[4 * i] = blue;
            palette[4 * i + 1] = green;
            palette[4 * i + 2] = red;
            palette[4 * i + 3] = 0;
        }
    }

    if (offBits != 0) {
        int32_t moved = TL_SEEK(DibFile, int32_t(offBits), 0);
        if (ErrorStatus()) return FailureExit(call);
        if (moved != 0) {
            ReportError(Title, "SEEK error in BMP file", 1);
            return FailureExit(call);
        }
    }
    if (TL_READ(palette + paletteBytes, sizeImage, DibFile) < sizeImage) {
        ReportError(Title, path, 1);
        return FailureExit(call);
    }

    GlobalUnlock(call.block);
    TL_CLOSE(DibFile);
    DibFile = NoFile;
    MemoTail(DibMemo, imageNumber, path);
    return call.block;
}
