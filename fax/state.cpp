// state.cpp - the working record of the CCITT decoders: its start when a
// directory has been read, its making and reset at each strip's start (with
// the search for a Group 3 strip's first EOL), its release, and the stream
// the row decoders take from it.
#include "fax/state.h"

#include <cstring>

#include "core/bytes.h"
#include "core/checked.h"
#include "fax/changes.h"
#include "fax/fax.h"
#include "platform/win32.h"
#include "services/blocks.h"
#include "services/errors.h"
#include "tiff/record.h"

FaxState *faxState = nullptr;
uint16_t faxScheme = 0;

namespace {

const char *const FaxBlockLabel = "TIFFDFAX STARTCCITT fax3_h_sp";

bool HasReferenceLine() { return (TiffImage.group3Options & 1u) != 0 || faxScheme == TiffCompressionCcittG4; }

}  // namespace

FaxBits LoadBits() {
    FaxBits bits;
    bits.cursor = TiffImage.rawCursor;
    bits.left = TiffImage.rawLeft;
    bits.curByte = faxState->curByte;
    bits.position = faxState->position;
    bits.byteMap = faxState->byteMap;
    return bits;
}

void StoreBits(const FaxBits &bits) {
    TiffImage.rawCursor = bits.cursor;
    TiffImage.rawLeft = bits.left;
    faxState->curByte = uint16_t(bits.curByte);
    faxState->position = int16_t(bits.position);
}

uint32_t faxReportCount = 0;

void FaxReportUnexpectedCode() {
    ++faxReportCount;
    // A damaged stream reports on every later row; once nobody can hear it,
    // the text is not built again for each of them.
    if (!ReportIsHeard()) return;
    wsprintfA(TiffImage.messageBuffer, "Unexpected code in line %ld", int32_t(TiffImage.currentRow));
    ReportError(TiffReadTitle, TiffImage.messageBuffer, 0);
}

uint32_t FaxZeroRunsDropped = 0;
uint32_t FaxZeroRunWidth = 0;

void FaxStart(uint16_t scheme) {
    FaxZeroRunWidth = TiffImage.imageWidth;
    TiffImage.ccittBlock = MemoryBlock{0, 0, nullptr};
    faxState = nullptr;
    faxScheme = scheme;
}

int32_t FaxPrepareStrip() {
    if (faxState == nullptr) {
        // The decoders write rowPixels pixels into rows of rowBytes bytes; a
        // width whose byte count wrapped in 32 bits, or one past the ceiling
        // of run lengths, is refused here rather than trusted.
        uint32_t width = TiffImage.imageWidth;
        if (width > FaxMaxWidth || TiffImage.scanlineSize != (width + 7) / 8) return 0;
        uint32_t size = sizeof(FaxState);
        bool withRef = HasReferenceLine();
        // Record, guard byte, reference line, and FaxRefSlack zero bytes
        // that the reference line's cursor may read behind its end.
        if (withRef && !checked::Add(size + 1 + FaxRefSlack, TiffImage.scanlineSize, &size)) return 0;
        // Then, for rows narrow enough (so that no sum here can wrap), the
        // two lists of changes.
        const bool withChanges = width <= FaxChangesMaxWidth;
        const uint32_t changesAt = (size + 3) & ~3u;
        if (withChanges) size = changesAt + 2 * 4 * FaxChangesStride(width);
        if (!BlockAlloc(&TiffImage.ccittBlock, 0, 1, size, FaxBlockLabel)) return 0;
        auto *base = static_cast<uint8_t *>(BlockLock(&TiffImage.ccittBlock));
        if (base == nullptr) {
            BlockFree(&TiffImage.ccittBlock);
            return 0;
        }
        faxState = reinterpret_cast<FaxState *>(base);
        faxState->rowBytes = TiffImage.scanlineSize;
        faxState->rowPixels = width;
        faxState->byteMap = BitOrderTable(TiffImage.fillOrder != 1);
        if (withRef) {
            base[sizeof(FaxState)] = 0;  // the guard byte: white pixels before pixel 0
            faxState->refLine = base + sizeof(FaxState) + 1;
            std::memset(faxState->refLine + faxState->rowBytes, 0, FaxRefSlack);  // read, never written
        } else {
            faxState->refLine = nullptr;
        }
        if (withChanges) {
            faxState->refChanges = reinterpret_cast<int32_t *>(base + changesAt) + 1;
            faxState->curChanges = faxState->refChanges + FaxChangesStride(width);
            faxState->refChanges[-1] = faxState->curChanges[-1] = -1;
        } else {
            faxState->refChanges = faxState->curChanges = nullptr;
        }
    }
    faxState->position = 0;
    faxState->curByte = 0;
    faxState->nextIs2D = 0;
    if (faxState->refLine != nullptr) std::memset(faxState->refLine, 0, faxState->rowBytes);
    // A strip starts against a white line.
    if (faxState->refChanges != nullptr)
        FaxCloseChanges(faxState->refChanges, faxState->refChanges, 0, int32_t(faxState->rowPixels));
    faxState->refLineStale = 0;
    faxState->rowFromBitmap = 0;
    faxState->stallCursor = nullptr;
    faxState->repeatFrom = nullptr;
    if (faxScheme != TiffCompressionCcittG3) return 1;
    FaxBits bits = LoadBits();
    FaxSkipToEol(bits, 0);
    if (TiffImage.group3Options & 1u) faxState->nextIs2D = FaxReadTagBit(bits) == 0 ? 1 : 0;
    StoreBits(bits);
    return 1;
}

void FaxRelease() {
    if (TiffImage.ccittBlock.handle != 0) {
        BlockUnlock(&TiffImage.ccittBlock);
        BlockFree(&TiffImage.ccittBlock);
    }
    faxState = nullptr;
}
