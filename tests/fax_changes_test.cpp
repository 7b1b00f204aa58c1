// fax_changes_test.cpp - the row drivers (lists of changing elements) against the bitmap decoders,
// on whole and damaged streams: the same pixels, results, reports and stream position, row by row.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "fax_stream.h"
#include "support/support.h"
#include "fax/changes.h"

namespace {

using faxtest::BitWriter;
using faxtest::Row;
using faxtest::Strip;

struct RowOutcome {
    std::vector<uint8_t> pixels;
    int32_t result;
    std::vector<std::string> reports;
    int32_t left, position;
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

// Rows by the drivers, or by the model: each row cleared and decoded into the bitmap, and made
// the reference line when the next row is two-dimensional.  Compression 4 stops at a bad row.
std::vector<RowOutcome> Decode(const Case &c, uint32_t rows, bool model) {
    std::vector<RowOutcome> out;
    test::Recorder recorder;
    Strip strip(c.compression, c.width, c.bytes, c.group3Options, c.fillOrder);
    const uint32_t rowBytes = TiffImage.scanlineSize;
    const auto width = int32_t(c.width);
    for (uint32_t y = 0; y < rows && (out.empty() || out.back().result != 0); ++y) {
        std::vector<uint8_t> row(rowBytes, 0);
        int32_t result = 1;
        if (!model) {
            row = strip.Next(&result);
            EXPECT_FALSE(strip.overrun);
        } else {
            const bool twoD = c.compression == 4 || faxState->nextIs2D;
            const int32_t r = twoD ? FaxDecodeRow2D(row.data(), width) : FaxDecodeRow1D(row.data(), width);
            if (c.compression == 4) {
                if (r < 0) result = r == -3 ? 1 : 0;
                else std::memcpy(faxState->refLine, row.data(), rowBytes);
            } else if (r != -3 && (c.group3Options & 1u)) {
                faxState->nextIs2D = FaxReadTagBit() == 0 ? 1 : 0;
                if (faxState->nextIs2D) std::memcpy(faxState->refLine, row.data(), rowBytes);
            }
            ++TiffImage.currentRow;
        }
        out.push_back({row, result, {}, TiffImage.rawLeft, faxState->position, faxState->curByte});
        for (const auto &r : recorder.reports) out.back().reports.push_back(r.text);
        recorder.reports.clear();
    }
    return out;
}

// Rows mostly like the row above, shifted a little, with new runs now and then.
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

// A form: ruled columns, now and then a rule across, and words in the cells.  Its white
// runs are mostly longer than 63 pixels, so that make-up codes come before most pairs.
std::vector<Row> FormPage(std::mt19937 &rng, uint32_t width, uint32_t height) {
    std::vector<uint32_t> columns;
    for (uint32_t k = rng() % 7; k > 0; --k) columns.push_back(rng() % width);
    // Half the forms have a border at the right, so that their rows end in a short black run.
    const uint32_t border = rng() % 2 ? 1 + rng() % 40 : 0;
    std::vector<Row> rows;
    for (uint32_t y = 0; y < height; ++y) {
        Row row(width, false);
        for (uint32_t x : columns)
            for (uint32_t t = 0; t < 1 + (x % 3) && x + t < width; ++t) row[x + t] = true;
        for (uint32_t x = width - std::min(border, width); x < width; ++x) row[x] = true;
        if (rng() % 6 == 0) {  // a rule, part of the width or all of it
            const uint32_t from = rng() % 2 ? 0 : rng() % width, to = rng() % 2 ? width : from + rng() % (width - from + 1);
            for (uint32_t x = from; x < to; ++x) row[x] = true;
        }
        if (rng() % 3 == 0) {  // a word: short runs in a stretch
            const uint32_t at = rng() % width, len = 8 + rng() % 120;
            for (uint32_t x = at; x < at + len && x < width; ++x) row[x] = rng() % 3 == 0;
        }
        rows.push_back(row);
    }
    return rows;
}

// Flipped bits, random bytes, a cut, zeros, or a code word at a bit position of its own.
void Damage(std::mt19937 &rng, std::vector<uint8_t> &bytes) {
    static const char *const words[] = {"0000001111", "0000010", "0000011", "000001",
                                        "0000000",    "00000000000", "0001", "0000001"};
    for (int k = 0, kinds = 1 + int(rng() % 3); k < kinds && !bytes.empty(); ++k) {
        const size_t at = rng() % bytes.size();
        const uint32_t kind = rng() % 5, n = 1 + rng() % 6;
        for (size_t i = 0; kind == 0 && i < n % 4 + 1; ++i) bytes[rng() % bytes.size()] ^= uint8_t(1u << (rng() % 8));
        for (size_t i = at; (kind == 1 || kind == 3) && i < bytes.size() && i < at + n; ++i)
            bytes[i] = kind == 1 ? uint8_t(rng()) : 0;
        if (kind == 2) bytes.resize(at + 1);
        if (kind == 4) {
            const BitWriter w = BitWriter().Bits(words[rng() % 8]);
            const uint32_t shift = rng() % 8;
            for (size_t i = 0; i < w.bytes.size() && at + i < bytes.size(); ++i)
                bytes[at + i] = uint8_t((bytes[at + i] & ~(0xFFu >> shift)) | (w.bytes[i] >> shift));
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
    const uint32_t formWidths[] = {200, 1728, 2480};
    for (int trial = 0; trial < 120; ++trial) {
        SCOPED_TRACE(trial);
        const auto &coding = codings[trial % 4];
        const bool form = trial >= 80;  // long white runs: a make-up code before most pairs
        Case c{coding.compression, coding.options, uint16_t(trial % 8 < 6 ? 1 : 2),
               form ? formWidths[rng() % 3] : widths[rng() % 11], {}};
        const uint32_t height = 3 + rng() % 14;
        const std::vector<Row> rows = form ? FormPage(rng, c.width, height) : RandomPage(rng, c.width, height);
        const std::vector<uint8_t> coded = faxtest::EncodePage(c.compression, c.group3Options, rows, 1 + rng() % 4);
        const std::vector<uint8_t> whole = c.fillOrder == 2 ? faxtest::Reversed(coded) : coded;
        for (int damaged = 0; damaged < 4; ++damaged) {
            c.bytes = whole;
            if (damaged) Damage(rng, c.bytes);
            const std::vector<RowOutcome> expected = Decode(c, height + 2, true), actual = Decode(c, height + 2, false);
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
    EXPECT_GT(compared, 1100);
    EXPECT_GT(damagedRowsDiffer, 12);  // the damage reaches the decoders' faults
}

}  // namespace
