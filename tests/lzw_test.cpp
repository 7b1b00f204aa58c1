// The LZW and PackBits line decoders, fed from memory: round trips through
// an encoder written here from TIFF 6.0's description, and hand-made streams.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "services/errors.h"
#include "support/support.h"
#include "tiff/directory.h"
#include "tiff/lzw.h"
#include "tiff/packbits.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Codes of `width` bits, first bit at the top of a byte.
struct CodeWriter {
    Bytes out;
    uint32_t bits = 0;
    void Put(uint32_t code, int width) {
        for (int i = width - 1; i >= 0; --i, ++bits) {
            if (bits % 8 == 0) out.push_back(0);
            if (code >> i & 1) out.back() |= uint8_t(0x80u >> bits % 8);
        }
    }
};

Bytes Codes9(std::initializer_list<uint32_t> codes) {
    CodeWriter w;
    for (uint32_t c : codes) w.Put(c, 9);
    return w.out;
}

// An LZW strip of `in`.  clearAt: CLEAR once this many entries exist (4094
// as libtiff; above 4096 never); clearBefore: input positions to CLEAR before.
Bytes Encode(const Bytes &in, uint32_t clearAt = 4094, const std::set<size_t> &clearBefore = {}, bool leadingClear = true) {
    CodeWriter out;
    std::map<std::pair<uint32_t, uint8_t>, uint32_t> dict;
    uint32_t next = 258;
    // The width follows the entry the encoder adds next: the decoder is one entry behind and widens one code early.
    auto put = [&](uint32_t code) { out.Put(code, next <= 511 ? 9 : next <= 1023 ? 10 : next <= 2047 ? 11 : 12); };
    auto clear = [&] {
        put(256);
        dict.clear();
        next = 258;
    };
    if (leadingClear) clear();
    int64_t w = -1;
    for (size_t i = 0; i < in.size(); ++i) {
        if (clearBefore.count(i) && w >= 0) {
            put(uint32_t(w));
            ++next;  // the decoder fills an entry for it before it reads CLEAR
            clear();
            w = -1;
        }
        if (w < 0) {
            w = in[i];
        } else if (auto it = dict.find({uint32_t(w), in[i]}); it != dict.end()) {
            w = it->second;
        } else {
            put(uint32_t(w));
            if (next < 4096) dict[{uint32_t(w), in[i]}] = next++;
            w = in[i];
            if (next >= clearAt) clear();
        }
    }
    if (w >= 0) put(uint32_t(w)), ++next;
    put(257);
    return out.out;
}

Bytes Noise(size_t n, int alphabet, uint32_t seed) {
    std::mt19937 rng(seed);
    Bytes v(n);
    for (auto &b : v) b = uint8_t(rng() % alphabet * (256 / alphabet));
    return v;
}

struct Decoded {
    Bytes data;
    int failedRow = -1;  // -2: LzwStartStrip refused the strip
    bool guardsIntact = true;
    std::vector<std::string> reports;
};

// Decodes rows of `rowBytes` from a strip of exactly `strip`'s bytes (a
// read behind it is an ASan fault) until `rows` are done or one fails;
// guard bytes around each row catch writes outside it.
Decoded Decode(bool lzw, Bytes strip, uint32_t rowBytes, uint32_t rows) {
    test::Recorder rec;
    TiffImage.rawCursor = strip.data();
    TiffImage.rawLeft = int32_t(strip.size());
    TiffImage.currentRow = 0;
    Decoded d;
    if (lzw && !LzwStartStrip()) d.failedRow = -2;
    // As in the bitmap block, the rows lie one below the other, the first at
    // the top, and stay as written while the strip is decoded; here each has
    // 8 guard bytes on either side, but for the first, which ends the
    // buffer as the top row ends the block: a read or write behind it is an
    // ASan fault.
    const size_t pitch = rowBytes + 16;
    Bytes image(pitch * rows - 8, 0xEE);
    for (uint32_t r = 0; r < rows && d.failedRow == -1; ++r, ++TiffImage.currentRow) {
        const auto row = image.begin() + ptrdiff_t(pitch * (rows - 1 - r));
        if (!(lzw ? LzwDecodeLine : PackBitsDecodeLine)(&row[8], int32_t(rowBytes))) d.failedRow = int(r);
        else d.data.insert(d.data.end(), row + 8, row + 8 + ptrdiff_t(rowBytes));
        const auto after = r == 0 ? 0 : std::count(row + ptrdiff_t(pitch) - 8, row + ptrdiff_t(pitch), 0xEE);
        d.guardsIntact &= std::count(row, row + 8, 0xEE) + after == (r == 0 ? 8 : 16);
    }
    for (auto &x : rec.reports) {
        EXPECT_EQ(x.title, "TIFF Read");
        d.reports.push_back(x.text);
    }
    return d;
}

TEST(Lzw, RoundTripsThroughEveryCodeWidthAndAcrossRows) {
    test::QuietDefaults();
    struct Case {
        const char *what;
        Bytes data;
        uint32_t clearAt = 4094;
    } cases[] = {
        {"noise of 16 values, CLEAR at 4094", Noise(40000, 16, 1)},
        {"noise of 4 values, CLEAR once entry 4095 is filled", Noise(60000, 4, 2), 4096},
        {"white: strings up to 345 bytes, longer than a row of 310 and a byte-wide length", Bytes(60000, 0)},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        const Bytes stream = Encode(c.data, c.clearAt);
        for (uint32_t rowBytes : {1u, 7u, 310u}) {
            SCOPED_TRACE(rowBytes);
            const uint32_t rows = uint32_t(c.data.size() / rowBytes);
            Decoded d = Decode(true, stream, rowBytes, rows);
            EXPECT_EQ(d.failedRow, -1);
            EXPECT_TRUE(d.guardsIntact);
            EXPECT_TRUE(d.reports.empty());
            ASSERT_EQ(d.data.size(), size_t(rows) * rowBytes);
            EXPECT_TRUE(std::equal(d.data.begin(), d.data.end(), c.data.begin()));
        }
    }
    LzwRelease();
}

// PackBits rows, each coded on its own: runs of 2 and more, literals of up
// to 128.
Bytes PackRows(const Bytes &in, size_t rowBytes) {
    Bytes out;
    for (size_t start = 0; start < in.size(); start += rowBytes) {
        const size_t end = std::min(in.size(), start + rowBytes);
        for (size_t i = start; i < end;) {
            size_t run = 1;
            while (i + run < end && run < 128 && in[i + run] == in[i]) ++run;
            if (run >= 2) {
                out.push_back(uint8_t(1 - int(run)));
                out.push_back(in[i]);
                i += run;
                continue;
            }
            size_t literal = 1;
            while (i + literal < end && literal < 128 && (i + literal + 1 >= end || in[i + literal] != in[i + literal + 1]))
                ++literal;
            out.push_back(uint8_t(literal - 1));
            out.insert(out.end(), in.begin() + ptrdiff_t(i), in.begin() + ptrdiff_t(i + literal));
            i += literal;
        }
    }
    return out;
}

TEST(PackBits, ShortAndLongPacketsRoundTripAtEveryRowWidth) {
    test::QuietDefaults();
    // Runs and literals of 1 to `longest` bytes: short ones as text rows
    // give them, and every length up to 128, which takes the decoder's
    // whole-row path, its 16-byte steps behind the first 32 bytes and its
    // row-end path, at row widths around those steps.
    struct Case {
        const char *what;
        size_t longest;
        uint32_t seed;
        std::vector<uint32_t> rowWidths;
    } cases[] = {
        {"packets of 1 to 40 bytes", 40, 7, {1, 15, 16, 17, 31, 310}},
        {"packets of 1 to 128 bytes", 128, 8, {31, 32, 33, 34, 64, 65, 128, 129, 310, 1000}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        std::mt19937 rng(c.seed);
        Bytes data;
        while (data.size() < 20000) {
            const size_t n = 1 + rng() % (rng() % 4 == 0 ? c.longest : 6);
            const bool run = rng() % 2;
            const uint8_t value = uint8_t(rng());
            for (size_t i = 0; i < n; ++i) data.push_back(run ? value : uint8_t(rng()));
        }
        for (uint32_t rowBytes : c.rowWidths) {
            SCOPED_TRACE(rowBytes);
            const Bytes rows(data.begin(), data.begin() + ptrdiff_t(data.size() / rowBytes * rowBytes));
            Decoded d = Decode(false, PackRows(rows, rowBytes), rowBytes, uint32_t(rows.size() / rowBytes));
            EXPECT_EQ(d.failedRow, -1);
            EXPECT_TRUE(d.guardsIntact);
            EXPECT_TRUE(d.data == rows);
        }
    }
}

// A row that fails is white behind what was decoded: the rows of a bitmap
// block are not cleared before decoding, and no byte of an earlier block may
// show through a row the host keeps.
TEST(LineDecoders, AFailedRowEndsInZeros) {
    test::QuietDefaults();
    Bytes cut = Encode(Noise(5000, 16, 6));
    cut.resize(cut.size() / 2);
    const struct {
        const char *what;
        bool lzw;
        Bytes stream;
    } cases[] = {
        {"LZW cut inside the row", true, cut},
        {"LZW that names an entry not yet made", true, Codes9({256, 0x41, 300, 257})},
        {"PackBits: a run without its byte", false, {0x01, 5, 6, 0xFE}},
        {"PackBits: a literal cut by the strip's end", false, {0x7F, 1, 2, 3}},
        {"PackBits: a long literal cut by the strip's end", false, Bytes(60, 0x7F)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        test::Recorder rec;
        Bytes strip = c.stream;
        TiffImage.rawCursor = strip.data();
        TiffImage.rawLeft = int32_t(strip.size());
        TiffImage.currentRow = 0;
        TiffImage.rowsZeroed = false;
        if (c.lzw) {
            ASSERT_EQ(LzwStartStrip(), 1);
        }
        Bytes row(5000, 0xEE);
        EXPECT_EQ((c.lzw ? LzwDecodeLine : PackBitsDecodeLine)(row.data(), int32_t(row.size())), 0);
        EXPECT_EQ(std::count(row.begin(), row.end(), 0xEE), 0);
        EXPECT_EQ(rec.reports.size(), 1u);
    }
    LzwRelease();
}

TEST(LineDecoders, HandMadeStreamsAndFaults) {
    test::QuietDefaults();
    const Bytes noise = Noise(3000, 8, 4);
    Bytes cut = Encode(Noise(5000, 16, 6));
    cut.resize(cut.size() / 2);
    const std::vector<std::string> unexpected = {"Unexpected code in line 0"}, none;
    const std::vector<std::string> packBitsShort = {"Internal allocation error in line 0"};
    const bool lzw = true, packBits = false;
    struct Case {
        const char *what;
        bool lzw;
        Bytes stream;
        uint32_t rowBytes, rows;
        Bytes want;  // the rows that were delivered
        int failedRow;
        std::vector<std::string> reports;
    } cases[] = {
        {"CLEAR and literals at 9 bits", lzw, Codes9({256, 'a', 'b', 'c', 257}), 3, 1, {'a', 'b', 'c'}, -1, none},
        {"the code of the string being defined", lzw, Codes9({256, 'a', 258, 259, 257}), 6, 1, Bytes(6, 'a'), -1, none},
        {"no leading CLEAR", lzw, Encode(noise, 4094, {}, false), 1000, 3, noise, -1, none},
        {"stream cut inside a row", lzw, cut, 5000, 1, {}, 0, unexpected},
        {"first code names an entry not yet made", lzw, Codes9({256, 0x41, 300, 257}), 8, 1, {}, 0, unexpected},
        {"no CLEAR and a first code of 258", lzw, Codes9({258, 0x41, 257}), 4, 1, {}, 0, unexpected},
        {"a code above 255 right after CLEAR", lzw, Codes9({256, 260, 0x41, 257}), 4, 1, {}, 0, unexpected},
        {"table full without CLEAR", lzw, Encode(Noise(40000, 16, 5), 5000), 40000, 1, {}, 0,
         {"Internal error in LZW decoding"}},
        {"the first nine bits spell CLEAR lowest bit first", lzw, {0x00, 0x01, 0x55}, 1, 1, {}, -2, none},
        {"-128 costs one byte; the next is a control byte", packBits, {0x80, 0x00, 0x41}, 1, 1, {0x41}, -1, none},
        {"input ends exactly with the row", packBits, {0x01, 0x01, 0x02, 0xFE, 0x03}, 5, 1, {1, 2, 3, 3, 3}, -1, none},
        {"a run past the row is cut; the next row starts at the next control byte", packBits, {0xFD, 0x77, 0x01, 0x10, 0x20},
         2, 2, {0x77, 0x77, 0x10, 0x20}, -1, none},
        {"a run without its byte", packBits, {0x01, 5, 6, 0xFE}, 3, 1, {}, 0, packBitsShort},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Decoded d = Decode(c.lzw, c.stream, c.rowBytes, c.rows);
        EXPECT_EQ(d.failedRow, c.failedRow);
        EXPECT_TRUE(d.guardsIntact);
        EXPECT_EQ(d.reports, c.reports);
        EXPECT_EQ(d.data, c.want);
        EXPECT_GE(TiffImage.rawLeft, 0);
    }
    LzwRelease();
}

TEST(Lzw, StateLivesFromTheFirstStripToRelease) {
    test::QuietDefaults();
    test::LeakGuard guard;
    {
        test::Recorder rec;
        uint8_t row[4];
        EXPECT_EQ(LzwDecodeLine(row, 4), 0) << "no state yet";
        ASSERT_EQ(rec.reports.size(), 1u);
        EXPECT_EQ(rec.reports[0].text, "Internal error in LZW decoding");
    }
    const Bytes stream = Encode(Noise(100, 4, 7));
    for (int strip = 0; strip < 2; ++strip) {
        EXPECT_EQ(Decode(true, stream, 100, 1).failedRow, -1);
        EXPECT_EQ(test::LeakGuard().blocks, guard.blocks + 2) << "state and table, kept for the next strip";
    }
    LzwRelease();
    LzwRelease();  // twice is harmless
    EXPECT_TRUE(guard.Same());
}

}  // namespace
