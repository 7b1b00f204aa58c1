// fax_stream.h - what the fax tests share: a CCITT bit writer, plain per-pixel
// encoders, and a harness that decodes a strip through the decoder's entry points.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/win32.h"
#include "services/errors.h"
#include "fax/code_words.h"
#include "fax/fax.h"
#include "fax/row_decoders.h"
#include "fax/state.h"
#include "tiff/directory.h"

namespace faxtest {

// Appends bits, first bit at the top of a byte.
struct BitWriter {
    std::vector<uint8_t> bytes;
    uint32_t bits = 0;

    void Bit(int b) {
        if (bits % 8 == 0) bytes.push_back(0);
        if (b) bytes.back() |= uint8_t(0x80u >> (bits % 8));
        ++bits;
    }
    BitWriter &Bits(std::string_view text) {
        for (char c : text)
            if (c == '0' || c == '1') Bit(c == '1');
        return *this;
    }
    BitWriter &Zeros(int n) { return Bits(std::string(size_t(n), '0')); }
    // Make-up codes of 2560 while more is left, then one make-up and the terminating code.
    BitWriter &Run(bool black, uint32_t n) {
        for (; n > 2623; n -= 2560) Bits(faxcodes::ExtendedMakeUp[12]);
        if (const uint32_t m = n / 64; m > 0)
            Bits(m > 27 ? faxcodes::ExtendedMakeUp[m - 28] : (black ? faxcodes::BlackMakeUp : faxcodes::WhiteMakeUp)[m - 1]);
        n %= 64;
        return Bits(black ? faxcodes::BlackTerminating[n] : faxcodes::WhiteTerminating[n]);
    }
    BitWriter &Eol() { return Bits(faxcodes::Eol); }
    BitWriter &Align() {
        while (bits % 8) Bit(0);
        return *this;
    }
};

// A row of pixels, true black.
using Row = std::vector<bool>;

inline bool Pixel(const Row &row, int32_t i) { return i >= 0 && i < int32_t(row.size()) && row[size_t(i)]; }

// One-dimensional coding of a row: white, black, white ... runs.
inline void Encode1D(BitWriter &w, const Row &row) {
    bool black = false;
    for (size_t pos = 0, end; pos < row.size(); pos = end, black = !black) {
        for (end = pos; end < row.size() && row[end] == black;) ++end;
        w.Run(black, uint32_t(end - pos));
    }
}

// Two-dimensional coding of a row against ref, the changing elements found one pixel at a time.
inline void Encode2D(BitWriter &w, const Row &row, const Row &ref) {
    const int32_t width = int32_t(row.size());
    auto change = [&](const Row &line, int32_t from) {  // the next pixel unlike the one before it
        while (++from < width && Pixel(line, from) == Pixel(line, from - 1)) {}
        return from;
    };
    bool colour = false;
    for (int32_t a0 = -1; a0 < width;) {
        int32_t a1 = a0 + 1, b1 = a0;
        while (a1 < width && Pixel(row, a1) == colour) ++a1;
        do b1 = change(ref, b1);
        while (b1 < width && Pixel(ref, b1) == colour);
        const int32_t b2 = change(ref, b1);
        if (b2 < a1) {
            w.Bits("0001");
            a0 = b2;
        } else if (a1 - b1 >= -3 && a1 - b1 <= 3) {
            static const char *const vertical[7] = {"0000010", "000010", "010", "1", "011", "000011", "0000011"};
            w.Bits(vertical[a1 - b1 + 3]);
            a0 = a1;
            colour = !colour;
        } else {
            int32_t a2 = a1;
            while (a2 < width && Pixel(row, a2) == !colour) ++a2;
            w.Bits("001").Run(colour, uint32_t(a1 - std::max(a0, 0))).Run(!colour, uint32_t(a2 - a1));
            a0 = a2;
        }
    }
}

// A page as compression 2, 3 or 4 codes it (options bit 0: a tag bit before each row, every
// k-th row one-dimensional), with fill bits of several lengths before the EOLs.
inline std::vector<uint8_t> EncodePage(uint16_t compression, uint32_t options, const std::vector<Row> &rows,
                                       size_t k = size_t(-1)) {
    BitWriter w;
    Row ref(rows.empty() ? 0 : rows[0].size(), false);
    for (size_t y = 0; y < rows.size(); ++y) {
        const bool twoD = compression == 4 || ((options & 1u) && y % k != 0);
        if (compression == 3) w.Zeros(int(y % 3) * 3).Eol();
        if (options & 1u) w.Bit(twoD ? 0 : 1);
        if (twoD) Encode2D(w, rows[y], ref);
        else Encode1D(w, rows[y]);
        if (compression == 2) w.Align();
        ref = rows[y];
    }
    return w.bytes;
}

// Packs a row as the decoder writes it: leftmost pixel in the top bit.
inline std::vector<uint8_t> Pack(const Row &row) {
    std::vector<uint8_t> out((row.size() + 7) / 8, 0);
    for (size_t i = 0; i < row.size(); ++i)
        if (row[i]) out[i / 8] |= uint8_t(0x80u >> (i % 8));
    return out;
}

// Each byte's bits in the other order, as FillOrder 2 stores them.
inline std::vector<uint8_t> Reversed(std::vector<uint8_t> bytes) {
    for (auto &b : bytes) {
        uint8_t r = 0;
        for (int i = 0; i < 8; ++i)
            if (b & (1 << i)) r |= uint8_t(0x80 >> i);
        b = r;
    }
    return bytes;
}

// TiffImage set up for one strip of `data` as the directory and strip engine would.
struct Strip {
    std::vector<uint8_t> data;
    int32_t prepared = 0;
    bool overrun = false;  // a row was written past its bytes

    Strip(uint16_t compression, uint32_t width, std::vector<uint8_t> bytes, uint32_t group3Options = 0,
          uint16_t fillOrder = 1)
        : data(std::move(bytes)) {
        std::memset(&TiffImage, 0, sizeof TiffImage);
        TiffImage.imageWidth = width;
        TiffImage.scanlineSize = (width + 7) / 8;
        TiffImage.compression = compression;
        TiffImage.group3Options = group3Options;
        TiffImage.fillOrder = fillOrder;
        TiffImage.isCcitt = true;
        FaxStart(compression);
        Restart();
    }
    ~Strip() { FaxRelease(); }
    // Back to the strip's first byte, as a new strip starts.
    void Restart() {
        TiffImage.rawCursor = data.data();
        TiffImage.rawLeft = int32_t(data.size());
        TiffImage.currentRow = 0;
        prepared = FaxPrepareStrip();
    }
    // Decodes one row as TIFFDecodeLine does; the driver's result in *result.
    std::vector<uint8_t> Next(int32_t *result = nullptr) {
        std::vector<uint8_t> row(TiffImage.scanlineSize + 8, 0xAA);  // 8 bytes of sentinel
        int32_t r = TiffImage.compression == 4 ? FaxDecodeRowsG4(row.data(), int32_t(TiffImage.scanlineSize))
                                               : FaxDecodeRows(row.data(), int32_t(TiffImage.scanlineSize));
        ++TiffImage.currentRow;
        if (result) *result = r;
        for (size_t i = TiffImage.scanlineSize; i < row.size(); ++i)
            if (row[i] != 0xAA) overrun = true;
        row.resize(TiffImage.scanlineSize);
        return row;
    }
};

}  // namespace faxtest

// The decoders' steps on the strip of the static record, as a row decoder
// takes them: the stream loaded, one step, the stream stored back.
inline bool FaxFetchByte() {
    FaxBits bits = LoadBits();
    const bool fetched = FaxFetchByte(bits);
    StoreBits(bits);
    return fetched;
}
inline void FaxSkipToEol(int32_t zerosSeen) {
    FaxBits bits = LoadBits();
    FaxSkipToEol(bits, zerosSeen);
    StoreBits(bits);
}
inline uint32_t FaxReadTagBit() {
    FaxBits bits = LoadBits();
    const uint32_t bit = FaxReadTagBit(bits);
    StoreBits(bits);
    return bit;
}
inline int32_t FaxDecodeRun(int32_t colour) {
    FaxBits bits = LoadBits();
    const int32_t run = FaxDecodeRun(bits, colour);
    StoreBits(bits);
    return run;
}
inline int32_t FaxDecodeRow1D(uint8_t *row, int32_t width) {
    FaxBits bits = LoadBits();
    const int32_t result = FaxDecodeRow1D(bits, row, width);
    StoreBits(bits);
    return result;
}
inline int32_t FaxDecodeRow2D(uint8_t *row, int32_t width) {
    FaxBits bits = LoadBits();
    const int32_t result = FaxDecodeRow2D(bits, row, faxState->refLine, width);
    StoreBits(bits);
    return result;
}
