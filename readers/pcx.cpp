// pcx.cpp - the PCX reader.
//
// A PCX file is a 128-byte header and the scan lines, top line first, each
// run-length coded as one unit of NPlanes x BytesPerLine bytes.  One plane
// gives a 1-bit block (file bit 1 is white, so the bits are inverted and the
// palette is white then black); four planes give a 4-bit block with the
// fixed 16-colour palette.  The file's own colour map is never used.
#include "readers/pcx.h"

#include <algorithm>
#include <cstring>

#include "core/bytes.h"
#include "core/checked.h"
#include "platform/win32.h"
#include "services/errors.h"

namespace {

constexpr char Title[] = "ReadPCX";
constexpr char IllegalHeaderText[] = "Illegal PCX image header or unsupported format in file %s";
constexpr char LineMemoryText[] = "Out of memory (image line allocation %s)";
constexpr char MissingLinesText[] = "Missing lines in image file %s";

// Room for the longest text above with a path of 259 characters.
constexpr size_t MessageBytes = sizeof IllegalHeaderText + PathBytes;

// The reader's statics: its walk memo, its file (NoFile between calls: the
// file is closed before every return) and the path of the present call.
ReaderMemo PcxMemo = {};
ManagedFile PcxFile = NoFile;
char PcxPath[PathBytes] = {};

// Read-ahead for PcxReadLine.  The scan lines are the last thing read from
// the file and the file is closed right after them, so reading ahead changes
// nothing that can be seen: the bytes decoded are the same, and a file that
// ends early fails at the same decoded byte, with the same report, as a
// reader taking one byte per call would.  ReadPCX empties it for each file.
struct PcxInput {
    ManagedFile file = NoFile;
    uint32_t next = 0;
    uint32_t end = 0;
    uint8_t bytes[4096];
};
PcxInput Input;

void InputReset(ManagedFile file) {
    Input.file = file;
    Input.next = 0;
    Input.end = 0;
}

// The next byte of the file into b; false (reported) when there is none.
bool NextByte(ManagedFile file, uint8_t &b) {
    if (Input.next == Input.end) {
        Input.next = 0;
        Input.end = TL_READ(Input.bytes, sizeof Input.bytes, file);
        if (Input.end > sizeof Input.bytes) Input.end = 0;  // never trust a count past the buffer
        if (Input.end == 0) {
            ReportError(Title, PcxPath, 1);
            return false;
        }
    }
    b = Input.bytes[Input.next++];
    return true;
}

// Header fields, little-endian.
struct PcxHeader {
    int32_t width;
    int32_t height;
    int32_t planes;
    int32_t bytesPerLine;
    int16_t hDpi;
};

PcxHeader ParseHeader(const uint8_t *h) {
    PcxHeader out;
    out.width = int32_t(LoadI16(h + 8)) - LoadI16(h + 4) + 1;
    out.height = int32_t(LoadI16(h + 10)) - LoadI16(h + 6) + 1;
    out.hDpi = LoadI16(h + 12);  // VDpi at 14 is not read: HDpi sets both
    out.planes = h[65];
    out.bytesPerLine = LoadI16(h + 66);
    return out;
}

// For the 4-plane conversion: PlaneSpread[p][v] holds the contribution of
// plane p's byte v to the four output bytes of its column, as a
// little-endian word (output byte 0 in the low 8 bits).  Pixel j of the
// column (bit 0x80 >> j) is nibble j of the output, the left pixel of each
// pair in the high nibble.  The plane's weight is 8 >> p reversed through
// NibbleReverse, so plane 0 is the lowest bit of a pixel and plane 3 the
// highest.
constexpr auto PlaneSpread = [] {
    std::array<std::array<uint32_t, 256>, 4> table{};
    for (int p = 0; p < 4; ++p) {
        uint32_t weight = NibbleReverse[8 >> p];
        for (int v = 0; v < 256; ++v) {
            uint32_t word = 0;
            for (int j = 0; j < 8; ++j) {
                if (!(v & (0x80 >> j))) continue;
                uint32_t shift = 8 * uint32_t(j / 2) + (j % 2 == 0 ? 4 : 0);
                word |= weight << shift;
            }
            table[p][v] = word;
        }
    }
    return table;
}();

// One plane: the row is the line with every bit inverted, at most a stride
// of it; what the line does not reach stays 0.
void ConvertLine1(const uint8_t *line, uint32_t lineBytes, uint8_t *row, uint32_t stride) {
    uint32_t n = std::min(lineBytes, stride);
    for (uint32_t i = 0; i < n; ++i) row[i] = uint8_t(~line[i]);
}

// Four planes: each column byte of the planes becomes four output bytes of
// eight 4-bit pixels.  Columns whose output would pass the row's stride are
// dropped (the stride is a multiple of 4, so a column fits whole or not at
// all).
void ConvertLine4(const uint8_t *line, uint32_t bytesPerLine, uint8_t *row, uint32_t stride) {
    uint32_t columns = std::min(bytesPerLine, stride / 4);
    const uint8_t *p0 = line;
    const uint8_t *p1 = p0 + bytesPerLine;
    const uint8_t *p2 = p1 + bytesPerLine;
    const uint8_t *p3 = p2 + bytesPerLine;
    for (uint32_t c = 0; c < columns; ++c) {
        uint32_t word = PlaneSpread[0][p0[c]] | PlaneSpread[1][p1[c]] | PlaneSpread[2][p2[c]] | PlaneSpread[3][p3[c]];
        StoreU32(row + 4 * c, word);
    }
}

void ReportWithPath(const char *format) {
    char text[MessageBytes];
    wsprintfA(text, format, PcxPath);
    ReportError(Title, text, 0);
}

}  // namespace

int32_t PcxHeaderOk(const uint8_t *header) {
    if (header[0] != 10) return 0;
    uint8_t version = header[1];
    if (version != 0 && version != 2 && version != 3 && version != 5) return 0;
    if (header[2] > 1) return 0;  // Encoding 0 or 1; the data are run-length coded either way
    if (header[3] != 1) return 0;
    if (header[65] != 1 && header[65] != 4) return 0;
    return 1;
}

int32_t PcxPelsPerMeter(int16_t dpi) {
    // 39.37 as stored in single precision is 39.369998931884766, so 300 dpi
    // gives 11810.99968 and thus 11810.
    constexpr float InchesPerMetre = 39.37f;
    return int32_t(static_cast<long double>(dpi) * static_cast<long double>(InchesPerMetre));
}

int32_t PcxReadLine(int32_t count, uint8_t *buffer, ManagedFile file) {
    if (count < 1) return 1;
    if (Input.file != file) InputReset(file);
    if (ErrorStatus()) return 0;
    uint32_t end = uint32_t(count);
    uint32_t pos = 0;
    while (pos < end) {
        uint8_t b;
        if (!NextByte(file, b)) return 0;
        if ((b & 0xC0) != 0xC0) {
            buffer[pos++] = b;
            continue;
        }
        // A run: 0xC0 is a run of 0 that still takes its data byte, 0xFF a
        // run of 63.  Runs may cross planes; the part past the line's end
        // is dropped, since every line starts afresh.
        uint32_t run = b & 0x3Fu;
        uint8_t value;
        if (!NextByte(file, value)) return 0;
        uint32_t n = std::min(run, end - pos);
        memset(buffer + pos, value, n);
        pos += n;
    }
    return 1;
}

TL_HANDLE ReadPCX(const char *name, int32_t imageNumber) {
    if (MemoHead(PcxMemo, PcxFile, name, PcxPath) != MemoStep::Read) return nullptr;

    PcxFile = TL_OPEN(PcxPath, "rb");
    if (ErrorStatus()) {
        // A failed open leaves the memo as the head left it.  (A file that
        // opened while an older report was still pending is not left open.)
        if (PcxFile != NoFile) TL_CLOSE(PcxFile);
        PcxFile = NoFile;
        return nullptr;
    }
    InputReset(PcxFile);

    HGLOBAL block = nullptr;
    uint8_t *bits = nullptr;
    HLOCAL lineBlock = nullptr;
    uint8_t *line = nullptr;
    uint8_t header[PcxHeaderBytes];
    PcxHeader h{};
    uint32_t stride = 0, imageSize = 0, blockSize = 0, colours = 0, lineBytes = 0;
    int32_t rows = 0;

    if (TL_READ(header, PcxHeaderBytes, PcxFile) < uint32_t(PcxHeaderBytes)) ReportError(Title, PcxPath, 1);
    if (ErrorStatus()) goto done;

    h = ParseHeader(header);
    // A zero or negative width or height describes no image, and sizes
    // computed from it would be too small for the header and palette: such
    // a header is refused like an unsupported one.
    if (!PcxHeaderOk(header) || h.width <= 0 || h.height <= 0) {
        ReportWithPath(IllegalHeaderText);
        goto done;
    }

    // Width and height are at most 65536 and planes at most 4, so the stride
    // cannot overflow; the image and block sizes are checked, and a size
    // past the library's ceiling is out of memory.
    colours = 1u << h.planes;
    if (!checked::DibStride(h.width, uint32_t(h.planes), &stride) ||
        !checked::Mul(uint32_t(h.height), stride, &imageSize) ||
        !checked::Add(imageSize, TL_DIB_HEADER_SIZE + 4 * colours, &blockSize) || blockSize > checked::MaxBlockBytes) {
        ReportError(Title, "Out of memory", 0);
        goto done;
    }
    block = GlobalAlloc(GHND, blockSize);
    if (block) bits = static_cast<uint8_t *>(GlobalLock(block));
    if (!bits) {
        ReportError(Title, "Out of memory", 0);
        goto done;
    }

    // A BytesPerLine of 0 or below leaves no line to decode into: that is
    // the line allocation's report.
    if (h.bytesPerLine > 0) {
        lineBytes = uint32_t(h.planes) * uint32_t(h.bytesPerLine);
        lineBlock = LocalAlloc(LMEM_MOVEABLE, lineBytes);
        if (lineBlock) line = static_cast<uint8_t *>(LocalLock(lineBlock));
    }
    if (!line) {
        ReportWithPath(LineMemoryText);
        goto done;
    }

    {
        // The first scan line is the bottom row of the block.
        uint8_t *pixels = bits + TL_DIB_HEADER_SIZE + 4 * colours;
        while (rows < h.height) {
            if (!PcxReadLine(int32_t(lineBytes), line, PcxFile)) break;
            uint8_t *row = pixels + size_t(h.height - 1 - rows) * stride;
            if (h.planes == 1)
                ConvertLine1(line, lineBytes, row, stride);
            else
                ConvertLine4(line, uint32_t(h.bytesPerLine), row, stride);
            ++rows;
        }
    }
    LocalUnlock(lineBlock);
    LocalFree(lineBlock);
    lineBlock = nullptr;
    line = nullptr;

    if (rows < h.height) {
        // Also after a failed read: the callback hears the path first, then this.
        ReportWithPath(MissingLinesText);
    } else {
        int32_t pelsPerMeter = PcxPelsPerMeter(h.hDpi);
        StoreU32(bits + TL_DIB_BI_SIZE, TL_DIB_HEADER_SIZE);
        StoreU32(bits + TL_DIB_BI_WIDTH, uint32_t(h.width));
        StoreU32(bits + TL_DIB_BI_HEIGHT, uint32_t(h.height));
        StoreU16(bits + TL_DIB_BI_PLANES, 1);
        StoreU16(bits + TL_DIB_BI_BITCOUNT, uint16_t(h.planes));
        StoreU32(bits + TL_DIB_BI_COMPRESSION, 0);
        StoreU32(bits + TL_DIB_BI_SIZEIMAGE, imageSize);
        StoreU32(bits + TL_DIB_BI_XPELSPERMETER, uint32_t(pelsPerMeter));
        StoreU32(bits + TL_DIB_BI_YPELSPERMETER, uint32_t(pelsPerMeter));
        StoreU32(bits + TL_DIB_BI_CLRUSED, colours);
        StoreU32(bits + TL_DIB_BI_CLRIMPORTANT, colours);
        uint8_t *palette = bits + TL_DIB_HEADER_SIZE;
        if (h.planes == 1) {
            static constexpr uint8_t WhiteBlack[8] = {255, 255, 255, 0, 0, 0, 0, 0};
            memcpy(palette, WhiteBlack, sizeof WhiteBlack);
        } else {
            memcpy(palette, DefaultPalette16.data(), DefaultPalette16.size());
        }
    }

done:
    if (lineBlock) {
        if (line) LocalUnlock(lineBlock);
        LocalFree(lineBlock);
    }
    if (bits) GlobalUnlock(block);
    if (ErrorStatus() && block) {
        GlobalFree(block);
        block = nullptr;
    }
    TL_CLOSE(PcxFile);
    PcxFile = NoFile;
    InputReset(NoFile);
    // The walk goes on after a failed read too: a damaged file walked with
    // -1 gives its report and 0, then 0 with no report, then starts again.
    MemoTail(PcxMemo, imageNumber, PcxPath);
    return block;
}
