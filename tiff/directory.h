// directory.h - the open TIFF file: header, first directory and the record
// that the strip engine and the decoders share.
//
// One TIFF file is open at a time.  TiffOpen reads its first directory into
// the static record TiffImage and refuses every file that is not a bilevel,
// single-sample image in strips with an accepted compression; TiffClose
// releases the decoders, the strip buffer and the file.
#pragma once

#include <cstdint>

#include "services/blocks.h"
#include "services/files.h"

// Ceilings of a directory.  A directory of more entries is refused with a
// message; an image of more strips is refused as a malformed strip table.
constexpr uint32_t TiffMaxEntries = 256;
constexpr uint32_t TiffMaxStrips = 256;

// TIFF field types this reader knows; the size table ends at RATIONAL.
enum TiffFieldType : uint16_t {
    TiffTypeNone = 0,
    TiffTypeByte = 1,
    TiffTypeAscii = 2,
    TiffTypeShort = 3,
    TiffTypeLong = 4,
    TiffTypeRational = 5,
};

// Compressions the reader accepts.
enum TiffCompression : uint16_t {
    TiffCompressionNone = 1,
    TiffCompressionCcittRle = 2,
    TiffCompressionCcittG3 = 3,
    TiffCompressionCcittG4 = 4,
    TiffCompressionLzw = 5,
    TiffCompressionPackBits = 32773,
};

// One directory entry as read, in host order once the first pass has seen
// it.  The tag of an entry that is done with is set to 0.
struct TiffDirEntry {
    uint16_t tag;
    uint16_t type;
    uint32_t count;
    uint32_t value;  // the value itself, or the file offset of the values
};
static_assert(sizeof(TiffDirEntry) == 12, "a directory entry is 12 bytes in the file");

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
    TiffDirEntry directory[TiffMaxEntries];
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
    char messageBuffer[128];   // every formatted message of the TIFF reader
};

// The one open TIFF file.
extern TiffImageRecord TiffImage;

constexpr uint32_t TiffNoRow = 0xFFFFFFFFu;
constexpr uint32_t TiffNoStrip = 0xFFFFFFFFu;

// Opens `name`, checks the header and reads the first directory.
// 1: the file is open and TiffImage complete.  0: no image; the file is
// closed again (unless TL_OPEN itself failed or an abort was pending).
int32_t TiffOpen(const char *name);
// Reads and checks the directory at the header's offset; 1 or 0.
int32_t TiffReadDirectory();
// Takes one value from an entry and stores it by its tag; 1 or 0 (no message).
int32_t FetchField(TiffDirEntry *entry);
// Stores a value in the field of `tag`: `words` is 1 for a value of 4 bytes
// and 2 for a rational (numerator, denominator).  A 16-bit field takes the
// low 16 bits, a single-number field the numerator.  Other tags are
// ignored.  Always 1.
int32_t SetDirectoryField(uint16_t tag, const uint32_t *value, uint32_t words);
// Fills a strip table from an entry whose count must be `expected`; 1 or 0.
int32_t FetchStripArray(TiffDirEntry *entry, uint32_t expected, uint32_t *table);
// `out` holds TiffMaxStrips values.
int32_t FetchShortArray(TiffDirEntry *entry, uint16_t *out);
int32_t FetchLongArray(TiffDirEntry *entry, uint32_t *out);
// Reads an entry's values from the file into `out` of `capacity` bytes;
// bytes read, 0 on failure (reported).
uint32_t FetchArrayData(TiffDirEntry *entry, void *out, uint32_t capacity);
// Sets stripByteCounts[0] for a one-strip image that lacks a usable count.
void EstimateStripByteCount(const TiffDirEntry *entries, uint32_t entryCount);
// Releases the decoders, the strip buffer and the file.  Safe to repeat.
void TiffClose();

// Bytes of one value of a field type; 0 for types this reader does not know.
uint32_t TiffTypeSize(uint16_t type);

void SwapShort(void *p);
void SwapLong(void *p);
void SwapShortArray(void *p, uint32_t n);
void SwapLongArray(void *p, uint32_t n);
