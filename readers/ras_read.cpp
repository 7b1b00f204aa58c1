// ras_read.cpp - the RAS image sequence: walking the records of a file and
// turning the stored pixels of one of them into a bitmap block.
//
// The reader is in one of three states between calls:
//   idle     no file held, EndFlag 0
//   walking  the file held open, positioned by NextOffset, Number negative
//   ended    no file held, EndFlag 1: the image just delivered was the last,
//            and the next call for that file gives 0 once
// Reads and seeks inside the file are silent attempts: a file that is cut
// off or damaged gives 0 with no error left behind.
#include <bit>
#include <cstring>

#include "core/bytes.h"
#include "core/checked.h"
#include "platform/win32.h"
#include "readers/ras.h"
#include "services/errors.h"

ReaderMemo RasMemo = {};
ManagedFile RasFile = NoFile;

namespace {

constexpr int32_t StoredSizeBytes = 8;  // Rows and Cols, i32 each
// Zeroed bytes behind the pixel buffer: a row copy that starts inside a byte
// fetches whole words, and may touch up to 8 bytes past the last pixel byte.
constexpr int64_t PixelSlackBytes = 16;
constexpr int64_t RasMaxPosition = INT32_MAX;  // file positions are signed 32-bit

void CloseHeld() {
    if (RasFile != NoFile) TL_CLOSE(RasFile);
    RasFile = NoFile;
}

void ClearMemo() {
    RasMemo.Number = 0;
    memset(RasMemo.Name, 0, sizeof RasMemo.Name);
}

void RestoreFlags() {
    SetErrorContinue(RasState.SavedContinue);
    SetErrorBox(RasState.SavedBox);
}

int64_t Tell() { return int64_t(TL_TELL(RasFile)); }

// Bytes of one block row: ((Bits x Cols + 31) >> 3) with the low two bits
// cleared.  Cols is above 0 here.
int64_t Stride(int32_t cols) { return ((int64_t(RasState.Bits) * cols + 31) >> 3) & ~int64_t(3); }

// Pixel bytes of a record that carries its own size.  -1 for a stored size
// that is 0 or below, or too large for any file: the format does not test
// them, and such a record is treated like one behind the end of the file.
int64_t RecordPixelBytes(int32_t rows, int32_t cols) {
    if (rows <= 0 || cols <= 0) return -1;
    if (RasState.Variant == 'b') return Stride(cols) * rows;
    int64_t values = int64_t(rows) * cols;  // below 2^62
    if (values > RasMaxPosition * 8) return -1;
    return (values * RasState.Bits + 7) >> 3;
}

// Everything that one call works on, for the one clean-up exit.
struct RasCall {
    const char *path;
    int32_t imageNumber;
    TL_HANDLE block = nullptr;
    uint8_t *dib = nullptr;
    TL_HANDLE pixels = nullptr;
    uint8_t *source = nullptr;
    bool discard = false;
};

enum class Then { Exit, Return0 };

// ---- pixel conversion ----

uint64_t LoadBE64(const uint8_t *p) {
    uint64_t v;
    memcpy(&v, p, 8);
    if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
    return v;
}
void StoreBE64(uint8_t *p, uint64_t v) {
    if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
    memcpy(p, &v, 8);
}

// Copies `count` bytes of a bit row that starts `shift` bits (0..7) into
// `src`, eight bytes at a time.  Reads up to one byte past the row's last
// byte (the pixel buffer has slack for it).
void CopyShiftedRow(uint8_t *dst, const uint8_t *src, int shift, int64_t count) {
    if (shift == 0) {
        memcpy(dst, src, size_t(count));
        return;
    }
    int64_t i = 0;
    for (; i + 8 <= count; i += 8)
        StoreBE64(dst + i, (LoadBE64(src + i) << shift) | (src[i + 8] >> (8 - shift)));
    for (; i < count; ++i) dst[i] = uint8_t((src[i] << shift) | (src[i + 1] >> (8 - shift)));
}

// Stored rows into the block's rows.  The block is zero-filled, so every
// destination row starts clear and bytes past Cols stay 0.
void RasConvertPixels(uint8_t *rows, const uint8_t *source, int64_t stride) {
    const RasStateRecord &s = RasState;
    const int64_t step = s.Order0 < 0 ? stride : -stride;
    uint8_t *dst = s.Order0 < 0 ? rows : rows + (int64_t(s.Rows) - 1) * stride;
    const int64_t rowBytes = s.Bits == 1 ? (int64_t(s.Cols) + 7) >> 3 : s.Bits == 4 ? stride : s.Cols;
    const int spare = int((rowBytes * 8 - s.Cols) & 7);  // bits past Cols in the last byte
    const auto lastMask = uint8_t(0xFF << spare);
    for (int64_t r = 0; r < s.Rows; ++r, dst += step) {
        if (s.Bits == 1 && s.Variant == 'r') {
            // Bit-continuous: row r starts at bit r x Cols, inside a byte if
            // need be.
            int64_t bit = r * s.Cols;
            CopyShiftedRow(dst, source + (bit >> 3), int(bit & 7), rowBytes);
            dst[rowBytes - 1] &= lastMask;
        } else if (s.Bits == 1) {
            memcpy(dst, source + r * stride, size_t(rowBytes));
            dst[rowBytes - 1] &= lastMask;
        } else {
            // 4 bits: stride bytes a row; 8 bits: Cols bytes a row.  A "bimp"
            // record of its own size holds stride x Rows pixel bytes whatever
            // the depth; with 8 bits we take its rows Cols bytes apart, as in
            // every other 8-bit record, and leave the bytes behind the last
            // row unused.  Either reading stays inside the buffer.
            memcpy(dst, source + r * rowBytes, size_t(rowBytes));
        }
    }
    // A "bimp" stores 1-bit pixels inverted: invert the whole image, the
    // fill bits at the end of every row with it.
    if (s.Bits == 1 && s.Variant == 'b') ComplementBytes(rows, uint64_t(stride) * uint64_t(s.Rows));
}

// ---- the steps of a call ----

// Opening: the file, its length, the header and its parse.
Then RasOpen(RasCall &c) {
    RasStateRecord &s = RasState;
    ClearMemo();
    s.Index = -1;
    RasFile = TL_OPEN(c.path, "rb");
    if (ErrorStatus()) {
        CloseHeld();
        return Then::Return0;
    }
    // The file must hold at least one byte behind the header.  A length past
    // 31 bits is negative as the signed length the format uses, and is
    // refused the same way.
    int64_t length = int64_t(TL_FILELENGTH(RasFile));
    if (length <= RasHeaderSize || length > RasMaxPosition) {
        CloseHeld();
        return Then::Return0;
    }
    s.FileLength = int32_t(length);
    if (TL_READ(s.Header, RasHeaderSize, RasFile) < uint32_t(RasHeaderSize)) ReportError("ReadRAS", c.path, 1);
    if (ErrorStatus()) return Then::Exit;
    if (!RasParseHeader()) {
        CloseHeld();
        return Then::Return0;
    }
    s.Index = 0;
    return Then::Exit;  // go on reading
}

// Stepping over the records in front of the wanted one.
bool RasStepToRecord(RasCall &c) {
    RasStateRecord &s = RasState;
    if (s.Index >= c.imageNumber) return true;
    if (s.Variable == 0) {
        // Fixed records lie RecordSize bytes apart: one move over all of them
        // costs the same as stepping record by record and keeps the work
        // independent of the image number.
        int64_t move = int64_t(c.imageNumber - s.Index) * LoadI32(s.Header + RasRecordSizeAt);
        if (!RasSkip(c.path, move, 1)) return false;
        s.Index = c.imageNumber;
        return true;
    }
    while (s.Index < c.imageNumber) {
        uint8_t size[StoredSizeBytes];
        if (!RasReadAt(c.path, s.PrefixBytes, size, StoredSizeBytes)) return false;
        s.Rows = LoadI32(size);
        s.Cols = LoadI32(size + 4);
        int64_t pixelBytes = RecordPixelBytes(s.Rows, s.Cols);
        if (pixelBytes < 0) return false;
        if (!RasSkip(c.path, s.GapBytes + pixelBytes, 1)) return false;
        ++s.Index;
    }
    return true;
}

// Reading the image: stored size, block, pixels, end test, conversion.
Then RasReadImage(RasCall &c) {
    RasStateRecord &s = RasState;
    if (ErrorStatus()) return Then::Exit;
    if (s.Variable == 1 || s.Variant == 'b') {
        uint8_t size[StoredSizeBytes];
        if (!RasReadAt(c.path, s.PrefixBytes, size, StoredSizeBytes)) {
            // The memo stays as it stood: the next call starts at image 0.
            CloseHeld();
            return Then::Return0;
        }
        s.Rows = LoadI32(size);
        s.Cols = LoadI32(size + 4);
    }
    // Stored sizes are not tested by the format.  One of 0 or below gives
    // 0 with no report, like pixels behind the end of the file.  In a file
    // of fixed records the pixel bytes come from the header, so a stored
    // size beyond the header's extents describes pixels the record does not
    // hold; it is refused the same way, which also keeps the block in
    // proportion to the file.
    if (s.Rows <= 0 || s.Cols <= 0 || (s.Variable == 0 && (s.Rows > s.HeaderRows || s.Cols > s.HeaderCols))) {
        c.discard = true;
        return Then::Exit;
    }
    const int64_t stride = Stride(s.Cols);
    const int64_t imageSize = stride * s.Rows;
    const int64_t pixelBytes = s.Variable == 1 ? RecordPixelBytes(s.Rows, s.Cols) : s.PixelBytes;
    // Pixels behind the end of the file give 0 with no report.  Testing it
    // here, before any block is allocated, gives the outcome of the read
    // below without asking for a block that a short file cannot fill.
    if (pixelBytes < 0 || Tell() + s.GapBytes + pixelBytes > s.FileLength) {
        CloseHeld();
        c.discard = true;
        return Then::Exit;
    }
    if (s.Variable == 1) s.PixelBytes = int32_t(pixelBytes);

    // What the conversion reads: stride x Rows for 1-bit "bimp" and 4-bit
    // rows, Cols x Rows for 8-bit ones, the bit-continuous size for 1-bit
    // "bild".  A fixed "bimp" record's pixel bytes come from the header's
    // extents and may be fewer; the buffer is then longer than what is read,
    // and the rest is zero, so the conversion never reads past it.
    int64_t need = s.Bits == 8 ? int64_t(s.Cols) * s.Rows
                   : (s.Bits == 1 && s.Variant == 'r') ? (int64_t(s.Cols) * s.Rows + 7) >> 3
                                                       : imageSize;
    int64_t bufferBytes = (need > s.PixelBytes ? need : s.PixelBytes) + PixelSlackBytes;
    int64_t blockBytes = imageSize + 4 * int64_t(s.Colours) + 40;

    // A block past the library's ceiling is refused as out of memory rather
    // than asked for, as a failed allocation is.
    if (blockBytes <= int64_t(checked::MaxBlockBytes)) c.block = GlobalAlloc(GHND, uintptr_t(blockBytes));
    if (c.block == nullptr) {
        ReportError("ReadRAS", "Out of memory", 0);
        CloseHeld();
        return Then::Return0;
    }
    c.dib = static_cast<uint8_t *>(GlobalLock(c.block));
    if (c.dib && bufferBytes <= int64_t(checked::MaxBlockBytes)) c.pixels = GlobalAlloc(GHND, uintptr_t(bufferBytes));
    if (c.pixels) c.source = static_cast<uint8_t *>(GlobalLock(c.pixels));
    if (!c.dib || !c.pixels || !c.source) {
        ReportError("ReadRAS", "Out of memory", 0);
        return Then::Exit;
    }

    if (!RasReadAt(c.path, s.GapBytes, c.source, s.PixelBytes)) {
        c.discard = true;
        return Then::Exit;
    }
    if (s.TailBytes != 0 && !RasSkip(c.path, s.TailBytes, 1)) {
        c.discard = true;
        return Then::Exit;
    }
    int64_t next = Tell();
    if (next <= 0 || next > RasMaxPosition) {
        ReportError("ReadRAS", "Read error", 1);
        return Then::Exit;
    }
    s.NextOffset = int32_t(next);

    // End test: the least a further record must hold.
    int64_t least = s.Variable == 1 ? next + s.GapBytes + s.PrefixBytes + StoredSizeBytes
                                    : next + s.TailBytes + s.GapBytes + 1;
    if (least > s.FileLength) {
        CloseHeld();
        RasMemo.EndFlag = 1;
    }

    StoreU32(c.dib + 0, 40);
    StoreU32(c.dib + 4, uint32_t(s.Cols));
    StoreU32(c.dib + 8, uint32_t(s.Rows));
    StoreU16(c.dib + 12, 1);
    StoreU16(c.dib + 14, uint16_t(s.Bits));
    StoreU32(c.dib + 32, uint32_t(s.Colours));
    memcpy(c.dib + 40, s.Palette, 4 * size_t(s.Colours));
    RasConvertPixels(c.dib + 40 + 4 * s.Colours, c.source, stride);
    return Then::Exit;
}

// The one clean-up exit.
TL_HANDLE RasExit(RasCall &c) {
    if (RasFile != NoFile && c.imageNumber >= 0) CloseHeld();
    if (c.pixels) {
        if (c.source) GlobalUnlock(c.pixels);
        GlobalFree(c.pixels);
    }
    if (c.block && c.dib) GlobalUnlock(c.block);
    TL_HANDLE result = c.block;
    if (c.discard || ErrorStatus()) {
        if (c.block) GlobalFree(c.block);
        result = nullptr;
    }
    if (result == nullptr) {
        // A failed call never holds a file, and the next call starts afresh.
        CloseHeld();
        ClearMemo();
        RasState.Index = -1;
        return nullptr;
    }
    memcpy(RasMemo.Name, c.path, sizeof RasMemo.Name);
    RasMemo.Number = c.imageNumber;
    return result;
}

}  // namespace

int32_t RasInFile(int64_t value, int32_t relative) {
    int64_t position = relative == 1 ? value + Tell() : value;
    // Up to FileLength is inside.  A negative position is outside too: no
    // record lies in front of the file.
    if (position >= 0 && position <= RasState.FileLength) return 1;
    CloseHeld();
    return 0;
}

int32_t RasReadAt(const char *name, int32_t offset, void *buffer, int32_t count) {
    if (!RasInFile(int64_t(offset) + count, 1)) return 0;
    SetErrorContinue(1);
    SetErrorBox(0);
    if (offset != 0 && TL_SEEK(RasFile, offset, 1) != 0) {
        ReportError("ReadRAS", name, 1);
        RestoreFlags();
        ErrorClear();
        return 0;
    }
    if (TL_READ(buffer, uint32_t(count), RasFile) < uint32_t(count)) ReportError("ReadRAS", name, 1);
    RestoreFlags();
    if (ErrorStatus()) {
        ErrorClear();
        return 0;
    }
    return 1;
}

int32_t RasSkip(const char *name, int64_t offset, int32_t method) {
    if (method == 0) {
        if (!RasInFile(offset, 0)) return 0;
    } else {
        // A relative move may pass the end of the file (the next read then
        // finds that out), but a target outside the signed 32-bit positions
        // of the format can hold no record: 0 at once, with no seek.
        int64_t target = offset + Tell();
        if (target < 0 || target > RasMaxPosition || offset < INT32_MIN || offset > INT32_MAX) return 0;
    }
    if (offset == 0) return 1;
    SetErrorContinue(1);
    SetErrorBox(0);
    if (TL_SEEK(RasFile, int32_t(offset), method) != 0) ReportError("ReadRAS", name, 1);
    RestoreFlags();
    if (ErrorStatus()) {
        ErrorClear();
        return 0;
    }
    return 1;
}

TL_HANDLE ReadRAS(const char *name, int32_t imageNumber) {
    RasStateRecord &s = RasState;
    if (name == nullptr) {
        CloseHeld();
        ClearMemo();
        RasMemo.EndFlag = 0;
        return nullptr;
    }
    s.SavedContinue = GetErrorContinue();
    s.SavedBox = GetErrorBox();

    char path[PathBytes] = {};
    if (name[0] == '\0') {
        memcpy(path, RasMemo.Name, sizeof path);
        path[PathBytes - 1] = '\0';
    } else if (_fullpath(path, name, PathBytes) == nullptr) {
        // The absolute form of the name does not fit a path buffer: there is
        // no file to read.  The file table's own words say why, and as after
        // any failure no file is held and the memo is cleared.
        CloseHeld();
        ClearMemo();
        RasMemo.EndFlag = 0;
        s.Index = -1;
        ReportError("TOPEN", "TL_OPEN  filename too long", 0);
        return nullptr;
    }

    RasCall c{path, imageNumber};
    bool opened = false;
    if (RasFile != NoFile) {
        RasMemo.EndFlag = 0;
        if (strcmp(RasMemo.Name, path) != 0 || RasMemo.Number != -1) {
            CloseHeld();
        } else if (imageNumber == -1) {
            // Walking: go on behind the last image read.
            if (!RasSkip(path, s.NextOffset, 0)) return RasExit(c);
            opened = true;
        } else {
            // Image 0, a number below -1, or a numbered read during the walk.
            // The records a walk has read do not count towards Index, so a
            // numbered read counted from NextOffset would deliver an image
            // other than the one asked for.  We count from the first record
            // instead: image N of the file, as everywhere else in the library.
            if (TL_SEEK(RasFile, RasHeaderSize, 0) != 0) ReportError("ReadRAS", path, 1);
            if (ErrorStatus()) return RasExit(c);
            s.Index = 0;
            opened = true;
        }
    } else if (strcmp(RasMemo.Name, path) == 0 && RasMemo.EndFlag != 0) {
        // The image before was the last: this call ends the file, silently.
        ClearMemo();
        RasMemo.EndFlag = 0;
        return nullptr;
    } else {
        RasMemo.EndFlag = 0;
    }

    if (!opened && RasOpen(c) == Then::Return0) return nullptr;
    if (ErrorStatus()) return RasExit(c);
    if (!RasStepToRecord(c)) return RasExit(c);
    if (RasReadImage(c) == Then::Return0) return nullptr;
    return RasExit(c);
}
