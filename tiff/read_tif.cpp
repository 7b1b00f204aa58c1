// read_tif.cpp - ReadTIF: the first image of a TIFF file into a bitmap block.
//
// ReadTIF asks TIFFDecodeLine for the first row of each strip, top row
// first, and hands the rows that follow in the strip to one loop of their
// decoder; it writes the rows into the bitmap block from its last row
// upward.  Only the white rows of a fax strip whose data have run out are
// passed by, as the zeroed block already holds them (SkipBlankLines).  Beneath
// it the strip engine (strips.cpp) holds one strip at a time.

#include <cstring>

#include "core/bytes.h"
#include "core/checked.h"
#include "core/image.h"
#include "fax/fax.h"
#include "platform/win32.h"
#include "services/errors.h"
#include "tiff/directory.h"
#include "tiff/lzw.h"
#include "tiff/packbits.h"
#include "tiff/record.h"
#include "tiff/strips.h"
#include "tiff/uncompressed.h"

namespace {

constexpr uint32_t HeaderBytes = 48;         // 40 of header, two palette entries
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
        if (clearPads) TiffClearPad(row, uint32_t(count), padBytes);
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

}  // namespace

TL_HANDLE ReadTIF(const char *name, int32_t imageNumber) {
    char path[PathBytes];
    switch (MemoHead(TifMemo, TifMemoFile, name, path)) {
    case MemoStep::Read: break;
    default: return 0;
    }

    TL_HANDLE block = 0;
    uint8_t *bits = nullptr;
    if (TiffOpen(name)) {
        const uint32_t width = TiffImage.imageWidth;
        const uint32_t height = TiffImage.imageLength;
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
                if (!zeroed) TiffClearPad(row, TiffImage.scanlineSize, rowBytes - TiffImage.scanlineSize);
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
                StoreU32(bits + 24, uint32_t(PelsPerMeter(TiffImage.xResolution)));
                StoreU32(bits + 28, uint32_t(PelsPerMeter(TiffImage.yResolution)));
                StoreU32(bits + 32, 2);
                StoreU32(bits + 36, 0);
                bits[40] = bits[41] = bits[42] = 255;  // entry 0 white; entry 1 stays black
                if (TiffImage.photometric == 1) ComplementBytes(bits + HeaderBytes, sizeImage);
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
