// fax_changes_test.cpp - the row drivers (lists of changing elements) against the bitmap decoders,
// on whole and damaged streams: the same pixels, results, reports and stream position, row by row.
#include <gtest/gtest.h>

#include <random>

#include "fax_stream.h"
#include "support/support.h"
#include "tiff/fax_bits.h"

namespace {

using faxtest::BitWriter;
using faxtest::Row;
using faxtest::Strip;

struct RowOutcome {
    std::vector<uint8_t> pixels;
    int32_t result;
    std::vector<std::string> reports;
    int32_t left;
    int32_t position;
    uint32_t curByte;
    bool operator==(const RowOutcome &) const = default;
};

struct Case {
    uint16_t compression;
    uint32_t group3Options;
    uint16_t fillOrder;
    uint32_t width;
    std::vector<uint8_t> bytes;
};

RowOutcome Snapshot(std::vector<uint8_t> pixels, int32_t result, test::Recorder &recorder) {
    RowOutcome out{std::move(pixels), result, {}, TiffImage.rawLeft, faxState->position, faxState->curByte};
    for (const auto &r : recorder.reports) out.reports.push_back(r.text);
    recorder.reports.clear();
    return out;
}

// The drivers as they are.
std::vector<RowOutcome> ByDrivers(const Case &c, uint32_t rows) {
    std::vector<RowOutcome> out;
    test::Recorder recorder;
    Strip strip(c.compression, c.width, c.bytes, c.group3Options, c.fillOrder);
    for (uint32_t y = 0; y < rows; ++y) {
        int32_t result = 0;
        std::vector<uint8_t> row = strip.Next(&result);
        EXPECT_FALSE(strip.overrun);
        out.push_back(Snapshot(row, result, recorder));
        if (c.compression == 4 && result == 0) break;
    }
    return out;
}

// The model: each row cleared and decoded into the bitmap; the row becomes
// the reference line when the next row is two-dimensional.
std::vector<RowOutcome> ByBitmap(const Case &c, uint32_t rows) {
    std::vector<RowOutcome> out;
    test::Recorder recorder;
    Strip strip(c.compression, c.width, c.bytes, c.group3Options, c.fillOrder);
    const uint32_t rowBytes = TiffImage.scanlineSize;
    const auto width = int32_t(c.width);
    bool stopped = false;  // compression 4: a row ended short
    for (uint32_t y = 0; y < rows && !stopped; ++y) {
        std::vector<uint8_t> row(rowBytes, 0);
        int32_t result = 1;
        if (c.compression == 4) {
            int32_t r = FaxDecodeRow2D(row.data(), width);
            if (r < 0)
                result = r == -3 ? 1 : 0;
            else
                std::memcpy(faxState->refLine, row.data(), rowBytes);
            stopped = result == 0;
        } else {
            int32_t r = faxState->nextIs2D ? FaxDecodeRow2D(row.data(), width) : FaxDecodeRow1D(row.data(), width);
            if (r != -3 && (c.group3Options & 1u)) {
                faxState->nextIs2D = FaxReadTagBit() == 0 ? 1 : 0;
                if (faxState->nextIs2D) std::memcpy(faxState->refLine, row.data(), rowBytes);
            }
        }
        ++TiffImage.currentRow;
        out.push_back(Snapshot(row, result, recorder));
    }
    return out;
}

// A random page: rows mostly like the row above, shifted a little, with
// new runs of every length now and then.
std::vector<Row> RandomPage(std::mt19937 &rng, uint32_t width, uint32_t height) {
    std::vector<Row> rows;
    Row ref(width, false);
    for (uint32_t y = 0; y < height; ++y) {
        Row row(width);
        const uint32_t flip = 2 + rng() % 30;
        for (uint32_t x = 0; x < width; ++x) {
            bool prev = x ? bool(row[x - 1]) : false;
            row[x] = rng() % 100 < flip ? !prev : prev;
            if (y > 0 && rng() % 6) row[x] = faxtest::Pixel(ref, int32_t(x) + int32_t(rng() % 5) - 2);
        }
        rows.push_back(row);
        ref = row;
    }
    return rows;
}

// Damage of one of several kinds: flipped bits, a run of random bytes, a
// cut, a stretch of zeros, a code word dropped in.
void Damage(std::mt19937 &rng, std::vector<uint8_t> &bytes) {
    if (bytes.empty()) return;
    static const char *const words[] = {"0000001111", "0000010", "0000011", "000001", "0000000", "00000000000",
                                        "0001",       "0000001"};
    const int kinds = 1 + int(rng() % 3);
    for (int k = 0; k < kinds; ++k) {
        const size_t at = rng() % bytes.size();
        switch (rng() % 5) {
        case 0:
            for (int i = 0, n = 1 + int(rng() % 4); i < n; ++i)
                bytes[rng() % bytes.size()] ^= uint8_t(1u << (rng() % 8));
            break;
        case 1:
            for (size_t i = at; i < bytes.size() && i < at + 1 + rng() % 6; ++i) bytes[i] = uint8_t(rng());
            break;
        case 2: bytes.resize(at + 1); break;
        case 3:
            for (size_t i = at; i < bytes.size() && i < at + 1 + rng() % 3; ++i) bytes[i] = 0;
            break;
        default: {
            // A code word at a bit position of its own, over what was there.
            BitWriter w;
            w.Bits(words[rng() % 8]);
            const uint32_t shift = rng() % 8;
            for (size_t i = 0; i < w.bytes.size() && at + i < bytes.size(); ++i) {
                bytes[at + i] &= uint8_t(~(0xFFu >> shift));
                bytes[at + i] |= uint8_t(w.bytes[i] >> shift);
            }
            break;
        }
        }
    }
}

TEST(FaxChanges, DriversDecodeAsTheBitmapModelOnWholeAndDamagedStreams) {
    std::mt19937 rng(11);
    const uint32_t widths[] = {1, 5, 8, 9, 31, 64, 65, 100, 130, 333, 1728};
    const struct {
        uint16_t compression;
        uint32_t options;
    } codings[] = {{4, 0}, {3, 1}, {3, 0}, {2, 0}};
    int compared = 0, damagedRowsDiffer = 0;
    for (int trial = 0; trial < 120; ++trial) {
        SCOPED_TRACE(trial);
        const auto &coding = codings[trial % 4];
        Case c{coding.compression, coding.options, uint16_t(trial % 8 < 6 ? 1 : 2), widths[rng() % 11], {}};
        const uint32_t height = 3 + rng() % 14;
        const std::vector<Row> rows = RandomPage(rng, c.width, height);
        const std::vector<uint8_t> coded = faxtest::EncodePage(c.compression, c.group3Options, rows, 1 + rng() % 4);
        const std::vector<uint8_t> whole = c.fillOrder == 2 ? faxtest::Reversed(coded) : coded;
        for (int damaged = 0; damaged < 4; ++damaged) {
            c.bytes = whole;
            if (damaged) Damage(rng, c.bytes);
            const std::vector<RowOutcome> expected = ByBitmap(c, height + 2);
            const std::vector<RowOutcome> actual = ByDrivers(c, height + 2);
            ASSERT_EQ(actual.size(), expected.size()) << "damage " << damaged;
            for (size_t y = 0; y < expected.size(); ++y) {
                ASSERT_EQ(actual[y], expected[y]) << "row " << y << " damage " << damaged;
                ++compared;
            }
            if (!damaged)
                for (size_t y = 0; y < rows.size(); ++y) ASSERT_EQ(actual[y].pixels, faxtest::Pack(rows[y]));
            else
                damagedRowsDiffer += actual.back().reports.size() > 0;
        }
    }
    EXPECT_GT(compared, 750);
    EXPECT_GT(damagedRowsDiffer, 12);  // the damage reaches the decoders' faults
}

}  // namespace
