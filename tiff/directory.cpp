// directory.cpp - TIFF header, first directory and strip tables.
//
// TiffOpen reads the 8-byte header and the first image file directory into
// TiffImage.  The directory is walked twice: the first pass takes the sizes,
// the compression and the resolution, so that the second pass knows how
// many strips to expect and which photometric default applies.

#include "tiff/directory.h"

#include <bit>
#include <cstddef>
#include <cstring>

#include "core/bytes.h"
#include "platform/win32.h"
#include "services/abort.h"
#include "services/errors.h"
#include "services/files.h"
#include "fax/fax.h"
#include "tiff/lzw.h"

static_assert(std::endian::native == std::endian::little,
              "directory entries are read straight into host words: a little-endian host is assumed");

namespace {

constexpr uint16_t OrderII = 0x4949;
constexpr uint16_t OrderMM = 0x4D4D;
constexpr uint16_t TiffVersion = 42;
constexpr uint32_t OneStrip = 0xFFFFFFFFu;  // rowsPerStrip meaning "the whole image"
constexpr uint32_t EntryBytes = 12;
constexpr uint32_t DirectoryOverhead = 14;  // header 8, entry count 2, next-directory offset 4

// Extraction of a single value from an entry's value field, by field type.
// An MM file has its value fields swapped as 32-bit numbers, so a short
// value lies in the high bits there.
constexpr uint32_t TypeMask[6] = {0, 0xFF, 0xFFFFFFFFu, 0xFFFF, 0xFFFFFFFFu, 0xFFFFFFFFu};
constexpr uint32_t TypeShift[2][6] = {
    {0, 0, 0, 0, 0, 0},    // II
    {0, 24, 0, 16, 0, 0},  // MM
};

// Tags this reader takes.
enum : uint16_t {
    TagImageWidth = 256,
    TagImageLength = 257,
    TagBitsPerSample = 258,
    TagCompression = 259,
    TagPhotometric = 262,
    TagFillOrder = 266,
    TagStripOffsets = 273,
    TagSamplesPerPixel = 277,
    TagRowsPerStrip = 278,
    TagStripByteCounts = 279,
    TagXResolution = 282,
    TagYResolution = 283,
    TagGroup3Options = 292,
    TagGroup4Options = 293,
    TagResolutionUnit = 296,
    TagPredictor = 317,
};

// The entries of the directory being read.
TiffDirEntry DirectoryEntries[TiffMaxEntries];

void Refuse(const char *text) { ReportError(TiffReadTitle, text, 0); }

// The directory group runs from imageWidth up to (not including) tiffFile.
void ZeroDirectoryGroup() {
    auto *start = reinterpret_cast<uint8_t *>(&TiffImage);
    std::memset(start, 0, offsetof(TiffImageRecord, tiffFile));
    std::memset(DirectoryEntries, 0, sizeof DirectoryEntries);
}

// Seek from the start of the file.  Offsets past 2 GiB cannot be given to
// TL_SEEK, which takes a signed offset: they count as a failed seek.
bool SeekTo(uint32_t offset) {
    if (offset > 0x7FFFFFFFu) return false;
    TiffImage.stripReadEnd = -1;
    if (TL_SEEK(TiffImage.tiffFile, int32_t(offset), 0) != 0) return false;
    return !ErrorStatus();
}

bool FirstPassTag(uint16_t tag) {
    switch (tag) {
    case TagImageWidth: case TagImageLength: case TagBitsPerSample: case TagCompression:
    case TagSamplesPerPixel: case TagRowsPerStrip: case TagXResolution: case TagYResolution:
    case TagResolutionUnit:
        return true;
    default:
        return false;
    }
}

bool SecondPassTag(uint16_t tag) {
    switch (tag) {
    case TagPhotometric: case TagFillOrder: case TagStripOffsets: case TagStripByteCounts:
    case TagGroup3Options: case TagGroup4Options: case TagPredictor:
        return true;
    default:
        return false;
    }
}

// Compression test: sets isCcitt and the photometric default, or refuses.
bool AcceptCompression() {
    auto &t = TiffImage;
    switch (t.compression) {
    case TiffCompressionNone:
    case TiffCompressionLzw:
    case TiffCompressionPackBits:
        t.isCcitt = false;
        t.photometric = 1;
        return true;
    case TiffCompressionCcittRle:
    case TiffCompressionCcittG3:
    case TiffCompressionCcittG4:
        t.isCcitt = true;
        t.photometric = 0;
        return true;
    case 6: Refuse("JPEG compression not supported"); return false;
    case 32766: Refuse("NeXT 2-bit RLE compression not supported"); return false;
    case 32771: Refuse("Word aligned RLE compression not supported"); return false;
    case 32809: Refuse("ThunderScan RLE compression not supported"); return false;
    case 32908: Refuse("Pixar companded compression not supported"); return false;
    default: Refuse("Unknown compression tag"); return false;
    }
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

}  // namespace

uint32_t TiffTypeSize(uint16_t type) {
    // Types above RATIONAL (the signed and floating types of TIFF 6.0 and
    // anything else) are not known to this reader: they count 0 bytes, so
    // that an entry of such a type adds nothing to a size sum and no table
    // of six columns is indexed past its end.
    constexpr uint32_t Size[6] = {1, 1, 1, 2, 4, 8};
    return type < 6 ? Size[type] : 0;
}

void SwapShort(void *p) {
    uint16_t v;
    std::memcpy(&v, p, 2);
    v = __builtin_bswap16(v);
    std::memcpy(p, &v, 2);
}

void SwapLong(void *p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    v = __builtin_bswap32(v);
    std::memcpy(p, &v, 4);
}

void SwapShortArray(void *p, uint32_t n) {
    auto *b = static_cast<uint8_t *>(p);
    for (uint32_t i = 0; i < n; ++i) SwapShort(b + 2 * i);
}

void SwapLongArray(void *p, uint32_t n) {
    auto *b = static_cast<uint8_t *>(p);
    for (uint32_t i = 0; i < n; ++i) {
        uint32_t v;
        std::memcpy(&v, b + 4 * i, 4);
        v = __builtin_bswap32(v);
        std::memcpy(b + 4 * i, &v, 4);
    }
}

int32_t TiffOpen(const char *name) {
    auto &t = TiffImage;
    if (AbortPoll(nullptr) == 1) return 0;
    ZeroDirectoryGroup();
    t.tiffFile = TL_OPEN(name, "r");
    if (t.tiffFile == NoFile) return 0;  // TL_OPEN has reported
    t.fileLength = TL_FILELENGTH(t.tiffFile);
    t.stripReadEnd = -1;
    if (TL_READ(t.fileHeader, sizeof t.fileHeader, t.tiffFile) < sizeof t.fileHeader) {
        TiffClose();
        return 0;
    }
    uint16_t order = LoadU16(t.fileHeader);
    if (order == OrderMM) {
        t.typeShift = TiffOrderMM;
        t.swapBytes = true;
    } else if (order == OrderII) {
        t.typeShift = TiffOrderII;
        t.swapBytes = false;
    } else {
        Refuse("Invalid TIFF header (ByteOrder)");
        TiffClose();
        return 0;
    }
    if (t.swapBytes) {
        SwapShort(t.fileHeader + 2);
        SwapLong(t.fileHeader + 4);
    }
    if (LoadU16(t.fileHeader + 2) != TiffVersion) {
        Refuse("Invalid TIFF header (Version)");
        TiffClose();
        return 0;
    }
    t.stripBuffer = MemoryBlock{};
    t.rawCursor = t.rawStart = nullptr;
    t.rawStreamed = false;
    t.rawStreamLeft = 0;
    t.stripBufferSize = 0;
    if (!TiffReadDirectory()) {
        TiffClose();
        return 0;
    }
    t.rawLeft = -1;
    t.stripsInPlace = StripsReadInPlace();
    return 1;
}

int32_t TiffReadDirectory() {
    auto &t = TiffImage;
    uint16_t entryCount = 0;
    if (!SeekTo(LoadU32(t.fileHeader + 4))) return 0;
    if (TL_READ(&entryCount, 2, t.tiffFile) < 2) return 0;
    if (t.swapBytes) SwapShort(&entryCount);
    if (entryCount > TiffMaxEntries) {
        wsprintfA(t.messageBuffer, "dircount=%d in TIFF header too big (>%d)", int(entryCount),
                  int(TiffMaxEntries));
        Refuse(t.messageBuffer);
        return 0;
    }

    ZeroDirectoryGroup();
    const uint32_t dirBytes = uint32_t(entryCount) * EntryBytes;
    if (TL_READ(DirectoryEntries, dirBytes, t.tiffFile) < dirBytes) return 0;

    t.fillOrder = 1;
    t.bitsPerSample = 1;
    t.samplesPerPixel = 1;
    t.predictor = 1;
    t.rowsPerStrip = OneStrip;

    // First pass: sizes, compression, resolution.
    for (uint32_t i = 0; i < entryCount; ++i) {
        TiffDirEntry &e = DirectoryEntries[i];
        if (t.swapBytes) {
            SwapShort(&e.tag);
            SwapShort(&e.type);
            SwapLong(&e.count);
            SwapLong(&e.value);
        }
        if (FirstPassTag(e.tag)) {
            if (!FetchField(&e)) return 0;
            e.tag = 0;
        } else if (!SecondPassTag(e.tag)) {
            e.tag = 0;  // tiles, orientation, planar configuration and all else
        }
    }

    if (t.imageLength == 0) {
        Refuse("Missing tag value ImageLength");
        return 0;
    }
    // A zero width is refused like a missing length, with its own tag name.
    if (t.imageWidth == 0) {
        Refuse("Missing tag value ImageWidth");
        return 0;
    }
    if (!AcceptCompression()) return 0;
    if (t.bitsPerSample != 1) {
        Refuse("Only bilevel images supported (non-fitting BitsPerSamples)");
        return 0;
    }
    if (t.samplesPerPixel != 1) {
        Refuse("Only bilevel images supported (non-fitting SamplesPerPixel)");
        return 0;
    }

    // Derived sizes.  Both are computed in 64 bits: (width + 7) / 8 always
    // fits 32 bits then, and a RowsPerStrip near 0xFFFFFFFF, which a 32-bit
    // sum would wrap to a strip count of 0, gives one strip as it means.
    t.scanlineSize = uint32_t((uint64_t(t.imageWidth) + 7) / 8);
    if (t.rowsPerStrip == 0) t.rowsPerStrip = t.imageLength;
    if (t.rowsPerStrip == OneStrip) {
        t.stripsPerImage = 1;
    } else {
        t.stripsPerImage = uint32_t((uint64_t(t.imageLength) + t.rowsPerStrip - 1) / t.rowsPerStrip);
    }
    // The strip tables hold TiffMaxStrips entries.  An image of more strips
    // is refused here, before any table is filled.
    if (t.stripsPerImage > TiffMaxStrips) {
        wsprintfA(t.messageBuffer, "stripcount=%lu in TIFF header too big (>%d)", t.stripsPerImage,
                  int(TiffMaxStrips));
        Refuse(t.messageBuffer);
        return 0;
    }

    // Second pass: photometric, fill order, options, strip tables.
    bool haveOffsets = false, haveCounts = false;
    for (uint32_t i = 0; i < entryCount; ++i) {
        TiffDirEntry &e = DirectoryEntries[i];
        switch (e.tag) {
        case 0:
            break;
        case TagStripOffsets:
            if (!FetchStripArray(&e, t.stripsPerImage, t.stripOffsets)) return 0;
            haveOffsets = true;
            break;
        case TagStripByteCounts:
            if (!FetchStripArray(&e, t.stripsPerImage, t.stripByteCounts)) return 0;
            haveCounts = true;
            break;
        default:
            // An entry of an unusable type leaves the field at its default.
            FetchField(&e);
            break;
        }
        e.tag = 0;
    }

    if (!haveOffsets) {
        Refuse("Missing tag value StripOffsets");
        return 0;
    }
    if (!haveCounts) {
        if (t.stripsPerImage > 1) {
            Refuse("Missing tag StripByteCounts");
            return 0;
        }
        EstimateStripByteCount(DirectoryEntries, entryCount);
    } else if (t.stripsPerImage == 1) {
        if (t.stripByteCounts[0] == 0) {
            EstimateStripByteCount(DirectoryEntries, entryCount);
        } else if (t.compression == TiffCompressionNone &&
                   t.stripByteCounts[0] > t.fileLength - t.stripOffsets[0]) {
            EstimateStripByteCount(DirectoryEntries, entryCount);
        }
    }

    if (t.photometric > 1) {
        Refuse("Only bilevel images supported (non-fitting PhotometricInterpretation)");
        return 0;
    }
    if (t.fillOrder != 1 && t.fillOrder != 2) {
        wsprintfA(t.messageBuffer, "Unknwon value %d of tag FillOrder", int(t.fillOrder));
        Refuse(t.messageBuffer);
        return 0;
    }
    if (t.group3Options > 7) {
        wsprintfA(t.messageBuffer, "Unknown value %d of tag Group3Options", int32_t(t.group3Options));
        Refuse(t.messageBuffer);
        return 0;
    }
    if (t.group4Options > 2) {
        wsprintfA(t.messageBuffer, "Unknown value %d of tag Group4Options", int32_t(t.group4Options));
        Refuse(t.messageBuffer);
        return 0;
    }
    if (t.predictor > 1) {
        wsprintfA(t.messageBuffer, "Unsupported or unknown value %d of tag Predictor", int(t.predictor));
        Refuse(t.messageBuffer);
        return 0;
    }

    t.currentRow = TiffNoRow;
    t.currentStrip = TiffNoStrip;
    if (t.isCcitt) FaxStart(t.compression);
    return 1;
}

int32_t FetchField(TiffDirEntry *entry) {
    auto &t = TiffImage;
    switch (entry->type) {
    case TiffTypeShort:
    case TiffTypeLong: {
        uint32_t value = (entry->value >> TypeShift[t.typeShift][entry->type]) & TypeMask[entry->type];
        return SetDirectoryField(entry->tag, &value, 1);
    }
    case TiffTypeRational: {
        uint32_t pair[2];
        if (!SeekTo(entry->value)) return 0;
        if (TL_READ(pair, sizeof pair, t.tiffFile) < sizeof pair) return 0;
        if (t.swapBytes) SwapLongArray(pair, 2);
        return SetDirectoryField(entry->tag, pair, 2);
    }
    default:
        return 0;
    }
}

int32_t SetDirectoryField(uint16_t tag, const uint32_t *value, uint32_t words) {
    auto &t = TiffImage;
    const uint32_t v = value[0];
    // A resolution stored as SHORT or LONG is a whole number of pixels per
    // unit: its denominator is taken as 1.
    const uint32_t denominator = words >= 2 ? value[1] : 1;
    switch (tag) {
    case TagImageWidth: t.imageWidth = v; break;
    case TagImageLength: t.imageLength = v; break;
    case TagBitsPerSample: t.bitsPerSample = uint16_t(v); break;
    case TagCompression: t.compression = uint16_t(v); break;
    case TagPhotometric: t.photometric = uint16_t(v); break;
    case TagFillOrder: t.fillOrder = uint16_t(v); break;
    case TagSamplesPerPixel: t.samplesPerPixel = uint16_t(v); break;
    case TagRowsPerStrip: t.rowsPerStrip = v; break;
    case TagXResolution: t.xResolution = {v, denominator}; break;
    case TagYResolution: t.yResolution = {v, denominator}; break;
    case TagGroup3Options: t.group3Options = v; break;
    case TagGroup4Options: t.group4Options = v; break;
    case TagResolutionUnit: t.resolutionUnit = uint16_t(v); break;
    case TagPredictor: t.predictor = uint16_t(v); break;
    default: break;
    }
    return 1;
}

int32_t FetchStripArray(TiffDirEntry *entry, uint32_t expected, uint32_t *table) {
    if (entry->count != expected) return 0;
    // The caller has refused images of more strips than the tables hold.
    if (expected > TiffMaxStrips) return 0;
    if (entry->type == TiffTypeShort) {
        uint16_t work[TiffMaxStrips];
        if (!FetchShortArray(entry, work)) return 0;
        for (uint32_t i = 0; i < expected; ++i) table[i] = work[i];
        return 1;
    }
    return FetchLongArray(entry, table);
}

int32_t FetchShortArray(TiffDirEntry *entry, uint16_t *out) {
    const bool mm = TiffImage.typeShift == TiffOrderMM;
    const uint32_t v = entry->value;
    switch (entry->count) {
    case 1:
        out[0] = uint16_t(mm ? v >> 16 : v);
        return 1;
    case 2:
        out[0] = uint16_t(mm ? v >> 16 : v);
        out[1] = uint16_t(mm ? v : v >> 16);
        return 1;
    default:
        return FetchArrayData(entry, out, TiffMaxStrips * sizeof(uint16_t)) > 0;
    }
}

int32_t FetchLongArray(TiffDirEntry *entry, uint32_t *out) {
    if (entry->count == 1) {
        out[0] = entry->value;
        return 1;
    }
    return FetchArrayData(entry, out, TiffMaxStrips * sizeof(uint32_t)) > 0;
}

uint32_t FetchArrayData(TiffDirEntry *entry, void *out, uint32_t capacity) {
    auto &t = TiffImage;
    const uint64_t size = uint64_t(TiffTypeSize(entry->type)) * entry->count;
    // Values that would not fit the caller's table (a strip table stored as
    // RATIONAL, say) are refused like values that cannot be read.
    bool ok = size <= capacity && SeekTo(entry->value);
    if (ok) ok = TL_READ(out, uint32_t(size), t.tiffFile) >= size;
    if (!ok) {
        wsprintfA(t.messageBuffer, "Unexpected contents of tag field %d", int(entry->tag));
        Refuse(t.messageBuffer);
        return 0;
    }
    if (t.swapBytes) {
        if (entry->type == TiffTypeShort) SwapShortArray(out, entry->count);
        else if (entry->type == TiffTypeLong) SwapLongArray(out, entry->count);
    }
    return uint32_t(size);
}

void EstimateStripByteCount(const TiffDirEntry *entries, uint32_t entryCount) {
    auto &t = TiffImage;
    if (t.compression == TiffCompressionNone) {
        // The product may leave 32 bits; it is then held at the largest
        // count, which the strip loader refuses.
        const uint64_t bytes = uint64_t(t.imageLength) * t.scanlineSize;
        t.stripByteCounts[0] = bytes > 0xFFFFFFFFu ? 0xFFFFFFFFu : uint32_t(bytes);
        return;
    }
    // Space the header and the directory take, with the values that stand
    // outside the entries.  Summed in 64 bits: counts come from the file.
    uint64_t space = uint64_t(entryCount) * EntryBytes + DirectoryOverhead;
    for (uint32_t i = 0; i < entryCount && i < TiffMaxEntries; ++i) {
        const uint64_t s = uint64_t(TiffTypeSize(entries[i].type)) * entries[i].count;
        if (s > 4) space += s;
    }
    const uint32_t fileLength = t.fileLength;
    // A directory that claims more space than the file has would wrap the
    // difference to a huge count; it is taken as too large at once, so the
    // count becomes what lies behind the strip's offset.  An offset at or
    // behind the end of the file leaves 0, which the strip loader refuses.
    uint64_t bytes = space > fileLength ? uint64_t(fileLength) + 1 : fileLength - space;
    if (bytes + t.stripOffsets[0] > fileLength) {
        bytes = t.stripOffsets[0] >= fileLength ? 0 : fileLength - t.stripOffsets[0];
    }
    t.stripByteCounts[0] = uint32_t(bytes);
}

void TiffClose() {
    auto &t = TiffImage;
    if (t.isCcitt) FaxRelease();
    // The LZW state is released whatever the compression: the call is
    // harmless without a state, and no path can leave the table behind.
    LzwRelease();
    if (t.stripBuffer.handle != 0) {
        BlockUnlock(&t.stripBuffer);
        BlockFree(&t.stripBuffer);
    }
    t.rawCursor = t.rawStart = nullptr;
    t.rowsZeroed = false;
    // The handle is forgotten once closed: the platform may give the same
    // number to the next file opened, which a second close must not touch.
    if (t.tiffFile != NoFile) TL_CLOSE(t.tiffFile);
    t.tiffFile = NoFile;
}
