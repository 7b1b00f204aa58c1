// The RAS reader: the header and its palette, the walk through a file's
// records, numbered reads, the pixel forms of both variants, and files that
// are cut off or lie about their sizes.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/image.h"
#include "platform/win32.h"
#include "readers/ras.h"
#include "services/errors.h"
#include "support/pnm.h"
#include "support/ras_writer.h"
#include "support/support.h"

namespace {

using test::MakeRas;
using test::PatternPicture;
using test::RasLayout;
using test::RasPicture;

TL_HANDLE Load(const std::string &path, int32_t number) {
    std::vector<char> name(path.begin(), path.end());
    name.resize(260, '\0');
    return TL_IMAGE_E(name.data(), number);
}

// The rows a block must hold for `pic`, bottom row first, worked out from
// the bitmap form alone.  A 1-bit "bimp" block has its fill bits set.
std::vector<uint8_t> ExpectedRows(const RasPicture &pic, int32_t bits, bool bimp) {
    const size_t stride = ((size_t(pic.cols) * bits + 31) / 32) * 4;
    std::vector<uint8_t> rows(stride * size_t(pic.rows), 0);
    for (int32_t y = 0; y < pic.rows; ++y) {
        uint8_t *row = &rows[size_t(pic.rows - 1 - y) * stride];
        if (bits == 1 && bimp) memset(row, 0xFF, stride);
        for (int32_t x = 0; x < pic.cols; ++x) {
            uint8_t v = pic.At(x, y);
            if (bits == 1) {
                auto mask = uint8_t(0x80 >> (x % 8));
                row[x / 8] = uint8_t(v ? row[x / 8] | mask : row[x / 8] & ~mask);
            } else if (bits == 4) {
                row[x / 2] |= uint8_t(v << (x % 2 ? 0 : 4));
            } else {
                row[x] = v;
            }
        }
    }
    return rows;
}

// Checks the whole block of image `pic`: header, palette, rows.
void ExpectImage(TL_HANDLE block, const RasPicture &pic, const RasLayout &layout) {
    ASSERT_NE(block, nullptr);
    std::vector<uint8_t> b = test::BlockBytes(block);
    test::FreeBlock(block);
    ASSERT_GE(b.size(), 40u);
    uint32_t colours = layout.bimp && !layout.palette.empty() ? uint32_t(layout.palette.size()) : 2;
    EXPECT_EQ(LoadU32(&b[0]), 40u);
    EXPECT_EQ(LoadI32(&b[4]), pic.cols);
    EXPECT_EQ(LoadI32(&b[8]), pic.rows);
    EXPECT_EQ(LoadU16(&b[12]), 1u);
    EXPECT_EQ(LoadU16(&b[14]), uint32_t(layout.bits));
    EXPECT_EQ(LoadU32(&b[16]), 0u);
    EXPECT_EQ(LoadU32(&b[20]), 0u) << "biSizeImage is left 0";
    EXPECT_EQ(LoadU32(&b[32]), colours);
    EXPECT_EQ(LoadU32(&b[36]), 0u);
    std::vector<uint8_t> palette(4 * colours, 0);
    if (colours == 2 && (!layout.bimp || layout.palette.empty())) palette[0] = palette[1] = palette[2] = 255;
    for (size_t e = 0; layout.bimp && e < layout.palette.size(); ++e) memcpy(&palette[4 * e], layout.palette[e].data(), 4);
    ASSERT_EQ(b.size(), 40 + palette.size() + ExpectedRows(pic, layout.bits, layout.bimp).size());
    EXPECT_EQ(std::vector<uint8_t>(b.begin() + 40, b.begin() + 40 + long(palette.size())), palette);
    EXPECT_EQ(std::vector<uint8_t>(b.begin() + 40 + long(palette.size()), b.end()),
              ExpectedRows(pic, layout.bits, layout.bimp));
}

// A header built field by field, for the parse tests.
struct Header {
    std::vector<uint8_t> h = std::vector<uint8_t>(RasHeaderSize, 0);
    int slot = 0;
    explicit Header(const char *magic, int32_t recordSize = 100) {
        memcpy(h.data(), magic, 4);
        StoreU32(&h[4], uint32_t(recordSize));
        StoreU32(&h[8], 1);
    }
    Header &Element(const char *name, int32_t dim0, int32_t dim1, int32_t bits, int8_t o0 = 0, int8_t o1 = 0) {
        memcpy(&h[size_t(RasElementNameAt + 4 * slot)], name, strlen(name) < 4 ? strlen(name) : 4);
        StoreU32(&h[size_t(RasDimAt + 8 * slot)], uint32_t(dim0));
        StoreU32(&h[size_t(RasDimAt + 8 * slot + 4)], uint32_t(dim1));
        h[size_t(RasOrderAt + 2 * slot)] = uint8_t(o0);
        h[size_t(RasOrderAt + 2 * slot + 1)] = uint8_t(o1);
        memcpy(&h[size_t(RasElementTypeAt + 2 * slot)], bits == 8 ? "un" : "bi", 2);
        StoreU32(&h[size_t(RasElementBitsAt + 4 * slot)], uint32_t(bits));
        ++slot;
        return *this;
    }
    Header &Key(int k, const char *key, const std::string &value) {
        memcpy(&h[size_t(RasKeyAt + 4 * k)], key, 4);
        memcpy(&h[size_t(RasValueAt + RasValueBytes * k)], value.data(), value.size());
        return *this;
    }
    int32_t Parse() const {
        memcpy(RasState.Header, h.data(), RasHeaderSize);
        return RasParseHeader();
    }
};

// ---- header ----

TEST(RasHeader, LayoutValuesAndRejections) {
    struct Case {
        const char *what;
        Header header;
        int32_t ok, variable, rows, cols, bits, prefix, gap, pixels, tail;
    };
    auto bild = [](int32_t recordSize = 100) { return Header("bild", recordSize); };
    auto bimp = [](int32_t recordSize = 100) { return Header("bimp", recordSize); };
    std::vector<Case> cases = {
        {"variable bild, 12 bytes in front", bild().Element("time", 12, 0, 8).Element("bild", -1, -1, 1, 1, 2), 1, 1,
         0, 0, 1, 12, 0, 0, 0},
        {"element behind the picture counts into the gap",
         bild().Element("time", 12, 0, 8).Element("bild", -1, -1, 1, 1, 2).Element("more", 3, 2, 4), 1, 1, 0, 0, 1, 12,
         3, 0, 0},
        {"fixed bild 10 x 4 at 1 bit", bild(20).Element("head", 5, 0, 8).Element("bild", 4, 10, 1, -1, 2), 1, 0, 4, 10,
         1, 0, 5, 5, 10},
        {"extents 0 and 1 give one row and one column", bild(30).Element("bild", 0, 1, 8, 1, 2), 1, 0, 1, 1, 8, 0, 0, 1,
         29},
        {"a value of an element with both extents 0", bild(30).Element("flag", 0, 0, 1).Element("bild", 2, 2, 8, 1, 2), 1,
         0, 2, 2, 8, 0, 1, 4, 25},
        {"dim in a bild file is just data", bild(40).Element("dim", 8, 0, 8).Element("bild", 2, 8, 8, 1, 2), 1, 0, 2, 8,
         8, 0, 8, 16, 16},
        {"fixed bimp: tail is the rest of RecordSize",
         bimp(100).Element("head", 4, 0, 8).Element("dims", 8, 0, 8).Element("bild", 2, 32, 1, 1, 2), 1, 0, 2, 32, 1, 4,
         8, 8, 72},
        {"bimp: any name starting with dim marks the size", bimp().Element("dimx", 2, 0, 8).Element("bild", -1, 5, 4, 1, 2),
         1, 1, 0, 0, 4, 0, 2, 0, 0},
        {"bimp: a negative extent does not move the gap", bimp().Element("head", 6, 0, 8).Element("x", -3, 4, 8, -1, 2), 1,
         1, 0, 0, 8, 0, 6, 0, 0},
        {"a negative tail is kept", bimp(10).Element("bild", 4, 32, 1, 1, 2), 1, 0, 4, 32, 1, 0, 0, 16, -14},
        {"a second picture replaces the first", bild(50).Element("bild", 2, 2, 1, 1, 2).Element("bild", 3, 3, 8, -1, 2), 1,
         0, 3, 3, 8, 0, 0, 9, 41},
    };
    auto reject = [&](const char *what, Header header) {
        cases.push_back({what, std::move(header), 0, 0, 0, 0, 0, 0, 0, 0, 0});
    };
    reject("magic", Header("bilx").Element("bild", -1, -1, 1, 1, 2));
    {
        Header full = bild();
        for (int i = 0; i < 15; ++i) full.Element("data", 1, 0, 8);
        full.Element("bild", -1, -1, 1, 1, 2);
        reject("16 elements without an end", full);
    }
    reject("negative extent behind a picture", bild().Element("bild", 2, 2, 1, 1, 2).Element("more", -1, 2, 8));
    reject("two variable pictures", bild().Element("a", -1, 2, 1, 1, 2).Element("b", -1, 2, 1, 1, 2));
    reject("no picture", bild().Element("data", 2, 2, 8));
    reject("directions 0, 2", bild().Element("bild", -1, -1, 1, 0, 2));
    reject("directions 2, 1", bild().Element("bild", -1, -1, 1, 2, 1));
    reject("directions 1, -2", bild().Element("bild", -1, -1, 1, 1, -2));
    reject("4 bits in a bild file", bild().Element("bild", -1, -1, 4, 1, 2));
    reject("2 bits", bimp().Element("bild", -1, -1, 2, 1, 2));
    // Our own refusals of sizes no file can have.
    reject("fixed pixel bytes past 31 bits", bild().Element("bild", 0x7FFFFFFF, 0x7FFFFFFF, 8, 1, 2));
    reject("element of a negative size", bild().Element("data", 4, 0, -8).Element("bild", -1, -1, 1, 1, 2));
    reject("gap past 31 bits", bild().Element("data", 0x7FFFFFFF, 2, 8).Element("bild", -1, -1, 1, 1, 2));
    reject("fixed file with RecordSize 0", Header("bild", 0).Element("bild", 2, 2, 1, 1, 2));

    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(c.header.Parse(), c.ok);
        if (!c.ok) continue;
        EXPECT_EQ(RasState.Variable, c.variable);
        EXPECT_EQ(RasState.Rows, c.rows);
        EXPECT_EQ(RasState.Cols, c.cols);
        EXPECT_EQ(RasState.Bits, c.bits);
        EXPECT_EQ(RasState.PrefixBytes, c.prefix);
        EXPECT_EQ(RasState.GapBytes, c.gap);
        EXPECT_EQ(RasState.PixelBytes, c.pixels);
        EXPECT_EQ(RasState.TailBytes, c.tail);
    }
}

TEST(RasHeader, Palettes) {
    auto picture = [](Header h) { return h.Element("bild", -1, -1, 4, 1, 2); };
    // 16 entries with "rgbq" in slot 3: 0 to 7 there, 8 to 15 at the start of
    // slot 4, whatever its key.
    std::string slot3, slot4;
    for (int e = 0; e < 8; ++e) slot4 += std::string("a") + char('0' + e) + "bBcC00 ";
    for (int e = 0; e < 8; ++e) {
        char text[10];
        snprintf(text, sizeof text, "%02X1122FF/", e);
        slot3 += text;
    }
    ASSERT_EQ(picture(Header("bimp").Key(0, "clrs", "16").Key(3, "rgbq", slot3).Key(4, "junk", slot4)).Parse(), 1);
    EXPECT_EQ(RasState.Colours, 16);
    for (int e = 0; e < 8; ++e) {
        EXPECT_EQ(RasState.Palette[e][0], e);
        EXPECT_EQ(RasState.Palette[e][3], 0xFF);
        EXPECT_EQ(RasState.Palette[8 + e][0], 0xA0 + e) << "entry " << 8 + e << " from the next slot";
        EXPECT_EQ(RasState.Palette[8 + e][1], 0xBB);
        EXPECT_EQ(RasState.Palette[8 + e][2], 0xCC);
    }

    // 8 colours read one slot; 00FF0000 is blue 0, green 255, red 0.
    ASSERT_EQ(picture(Header("bimp").Key(5, "clrs", " +8").Key(1, "rgbq", "00FF0000 ")).Parse(), 1);
    EXPECT_EQ(RasState.Colours, 8);
    EXPECT_EQ(std::vector<uint8_t>(RasState.Palette[0], RasState.Palette[0] + 4), (std::vector<uint8_t>{0, 255, 0, 0}));

    struct Count {
        const char *what;
        Header header;
        int32_t ok, colours;
        bool whiteBlack;
    };
    Count counts[] = {
        {"bimp without clrs", picture(Header("bimp")), 1, 2, true},
        {"bimp 8 bits without clrs", Header("bimp").Element("bild", 3, 3, 8, 1, 2), 1, 2, true},
        {"clrs 0 gives no entries", picture(Header("bimp").Key(0, "clrs", "0").Key(1, "rgbq", "")), 1, 0, false},
        {"clrs 17", picture(Header("bimp").Key(0, "clrs", "17").Key(1, "rgbq", "")), 0, 0, false},
        {"clrs without rgbq", picture(Header("bimp").Key(0, "clrs", "2")), 0, 0, false},
        {"clrs -1 (our refusal)", picture(Header("bimp").Key(0, "clrs", "-1").Key(1, "rgbq", "")), 0, 0, false},
        {"clrs kept in 16 bits: 65538 is 2", picture(Header("bimp").Key(0, "clrs", "65538").Key(1, "rgbq", "")), 1, 2,
         false},
        {"clrs past 32 bits", picture(Header("bimp").Key(0, "clrs", "99999999999").Key(1, "rgbq", "")), 0, 0, false},
        {"bild ignores clrs and rgbq",
         Header("bild").Key(0, "clrs", "16").Key(1, "rgbq", "00FF0000").Element("bild", 2, 2, 8, 1, 2), 1, 2, true},
    };
    for (const Count &c : counts) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(c.header.Parse(), c.ok);
        if (!c.ok) continue;
        EXPECT_EQ(RasState.Colours, c.colours);
        if (c.whiteBlack) {
            EXPECT_EQ(std::vector<uint8_t>(RasState.Palette[0], RasState.Palette[2]),
                      (std::vector<uint8_t>{255, 255, 255, 0, 0, 0, 0, 0}));
        }
    }

    // Hex digits in either case; other chars are taken by their code.
    uint8_t entry[4];
    RasParseColour(entry, "0aFf9B10");
    EXPECT_EQ(std::vector<uint8_t>(entry, entry + 4), (std::vector<uint8_t>{0x0A, 0xFF, 0x9B, 0x10}));
    RasParseColour(entry, "G0000000");
    EXPECT_EQ(entry[0], uint8_t(16 * ('G' - 55)));
}

// ---- the sequence of images ----

RasLayout Bild1() {
    RasLayout l;
    l.before = 3;
    l.after = 5;
    return l;
}

std::vector<RasPicture> ThreePictures(int32_t bits) {
    return {PatternPicture(5, 13, bits, 1), PatternPicture(9, 7, bits, 2), PatternPicture(4, 40, bits, 3)};
}

TEST(RasSequence, AWalkGivesEveryImageThenZeroThenStartsAgain) {
    test::QuietDefaults();
    RasLayout layout = Bild1();
    auto pictures = ThreePictures(1);
    std::string path = test::WriteTemp("walk3.ras", MakeRas(layout, pictures));
    test::LeakGuard guard;
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 3; ++i) {
            SCOPED_TRACE(i);
            ExpectImage(Load(path, -1), pictures[size_t(i)], layout);
            EXPECT_EQ(LastImageType, TypeRAS);
            EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
            // The file stays held between the calls of a walk, until the last.
            EXPECT_EQ(RasFile != NoFile, i < 2);
            EXPECT_EQ(RasMemo.EndFlag, i == 2 ? 1 : 0);
        }
        EXPECT_EQ(Load(path, -1), nullptr);
        EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
        EXPECT_EQ(RasMemo.Name[0], '\0');
    }
    EXPECT_TRUE(guard.Same());

    // An empty name means the file of the last read: name once with 0, then
    // empty names with 1, 2 and so on until 0.
    ExpectImage(Load(path, 0), pictures[0], layout);
    ExpectImage(Load("", 1), pictures[1], layout);
    ExpectImage(Load("", 2), pictures[2], layout);
    EXPECT_EQ(Load("", 3), nullptr);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    // That ended the file and cleared the name: an empty name now reaches
    // the file table with nothing.
    test::Recorder recorder;
    EXPECT_EQ(Load("", 0), nullptr);
    ASSERT_EQ(recorder.reports.size(), 1u);
    EXPECT_EQ(recorder.reports[0].text, "TL_OPEN  empty filename");
    EXPECT_TRUE(guard.Same());
}

TEST(RasSequence, TheTwoRecordFileOfEightByEight) {
    test::QuietDefaults();
    RasLayout layout;  // one element "bild", -1 x -1, directions 1 and 2, "bi", 1 bit
    std::vector<RasPicture> pictures = {PatternPicture(8, 8, 1, 7), PatternPicture(8, 8, 1, 8)};
    std::vector<uint8_t> file = MakeRas(layout, pictures);
    ASSERT_EQ(file.size(), 2476u);
    EXPECT_EQ(LoadI32(&file[2444]), 8);
    std::string path = test::WriteTemp("two8.ras", file);
    test::LeakGuard guard;

    ExpectImage(Load(path, -1), pictures[0], layout);
    EXPECT_EQ(RasState.NextOffset, 2460);  // end test: 2460 + 0 + 0 + 8 = 2468, inside
    EXPECT_NE(RasFile, NoFile);
    EXPECT_EQ(RasMemo.EndFlag, 0);
    ExpectImage(Load(path, -1), pictures[1], layout);
    EXPECT_EQ(RasState.NextOffset, 2476);  // 2484 is past the end: the last image
    EXPECT_EQ(RasFile, NoFile);
    EXPECT_EQ(RasMemo.EndFlag, 1);
    EXPECT_EQ(Load(path, -1), nullptr);
    EXPECT_TRUE(guard.Same());

    // Numbered reads of the same file.
    ExpectImage(Load(path, 1), pictures[1], layout);  // the last: the next call, any number, ends it
    EXPECT_EQ(Load(path, 0), nullptr);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    for (int32_t past : {2, 55555, 0x7FFFFFFF}) EXPECT_EQ(Load(path, past), nullptr) << past;
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    // Image 0 is not the last; a call with 1 opens the file anew and steps
    // over one record.
    ExpectImage(Load(path, 0), pictures[0], layout);
    EXPECT_EQ(RasFile, NoFile);
    ExpectImage(Load(path, 1), pictures[1], layout);
    EXPECT_EQ(Load(path, 1), nullptr);
    EXPECT_TRUE(guard.Same());
}

TEST(RasSequence, NumbersAndNamesAgainstTheStates) {
    test::QuietDefaults();
    RasLayout layout = Bild1();
    RasPicture one = PatternPicture(6, 20, 1, 4);
    std::string single = test::WriteTemp("one.ras", MakeRas(layout, {one}));
    auto pictures = ThreePictures(1);
    std::string three = test::WriteTemp("three.ras", MakeRas(layout, pictures));
    test::LeakGuard guard;

    // Image 0 twice on a file of one image: the image, 0, the image.
    ExpectImage(Load(single, 0), one, layout);
    EXPECT_EQ(Load(single, 0), nullptr);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    ExpectImage(Load(single, 0), one, layout);
    EXPECT_EQ(Load(single, -1), nullptr);  // ended by the read before
    EXPECT_TRUE(guard.Same());

    // A NULL name during a walk closes the file; the next call starts at 0.
    ExpectImage(Load(three, -1), pictures[0], layout);
    ExpectImage(Load(three, -1), pictures[1], layout);
    EXPECT_EQ(platform::OpenFiles(), guard.files + 1);
    EXPECT_EQ(TL_IMAGE_E(nullptr, 0), nullptr);
    EXPECT_EQ(platform::OpenFiles(), guard.files);
    EXPECT_EQ(RasFile, NoFile);
    ExpectImage(Load(three, -1), pictures[0], layout);

    // Another file during a walk closes the walked one; the walk is gone.
    ExpectImage(Load(single, -1), one, layout);
    EXPECT_EQ(platform::OpenFiles(), guard.files);
    EXPECT_EQ(Load(single, -1), nullptr);
    ExpectImage(Load(three, -1), pictures[0], layout);

    // During a walk: 0 gives image 0 and closes; a number below -1 keeps
    // giving image 0 with the file held.
    ExpectImage(Load(three, 0), pictures[0], layout);
    EXPECT_EQ(RasFile, NoFile);
    ExpectImage(Load(three, -1), pictures[0], layout);
    ExpectImage(Load(three, -5), pictures[0], layout);
    EXPECT_NE(RasFile, NoFile);
    EXPECT_EQ(RasMemo.Number, -5);
    ExpectImage(Load(three, -5), pictures[0], layout);
    ExpectImage(Load(three, -1), pictures[0], layout);
    // Our choice: a numbered read during a walk gives image N of the file.
    ExpectImage(Load(three, 2), pictures[2], layout);
    EXPECT_EQ(Load(three, -1), nullptr) << "image 2 was the last";
    ExpectImage(Load(three, -1), pictures[0], layout);
    ExpectImage(Load(three, 1), pictures[1], layout);
    EXPECT_EQ(RasFile, NoFile);
    EXPECT_EQ(TL_IMAGE_E(nullptr, 0), nullptr);
    EXPECT_TRUE(guard.Same());
}

// ---- pixels ----

TEST(RasPixels, EveryVariantDepthDirectionAndRecordKind) {
    test::QuietDefaults();
    struct Form { bool bimp; int32_t bits; };
    const Form forms[] = {{false, 1}, {false, 8}, {true, 1}, {true, 4}, {true, 8}};
    // Sizes that start 'bild' rows inside a byte (10 x 4), need stride
    // padding (100 columns: 28 fill bits), and fill whole words (64).
    const int32_t sizes[][2] = {{4, 10}, {3, 100}, {2, 64}, {7, 1}, {1, 33}};
    test::LeakGuard guard;
    for (const Form &form : forms)
        for (int8_t order0 : {int8_t(1), int8_t(-1)})
            for (bool variable : {true, false})
                for (const auto &size : sizes) {
                    SCOPED_TRACE(testing::Message() << (form.bimp ? "bimp " : "bild ") << form.bits << " bits, order "
                                                    << int(order0) << (variable ? ", variable " : ", fixed ") << size[0]
                                                    << " x " << size[1]);
                    RasLayout layout;
                    layout.bimp = form.bimp;
                    layout.bits = form.bits;
                    layout.order0 = order0;
                    layout.variable = variable;
                    layout.before = 6;
                    layout.after = 2;
                    layout.dim = form.bimp ? 4 : 0;
                    if (form.bimp && form.bits != 1) layout.palette = test::TestPalette(form.bits == 4 ? 16 : 11);
                    // A fixed "bimp" record holds the packed size of the header's
                    // picture; padded rows of 1 or 4 bits fit only when they fill
                    // whole words (the rest reads as 0: see StoredSizesThatLie).
                    if (!variable && form.bimp && form.bits < 8 && (size[1] * form.bits) % 32) continue;
                    std::vector<RasPicture> pics = {PatternPicture(size[0], size[1], form.bits, 11),
                                                    PatternPicture(size[0], size[1], form.bits, 12)};
                    std::string path = test::WriteTemp("form.ras", MakeRas(layout, pics));
                    ExpectImage(Load(path, -1), pics[0], layout);
                    ExpectImage(Load(path, -1), pics[1], layout);
                    EXPECT_EQ(Load(path, -1), nullptr);
                    ExpectImage(Load(path, 1), pics[1], layout);
                    EXPECT_EQ(Load(path, 0), nullptr) << "image 1 was the last";
                    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
                }
    EXPECT_TRUE(guard.Same());
}

TEST(RasPixels, TheFormsByHand) {
    test::QuietDefaults();
    // 'bild' 1 bit, 10 x 4: 5 pixel bytes, row 1 starts behind the two top
    // bits of byte 1.  Rows: 1111111111, 0000000000, 1010101010, 1100000011.
    RasLayout bild;
    RasPicture p{4, 10, {}};
    const char *rows[] = {"1111111111", "0000000000", "1010101010", "1100000011"};
    for (const char *r : rows)
        for (int x = 0; x < 10; ++x) p.values.push_back(uint8_t(r[x] == '1'));
    std::vector<uint8_t> stored = test::RasPixelsFor(bild, p);
    EXPECT_EQ(stored, (std::vector<uint8_t>{0xFF, 0xC0, 0x0A, 0xAB, 0x03}));
    std::vector<uint8_t> b = test::BlockBytes(Load(test::WriteTemp("byhand.ras", MakeRas(bild, {p})), 0));
    ASSERT_EQ(b.size(), 40u + 8 + 16);
    // Order0 +1: the first stored row is the block's last row.
    EXPECT_EQ(std::vector<uint8_t>(b.begin() + 48, b.end()),
              (std::vector<uint8_t>{0xC0, 0xC0, 0, 0, 0xAA, 0x80, 0, 0, 0, 0, 0, 0, 0xFF, 0xC0, 0, 0}));

    // 'bimp' 1 bit, 100 columns: stride 16; stored 0 bits read as 1 after the
    // inversion, and the last 28 bits of every row are 1.
    RasLayout bimp;
    bimp.bimp = true;
    RasPicture zeros{2, 100, std::vector<uint8_t>(200, 0)};
    b = test::BlockBytes(Load(test::WriteTemp("stride.ras", MakeRas(bimp, {zeros})), 0));
    ASSERT_EQ(b.size(), 40u + 8 + 32);
    for (int r = 0; r < 2; ++r) {
        const uint8_t *row = &b[48 + 16 * size_t(r)];
        for (int i = 0; i < 12; ++i) EXPECT_EQ(row[i], 0) << i;
        EXPECT_EQ(row[12], 0x0F);
        EXPECT_EQ(row[13], 0xFF);
        EXPECT_EQ(row[15], 0xFF);
    }
}

// Records of their own size differ (see the walk); a fixed "bimp" file's
// records may hold smaller pictures than the header.
TEST(RasPixels, FixedRecordsMayHoldSmallerPictures) {
    test::QuietDefaults();
    test::LeakGuard guard;
    RasLayout fixed;
    fixed.bimp = true;
    fixed.bits = 8;
    fixed.variable = false;
    fixed.headerRows = 10;
    fixed.headerCols = 12;
    fixed.palette = test::TestPalette(16);
    std::vector<RasPicture> small = {PatternPicture(10, 12, 4, 1), PatternPicture(4, 3, 4, 2), PatternPicture(10, 1, 4, 3)};
    std::string path = test::WriteTemp("fixedsmall.ras", MakeRas(fixed, small));
    for (const auto &pic : small) ExpectImage(Load(path, -1), pic, fixed);
    EXPECT_EQ(Load(path, -1), nullptr);
    ExpectImage(Load(path, 2), small[2], fixed);
    EXPECT_TRUE(guard.Same());
}

// ---- the bundled samples, written by an independent writer ----

TEST(RasSamples, TheSamplesShowTheirSourcePictures) {
    test::QuietDefaults();
    test::LeakGuard guard;
    struct Sample { const char *file; std::vector<const char *> sources; uint16_t bits; };
    const Sample samples[] = {{"multi.ras", {"page1.pbm", "page2.pbm", "page3.pbm"}, 1},
                              {"colour16.ras", {"colour16.ppm"}, 4}};
    for (const Sample &sample : samples) {
        SCOPED_TRACE(sample.file);
        std::string path = test::Sample(sample.file);
        for (const char *source : sample.sources) {
            SCOPED_TRACE(source);
            TL_HANDLE block = Load(path, -1);
            ASSERT_NE(block, nullptr);
            std::vector<uint8_t> bytes = test::BlockBytes(block);
            test::FreeBlock(block);
            EXPECT_EQ(LoadU16(&bytes[14]), sample.bits);
            test::Rgb expected, actual;
            ASSERT_TRUE(test::ReadPnm(test::Fixture(std::string("ras/src/") + source), expected));
            ASSERT_TRUE(test::DibToRgb(bytes, actual));
            EXPECT_EQ(test::FirstDifference(expected, actual), "");
        }
        EXPECT_EQ(Load(path, -1), nullptr);
        EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    }
    EXPECT_TRUE(guard.Same());
}

// ---- damaged files ----

TEST(RasDamage, CutFilesGiveZeroWithNoReportEvenToACallback) {
    struct Kind { const char *what; RasLayout layout; };
    RasLayout fixedBimp;
    fixedBimp.bimp = true;
    fixedBimp.variable = false;
    fixedBimp.bits = 4;
    fixedBimp.before = 3;
    RasLayout fixedBild;
    fixedBild.variable = false;
    fixedBild.after = 5;
    const Kind kinds[] = {{"variable bild", Bild1()}, {"fixed bimp", fixedBimp}, {"fixed bild", fixedBild}};
    for (const Kind &kind : kinds) {
        SCOPED_TRACE(kind.what);
        int32_t bits = kind.layout.bits;
        std::vector<RasPicture> pics = {PatternPicture(5, 16, bits, 1), PatternPicture(5, 16, bits, 2),
                                        PatternPicture(5, 16, bits, 3)};
        std::vector<uint8_t> whole = MakeRas(kind.layout, pics);
        auto places = test::RasPlaces(kind.layout, pics);
        test::Recorder recorder;
        test::LeakGuard guard;
        // Every cut around the ends of the header and of each record's parts,
        // and a spread of cuts in between.
        std::vector<size_t> cuts = {0, 1, 2, 100, 2443, 2444, 2445};
        for (const auto &place : places)
            for (size_t at : {place.start, place.size, place.size + 4, place.pixels, place.end})
                for (size_t d : {0, 1, 2, 7, 8, 9}) cuts.push_back(at + d >= 1 ? at + d - 1 : 0);
        for (size_t cut = 2446; cut < whole.size(); cut += 13) cuts.push_back(cut);
        for (size_t cut : cuts) {
            if (cut >= whole.size()) continue;
            SCOPED_TRACE(cut);
            std::string path =
                test::WriteTemp("cut.ras", std::vector<uint8_t>(whole.begin(), whole.begin() + long(cut)));
            // Images wholly in front of the cut come out; the walk then ends
            // with 0, and a numbered read of a cut image gives 0.
            size_t whole_images = 0;
            while (whole_images < 3 && places[whole_images].end <= cut) ++whole_images;
            if (cut < 2444) whole_images = 0;
            for (size_t i = 0; i < whole_images; ++i) ExpectImage(Load(path, -1), pics[i], kind.layout);
            EXPECT_EQ(Load(path, -1), nullptr);
            EXPECT_EQ(TL_ERRORSTATUS_E(), cut < 2444 ? 1 : 0);
            EXPECT_EQ(Load(path, int32_t(whole_images)), nullptr);
            EXPECT_TRUE(guard.Same());
            if (cut >= 2444) {
                EXPECT_TRUE(recorder.reports.empty());
            }
            recorder.reports.clear();
        }
    }
}

TEST(RasDamage, AReadTheSystemRefusesReachesTheCallbackOnly) {
    // A file that shrinks during a walk: its length was taken at the open,
    // so the read of the next record's pixels is tried and comes up short.
    // That is a silent attempt: the callback hears it, but no quit message
    // is posted (though ErrorContinue is 0), and no error is left behind.
    RasLayout layout = Bild1();
    auto pictures = ThreePictures(1);
    std::vector<uint8_t> file = MakeRas(layout, pictures);
    auto places = test::RasPlaces(layout, pictures);
    std::string path = test::WriteTemp("shrinks.ras", file);
    test::Recorder recorder(0, 1);
    test::LeakGuard guard;
    ExpectImage(Load(path, -1), pictures[0], layout);
    std::filesystem::resize_file(path, places[1].pixels + 1);
    EXPECT_EQ(Load(path, -1), nullptr);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    ASSERT_EQ(recorder.reports.size(), 1u);
    EXPECT_EQ(recorder.reports[0].title, "ReadRAS");
    EXPECT_EQ(recorder.reports[0].text, path);
    EXPECT_EQ(recorder.reports[0].withSystemText, 1);
    EXPECT_EQ(GetErrorContinue(), 0) << "flags restored";
    EXPECT_EQ(GetErrorBox(), 1);
    MSG msg;
    EXPECT_FALSE(PeekMessageA(&msg, nullptr, WM_QUIT, WM_QUIT, PM_REMOVE)) << "no quit message";
    EXPECT_EQ(RasFile, NoFile);
    EXPECT_EQ(RasMemo.Name[0], '\0') << "memo cleared";
    EXPECT_TRUE(guard.Same());
}

TEST(RasDamage, StoredSizesThatLie) {
    // Stored rows and columns are not tested by the format.  None of these
    // may write outside the block or read outside the pixels, and each gives
    // 0 with no report.
    struct Lie { const char *what; bool bimp; bool variable; int32_t rows, cols; };
    const Lie lies[] = {
        {"rows 0", false, true, 0, 8},
        {"cols 0", true, true, 8, 0},
        {"negative rows", false, true, -8, 8},
        {"negative cols", true, true, 8, -1},
        {"product past 32 bits", false, true, 0x10000, 0x10001},
        {"both at the top", true, true, 0x7FFFFFFF, 0x7FFFFFFF},
        {"huge in a small file", false, true, 4000, 4000},
        {"fixed bimp: more rows than the header", true, false, 100000, 8},
        {"fixed bimp: more cols than the header", true, false, 2, 1000},
        {"fixed bimp: negative", true, false, -2, 8},
        {"fixed bimp: huge", true, false, 0x7FFFFFFF, 0x7FFFFFFF},
    };
    test::Recorder recorder;
    test::LeakGuard guard;
    for (const Lie &lie : lies) {
        SCOPED_TRACE(lie.what);
        RasLayout layout;
        layout.bimp = lie.bimp;
        layout.variable = lie.variable;
        layout.bits = 8;
        std::vector<RasPicture> pics = {PatternPicture(8, 8, 8, 1), PatternPicture(8, 8, 8, 2)};
        std::vector<uint8_t> file = MakeRas(layout, pics);
        auto places = test::RasPlaces(layout, pics);
        for (size_t record : {0u, 1u}) {
            std::vector<uint8_t> bad = file;
            StoreU32(&bad[places[record].size], uint32_t(lie.rows));
            StoreU32(&bad[places[record].size + 4], uint32_t(lie.cols));
            std::string path = test::WriteTemp("lie.ras", bad);
            if (record == 1) ExpectImage(Load(path, -1), pics[0], layout);
            EXPECT_EQ(Load(path, -1), nullptr);
            if (record == 1 && lie.variable) {
                EXPECT_EQ(Load(path, 2), nullptr) << "stepping over the lying record";
            }
            EXPECT_EQ(Load(path, int32_t(record)), nullptr);
            EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
            EXPECT_TRUE(recorder.reports.empty());
            EXPECT_TRUE(guard.Same());
        }
    }
}

TEST(RasDamage, HeadersThatAreRejectedCloseTheFileSilently) {
    test::Recorder recorder;
    test::LeakGuard guard;
    RasLayout layout;
    std::vector<uint8_t> good = MakeRas(layout, {PatternPicture(4, 4, 1, 1)});
    struct Patch { const char *what; size_t at; uint8_t value; };
    // Every reason is in RasHeader's table; here the load path of two.
    const Patch patches[] = {{"directions 2, 1", RasOrderAt, 2}, {"bits 4 in bild", RasElementBitsAt, 4}};
    for (const Patch &p : patches) {
        SCOPED_TRACE(p.what);
        std::vector<uint8_t> bad = good;
        bad[p.at] = p.value;
        if (p.value == 2) bad[RasOrderAt + 1] = 1;
        std::string path = test::WriteTemp("rejected.ras", bad);
        EXPECT_EQ(Load(path, 0), nullptr);
        EXPECT_EQ(Load(path, -1), nullptr);
        EXPECT_EQ(LastImageType, TypeRAS) << "the format test passed it";
        EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
        EXPECT_TRUE(recorder.reports.empty());
        EXPECT_TRUE(guard.Same());
    }
    // Only the header, nothing behind it: no image, no report.
    std::string bare = test::WriteTemp("bare.ras", std::vector<uint8_t>(good.begin(), good.begin() + 2444));
    EXPECT_EQ(Load(bare, 0), nullptr);
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_TRUE(guard.Same());
}

TEST(RasSequence, TenThousandCallsAcrossSeveralFilesLeaveNothingBehind) {
    test::QuietDefaults();
    RasLayout a = Bild1();
    RasLayout b;
    b.bimp = true;
    b.bits = 4;
    b.palette = test::TestPalette(16);
    RasLayout c;
    c.variable = false;
    c.bits = 8;
    std::vector<std::string> paths = {
        test::WriteTemp("many_a.ras", MakeRas(a, ThreePictures(1))),
        test::WriteTemp("many_b.ras", MakeRas(b, {PatternPicture(3, 9, 4, 1), PatternPicture(2, 2, 4, 2)})),
        test::WriteTemp("many_c.ras", MakeRas(c, {PatternPicture(6, 6, 8, 1)})),
    };
    std::vector<uint8_t> cut = MakeRas(a, ThreePictures(1));
    cut.resize(cut.size() - 3);
    paths.push_back(test::WriteTemp("many_cut.ras", cut));
    test::LeakGuard guard;
    int images = 0;
    uint32_t v = 1;
    for (int call = 0; call < 10000; ++call) {
        v = v * 1103515245u + 12345u;
        const std::string &path = paths[(v >> 16) % paths.size()];
        int32_t number = (v >> 8) % 5 == 0 ? int32_t((v >> 4) % 4) : -1;
        TL_HANDLE block = Load(path, number);
        if (block) ++images;
        test::FreeBlock(block);
        ASSERT_EQ(TL_ERRORSTATUS_E(), 0);
        ASSERT_LE(platform::OpenFiles(), guard.files + 1) << "at most the walked file is held";
    }
    EXPECT_GT(images, 5000);
    EXPECT_EQ(TL_IMAGE_E(nullptr, 0), nullptr);
    EXPECT_TRUE(guard.Same());
}

}  // namespace
