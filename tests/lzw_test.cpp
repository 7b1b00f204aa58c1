// The LZW and PackBits line decoders, fed from memory: round trips through
// an encoder written here from TIFF 6.0's description, and hand-made
// streams for the faults.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "services/errors.h"
#include "support/support.h"
#include "tiff/directory.h"
#include "tiff/lzw.h"

namespace {

// ---- an LZW encoder ------------------------------------------------------

struct Encoded {
    std::vector<uint8_t> bytes;
    uint32_t longest = 0;        // longest string a code stood for
    std::set<int> widths;        // code widths used
    int clears = 0;
};

struct EncodeOptions {
    uint32_t clearAt = 4094;          // emit CLEAR once this many entries exist (libtiff: 4094)
    bool growForever = false;         // never CLEAR: stop adding entries at 4096
    std::set<size_t> clearBefore;     // input positions to CLEAR before
    bool leadingClear = true;
    bool eoi = true;
};

class BitWriter {
public:
    void Put(uint32_t code, int width) {
        acc_ = (acc_ << width) | code;
        bits_ += width;
        while (bits_ >= 8) {
            bits_ -= 8;
            out.push_back(uint8_t(acc_ >> bits_));
        }
    }
    void Flush() {
        if (bits_ > 0) out.push_back(uint8_t(acc_ << (8 - bits_)));
        bits_ = 0;
    }
    std::vector<uint8_t> out;

private:
    uint64_t acc_ = 0;
    int bits_ = 0;
};

// Width of the next code while `next` is the entry the encoder adds next:
// the decoder is one entry behind, and widens one code early.
int WidthFor(uint32_t next) { return next <= 511 ? 9 : next <= 1023 ? 10 : next <= 2047 ? 11 : 12; }

EncodeOptions With(void (*change)(EncodeOptions &)) {
    EncodeOptions o;
    change(o);
    return o;
}

Encoded Encode(const std::vector<uint8_t> &in, const EncodeOptions &o = {}) {
    Encoded r;
    BitWriter bw;
    std::map<std::pair<uint32_t, uint8_t>, uint32_t> dict;
    std::vector<uint32_t> length(4096, 1);
    uint32_t next = 258;
    auto put = [&](uint32_t code, uint32_t widthNext) {
        int w = WidthFor(widthNext);
        r.widths.insert(w);
        bw.Put(code, w);
        if (code < 256 || code > 257) r.longest = std::max(r.longest, length[code]);
    };
    auto clear = [&] {
        put(256, next);
        dict.clear();
        next = 258;
        ++r.clears;
    };
    if (o.leadingClear) clear();
    int64_t w = -1;
    for (size_t i = 0; i < in.size(); ++i) {
        if (o.clearBefore.count(i) && w >= 0) {
            put(uint32_t(w), next);
            ++next;  // the decoder fills an entry for it before it reads CLEAR
            clear();
            w = -1;
        }
        const uint8_t c = in[i];
        if (w < 0) {
            w = c;
            continue;
        }
        auto it = dict.find({uint32_t(w), c});
        if (it != dict.end()) {
            w = it->second;
            continue;
        }
        put(uint32_t(w), next);
        if (next < 4096) {
            dict[{uint32_t(w), c}] = next;
            length[next] = length[w] + 1;
            ++next;
        }
        w = c;
        if (!o.growForever && next >= o.clearAt) clear();
    }
    if (w >= 0) {
        put(uint32_t(w), next);
        ++next;
    }
    if (o.eoi) put(257, next);
    bw.Flush();
    r.bytes = bw.out;
    return r;
}

// ---- running a decoder over a strip in memory ---------------------------

struct Strip {
    std::vector<uint8_t> buffer;  // exactly the strip's bytes: a read behind it is an ASan fault
    explicit Strip(std::vector<uint8_t> bytes) : buffer(std::move(bytes)) {
        if (buffer.size() < 2) buffer.resize(2, 0xFF);  // LzwStartStrip looks at two bytes
        TiffImage.rawCursor = buffer.data();
        TiffImage.rawLeft = int32_t(buffer.size());
        TiffImage.currentRow = 0;
    }
};

// Decodes rows of `rowBytes` until `rows` are done or one fails; each row
// is checked for writes outside it by guard bytes around it.
struct Decoded {
    std::vector<uint8_t> data;
    int failedRow = -1;
    bool guardsIntact = true;
};

template <typename Decode>
Decoded DecodeRows(Decode decode, uint32_t rowBytes, uint32_t rows) {
    Decoded d;
    std::vector<uint8_t> row(rowBytes + 16);
    for (uint32_t r = 0; r < rows; ++r) {
        std::memset(row.data(), 0xEE, row.size());
        if (!decode(row.data() + 8, int32_t(rowBytes))) {
            d.failedRow = int(r);
            break;
        }
        for (size_t i = 0; i < 8; ++i)
            if (row[i] != 0xEE || row[rowBytes + 8 + i] != 0xEE) d.guardsIntact = false;
        d.data.insert(d.data.end(), row.begin() + 8, row.begin() + 8 + rowBytes);
        ++TiffImage.currentRow;
    }
    return d;
}

Decoded LzwRows(const std::vector<uint8_t> &stream, uint32_t rowBytes, uint32_t rows) {
    Strip strip(stream);
    Decoded d;
    if (!LzwStartStrip()) {
        d.failedRow = -2;
        return d;
    }
    return DecodeRows(LzwDecodeLine, rowBytes, rows);
}

std::vector<uint8_t> Noise(size_t n, int alphabet, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> v(n);
    for (auto &b : v) b = uint8_t(rng() % alphabet * (256 / alphabet));
    return v;
}

// ---- LZW ------------------------------------------------------------------

TEST(Lzw, RoundTripsThroughEveryCodeWidthAndAcrossRows) {
    test::QuietDefaults();
    struct Case {
        const char *what;
        std::vector<uint8_t> data;
        EncodeOptions options;
        bool white = false;
    };
    std::vector<Case> cases = {
        {"noise of 16 values, CLEAR at 4094", Noise(40000, 16, 1), {}},
        {"noise of 4 values, CLEAR once entry 4095 is filled", Noise(60000, 4, 2), With([](EncodeOptions &o) { o.clearAt = 4096; })},
        {"all 256 values", Noise(20000, 256, 3), {}},
        {"white runs", std::vector<uint8_t>(60000, 0), {}, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Encoded e = Encode(c.data, c.options);
        for (uint32_t rowBytes : {1u, 7u, 30u, 310u, 1000u}) {
            SCOPED_TRACE(rowBytes);
            const uint32_t rows = uint32_t(c.data.size() / rowBytes);
            test::Recorder rec;
            Decoded d = LzwRows(e.bytes, rowBytes, rows);
            EXPECT_EQ(d.failedRow, -1);
            EXPECT_TRUE(d.guardsIntact);
            ASSERT_EQ(d.data.size(), size_t(rows) * rowBytes);
            EXPECT_TRUE(std::equal(d.data.begin(), d.data.end(), c.data.begin()));
            EXPECT_TRUE(rec.reports.empty());
        }
        if (!c.white) {
            EXPECT_EQ(e.widths, (std::set<int>{9, 10, 11, 12}));
            EXPECT_GE(e.clears, 2);
        } else {
            // 60000 bytes of white: strings up to 345 bytes, longer than a
            // row of 310 and past the 8 bits of a byte-wide length.
            EXPECT_GE(e.longest, 300u);
        }
    }
    LzwRelease();
}

TEST(Lzw, HandMadeStreams) {
    test::QuietDefaults();
    // CLEAR, then literals at 9 bits: 256, 'a', 'b', 'c', 257.
    BitWriter bw;
    for (uint32_t code : {256u, 0x61u, 0x62u, 0x63u, 257u}) bw.Put(code, 9);
    bw.Flush();
    Decoded d = LzwRows(bw.out, 3, 1);
    EXPECT_EQ(d.failedRow, -1);
    EXPECT_EQ(std::string(d.data.begin(), d.data.end()), "abc");

    // The code of the very string being defined: a, 258 = "aa", 259 = "aaa".
    BitWriter kw;
    for (uint32_t code : {256u, 0x61u, 258u, 259u, 257u}) kw.Put(code, 9);
    kw.Flush();
    d = LzwRows(kw.out, 6, 1);
    EXPECT_EQ(d.failedRow, -1);
    EXPECT_EQ(std::string(d.data.begin(), d.data.end()), "aaaaaa");

    // A CLEAR right at the start of a row.
    std::vector<uint8_t> data = Noise(3000, 8, 4);
    Encoded e = Encode(data, With([](EncodeOptions &o) { o.clearBefore = {1000, 2000}; }));
    d = LzwRows(e.bytes, 1000, 3);
    EXPECT_EQ(d.failedRow, -1);
    EXPECT_EQ(d.data, data);

    // A strip without a leading CLEAR starts with a literal.
    e = Encode(data, With([](EncodeOptions &o) { o.leadingClear = false; }));
    d = LzwRows(e.bytes, 1000, 3);
    EXPECT_EQ(d.failedRow, -1);
    EXPECT_EQ(d.data, data);
    LzwRelease();
}

TEST(Lzw, FaultsReportAndNeverWriteOutsideTheRow) {
    test::QuietDefaults();
    auto stream = [](std::vector<uint32_t> codes) {
        BitWriter bw;
        for (uint32_t c : codes) bw.Put(c, 9);
        bw.Flush();
        return bw.out;
    };
    struct Case {
        const char *what;
        std::vector<uint8_t> bytes;
        uint32_t rowBytes;
        int failedRow;
        std::vector<std::string> reports;
    };
    const std::string unexpected = "Unexpected code in line 0";
    Encoded full = Encode(Noise(40000, 16, 5), With([](EncodeOptions &o) { o.growForever = true; }));
    std::vector<uint8_t> cut = Encode(Noise(5000, 16, 6)).bytes;
    cut.resize(cut.size() / 2);
    std::vector<Case> cases = {
        {"EOI before the row is full", stream({256, 0x41, 257}), 4, 0, {unexpected}},
        {"stream cut inside a row", cut, 5000, 0, {unexpected}},
        {"first code names an entry not yet made", stream({256, 0x41, 300, 257}), 8, 0, {unexpected}},
        {"no CLEAR and a first code of 258", stream({258, 0x41, 257}), 4, 0, {unexpected}},
        {"a code above 255 right after CLEAR", stream({256, 260, 0x41, 257}), 4, 0, {unexpected}},
        {"CLEAR, CLEAR", stream({256, 256, 0x41, 257}), 4, 0, {unexpected}},
        {"table full without CLEAR", full.bytes, 40000, 0, {"Internal error in LZW decoding"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        test::Recorder rec;
        Decoded d = LzwRows(c.bytes, c.rowBytes, 1);
        EXPECT_EQ(d.failedRow, c.failedRow);
        EXPECT_TRUE(d.guardsIntact);
        std::vector<std::string> texts;
        for (auto &r : rec.reports) {
            EXPECT_EQ(r.title, "TIFF Read");
            texts.push_back(r.text);
        }
        EXPECT_EQ(texts, c.reports);
    }
    // The first nine bits spell CLEAR lowest bit first: refused, no message.
    {
        test::Recorder rec;
        Decoded d = LzwRows({0x00, 0x01, 0x55}, 1, 1);
        EXPECT_EQ(d.failedRow, -2);
        EXPECT_TRUE(rec.reports.empty());
    }
    LzwRelease();
    // With no state the decoder reports.
    {
        test::Recorder rec;
        uint8_t row[4];
        EXPECT_EQ(LzwDecodeLine(row, 4), 0);
        ASSERT_EQ(rec.reports.size(), 1u);
        EXPECT_EQ(rec.reports[0].text, "Internal error in LZW decoding");
    }
    LzwRelease();  // twice is harmless
}

TEST(Lzw, StateLivesFromTheFirstStripToRelease) {
    test::QuietDefaults();
    test::LeakGuard guard;
    Encoded e = Encode(Noise(100, 4, 7));
    const int32_t before = test::LeakGuard().blocks;
    LzwRows(e.bytes, 100, 1);
    EXPECT_EQ(test::LeakGuard().blocks, before + 2) << "state and table";
    LzwRows(e.bytes, 100, 1);
    EXPECT_EQ(test::LeakGuard().blocks, before + 2) << "kept for the next strip";
    LzwRelease();
    EXPECT_TRUE(guard.Same());
}

// ---- PackBits -------------------------------------------------------------

Decoded PackBitsRows(const std::vector<uint8_t> &bytes, uint32_t rowBytes, uint32_t rows) {
    std::vector<uint8_t> exact(bytes);
    TiffImage.rawCursor = exact.data();
    TiffImage.rawLeft = int32_t(exact.size());
    TiffImage.currentRow = 0;
    return DecodeRows(PackBitsDecodeLine, rowBytes, rows);
}

TEST(PackBits, PacketsAndRows) {
    test::QuietDefaults();
    struct Case {
        const char *what;
        std::vector<uint8_t> input;
        uint32_t rowBytes, rows;
        std::vector<uint8_t> want;
        int failedRow;
    } cases[] = {
        {"-128 costs one byte; the next is a control byte", {0x80, 0x00, 0x41}, 1, 1, {0x41}, -1},
        {"control 0 copies one byte, -1 writes two", {0x00, 0x11, 0xFF, 0x22}, 3, 1, {0x11, 0x22, 0x22}, -1},
        {"input ends exactly with the row", {0x01, 0x01, 0x02, 0xFE, 0x03}, 5, 1, {1, 2, 3, 3, 3}, -1},
        {"a run past the row is cut; the next row starts at the next control byte",
         {0xFD, 0x77, 0x01, 0x10, 0x20}, 2, 2, {0x77, 0x77, 0x10, 0x20}, -1},
        {"a literal past the row is cut", {0x03, 1, 2, 3, 4, 0xFF, 9}, 2, 2, {1, 2, 9, 9}, -1},
        {"a literal past the strip delivers what is there", {0x05, 1, 2}, 4, 1, {}, 0},
        {"a run without its byte", {0x01, 5, 6, 0xFE}, 3, 1, {}, 0},
        {"input ends before the row is full", {0x00, 7}, 2, 1, {}, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        test::Recorder rec;
        Decoded d = PackBitsRows(c.input, c.rowBytes, c.rows);
        EXPECT_EQ(d.failedRow, c.failedRow);
        EXPECT_TRUE(d.guardsIntact);
        if (c.failedRow < 0) {
            EXPECT_EQ(d.data, c.want);
            EXPECT_TRUE(rec.reports.empty());
        } else {
            ASSERT_EQ(rec.reports.size(), 1u);
            EXPECT_EQ(rec.reports[0].text, "Internal allocation error in line 0");
        }
        EXPECT_GE(TiffImage.rawLeft, 0);
    }
}

}  // namespace
