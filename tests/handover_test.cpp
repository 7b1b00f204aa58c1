// The hand-over to the host: rasters from image files and from the host's
// bitmaps, the record's fields, the host's block, and the error state
// around them.  Malformed bitmaps and their reports are among the kept
// inputs that the replay pins.
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
#include "support/support.h"

namespace {

using Pixel = std::function<uint32_t(int32_t x, int32_t y)>;  // palette index, y from the top
using Dark = std::function<bool(int32_t x, int32_t y)>;
using Bgr = std::array<uint8_t, 3>;
const Bgr Black{0, 0, 0}, White{255, 255, 255};

// A bitmap block's bytes: header, palette, rows bottom-up (top-down for a negative height).
struct Dib {
    int32_t width = 8, height = 1;
    std::vector<Bgr> palette = {Black, White};  // what is stored
    Pixel pixel = [](int32_t, int32_t) { return 0u; };
    uint16_t planes = 1, bits = 1;
    uint32_t clrUsed = 2;     // what the header says
    uint32_t sizeImage = 0;   // 0: stride x rows
    int32_t storedRows = -1;  // -1: all rows
    Dib &Bits(uint16_t b, uint32_t colours) { return bits = b, clrUsed = colours, *this; }
    Dib &Planes(uint16_t p) { return planes = p, *this; }
    Dib &Stored(int32_t rows, uint32_t declared = 0) { return storedRows = rows, sizeImage = declared, *this; }

    uint32_t Stride() const { return width < 0 ? 0 : uint32_t((uint64_t(width) * bits + 31) / 32 * 4); }
    std::vector<uint8_t> Bytes() const {
        const int32_t rows = height < 0 ? -height : height, stored = storedRows < 0 ? rows : storedRows;
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
            std::vector<uint8_t> row(Stride());
            for (int32_t x = 0; x < width; ++x) {
                const uint32_t v = pixel(x, height < 0 ? m : rows - 1 - m), bit = uint32_t(x) * bits;
                for (uint32_t k = 0; bits >= 8 && k < bits / 8u; ++k) row[bit / 8 + k] = uint8_t(v >> (8 * k));
                if (bits < 8) row[bit / 8] |= uint8_t(v << (8 - bits - bit % 8));
            }
            b.insert(b.end(), row.begin(), row.end());
        }
        b.resize(std::max(b.size(), 40 + 4 * palette.size() + sizeImage));  // a declared size is there to read
        return b;
    }
};

std::vector<uint8_t> BmpFile(const std::vector<uint8_t> &dib, size_t paletteEntries) {
    std::vector<uint8_t> f(14 + dib.size());
    std::copy(dib.begin(), dib.end(), f.begin() + 14);
    f[0] = 'B', f[1] = 'M';
    StoreU32(&f[2], uint32_t(f.size()));
    StoreU32(&f[10], uint32_t(14 + 40 + 4 * paletteEntries));
    return f;
}

TL_HANDLE HostBlock(const std::vector<uint8_t> &bytes) {
    TL_HANDLE block = GlobalAlloc(GHND, bytes.size());
    std::memcpy(GlobalLock(block), bytes.data(), bytes.size());
    return GlobalUnlock(block), block;
}

// A host record around the three fields, filled with a pattern.
struct Record {
    std::vector<uint8_t> bytes = std::vector<uint8_t>(1500);
    Record() { for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = uint8_t(i * 7 + 3); }
    void *data() { return bytes.data(); }
    bool Untouched() const { return Record().bytes == bytes; }
    const uint8_t *At(int offset) const {
        return reinterpret_cast<const uint8_t *>(uintptr_t(LoadU32(&bytes[size_t(offset)])));
    }
    int32_t Rows() const { return LoadI16(At(TL_RECORD_RASTER)); }
    int32_t Columns() const { return LoadI16(At(TL_RECORD_RASTER) + 2); }
    bool IsDark(int32_t x, int32_t y) const {
        return (At(TL_RECORD_PIXELS)[size_t(y) * size_t((Columns() + 7) / 8) + size_t(x / 8)] >> (7 - x % 8)) & 1;
    }
};

enum Path { Image = 1, Bitmap = 2, Both = 3 };

TL_HANDLE LoadImage(Record &record, const std::string &path, int32_t number = 0) {
    std::vector<char> name(path.begin(), path.end());
    name.resize(260, '\0');  // the name may be overwritten with a chosen path
    return TLC_IMAGE_E(record.data(), name.data(), number);
}

// The raster of `dib` by either path; the image path goes through a file.
TL_HANDLE HandOver(Path path, Record &record, const Dib &dib) {
    const std::vector<uint8_t> bytes = dib.Bytes();
    if (path == Image) return LoadImage(record, test::WriteTemp("handover.bmp", BmpFile(bytes, dib.palette.size())));
    TL_HANDLE host = HostBlock(bytes);
    TL_HANDLE raster = TLC_BITMAP_E(record.data(), host);
    GlobalFree(host);
    return raster;
}

// Hands over without a report and expects that raster in the block (exactly
// its size on the bitmap path), and no leak once it is freed.
void ExpectHandOver(Path path, const Dib &dib, int32_t rows, int32_t columns, const Dark &dark) {
    SCOPED_TRACE(path == Image ? "image path" : "bitmap path");
    test::Recorder recorder;
    test::LeakGuard guard;
    Record record;
    TL_HANDLE block = HandOver(path, record, dib);
    ASSERT_NE(block, nullptr);
    // The record gets the tag and the addresses of the locked block, and nothing else.
    void *address = GlobalLock(block);
    EXPECT_NE(GlobalUnlock(block), 0);  // still locked for the host
    EXPECT_EQ(record.At(TL_RECORD_RASTER), address);
    EXPECT_EQ(record.At(TL_RECORD_PIXELS), static_cast<uint8_t *>(address) + 4);
    EXPECT_EQ(0, std::memcmp(&record.bytes[TL_RECORD_TAG], "a1", 3));
    const Record fresh;
    for (size_t i = 0; i < record.bytes.size(); ++i)
        ASSERT_TRUE(record.bytes[i] == fresh.bytes[i] ||
                    (i >= TL_RECORD_TAG && i < TL_RECORD_MIN_SIZE && i != TL_RECORD_TAG + 3)) << "byte " << i;
    ASSERT_EQ(record.Rows(), rows);
    ASSERT_EQ(record.Columns(), columns);
    for (int32_t y = 0; y < rows; ++y)
        for (int32_t x = 0; x < columns; ++x) ASSERT_EQ(record.IsDark(x, y), dark(x, y)) << "x " << x << " y " << y;
    const uintptr_t packed = 4 + uintptr_t(columns + 7) / 8 * uintptr_t(rows);
    EXPECT_TRUE(path == Bitmap ? GlobalSize(block) == packed : GlobalSize(block) >= packed);
    EXPECT_EQ(GlobalUnlock(block), 0);  // its one unlock ends the lock
    GlobalFree(block);
    EXPECT_TRUE(guard.Same());
    EXPECT_TRUE(recorder.reports.empty());
}

TEST(Handover, WidthsAndHeightsGivePackedRowsFromTheTop) {
    const Pixel pixel = [](int32_t x, int32_t y) { return uint32_t((x * 5 + y * 3) % 7 == 0 || x == y); };
    for (int32_t width : {1, 33, 32767})
        for (int32_t height : {1, 5})
            for (Path path : {Image, Bitmap}) {
                SCOPED_TRACE(testing::Message() << width << " x " << height);
                ExpectHandOver(path, Dib{width, height, {White, Black}, pixel}, height, width, pixel);
            }
    for (int32_t height : {32767, -32767})  // the tallest, either way up
        for (Path path : {Image, Bitmap}) ExpectHandOver(path, Dib{1, height, {White, Black}, pixel}, 32767, 1, pixel);
}

TEST(BitmapIntoRecord, HostBlockKeepsAllButClrUsedAndGivesTheSameRasterTwice) {
    test::QuietDefaults();
    const struct { uint16_t bits; uint32_t clrUsed, expected; } cases[] = {
        {1, 0, 2}, {4, 5, 5}, {8, 0, 256}, {32, 0, 1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.bits);
        Dib dib = Dib{11, 4, std::vector<Bgr>(c.bits == 32 ? 0 : c.expected, Black),
                      [&](int32_t x, int32_t y) { return c.bits == 32 ? 0x808080u * uint32_t(x) : uint32_t(x + y) % 2; }}
                      .Bits(c.bits, c.clrUsed);
        if (!dib.palette.empty()) dib.palette[0] = White;
        const std::vector<uint8_t> before = dib.Bytes();
        TL_HANDLE host = HostBlock(before);
        std::vector<uint8_t> raster[2];
        for (auto &bytes : raster) {
            test::LeakGuard guard;
            Record record;
            TL_HANDLE block = TLC_BITMAP_E(record.data(), host);
            bytes = block ? test::BlockBytes(block) : std::vector<uint8_t>{};
            test::FreeBlock(block, true);
            EXPECT_TRUE(block && guard.Same());
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

// What the kept inputs give through the hand-overs the replay pins; here the error state around them.
TEST(Handover, APendingErrorOrNoImageLeavesTheRecordAndGivesBackEveryBlock) {
    test::Recorder recorder;
    Record record, second;
    // NULL bitmap: 0 with the error state as it stood.
    EXPECT_EQ(TLC_BITMAP_E(record.data(), nullptr), nullptr);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    ReportError("earlier", "still pending", 0);
    EXPECT_EQ(TLL_BITMAP_E(record.data(), nullptr), nullptr);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 1);
    EXPECT_TRUE(record.Untouched());
    // An error pending from before: the record is written, the block given back, 0 results, the error stays.
    TL_HANDLE host = HostBlock(Dib().Bytes());
    test::LeakGuard guard;
    EXPECT_EQ(TLP_BITMAP_E(record.data(), host), nullptr);
    EXPECT_TRUE(guard.Same());
    EXPECT_EQ(0, std::memcmp(&record.bytes[TL_RECORD_TAG], "a1", 3));
    EXPECT_EQ(recorder.reports.size(), 1u);
    EXPECT_EQ(TL_CLEARERROR_E(), 1);
    EXPECT_EQ(GlobalUnlock(host), 0);
    GlobalFree(host);
    // No image: another image number of a BMP file, or the end of a walk.
    record = Record();
    guard = test::LeakGuard();
    const std::string file = test::Fixture("bmp/netpbm_1bit.bmp");
    EXPECT_EQ(LoadImage(record, file, 1), nullptr);
    EXPECT_TRUE(record.Untouched());
    TL_HANDLE block = LoadImage(record, file, -1);
    ASSERT_NE(block, nullptr);
    test::FreeBlock(block, true);
    EXPECT_EQ(LoadImage(second, file, -1), nullptr);
    EXPECT_TRUE(second.Untouched());
    EXPECT_TRUE(guard.Same());
    EXPECT_EQ(recorder.reports.size(), 1u);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
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
