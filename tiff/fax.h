// fax.h - the CCITT decoders of the TIFF reader: compression 2 (run-length
// rows), 3 (T.4, one- and two-dimensional) and 4 (T.6).
//
// The strip engine calls four entry points: FaxStart when a directory of a
// CCITT image has been read, FaxPrepareStrip at the start of each strip,
// FaxDecodeRows (compressions 2 and 3) or FaxDecodeRowsG4 (compression 4)
// for each row, and FaxRelease when the image is closed.  The input is the
// strip in memory at TiffImage's rawCursor/rawLeft; the output is one packed
// row, leftmost pixel in the top bit, black 1.
//
// Code words are decoded a byte at a time through three state tables of one
// form (FaxRunTable, FaxModeTable, FaxUncompressedTable): 256 columns, one
// per input byte after byteMap, and a row per decoder state.  An entry holds
// an action in its high byte and the next state in its low byte, and is
// stored XORed with FaxTableKey(row).  States 0..7 are bit positions in a
// byte; a larger state is a code word begun in an earlier byte.  The row
// decoders take the common code words from a 64-bit window of the stream
// by the one-look-up tables below, and leave the rest (EOL, fill, bad
// patterns, long make-up chains, a strip's last bits) to the state tables.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

// The working record of the decoders; it lives in TiffImage's ccittBlock,
// followed by a guard byte of 0 and the reference line when the image has
// two-dimensional rows.
struct FaxState {
    uint16_t curByte;        // byte under decoding, already through byteMap
    int16_t position;        // 0: fetch next; 1..7: bits of curByte used; >7: begun word
    uint32_t rowBytes;       // copy of scanlineSize
    uint32_t rowPixels;      // copy of imageWidth
    uint32_t nextIs2D;       // 1: the next row of FaxDecodeRows is two-dimensional
    const uint8_t *byteMap;  // BitOrderTable(fillOrder != 1)
    uint8_t *refLine;        // reference line, behind the guard byte; null if none
    // The rows as lists of changing elements (see fax_changes.h), for rows
    // of up to FaxChangesMaxWidth pixels; both null for wider rows, which
    // are decoded into the bitmap and against refLine alone.
    int32_t *refChanges;     // the reference line's changes, closed by sentinels
    int32_t *curChanges;     // the changes of the row under decoding
    uint32_t refLineStale;   // 1: refLine does not hold refChanges' pixels yet
    uint32_t rowFromBitmap;  // 1: the last row was decoded against refLine
    // A row that found no data (-3) but a few bits too short for a code
    // leaves the stream as it was, so every later row of the strip would
    // decode those bits again to the same end.  The stream it stopped on
    // and its kind are kept to give those rows at once, when the row made
    // no report and left a white row; stallCursor is null when no row has
    // stalled so in this strip.
    const uint8_t *stallCursor;
    int32_t stallPosition;
    uint32_t stallCurByte;
    uint32_t stall2D;
};

extern FaxState *faxState;  // null while no record exists
extern uint16_t faxScheme;  // the image's compression

// ---- state tables ----
constexpr uint32_t FaxRunRows = 230;           // 8 white + 8 black positions, 2 x 107 begun words
constexpr uint32_t FaxModeRows = 20;           // 8 positions, 12 begun mode codes
constexpr uint32_t FaxUncompressedRows = 18;   // 8 positions, 10 begun codes (0 .. ten zeros)
constexpr int32_t FaxBlack = 8;                // colour offset of the black rows of FaxRunTable

// Key that an entry of table row r is XORed with in storage.
constexpr uint16_t FaxTableKey(uint32_t r) { return uint16_t(((~r & 0xFFu) << 8) | 0xFFu); }

extern const std::array<uint16_t, FaxRunRows * 256> FaxRunTable;
extern const std::array<uint16_t, FaxModeRows * 256> FaxModeTable;
extern const std::array<uint16_t, FaxUncompressedRows * 256> FaxUncompressedTable;

// Look-up tables of the fast path, built from the same code words: run
// codes by colour (0 white, 1 black) in the next 8 bits, and the longer
// ones in the next 13; mode codes of up to 7 bits in the next 7.  A run
// entry is run * 16 + bits, a mode entry action * 8 + bits; 0 where the
// state tables must decide.
extern const std::array<uint16_t, 2 * 256> FaxRunFirst;
extern const std::array<uint16_t, 2 * 8192> FaxRunLong;
extern const std::array<uint8_t, 128> FaxModeFirst;
// Two runs of opposite colours, both terminating codes, in the next 12
// bits, white first (entries 0..4095) or black first (4096..): first * 16 +
// second * 1024 + bits; 0 where they don't fit.
extern const std::array<uint16_t, 2 * 4096> FaxPairFirst;
// Two vertical codes in the next 8 bits: (d1 + 3) + bits1 * 8 + (d2 + 3) *
// 64 + bits2 * 512; 0 where the next bits don't begin with two.
extern const std::array<uint16_t, 256> FaxVerticalPair;

// FaxRunTable actions.
constexpr uint32_t FaxRunNone = 0;      // no code word completed in this byte
constexpr uint32_t FaxRunInvalid = 1;   // no code word of this colour
constexpr uint32_t FaxRunEol = 2;       // EOL
constexpr uint32_t FaxRunTerm = 3;      // 3 + n: terminating code of run n (0..63)
constexpr uint32_t FaxRunMakeUp = 67;   // 67 + m / 64: make-up code of run m (64..2560)

// FaxModeTable actions.
enum FaxMode : uint32_t {
    FaxModeNone = 0,
    FaxModePass = 1,
    FaxModeHorizontal = 2,
    FaxModeVertical0 = 6,        // 3..9: vertical, a1 = b1 + action - 6
    FaxModeUncompressed = 10,
    FaxModeInvalid = 11,
    FaxModeEolBegun = 12,
};

// FaxReadUncompressedCode results.
constexpr int32_t FaxUncBlack1 = 2;        // 2..6: (code - 2) white, one black
constexpr int32_t FaxUncWhite5 = 7;        // five white
constexpr int32_t FaxUncExit0 = 8;         // 8..12: (code - 8) white, the mode ends
constexpr int32_t FaxUncNoData = 13;       // data exhausted
constexpr int32_t FaxUncInvalid = 14;      // eleven or more zero bits: no code word

// ---- small fixed tables ----
extern const uint8_t FaxBitMask[8];         // the bit at position 0..7 from the top
extern const uint8_t FaxLeftMask[9];        // n bits set from the top
extern const std::array<uint8_t, 256> FaxLeadingZeros;  // 0 bits at the top of a byte, 8 for 0x00
extern const std::array<uint8_t, 256> FaxLeadingOnes;   // 1 bits at the top of a byte, 8 for 0xFF

// ---- entry points of the strip engine ----
// Forgets any record (without freeing: FaxRelease does that) and remembers
// the compression.  Allocates nothing.
void FaxStart(uint16_t scheme);
// Makes the record on the first call of an image, then resets the per-strip
// state; under compression 3 skips to the first EOL and reads the tag bit.
// 1, or 0 when no record exists and none can be made (no report here).
int32_t FaxPrepareStrip();
// Decodes size / rowBytes rows of compression 2 or 3 into row.  Always 1:
// a fault is reported ("Unexpected code in line %ld") and decoding goes on.
int32_t FaxDecodeRows(uint8_t *row, int32_t size);
// Decodes rows of compression 4.  1, or 0 when a row ended short at a bad
// code (reported).
int32_t FaxDecodeRowsG4(uint8_t *row, int32_t size);
// Decodes up to `rows` rows of any of the three compressions, each as one
// call of FaxDecodeRows or FaxDecodeRowsG4 would, with currentRow counted
// on after each: the first into `row`, each next one rowBytes below the one
// before (the bitmap's rows run upward).  Returns the rows delivered; stops
// before a row of compression 4 that failed (reported; `failed` set,
// currentRow counted), and after a row that leaves the strip with no byte:
// ReadTIF then decodes the next row itself and asks whether the ones behind
// it stay blank.  That row comes out white and unreported, as the rows
// passed by do.
uint32_t FaxDecodeRowsUpward(uint8_t *row, uint32_t rowBytes, uint32_t rows, bool &failed);
// Whether every later row of the current strip would come out white, with
// result -3, without a report anyone hears and without a change of state
// but the row count: the strip has no bits left, or only the bits a row
// has stalled on.  The reader then need not ask for those rows one by one.
bool FaxRowsStayBlank();
// Unlocks and frees the record's block if there is one; faxState is null after.
void FaxRelease();

// ---- shared routines of the one- and two-dimensional decoders ----
bool FaxFetchByte();                  // next byte through byteMap into curByte; false with none left
void FaxSkipToEol(int32_t zerosSeen); // ends behind the first 1 after >= 11 zero bits
uint32_t FaxReadTagBit();             // the masked bit: zero or non-zero
// Run length (0 or more) of colour 0 (white) or FaxBlack; -1 EOL, -2 no
// code word, -3 data exhausted.
int32_t FaxDecodeRun(int32_t colour);
// Sets count (> 0) pixels from pixel start of row to 1.
inline void FaxSetSpan(uint8_t *row, int32_t start, int32_t count);
// The same for a span past the end of its first byte; dest holds pixel start.
inline void FaxFillSpan(uint8_t *dest, int32_t start, int32_t count);
// One one-dimensional row into a cleared row: 1 done, -1 ended short, -3 no data.
int32_t FaxDecodeRow1D(uint8_t *row, int32_t width);

// ---- two-dimensional decoding ----
// One two-dimensional row into a cleared row against refLine: 1 done (or
// ended by EOL under compression 3), -1 ended short at a bad code, -3 no
// data, 0 an action above 12.
int32_t FaxDecodeRow2D(uint8_t *row, int32_t width);
// Pixels from start (before end) that are 0 (or 1) in an unbroken span.
// start may be as low as -8: index -1 is the guard byte before the line.
int32_t FaxFindZeros(const uint8_t *line, int32_t start, int32_t end);
int32_t FaxFindOnes(const uint8_t *line, int32_t start, int32_t end);
// Next uncompressed-mode code word: 2..12 or 14, 13 with no data left.
int32_t FaxReadUncompressedCode();

// ---- inline definitions ----

inline void FaxFillSpan(uint8_t *dest, int32_t start, int32_t count) {
    int32_t k = start & 7;
    if (k != 0) {
        *dest++ |= uint8_t(0xFFu >> k);
        count -= 8 - k;
    }
    uint32_t bytes = uint32_t(count) >> 3;
    // From 8 whole bytes on: single bytes up to a 4-byte boundary of the
    // address, then words of all ones, then the last bytes singly.
    if (bytes >= 8) {
        while (reinterpret_cast<uintptr_t>(dest) & 3) {
            *dest++ = 0xFF;
            --bytes;
        }
        const uint32_t ones = 0xFFFFFFFFu;
        for (; bytes >= 4; bytes -= 4, dest += 4) std::memcpy(dest, &ones, 4);
    }
    for (; bytes > 0; --bytes) *dest++ = 0xFF;
    if (count & 7) *dest |= FaxLeftMask[count & 7];
}

inline void FaxSetSpan(uint8_t *row, int32_t start, int32_t count) {
    int32_t k = start & 7;
    uint8_t *dest = row + (start >> 3);
    if (count <= 8 - k) {
        *dest |= uint8_t(FaxLeftMask[count] >> k);
    } else if (count <= 16 - k) {  // the span ends in the next byte
        dest[0] |= uint8_t(0xFFu >> k);
        dest[1] |= FaxLeftMask[count + k - 8];
    } else {
        FaxFillSpan(dest, start, count);
    }
}
