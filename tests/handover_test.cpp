// The hand-over to the host: rasters built from image files and from the
// host's own bitmaps, the record's three fields, the reports, and the
// bitmaps no sound writer makes.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "handover/handover.h"
#include "platform/win32.h"
#include "services/errors.h"
#include "support/pnm.h"
#include "support/support.h"

namespace {

using Pixel = std::function<uint32_t(int32_t x, int32_t y)>;  // palette index, y from the top
using Bgr = std::array<uint8_t, 3>;

const Bgr Black{0, 0, 0}, White{255, 255, 255};

// A bitmap block's bytes: header, palette, rows bottom-up (top-down for a
// negative height), every row padded to 4 bytes.
struct Dib {
    Dib(int32_t w = 8, int32_t h = 1, std::vector<Bgr> colours = {Black, White}, Pixel p = nullptr)
        : width(w), height(h), palette(std::move(colours)) {
        if (p) pixel = std::move(p);
    }
    int32_t width, height;
    uint16_t planes = 1, bits = 1;
    uint32_t clrUsed = 2;      // what the header says
    std::vector<Bgr> palette;  // what is stored
    uint32_t sizeImage = 0;    // 0: stride x rows
    int32_t storedRows = -1;   // -1: all rows
    Pixel pixel = [](int32_t, int32_t) { return 0u; };

    uint32_t Stride() const { return width < 0 ? 0 : uint32_t((uint64_t(width) * bits + 31) / 32 * 4); }
    std::vector<uint8_t> Bytes() const {
        const int32_t rows = height < 0 ? -height : height;
        const int32_t stored = storedRows < 0 ? rows : storedRows;
        std::vector<uint8_t> b(40);
        StoreU32(&b[0], 40);
        StoreU32(&b[4], uint32_t(width));
        StoreU32(&b[8], uint32_t(height));
        StoreU16(&b[12], planes);
        StoreU16(&b[14], bits);
        StoreU32(&b[20], sizeImage ? sizeImage : Stride() * uint32_t(rows));
        StoreU32(&b[32], clrUsed);
        for (const Bgr &c : palette) b.insert(b.end(), {c[0], c[1], c[2], 0});
        for (int32_t m = 0; m < stored; ++m) {
            const int32_t y = height < 0 ? m : rows - 1 - m;
            std::vector<uint8_t> row(Stride());
            for (int32_t x = 0; x < width; ++x) {
                const uint32_t v = pixel(x, y), bit = uint32_t(x) * bits;
                if (bits >= 8)
                    for (uint32_t k = 0; k < bits / 8u; ++k) row[bit / 8 + k] = uint8_t(v >> (8 * k));
                else
                    row[bit / 8] |= uint8_t(v << (8 - bits - bit % 8));
            }
            b.insert(b.end(), row.begin(), row.end());
        }
        const size_t pixelsEnd = 40 + 4 * palette.size() + sizeImage;  // a declared size is there to read
        if (b.size() < pixelsEnd) b.resize(pixelsEnd);
        return b;
    }
};

std::vector<uint8_t> BmpFile(const std::vector<uint8_t> &dib, uint32_t paletteEntries) {
    std::vector<uint8_t> f(14 + dib.size());
    std::copy(dib.begin(), dib.end(), f.begin() + 14);
    f[0] = 'B';
    f[1] = 'M';
    StoreU32(&f[2], uint32_t(14 + dib.size()));
    StoreU32(&f[10], 14 + 40 + 4 * paletteEntries);
    return f;
}

TL_HANDLE HostBlock(const std::vector<uint8_t> &bytes) {
    TL_HANDLE block = GlobalAlloc(GHND, bytes.size());
    std::memcpy(GlobalLock(block), bytes.data(), bytes.size());
    GlobalUnlock(block);
    return block;
}

// A host record around the three fields, filled with a pattern.
struct Record {
    std::vector<uint8_t> bytes;
    Record() : bytes(1500) {
        for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = uint8_t(i * 7 + 3);
    }
    void *data() { return bytes.data(); }
    bool Untouched() const { return Record().bytes == bytes; }
    const uint8_t *At(int offset) const {
        return reinterpret_cast<const uint8_t *>(uintptr_t(LoadU32(&bytes[size_t(offset)])));
    }
    int32_t Rows() const { return LoadI16(At(TL_RECORD_RASTER)); }
    int32_t Columns() const { return LoadI16(At(TL_RECORD_RASTER) + 2); }
    bool Dark(int32_t x, int32_t y) const {
        return (At(TL_RECORD_PIXELS)[size_t(y) * size_t((Columns() + 7) / 8) + size_t(x / 8)] >> (7 - x % 8)) & 1;
    }
};

enum class Path { Image, Bitmap };
using ImageExport = TL_HANDLE(TL_CALL *)(void *, char *, int32_t);
using BitmapExport = TL_HANDLE(TL_CALL *)(void *, TL_HANDLE);
const ImageExport ImageExports[] = {TLC_IMAGE_E, TLL_IMAGE_E, TLP_IMAGE_E};
const BitmapExport BitmapExports[] = {TLC_BITMAP_E, TLL_BITMAP_E, TLP_BITMAP_E};

TL_HANDLE LoadImage(Record &record, const std::string &path, int32_t number = 0, ImageExport call = TLC_IMAGE_E) {
    std::vector<char> name(path.begin(), path.end());
    name.resize(260, '\0');  // the name may be overwritten with a chosen path
    return call(record.data(), name.data(), number);
}

// The raster of `dib` by either path; the image path goes through a file.
TL_HANDLE HandOver(Path path, Record &record, const Dib &dib) {
    const std::vector<uint8_t> bytes = dib.Bytes();
    if (path == Path::Image)
        return LoadImage(record, test::WriteTemp("handover.bmp", BmpFile(bytes, uint32_t(dib.palette.size()))));
    TL_HANDLE host = HostBlock(bytes);
    TL_HANDLE raster = TLC_BITMAP_E(record.data(), host);
    GlobalFree(host);
    return raster;
}

using Dark = std::function<bool(int32_t, int32_t)>;

// Expects a raster of rows x columns whose dark bits are `dark`.
void ExpectRaster(const Record &record, int32_t rows, int32_t columns, const Dark &dark) {
    ASSERT_EQ(record.Rows(), rows);
    ASSERT_EQ(record.Columns(), columns);
    for (int32_t y = 0; y < rows; ++y)
        for (int32_t x = 0; x < columns; ++x) ASSERT_EQ(record.Dark(x, y), dark(x, y)) << "x " << x << " y " << y;
}

// Hands `dib` over, expects that raster, and gives the block back.
void ExpectHandOver(Path path, const Dib &dib, int32_t rows, int32_t columns, const Dark &dark) {
    Record record;
    TL_HANDLE block = HandOver(path, record, dib);
    ASSERT_NE(block, nullptr);
    ExpectRaster(record, rows, columns, dark);
    test::FreeBlock(block, true);
}

// Expects exactly one report with this title and text.
void ExpectReport(const test::Recorder &recorder, const char *title, const std::string &text) {
    ASSERT_EQ(recorder.reports.size(), 1u);
    EXPECT_EQ(recorder.reports[0].title, title);
    EXPECT_EQ(recorder.reports[0].text, text);
}

TEST(Handover, BothPaletteOrdersGiveSetBitsForDarkPixels) {
    test::QuietDefaults();
    test::Rgb pattern;
    ASSERT_TRUE(test::ReadPnm(test::Fixture("bmp/handover_pattern.pbm"), pattern));
    // Each export by name and by the host's bitmap (the file behind its 14-byte header).
    auto check = [&](const std::function<TL_HANDLE(Record &)> &call) {
        test::LeakGuard guard;
        Record record;
        TL_HANDLE block = call(record);
        ASSERT_NE(block, nullptr);
        ExpectRaster(record, pattern.height, pattern.width, [&](int32_t x, int32_t y) { return pattern.Dark(x, y); });
        test::FreeBlock(block, true);
        EXPECT_TRUE(guard.Same());
    };
    for (const char *file : {"bmp/handover_black_first.bmp", "bmp/handover_white_first.bmp"}) {
        SCOPED_TRACE(file);
        for (ImageExport e : ImageExports) check([&](Record &r) { return LoadImage(r, test::Fixture(file), 0, e); });
        std::vector<uint8_t> bytes = test::ReadFileBytes(test::Fixture(file));
        bytes.erase(bytes.begin(), bytes.begin() + 14);
        TL_HANDLE host = HostBlock(bytes);
        for (BitmapExport e : BitmapExports) check([&](Record &r) { return e(r.data(), host); });
        GlobalFree(host);
    }
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
}

TEST(Handover, PolarityFollowsTheFirstTwoEntriesOnly) {
    test::QuietDefaults();
    const struct { Bgr first, second; bool inverted; } cases[] = {
        {{10, 20, 30}, {30, 20, 10}, false},  // equal sums
        {{0, 0, 1}, {1, 0, 0}, false},        // equal sums, different colours
        {{0, 0, 0}, {0, 0, 1}, true},         // first darker by one
        {{0, 0, 1}, {0, 0, 0}, false},
    };
    auto set = [](int32_t x, int32_t y) { return (x + y) % 3 == 0; };
    for (const auto &c : cases)
        for (Path path : {Path::Image, Path::Bitmap}) {
            SCOPED_TRACE(int(path));
            Dib dib(13, 3, {c.first, c.second}, [&](int32_t x, int32_t y) { return uint32_t(set(x, y)); });
            ExpectHandOver(path, dib, 3, 13, [&](int32_t x, int32_t y) { return set(x, y) != c.inverted; });
        }
}

TEST(Handover, WidthsAndHeightsGivePackedRowsFromTheTop) {
    test::QuietDefaults();
    auto pixel = [](int32_t x, int32_t y) { return uint32_t((x * 5 + y * 3) % 7 == 0 || x == y); };
    for (int32_t width : {1, 8, 33, 32767})
        for (int32_t height : {1, 2, 5})
            for (Path path : {Path::Image, Path::Bitmap}) {
                SCOPED_TRACE(testing::Message() << width << " x " << height << " path " << int(path));
                test::LeakGuard guard;
                Record record;
                TL_HANDLE block = HandOver(path, record, Dib(width, height, {White, Black}, pixel));
                ASSERT_NE(block, nullptr);
                ExpectRaster(record, height, width, pixel);
                // Packed rows follow each other with no padding, inside the block.
                const uint32_t packed = uint32_t(width + 7) / 8 * uint32_t(height);
                EXPECT_TRUE(path == Path::Bitmap ? GlobalSize(block) == 4 + packed : GlobalSize(block) >= 4 + packed);
                test::FreeBlock(block, true);
                EXPECT_TRUE(guard.Same());
            }
}

TEST(Handover, SidesAbove32767AreRefusedWithTheHistoricNumber) {
    const struct {
        int32_t width, height;
        const char *text;  // nullptr: passes
    } cases[] = {
        {32767, 1, nullptr},
        {1, 32767, nullptr},
        {32768, 1, "Bitmap width=32768 bigger than 65535"},
        {1, 32768, "Bitmap height=32768 bigger than 65535"},
        {32768, 32768, "Bitmap width=32768 bigger than 65535"},
        {-8, 1, "Bitmap width=-8 bigger than 65535"},
        {1, -32768, "Bitmap height=-32768 bigger than 65535"},
    };
    for (const auto &c : cases)
        for (Path path : {Path::Image, Path::Bitmap}) {
            SCOPED_TRACE(testing::Message() << c.width << " x " << c.height << " path " << int(path));
            Dib dib(c.width, c.height);
            dib.sizeImage = c.text ? 4 : 0;
            dib.storedRows = c.text ? 1 : -1;
            test::Recorder recorder;
            test::LeakGuard guard;  // after the file is written
            Record record;
            TL_HANDLE block = HandOver(path, record, dib);
            if (!c.text) {
                ASSERT_NE(block, nullptr);
                EXPECT_EQ(record.Rows(), c.height);
                EXPECT_EQ(record.Columns(), c.width);
                test::FreeBlock(block, true);
                EXPECT_TRUE(recorder.reports.empty());
            } else {
                EXPECT_EQ(block, nullptr);
                ExpectReport(recorder, path == Path::Image ? "TLx_IMAGE" : "TLx_BITMAP", c.text);
                EXPECT_EQ(recorder.reports[0].withSystemText, 0);
                EXPECT_TRUE(record.Untouched());
            }
            EXPECT_TRUE(guard.Same());
        }
}

TEST(Handover, RecordGetsTagAndLockedAddressesAndNothingElse) {
    test::QuietDefaults();
    for (Path path : {Path::Image, Path::Bitmap}) {
        Record record;
        TL_HANDLE block = HandOver(path, record, Dib());
        ASSERT_NE(block, nullptr);
        void *address = GlobalLock(block);  // the same address, one lock more
        GlobalUnlock(block);
        EXPECT_EQ(record.At(TL_RECORD_RASTER), address);
        EXPECT_EQ(record.At(TL_RECORD_PIXELS), static_cast<uint8_t *>(address) + 4);
        EXPECT_EQ(0, std::memcmp(&record.bytes[TL_RECORD_TAG], "a1", 3));
        const Record fresh;
        for (size_t i = 0; i < record.bytes.size(); ++i)
            if (i < TL_RECORD_TAG || i >= TL_RECORD_MIN_SIZE || i == TL_RECORD_TAG + 3) {
                ASSERT_EQ(record.bytes[i], fresh.bytes[i]) << "byte " << i;
            }
        // The block stays locked for the host: its one unlock ends the lock.
        EXPECT_EQ(GlobalUnlock(block), 0);
        GlobalFree(block);
    }
}

TEST(DarkTable, EveryRowOfTheColourTable) {
    // A 4-bit bitmap whose pixel i has the colour of row i.
    const struct { uint8_t blue, green, red; bool dark; } rows[] = {
        {191, 191, 191, 1}, {192, 192, 192, 0}, {0, 0, 255, 1}, {255, 0, 0, 1}, {0, 255, 0, 0},
        {0, 255, 255, 0},   {255, 0, 255, 0},   {255, 255, 0, 0}, {0, 0, 0, 1},
    };
    Dib dib(16, 2, {}, [](int32_t x, int32_t) { return uint32_t(x); });
    dib.bits = 4;
    dib.clrUsed = 16;
    for (const auto &r : rows) dib.palette.push_back({r.blue, r.green, r.red});
    dib.palette.resize(16, White);
    ExpectHandOver(Path::Bitmap, dib, 2, 16,
                   [&](int32_t x, int32_t) { return x < int32_t(std::size(rows)) && rows[x].dark; });
}

TEST(BitmapIntoRecord, HostBlockKeepsAllButClrUsedAndGivesTheSameRasterTwice) {
    test::QuietDefaults();
    const struct { uint16_t bits; uint32_t clrUsed, expected; } cases[] = {
        {1, 0, 2}, {4, 0, 16}, {4, 5, 5}, {8, 0, 256}, {32, 0, 1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.bits);
        Dib dib(11, 4, std::vector<Bgr>(c.bits == 32 ? 0 : c.expected, Black),
                [&](int32_t x, int32_t y) { return c.bits == 32 ? 0x808080u * uint32_t(x) : uint32_t(x + y) % 2; });
        dib.bits = c.bits;
        dib.clrUsed = c.clrUsed;
        if (!dib.palette.empty()) dib.palette[0] = White;
        const std::vector<uint8_t> before = dib.Bytes();
        TL_HANDLE host = HostBlock(before);
        std::vector<uint8_t> raster[2];
        for (auto &bytes : raster) {
            test::LeakGuard guard;
            Record record;
            TL_HANDLE block = TLC_BITMAP_E(record.data(), host);
            ASSERT_NE(block, nullptr);
            bytes = test::BlockBytes(block);
            test::FreeBlock(block, true);
            EXPECT_TRUE(guard.Same());
        }
        EXPECT_EQ(raster[0], raster[1]);
        std::vector<uint8_t> after = test::BlockBytes(host);
        EXPECT_EQ(LoadU32(&after[32]), c.expected);
        StoreU32(&after[32], c.clrUsed);
        EXPECT_EQ(after, before);
        EXPECT_EQ(GlobalUnlock(host), 0) << "the host's block is left unlocked";
        GlobalFree(host);
    }
}

TEST(BitmapIntoRecord, DepthsWithoutPixelsAndPlanes) {
    test::QuietDefaults();
    auto pixel = [](int32_t x, int32_t y) { return uint32_t(x * y % 3 == 1); };
    auto none = [](int32_t, int32_t) { return false; };
    const struct { uint16_t bits, planes; uint32_t clrUsed; Dark dark; } cases[] = {
        {8, 1, 0, none},  // no pixels written
        {24, 1, 0, none},
        {8, 1, 2, [](int32_t, int32_t) { return true; }},  // ...and then inverted
        {1, 0, 2, [&](int32_t x, int32_t y) { return !pixel(x, y); }},
        {1, 1, 2, [&](int32_t x, int32_t y) { return !pixel(x, y); }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.bits << " bits, " << c.planes << " planes");
        test::Recorder recorder;
        Dib dib(19, 6, {Black, White}, c.bits < 8 ? Pixel(pixel) : nullptr);
        dib.bits = c.bits;
        dib.planes = c.planes;
        dib.clrUsed = c.clrUsed;
        Record record;
        TL_HANDLE host = HostBlock(dib.Bytes());
        TL_HANDLE block = TLC_BITMAP_E(record.data(), host);
        ASSERT_NE(block, nullptr);
        ExpectRaster(record, 6, 19, c.dark);
        EXPECT_EQ(GlobalSize(block), 4u + 3 * 6);
        EXPECT_TRUE(recorder.reports.empty());
        test::FreeBlock(block, true);
        GlobalFree(host);
    }
}

TEST(Handover, FailuresGiveBackEveryBlockAndLeaveTheRecord) {
    TL_HANDLE stale = GlobalAlloc(GHND, 64);  // a handle already given back
    GlobalFree(stale);
    const struct {
        const char *name;
        std::function<TL_HANDLE(Record &)> call;
        const char *title, *text;
    } cases[] = {
        {"one colour", [](Record &r) { Dib d; d.clrUsed = 1; d.palette.resize(1); return HandOver(Path::Image, r, d); },
         "TLx_IMAGE", "Bitmap with two or more colors expected"},
        {"wide", [](Record &r) { Dib d(40000); d.sizeImage = 8; return HandOver(Path::Image, r, d); }, "TLx_IMAGE",
         "Bitmap width=40000 bigger than 65535"},
        {"tall", [](Record &r) { Dib d(8, 0x7FFFFFFF); d.storedRows = 1; return HandOver(Path::Bitmap, r, d); },
         "TLx_BITMAP", "Bitmap height=2147483647 bigger than 65535"},
        {"a block too small for a header", [](Record &r) {
             TL_HANDLE host = HostBlock(std::vector<uint8_t>(39));
             TL_HANDLE block = TLC_BITMAP_E(r.data(), host);
             GlobalFree(host);
             return block;
         }, "TLx_BITMAP", "Image Lock Error"},
        {"a stale handle", [&](Record &r) { return TLC_BITMAP_E(r.data(), stale); }, "TLx_BITMAP", "Image Lock Error"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        test::Recorder recorder;
        test::LeakGuard guard;
        Record record;
        EXPECT_EQ(c.call(record), nullptr);
        EXPECT_TRUE(record.Untouched());
        EXPECT_TRUE(guard.Same());
        ExpectReport(recorder, c.title, c.text);
    }
    // NULL bitmap: 0 with the error state as it stood.
    {
        test::Recorder recorder;
        Record record;
        EXPECT_EQ(TLC_BITMAP_E(record.data(), nullptr), nullptr);
        EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
        ReportError("earlier", "still pending", 0);
        EXPECT_EQ(TLL_BITMAP_E(record.data(), nullptr), nullptr);
        EXPECT_EQ(TL_ERRORSTATUS_E(), 1);
        EXPECT_TRUE(record.Untouched());
    }
    // An error pending from before: the record is written, the new block is
    // given back, and 0 results; the error state stays as it was.
    {
        test::Recorder recorder;
        ReportError("earlier", "still pending", 0);
        TL_HANDLE host = HostBlock(Dib().Bytes());
        test::LeakGuard guard;
        Record record;
        EXPECT_EQ(TLP_BITMAP_E(record.data(), host), nullptr);
        EXPECT_TRUE(guard.Same());
        EXPECT_EQ(0, std::memcmp(&record.bytes[TL_RECORD_TAG], "a1", 3));
        EXPECT_EQ(recorder.reports.size(), 1u);
        EXPECT_EQ(TL_CLEARERROR_E(), 1);
        EXPECT_EQ(GlobalUnlock(host), 0);
        GlobalFree(host);
    }
    // No image: another image number of a BMP file, or the end of a walk.
    {
        test::Recorder recorder;
        const std::string file = test::WriteTemp("handover_walk.bmp", BmpFile(Dib().Bytes(), 2));
        test::LeakGuard guard;
        Record record, second;
        EXPECT_EQ(LoadImage(record, file, 1), nullptr);
        EXPECT_TRUE(record.Untouched());
        TL_HANDLE block = LoadImage(record, file, -1);
        ASSERT_NE(block, nullptr);
        test::FreeBlock(block, true);
        EXPECT_EQ(LoadImage(second, file, -1), nullptr);
        EXPECT_TRUE(second.Untouched());
        EXPECT_TRUE(guard.Same());
        EXPECT_TRUE(recorder.reports.empty());
        EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    }
}

// Bitmaps no sound writer makes: each stays inside its blocks (the
// sanitizer run proves it) and gives the raster the code says it gives.
TEST(Handover, UnsoundBitmapsStayInsideTheirBlocks) {
    test::QuietDefaults();
    auto pixel = [](int32_t x, int32_t y) { return uint32_t((x + 2 * y) % 5 == 0); };
    auto dark = [&](int32_t x, int32_t y) { return pixel(x, y) != 0; };
    const std::vector<Bgr> whiteFirst = {White, Black};

    // biSizeImage short of stride x height: the raster holds the whole rows
    // that are there, the lowest of the image.
    for (uint32_t sizeImage : {8u, 9u, 11u}) {
        Dib dib(30, 7, whiteFirst, pixel);
        dib.sizeImage = sizeImage;
        dib.storedRows = 2;
        std::vector<uint8_t> bytes = dib.Bytes();
        bytes.resize(40 + 8 + sizeImage);
        Record record;
        TL_HANDLE block = LoadImage(record, test::WriteTemp("handover_short.bmp", BmpFile(bytes, 2)));
        ASSERT_NE(block, nullptr);
        ExpectRaster(record, 2, 30, [&](int32_t x, int32_t y) { return dark(x, y + 5); });
        test::FreeBlock(block, true);
    }
    // Width 0 gives empty rows; a negative height is a top-down bitmap.
    for (Path path : {Path::Image, Path::Bitmap}) {
        ExpectHandOver(path, Dib(0, 3, whiteFirst), 3, 0, dark);
        ExpectHandOver(path, Dib(21, -6, whiteFirst, pixel), 6, 21, dark);
    }
    // biPlanes above 1 steps several rows at a time from the top row; raster
    // rows whose source would lie outside the pixel rows stay blank.
    for (uint16_t planes : {2, 3, 500})
        for (int32_t height : {7, -7}) {
            SCOPED_TRACE(testing::Message() << planes << " planes, height " << height);
            Dib dib(12, height, whiteFirst, pixel);
            dib.planes = planes;
            ExpectHandOver(Path::Bitmap, dib, 7, 12,
                           [&](int32_t x, int32_t y) { return y * planes < 7 && dark(x, y * planes); });
        }
    // A 4-bit bitmap with three palette entries: higher pixel values are
    // light, whatever the bytes behind the palette hold.
    {
        Dib dib(9, 3, {Black, White, {0, 0, 200}}, [](int32_t x, int32_t) { return uint32_t(x); });
        dib.bits = 4;
        dib.clrUsed = 3;
        Record record;
        TL_HANDLE block = HandOver(Path::Bitmap, record, dib);
        ASSERT_NE(block, nullptr);
        ExpectRaster(record, 3, 9, [](int32_t x, int32_t) { return x == 0 || x == 2; });
        // The padding nibble after pixel 8 is index 0, black, but no pixel.
        EXPECT_EQ(record.At(TL_RECORD_PIXELS)[1], 0);
        test::FreeBlock(block, true);
    }
    // Rows or a palette the host's block does not hold: rows beyond its end
    // stay blank, and a palette count past it leaves every row blank.
    for (uint32_t clrUsed : {2u, 1000u}) {
        Dib dib(16, 5, {Black, White}, pixel);
        dib.clrUsed = clrUsed;
        dib.storedRows = 3;
        ExpectHandOver(Path::Bitmap, dib, 5, 16, [&](int32_t x, int32_t y) {
            return clrUsed == 2 && !(y >= 2 && dark(x, y));  // the lowest three rows, inverted; else no palette read
        });
    }
}

TEST(TolmarVersion, ComparesAndFillsAnEmptyText) {
    test::Recorder recorder;
    char same[] = "3.3m", empty[5] = {};
    EXPECT_EQ(TOLMAR_VERSION_E(same), 1);
    EXPECT_EQ(TOLMAR_VERSION_E(empty), 1);
    EXPECT_STREQ(empty, "3.3m");
    EXPECT_EQ(TOLMAR_VERSION_E(nullptr), 0);
    EXPECT_TRUE(recorder.reports.empty());
    for (std::string other : {"3.3", "3.3m ", "3.3M"}) EXPECT_EQ(TOLMAR_VERSION_E(other.data()), 0);
    ASSERT_EQ(recorder.reports.size(), 3u);
    EXPECT_EQ(recorder.reports[0].title, "TOLIMAGE.DLL");
    EXPECT_EQ(recorder.reports[0].text, "Wrong TOLMAR Version");
    EXPECT_EQ(recorder.reports[0].withSystemText, 0);
}

}  // namespace
