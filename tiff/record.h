// record.h - the record of the open TIFF image, TiffImage, that every
// layer of the TIFF reader shares: the fields of its directory, the file,
// and the strip in memory that the decoders read (rawCursor, rawLeft) and
// count rows in (currentRow).  Data only: the lowest layer of the TIFF
// reader, beneath the decoders of every compression (tiff/, fax/), the
// directory that fills the record and the strip engine that moves it.
#pragma once

#include <cstdint>

#include "services/blocks.h"
#include "services/files.h"

// The title of the TIFF reader's reports of a file's data.
constexpr const char *TiffReadTitle = "TIFF Read";

// The most strips an image may have: an image of more strips is refused
// as a malformed strip table.
constexpr uint32_t TiffMaxStrips = 256;

// Compressions the reader accepts.
enum TiffCompression : uint16_t {
    TiffCompressionNone = 1,
    TiffCompressionCcittRle = 2,
    TiffCompressionCcittG3 = 3,
    TiffCompressionCcittG4 = 4,
    TiffCompressionLzw = 5,
    TiffCompressionPackBits = 32773,
};
struct TiffRational {
    uint32_t numerator;
    uint32_t denominator;
};

// Which column of the shift table a file's byte order selects.
enum TiffByteOrder : uint8_t { TiffOrderII = 0, TiffOrderMM = 1 };

struct TiffImageRecord {
    // ---- directory group: zeroed at every open and again before the entries are read
    uint32_t imageWidth;       // 256, required
    uint32_t imageLength;      // 257, required
    uint16_t bitsPerSample;    // 258, default 1
    uint16_t samplesPerPixel;  // 277, default 1
    uint32_t stripsPerImage;   // derived from imageLength and rowsPerStrip
    uint32_t rowsPerStrip;     // 278, default 0xFFFFFFFF: one strip
    uint32_t stripOffsets[TiffMaxStrips];     // 273
    uint32_t stripByteCounts[TiffMaxStrips];  // 279
    MemoryBlock ccittBlock;    // working state of the CCITT decoders
    uint16_t photometric;      // 262, default by compression
    uint16_t fillOrder;        // 266, default 1
    uint16_t compression;      // 259, no default: 0 is refused
    uint32_t group3Options;    // 292, default 0
    uint32_t group4Options;    // 293, default 0
    uint16_t predictor;        // 317, default 1
    uint16_t resolutionUnit;   // 296, default 0: no resolution
    TiffRational xResolution;  // 282
    TiffRational yResolution;  // 283

    // ---- reader state, set by TiffOpen and the strip engine
    ManagedFile tiffFile;      // the open file; NoFile when closed
    uint8_t fileHeader[8];     // the header as read; ByteOrder in its first two bytes
    TiffByteOrder typeShift;   // column of the shift table
    bool swapBytes;            // true for MM
    bool isCcitt;              // compressions 2, 3, 4
    bool rowsZeroed;           // the rows given to TIFFDecodeLine hold zeros: ReadTIF's zero-filled block
    uint32_t currentRow;       // row the next decoding call delivers; 0xFFFFFFFF before the first strip
    uint32_t scanlineSize;     // bytes of one decoded line
    uint32_t currentStrip;     // strip in the buffer; 0xFFFFFFFF for none
    MemoryBlock stripBuffer;   // the strip as stored in the file
    int32_t stripBufferSize;   // its size, a multiple of 1024
    bool stripsInPlace;        // every strip is decoded where the file's read window has it (LoadStrip)
    const uint8_t *rawStart;   // the strip's first byte: in the strip buffer or the file's read window
    const uint8_t *rawCursor;  // next unread byte of the strip
    int32_t rawLeft;           // bytes the strip table promises behind rawCursor
    const uint8_t *rawHeldEnd; // behind the strip's bytes that the file held (uncompressed strips)
    uint32_t fileLength;       // the file's length at TiffOpen
    int64_t stripReadEnd;      // file position behind the last strip read; -1 when unknown
    bool rawStreamed;          // the strip comes from the file's read window a piece at a time (uncompressed)
    uint32_t rawStreamLeft;    // a streamed strip's held bytes still in the file, behind rawHeldEnd
    char messageBuffer[128];   // every formatted message of the TIFF reader
};

// The one open TIFF file.
extern TiffImageRecord TiffImage;

constexpr uint32_t TiffNoRow = 0xFFFFFFFFu;
constexpr uint32_t TiffNoStrip = 0xFFFFFFFFu;

// Row bytes of a bitmap row of `width` one-bit pixels, padded to 4 bytes.
constexpr uint32_t TiffRowBytes(uint32_t width) { return uint32_t(((uint64_t(width) + 31) / 8) & ~uint64_t(3)); }

// Clears the pad behind a bitmap row's `count` bytes: 0 to 3 bytes, since
// count is (width + 7) / 8 and a bitmap row is padded to 4 bytes.  Stores
// of a byte each, not a call.
inline void TiffClearPad(uint8_t *row, uint32_t count, uint32_t padBytes) {
    if (padBytes > 0) row[count] = 0;
    if (padBytes > 1) row[count + 1] = 0;
    if (padBytes > 2) row[count + 2] = 0;
}
