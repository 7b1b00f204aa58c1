// ras.h - the RAS reader: our own raster format with several images a file.
//
// A RAS file is a 2444-byte header followed by image records.  The header
// holds 16 keyed texts and a list of element descriptors that tells what one
// record consists of: the picture, the bytes before and behind it, how its
// rows run and how many bits a pixel has.  Two variants exist:
//
//   "bild"  Variant 'r': 2 colours, 1 or 8 bits, 1-bit rows bit-continuous
//   "bimp"  Variant 'b': palette from the keys "clrs"/"rgbq", 1, 4 or 8 bits,
//           1-bit rows one stride each with their bits inverted
//
// ReadRAS alone of the readers keeps its file open between calls: during a
// walk with a negative image number each call goes on where the last one
// stopped.  No fault of a file's contents is ever reported.
#pragma once

#include <cstdint>

#include "core/image.h"
#include "services/files.h"

constexpr int32_t RasHeaderSize = 2444;  // the first record starts here
constexpr int RasSlots = 16;             // keys and element descriptors
constexpr int RasMaxColours = 16;        // palette entries a header may give

// Offsets of the header's fields; slot i adds the stride given beside it.
constexpr int32_t RasMagicAt = 0;
constexpr int32_t RasRecordSizeAt = 4;
constexpr int32_t RasField8At = 8;
constexpr int32_t RasKeyAt = 12;            // 4 chars per slot
constexpr int32_t RasValueAt = 76;          // 128 chars per slot
constexpr int32_t RasValueBytes = 128;
constexpr int32_t RasElementNameAt = 2124;  // 4 chars per slot
constexpr int32_t RasDimAt = 2188;          // Dim0, Dim1: 8 bytes per slot
constexpr int32_t RasOrderAt = 2316;        // Order0, Order1: 2 bytes per slot
constexpr int32_t RasElementTypeAt = 2348;  // 2 chars per slot
constexpr int32_t RasElementBitsAt = 2380;  // 4 bytes per slot

// The reader's one static record: what the header says, refilled by every
// parse, and where the file stands during a walk.
struct RasStateRecord {
    uint8_t Header[RasHeaderSize];  // the header as read
    char Variant;                   // 'r' for "bild", 'b' for "bimp"
    int32_t Variable;               // 1: every record carries its own rows and columns
    int32_t Rows, Cols;             // the picture's extents; a record's stored size replaces them
    int32_t Bits;                   // bits per pixel: 1, 8, or 4 in variant 'b'
    int8_t Order0, Order1;          // row and column direction of the picture
    int32_t PixelBytes;             // bytes of pixel data of a record
    int32_t PrefixBytes;            // bytes of a record before its stored size
    int32_t GapBytes;               // bytes between the stored size and the pixels
    int32_t TailBytes;              // bytes of a record behind the pixels; may be negative
    int16_t Colours;                // palette entries, 0 to 16
    uint8_t Palette[RasMaxColours][4];  // blue, green, red, fourth byte
    int32_t HeaderRows, HeaderCols;     // the header's extents, kept when a record replaces Rows and Cols
    int32_t FileLength;             // length of the open file
    int32_t Index;                  // -1 before a parse; then records stepped over
    int32_t NextOffset;             // file offset behind the last image read
    int32_t SavedContinue, SavedBox;  // the error flags as the call found them
};

extern RasStateRecord RasState;
extern ReaderMemo RasMemo;     // the reader's memory of its last read
extern ManagedFile RasFile;    // the held file during a walk, else NoFile

// Fills RasState from Header.  1 when the file can be read, 0 for a
// rejection; never reports.
int32_t RasParseHeader();

// Writes the 4 bytes of `entry` from 8 hexadecimal characters of `text`,
// two a byte, high nibble first, in the text's order.
void RasParseColour(uint8_t *entry, const char *text);

// 1 when the position `value` (plus the file position if `relative` is 1)
// lies inside the file; otherwise closes the file and returns 0.
int32_t RasInFile(int64_t value, int32_t relative);

// Moves `offset` bytes forward and reads `count` bytes into `buffer`, as a
// silent attempt.  1, or 0 with no error left behind.
int32_t RasReadAt(const char *name, int32_t offset, void *buffer, int32_t count);

// Moves the file position: `method` 0 to `offset`, 1 by `offset`.  A silent
// attempt; 1, or 0 with no error left behind.
int32_t RasSkip(const char *name, int64_t offset, int32_t method);

// ReadRAS(name, imageNumber) - one image of a RAS file as a bitmap block.
//   1. name NULL resets the reader and closes a held file; result 0.
//   2. An empty name means the file of the last successful read.
//   3. imageNumber 0 the first image, N the image N records further, -1 the
//      next image of a walk (the file stays open between calls), below -1
//      image 0 with the file held.
//   4. After the last image of a file the next call for it gives 0 with no
//      report: that is how a caller sees the end.
//   5. A damaged or cut-off file gives 0 with ErrorPending clear (an
//      installed callback may still hear a read the system refused).  Only
//      a failed open, a failed header read or seek to the first record, a
//      failed position query ("Read error") and a lack of memory report.
//   6. The block is unlocked and the caller's; its biSizeImage is 0.
TL_HANDLE ReadRAS(const char *name, int32_t imageNumber);
