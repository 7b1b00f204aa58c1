// lines.cpp - ReadTIF, the strip engine and the uncompressed line decoder.
//
// ReadTIF asks TIFFDecodeLine for the first row of each strip, top row
// first, and hands the rows that follow in the strip to one loop of their
// decoder; it writes the rows into the bitmap block from its last row
// upward.  Only the white rows of a fax strip whose data have run out are
// passed by, as the zeroed block already holds them (SkipBlankLines).  The
// strip engine holds one strip at a time: a strip is read with one TL_READ
// into the strip buffer, which is allocated anew only for a strip larger
// than every one before it, or, for an image that StripsReadInPlace
// accepts, decoded where the file's read window has it.

#include "tiff/lines.h"

#include <array>
#include <cstring>

#include "core/bytes.h"
#include "core/checked.h"
#include "core/image.h"
#include "platform/win32.h"
#include "services/blocks.h"
#include "services/errors.h"
#include "services/files.h"
#include "tiff/directory.h"
#include "tiff/fax.h"
#include "tiff/lzw.h"

namespace {

constexpr const char *ReadTitle = "TIFF Read";
constexpr uint32_t HeaderBytes = 48;         // 40 of header, two palette entries
constexpr int32_t StripBufferStep = 1024;    // the strip buffer grows in steps of this
// The CCITT decoders write only the black spans of a row into a block that
// is zero-filled once; the other decoders write every byte of every row, so
// their block is not filled first (ReadTIF clears the pads and the rows
// passed by as blank).  A block of ZeroFilledFrom bytes or more is zero-filled for
// every compression: a new block that large comes from the system already
// zero, page by page as it is touched, while clearing the rows of an image
// that declares far more rows than its file holds would touch every page.
constexpr uint32_t ZeroedDibFlags = GMEM_MOVEABLE | GMEM_ZEROINIT;
constexpr uint32_t DibFlags = GMEM_MOVEABLE;
constexpr uint64_t ZeroFilledFrom = uint64_t(16) << 20;

ReaderMemo TifMemo{};
// The protocol's reset forgets the reader's file; ReadTIF's own file lives
// in TiffImage and is not to be touched by a reset, so the protocol gets
// this stand-in.
ManagedFile TifMemoFile = NoFile;

constexpr std::array<uint8_t, 256> MakeBitOrder(bool reversed) {
    std::array<uint8_t, 256> t{};
    for (uint32_t v = 0; v < 256; ++v) {
        uint32_t r = v;
        if (reversed) {
            r = 0;
            for (int b = 0; b < 8; ++b)
                if (v & (1u << b)) r |= 0x80u >> b;
        }
        t[v] = uint8_t(r);
    }
    return t;
}
constexpr std::array<uint8_t, 256> IdentityOrder = MakeBitOrder(false);
constexpr std::array<uint8_t, 256> ReversedOrder = MakeBitOrder(true);

// Resolution in pixels per metre of one axis.
int32_t PelsPerMeter(const TiffRational &r) {
    double factor;
    switch (TiffImage.resolutionUnit) {
    case 2: factor = double(39.37f); break;  // inch, with the float's rounding: 300/inch -> 11810
    case 3: factor = 100.0; break;           // centimetre
    default: return 0;
    }
    if (r.denominator == 0) return 0;
    const double v = double(r.numerator) * factor / double(int32_t(r.denominator));
    // A result outside 32 bits is no resolution at all: it counts as none
    // rather than being converted out of range.
    if (!(v > -2147483648.0 && v < 2147483648.0)) return 0;
    return int32_t(v);
}

// Largest byte count a strip may claim: no more than the file holds, or
// the uncompressed image needs, whichever is larger.  A larger count
// describes no bytes of this file; it would only size a buffer of nothing.
uint64_t StripByteCeiling() {
    const uint64_t fileLength = TiffImage.fileLength;
    const uint64_t image = uint64_t(TiffImage.imageLength) * TiffImage.scanlineSize;
    return fileLength > image ? fileLength : image;
}

// Lines after line, in its strip, that would only come out white and make
// no report: they are counted as read and left as the zeroed block has
// them.  A file may declare millions of rows over a few bytes of data; this
// keeps the time such a file takes to the rows it codes.  For the CCITT
// compressions the fax decoder tells (FaxRowsStayBlank); an uncompressed
// strip whose held bytes are used up gives zero rows for as long as its
// count lasts.  Other compressions ask for every line.
uint32_t SkipBlankLines(uint32_t line) {
    auto &t = TiffImage;
    if (t.rowsPerStrip == 0) return 0;
    // The common answer, "none", first: the division below is for the
    // rare rows that can be passed by.
    if (t.compression == TiffCompressionNone) {
        if (t.rawCursor < t.rawHeldEnd || t.scanlineSize == 0 || t.rawLeft <= 0) return 0;
    } else if (!t.isCcitt || t.rawLeft != 0 || !FaxRowsStayBlank()) {  // rows stay blank only with no byte left
        return 0;
    }
    const uint64_t stripEnd = (uint64_t(line / t.rowsPerStrip) + 1) * t.rowsPerStrip;
    uint64_t end = stripEnd < t.imageLength ? stripEnd : t.imageLength;
    if (t.compression == TiffCompressionNone) {
        const uint64_t covered = uint64_t(line) + 1 + uint64_t(t.rawLeft) / t.scanlineSize;
        if (covered < end) end = covered;
        if (end <= uint64_t(line) + 1) return 0;
        t.rawLeft -= int32_t((end - line - 1) * t.scanlineSize);
    } else if (end <= uint64_t(line) + 1) {
        return 0;
    }
    const auto skipped = uint32_t(end - line - 1);
    t.currentRow += skipped;
    return skipped;
}

// Clears the pad behind a row's `count` bytes: 0 to 3 bytes, since count
// is (width + 7) / 8 and a bitmap row is padded to 4 bytes.  Stores of a
// byte each, not a call.
inline void ClearPad(uint8_t *row, uint32_t count, uint32_t padBytes) {
    if (padBytes > 0) row[count] = 0;
    if (padBytes > 1) row[count + 1] = 0;
    if (padBytes > 2) row[count + 2] = 0;
}

// The row loop of uncompressed strips: copies up to `most` rows that lie
// whole in the buffer, the first into `row`, each next one rowBytes below
// the one before, clearing each pad in a block that is not zero-filled;
// returns how many.  It stops one row short of the held bytes' end and of
// the bytes the strip table promises: that row goes to CopyLine, so that
// what follows it (a short strip's report, rows passed by as blank) is
// found as row by row.  Each row copied here would have been copied whole
// by CopyLine, and SkipBlankLines would have passed none by after it.  It
// fails no row.
uint32_t CopyHeldRows(uint8_t *row, uint32_t rowBytes, uint32_t most, bool & /* failed */) {
    auto &t = TiffImage;
    const uint32_t count = t.scanlineSize;
    if (count == 0 || t.rawLeft <= 0 || t.rawCursor >= t.rawHeldEnd) return 0;
    // Whole rows that the strip table promises and the buffer holds.
    const uint64_t promised = uint64_t(t.rawLeft) / count;
    const uint64_t held = uint64_t(t.rawHeldEnd - t.rawCursor) / count;
    const uint64_t ready = promised < held ? promised : held;
    if (ready == 0) return 0;
    const uint64_t rows = ready - 1 < most ? ready - 1 : most;
    const uint8_t *from = t.rawCursor;
    const uint32_t padBytes = rowBytes - count;
    const bool clearPads = !t.rowsZeroed && padBytes > 0;
    for (uint64_t i = 0; i < rows; ++i, from += count, row -= rowBytes) {
        std::memcpy(row, from, count);
        if (clearPads) ClearPad(row, count, padBytes);
    }
    t.rawCursor += rows * count;
    t.rawLeft -= int32_t(rows * count);
    t.currentRow += uint32_t(rows);
    return uint32_t(rows);
}

// Decodes up to `rows` rows that follow in the strip, in one loop: the
// first into `row`, each next one rowBytes below the one before (the
// bitmap's rows run upward), the pad behind each cleared in a block that is
// not zero-filled.  Returns the rows delivered; `failed` is set when the
// next one failed (its decoder has reported).  For the line decoders of
// LZW and PackBits, after which SkipBlankLines passes no row by; the CCITT
// compressions have FaxDecodeRowsUpward.
template <RowDecoder Decode>
uint32_t DecodeFollowingRows(uint8_t *row, uint32_t rowBytes, uint32_t rows, bool &failed) {
    auto &t = TiffImage;
    const auto count = int32_t(t.scanlineSize);
    const uint32_t padBytes = rowBytes - t.scanlineSize;
    const bool clearPads = !t.rowsZeroed && padBytes > 0;
    for (uint32_t i = 0; i < rows; ++i, row -= rowBytes) {
        const int32_t decoded = Decode(row, count);
        ++t.currentRow;
        if (!decoded) {
            failed = true;
            return i;
        }
        if (clearPads) ClearPad(row, uint32_t(count), padBytes);
    }
    return rows;
}

using RowsDecoder = uint32_t (*)(uint8_t *row, uint32_t rowBytes, uint32_t rows, bool &failed);

// The row loop of a compression; none for a compression not read.
RowsDecoder RowsDecoderOf(uint16_t compression) {
    switch (compression) {
    case TiffCompressionNone: return CopyHeldRows;
    case TiffCompressionCcittRle:
    case TiffCompressionCcittG3:
    case TiffCompressionCcittG4: return FaxDecodeRowsUpward;
    case TiffCompressionLzw: return DecodeFollowingRows<LzwDecodeLine>;
    case TiffCompressionPackBits: return DecodeFollowingRows<PackBitsDecodeLine>;
    default: return nullptr;
    }
}

void FormatRowMessage(const char *format, uint32_t row) {
    wsprintfA(TiffImage.messageBuffer, format, row);
    ReportError(ReadTitle, TiffImage.messageBuffer, 0);
}

}  // namespace

const uint8_t *BitOrderTable(int32_t reversed) {
    return reversed ? ReversedOrder.data() : IdentityOrder.data();
}

void ReverseBits(uint8_t *buffer, uint32_t count) {
    const uint8_t *map = ReversedOrder.data();
    for (uint32_t i = 0; i < count; ++i) buffer[i] = map[buffer[i]];
}

uint32_t TiffImageLength() { return TiffImage.imageLength; }
uint32_t TiffImageWidth() { return TiffImage.imageWidth; }
uint16_t TiffPhotometric() { return TiffImage.photometric; }
int32_t TiffXPelsPerMeter() { return PelsPerMeter(TiffImage.xResolution); }
int32_t TiffYPelsPerMeter() { return PelsPerMeter(TiffImage.yResolution); }

TL_HANDLE ReadTIF(const char *name, int32_t imageNumber) {
    char path[PathBytes];
    switch (MemoHead(TifMemo, TifMemoFile, name, path)) {
    case MemoStep::Read: break;
    default: return 0;
    }

    TL_HANDLE block = 0;
    uint8_t *bits = nullptr;
    if (TiffOpen(name)) {
        const uint32_t width = TiffImageWidth();
        const uint32_t height = TiffImageLength();
        const uint32_t rowBytes = TiffRowBytes(width);
        // biSizeImage and the block size are products of numbers from the
        // file: an image whose block would pass the library's ceiling, or
        // whose sizes do not fit the header's signed fields, is out of memory.
        const uint64_t sizeImage = uint64_t(rowBytes) * height;
        const bool fits = width <= 0x7FFFFFFFu && height <= 0x7FFFFFFFu &&
                          sizeImage + HeaderBytes <= checked::MaxBlockBytes;
        const bool zeroed = TiffImage.isCcitt || sizeImage >= ZeroFilledFrom;
        if (fits) block = GlobalAlloc(zeroed ? ZeroedDibFlags : DibFlags, uintptr_t(sizeImage + HeaderBytes));
        if (block == 0) {
            ReportError("ReadTIF", "Out of memory", 0);
        } else if ((bits = static_cast<uint8_t *>(GlobalLock(block))) == nullptr) {
            ReportError("ReadTIF", "Out of memory", 0);
        } else if (!ErrorStatus()) {
            std::memset(bits, 0, HeaderBytes);
            uint8_t *row = bits + HeaderBytes + sizeImage;
            bool ok = true;
            // Each row of the block is handed out once, as the block's
            // zero fill left it: the CCITT decoders don't clear it again.
            // In a block that is not zero-filled, ReadTIF clears what no
            // decoder writes: the pad bytes at each row's end and the rows
            // passed by as blank.  A failed row needs nothing: its report
            // makes ReadTIF free the block.
            TiffImage.rowsZeroed = zeroed;
            // A row that follows the last one in the strip in the buffer
            // goes straight to its decoder: TIFFDecodeLine would find the
            // strip in place and nothing to skip.  Any other row, and so
            // each strip's first, takes TIFFDecodeLine.
            const RowDecoder decode = RowDecoderOf(TiffImage.compression);
            const RowsDecoder decodeRows = RowsDecoderOf(TiffImage.compression);
            const auto count = int32_t(TiffImage.scanlineSize);
            uint32_t fastStrip = TiffNoStrip;
            uint64_t fastFirst = 0, fastEnd = 0;
            for (uint32_t line = 0; line < height; ++line) {
                row -= rowBytes;
                auto &t = TiffImage;
                int32_t decoded;
                if (t.currentStrip == fastStrip && line == t.currentRow && line >= fastFirst && line < fastEnd) {
                    // The rows behind this one in the strip but its last
                    // are decoded in one loop.
                    bool failed = false;
                    if (decodeRows != nullptr) {
                        const uint64_t rows = (fastEnd < height ? fastEnd : height) - line;
                        if (rows > 1) {
                            const uint32_t done = decodeRows(row, rowBytes, uint32_t(rows - 1), failed);
                            line += done;
                            row -= uintptr_t(done) * rowBytes;
                        }
                    }
                    if (failed) {
                        decoded = 0;
                    } else {
                        decoded = decode(row, count);
                        ++t.currentRow;
                    }
                } else {
                    decoded = TIFFDecodeLine(row, line);
                    fastStrip = t.currentStrip;
                    fastFirst = uint64_t(fastStrip) * t.rowsPerStrip;
                    fastEnd = fastFirst + t.rowsPerStrip;
                }
                if (!decoded) {
                    ReportError("ReadTIF", "TIFFDecodeLine failed", 0);
                    ok = false;
                    break;
                }
                if (!zeroed) ClearPad(row, TiffImage.scanlineSize, rowBytes - TiffImage.scanlineSize);
                const uint32_t blank = SkipBlankLines(line);
                line += blank;
                row -= uintptr_t(blank) * rowBytes;
                if (!zeroed && blank != 0) std::memset(row, 0, uintptr_t(blank) * rowBytes);
            }
            TiffImage.rowsZeroed = false;
            if (ok) {
                StoreU32(bits + 0, 40);
                StoreU32(bits + 4, width);
                StoreU32(bits + 8, height);
                StoreU16(bits + 12, 1);
                StoreU16(bits + 14, 1);
                StoreU32(bits + 16, 0);
                StoreU32(bits + 20, uint32_t(sizeImage));
                StoreU32(bits + 24, uint32_t(TiffXPelsPerMeter()));
                StoreU32(bits + 28, uint32_t(TiffYPelsPerMeter()));
                StoreU32(bits + 32, 2);
                StoreU32(bits + 36, 0);
                bits[40] = bits[41] = bits[42] = 255;  // entry 0 white; entry 1 stays black
                if (TiffPhotometric() == 1) ComplementBytes(bits + HeaderBytes, sizeImage);
            }
        }
    }
    TiffClose();
    // Unlike the other readers, the memo is written after a failed read too.
    MemoTail(TifMemo, imageNumber, path);
    if (bits) GlobalUnlock(block);
    if (ErrorStatus()) {
        if (block) GlobalFree(block);
        return 0;
    }
    return block;
}

namespace {

int32_t NoRowDecoder(uint8_t *, int32_t) { return 0; }

}  // namespace

RowDecoder RowDecoderOf(uint16_t compression) {
    switch (compression) {
    case TiffCompressionNone: return CopyLine;
    // The CCITT decoders (tiff/fax.h) join here.
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

int32_t CopyLine(uint8_t *row, int32_t count) {
    auto &t = TiffImage;
    if (t.rawLeft < count) {
        wsprintfA(t.messageBuffer, "Internal allocation error in line %d", t.currentRow);
        ReportError(ReadTitle, t.messageBuffer, 0);
        if (!t.rowsZeroed && count > 0) std::memset(row, 0, size_t(count));
        return 0;
    }
    // Bytes behind what the file held are not in the buffer: they are
    // zeros, as the zeroed row has them or as written here.
    const ptrdiff_t held = t.rawHeldEnd - t.rawCursor;
    const int32_t copied = held <= 0 ? 0 : held < count ? int32_t(held) : count;
    std::memcpy(row, t.rawCursor, size_t(copied));
    if (!t.rowsZeroed && copied < count) std::memset(row + copied, 0, size_t(count - copied));
    t.rawCursor += copied;
    t.rawLeft -= count;
    return 1;
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
        if (!StartStrip(strip)) return 0;
    }
    if (t.compression == TiffCompressionNone && line != t.currentRow) {
        // Skipping rows of an uncompressed strip.  A skip past the strip's
        // end stops at its end, so that rawCursor never leaves the buffer;
        // CopyLine then finds too few bytes and reports.
        const uint64_t delta = uint64_t(line - t.currentRow) * t.scanlineSize;
        const uint64_t left = t.rawLeft > 0 ? uint64_t(t.rawLeft) : 0;
        const uint64_t step = delta < left ? delta : left;
        const uint64_t held = t.rawHeldEnd > t.rawCursor ? uint64_t(t.rawHeldEnd - t.rawCursor) : 0;
        t.rawCursor += step < held ? step : held;
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
        ReportError(ReadTitle, t.messageBuffer, 0);
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

// A strip's decoders read its bytes and no others, but for what the strip
// buffer holds behind a short read (bytes of an earlier strip, or zeros)
// and the second byte that the LZW bit-order test reads in a strip of one
// byte.  So an image whose strips lie whole inside the file (of the length
// it had when opened) and are at least two bytes long, in bytes that are
// decoded as they stand (no bit order to reverse in place), decodes the
// same wherever its strips are read from.  An uncompressed image, whose
// rows behind the file's end come out as zeros, qualifies with the strips
// that lie inside the file.
bool StripsReadInPlace() {
    const auto &t = TiffImage;
    if (t.fillOrder != 1 && !t.isCcitt) return false;
    for (uint32_t s = 0; s < t.stripsPerImage && s < TiffMaxStrips; ++s) {
        const uint64_t end = uint64_t(t.stripOffsets[s]) + t.stripByteCounts[s];
        if (t.stripByteCounts[s] < 2 || (end > t.fileLength && t.compression != TiffCompressionNone)) return false;
    }
    return true;
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
