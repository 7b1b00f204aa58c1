// strips.cpp - the strip engine: one strip at a time, read with one
// TL_READ into the strip buffer, which is allocated anew only for a strip
// larger than every one before it, or, for an image whose strips the
// directory found fit (stripsInPlace), decoded where the file's read
// window has it; each strip's decoder started on it; and any line of the
// image delivered through it (TIFFDecodeLine).
#include "tiff/strips.h"

#include <cstring>

#include "core/bytes.h"
#include "core/checked.h"
#include "fax/fax.h"
#include "platform/win32.h"
#include "services/blocks.h"
#include "services/errors.h"
#include "services/files.h"
#include "tiff/lzw.h"
#include "tiff/packbits.h"
#include "tiff/record.h"
#include "tiff/uncompressed.h"

namespace {

constexpr int32_t StripBufferStep = 1024;    // the strip buffer grows in steps of this

// Largest byte count a strip may claim: no more than the file holds, or
// the uncompressed image needs, whichever is larger.  A larger count
// describes no bytes of this file; it would only size a buffer of nothing.
uint64_t StripByteCeiling() {
    const uint64_t fileLength = TiffImage.fileLength;
    const uint64_t image = uint64_t(TiffImage.imageLength) * TiffImage.scanlineSize;
    return fileLength > image ? fileLength : image;
}

void FormatRowMessage(const char *format, uint32_t row) {
    wsprintfA(TiffImage.messageBuffer, format, row);
    ReportError(TiffReadTitle, TiffImage.messageBuffer, 0);
}

int32_t NoRowDecoder(uint8_t *, int32_t) { return 0; }

}  // namespace

RowDecoder RowDecoderOf(uint16_t compression) {
    switch (compression) {
    case TiffCompressionNone: return CopyLine;
    // The CCITT decoders (fax/fax.h) join here.
    case TiffCompressionCcittRle:
    case TiffCompressionCcittG3: return FaxDecodeRows;
    case TiffCompressionCcittG4: return FaxDecodeRowsG4;
    case TiffCompressionLzw: return LzwDecodeLine;
    case TiffCompressionPackBits: return PackBitsDecodeLine;
    default: return NoRowDecoder;
    }
}

int32_t TIFFDecodeLine(uint8_t *row, uint32_t line) {
    auto &t = TiffImage;
    if (!SeekToLine(line)) {
        if (!t.rowsZeroed) std::memset(row, 0, t.scanlineSize);
        return 0;
    }
    const RowDecoder decode = RowDecoderOf(t.compression);
    if (decode == NoRowDecoder) return 0;
    const int32_t result = decode(row, int32_t(t.scanlineSize));
    ++t.currentRow;
    return result;
}

int32_t SeekToLine(uint32_t line) {
    auto &t = TiffImage;
    if (line >= t.imageLength) {
        FormatRowMessage("Internal allocation error in line %ld", line);
        return 0;
    }
    // Mostly the line lies in the current strip, which a product tells
    // without the division (one per row, and slow).
    const uint64_t first = uint64_t(t.currentStrip) * t.rowsPerStrip;
    const uint32_t strip = t.currentStrip != TiffNoStrip && line >= first && line - first < t.rowsPerStrip
                               ? t.currentStrip
                               : line / t.rowsPerStrip;
    if (strip != t.currentStrip) {
        if (!LoadStrip(strip)) return 0;
    } else if (line < t.currentRow) {
        // A streamed strip has given up its first rows: it is read again.
        if (!(t.rawStreamed ? LoadStrip(strip) : StartStrip(strip))) return 0;
    }
    if (t.compression == TiffCompressionNone && line != t.currentRow) {
        // Skipping rows of an uncompressed strip.  A skip past the strip's
        // end stops at its end, so that rawCursor never leaves the buffer;
        // CopyLine then finds too few bytes and reports.
        const uint64_t delta = uint64_t(line - t.currentRow) * t.scanlineSize;
        const uint64_t left = t.rawLeft > 0 ? uint64_t(t.rawLeft) : 0;
        uint64_t step = delta < left ? delta : left;
        // A streamed strip moves on piece by piece.
        for (;;) {
            const uint64_t held = t.rawHeldEnd > t.rawCursor ? uint64_t(t.rawHeldEnd - t.rawCursor) : 0;
            const uint64_t taken = step < held ? step : held;
            t.rawCursor += taken;
            step -= taken;
            if (t.rawCursor != t.rawHeldEnd || t.rawStreamLeft == 0 || !NextStreamPiece() || step == 0) break;
        }
        t.rawLeft = delta < left ? int32_t(left - delta) : 0;
        t.currentRow = line;
    }
    return 1;
}

int32_t LoadStrip(uint32_t strip) {
    auto &t = TiffImage;
    // Strips beyond the table cannot be asked for once the directory is
    // checked; the test keeps the table read in bounds all the same.
    if (strip >= t.stripsPerImage || strip >= TiffMaxStrips) return 0;
    const auto count = int32_t(t.stripByteCounts[strip]);
    if (count <= 0 || uint64_t(count) > StripByteCeiling()) {
        wsprintfA(t.messageBuffer, "Invalid StripByteCount %lu in strip %lu", uint32_t(count), strip);
        ReportError(TiffReadTitle, t.messageBuffer, 0);
        return 0;
    }
    // An uncompressed strip is read as far as the file holds it: the rows
    // behind the file's end stay as the zeroed block has them (CopyLine), so
    // the buffer never grows past the file whatever the strip claims.
    int32_t held = count;
    if (t.compression == TiffCompressionNone) {
        const uint32_t offset = t.stripOffsets[strip];
        const uint32_t inFile = offset < t.fileLength ? t.fileLength - offset : 0;
        if (uint32_t(held) > inFile) held = int32_t(inFile);
    }
    // No strip is loaded while this one is read: a failed read leaves none.
    t.currentStrip = TiffNoStrip;
    t.rawStreamed = false;
    t.rawStreamLeft = 0;
    // The strips of an image that StripsReadInPlace accepts are decoded
    // where the file's read window has them, with no copy: nothing touches
    // the file until the strip is done.  One the window cannot give (larger
    // than it, or a file cut since it was opened) is read as any other.
    const uint32_t offset = t.stripOffsets[strip];
    if (t.stripsInPlace && held == count) {
        if (!SeekForStrip(offset)) return 0;
        if (const uint8_t *bytes = ReadInPlace(t.tiffFile, uint32_t(count))) {
            t.stripReadEnd = int64_t(offset) + count;
            t.rawStart = bytes;
            t.rawHeldEnd = bytes + count;
            return StartStrip(strip);
        }
    }
    // An uncompressed strip larger than a piece is streamed through the
    // window (uncompressed.h), with no strip buffer; one whose first piece
    // the window cannot give is read as any other.
    if (t.compression == TiffCompressionNone && t.stripsInPlace && uint32_t(held) > StreamPieceBytes &&
        t.scanlineSize <= StreamPieceBytes) {
        if (!SeekForStrip(offset)) return 0;
        t.stripReadEnd = -1;  // the window reads ahead of the strip's end
        t.rawStreamLeft = uint32_t(held);
        if (NextStreamPiece()) {
            t.rawStreamed = true;
            t.rawStart = t.rawCursor;
            return StartStrip(strip);
        }
    }
    const bool fresh = held > t.stripBufferSize || held == 0;
    if (fresh) {
        const uint64_t size = (uint64_t(held > 0 ? held : 1) + StripBufferStep - 1) & ~uint64_t(StripBufferStep - 1);
        if (size > checked::MaxBlockBytes) return 0;
        if (!ResizeStripBuffer(int32_t(size))) return 0;
    }
    auto *buffer = static_cast<uint8_t *>(t.stripBuffer.pointer);
    // A strip of which the file holds nothing is still sought: the seek
    // decides, as for every strip, and one at 2 GiB or beyond fails it.
    const int32_t got = held > 0 ? ReadStripBytes(strip, buffer, held) : SeekForStrip(offset) ? 0 : -1;
    // A new buffer is zeros behind what the read brought, as a zero-filled
    // block would be; filling only that tail spares a pass over a large
    // strip.  A buffer kept from an earlier strip keeps its bytes there:
    // behind a short read the decoders meet them.
    if (fresh) {
        const int32_t filled = got > 0 ? got : 0;
        std::memset(buffer + filled, 0, size_t(t.stripBufferSize - filled));
    }
    if (got == -1) return 0;
    t.rawStart = buffer;
    t.rawHeldEnd = buffer + (held < count ? got : count);
    // Bits of compressions 1, 5 and 32773 are put in order here, once per
    // load; the CCITT decoders read through BitOrderTable instead.
    if (t.fillOrder != 1 && !t.isCcitt) ReverseBits(buffer, uint32_t(count < held ? count : held));
    return StartStrip(strip);
}

int32_t StartStrip(uint32_t strip) {
    auto &t = TiffImage;
    if (t.rawStart == nullptr || strip >= TiffMaxStrips || t.stripsPerImage == 0) return 0;
    t.currentStrip = strip;
    t.rawCursor = t.rawStart;
    t.rawLeft = int32_t(t.stripByteCounts[strip]);
    t.currentRow = (strip % t.stripsPerImage) * t.rowsPerStrip;
    if (t.isCcitt) return FaxPrepareStrip();
    if (t.compression == TiffCompressionLzw) return LzwStartStrip();
    return 1;
}

int32_t ResizeStripBuffer(int32_t size) {
    auto &t = TiffImage;
    if (t.stripBuffer.handle != 0) {
        BlockUnlock(&t.stripBuffer);
        BlockFree(&t.stripBuffer);
        t.stripBuffer = MemoryBlock{};
    }
    t.rawCursor = t.rawStart = nullptr;
    t.stripBufferSize = size;
    if (size > 0) {
        // Not zero-filled: LoadStrip fills it and zeroes the rest.
        BlockAlloc(&t.stripBuffer, GMEM_MOVEABLE, uint32_t(size), 1, "TIFFREAD Buffer");
        BlockLock(&t.stripBuffer);
    }
    // A block that came but cannot be locked is no buffer either.
    if (t.stripBuffer.handle != 0 && t.stripBuffer.pointer != nullptr) return 1;
    BlockFree(&t.stripBuffer);
    t.stripBufferSize = 0;
    return 0;
}

bool SeekForStrip(uint32_t offset) {
    auto &t = TiffImage;
    // TL_SEEK takes a signed offset: one past 2 GiB is a failed seek.  A
    // strip that follows the one read last needs no seek.
    if (offset > 0x7FFFFFFFu) return false;
    if (int64_t(offset) != t.stripReadEnd && TL_SEEK(t.tiffFile, int32_t(offset), 0) != 0) {
        t.stripReadEnd = -1;
        return false;
    }
    t.stripReadEnd = offset;
    return true;
}

int32_t ReadStripBytes(uint32_t strip, uint8_t *buffer, int32_t count) {
    auto &t = TiffImage;
    const uint32_t offset = t.stripOffsets[strip];
    if (!SeekForStrip(offset)) return -1;  // no system call where the position is there already
    const uint32_t got = TL_READ(buffer, uint32_t(count), t.tiffFile);
    // Only a whole read leaves the position known.
    t.stripReadEnd = got == uint32_t(count) ? int64_t(offset) + got : -1;
    return int32_t(got);
}
