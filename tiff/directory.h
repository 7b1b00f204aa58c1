// directory.h - the open TIFF file: its header and first directory.
//
// One TIFF file is open at a time.  TiffOpen reads its first directory into
// the static record TiffImage (record.h) and refuses every file that is not
// a bilevel, single-sample image in strips with an accepted compression;
// TiffClose releases the decoders, the strip buffer and the file.
#pragma once

#include <cstdint>

#include "tiff/record.h"

// The most entries a directory may have: one of more is refused with a message.
constexpr uint32_t TiffMaxEntries = 256;

// TIFF field types this reader knows; the size table ends at RATIONAL.
enum TiffFieldType : uint16_t {
    TiffTypeNone = 0,
    TiffTypeByte = 1,
    TiffTypeAscii = 2,
    TiffTypeShort = 3,
    TiffTypeLong = 4,
    TiffTypeRational = 5,
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
