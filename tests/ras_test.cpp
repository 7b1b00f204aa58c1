// The RAS reader: header and palette, walks and numbered reads, the pixel
// forms of both variants, and files that are cut off or lie about sizes.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/image.h"
#include "platform/win32.h"
#include "readers/ras.h"
#include "services/errors.h"
#include "support/load.h"
#include "support/pnm.h"
#include "support/ras_writer.h"

namespace {

using test::Load;
using test::MakeRas;
using test::PatternPicture;
using test::RasHeader;
using test::RasLayout;
using test::RasPicture;

// The block for `pic` worked out from the bitmap form alone: header,
// palette, rows bottom row first; 1-bit "bimp" rows have their fill bits set.
std::vector<uint8_t> ExpectedBlock(const RasPicture &pic, const RasLayout &l) {
    auto palette = l.bimp && !l.palette.empty() ? l.palette : decltype(l.palette){{255, 255, 255, 0}, {0, 0, 0, 0}};
    std::vector<uint8_t> b(40, 0);
    for (auto [at, v] : {std::pair{4, pic.cols}, {8, pic.rows}, {32, int32_t(palette.size())}})
        StoreU32(&b[at], uint32_t(v));
    b[0] = 40;
    b[12] = 1;
    b[14] = uint8_t(l.bits);
    for (const auto &e : palette) b.insert(b.end(), e.begin(), e.end());
    const size_t stride = ((size_t(pic.cols) * size_t(l.bits) + 31) / 32) * 4;
    for (int32_t y = pic.rows - 1; y >= 0; --y) {
        size_t at = b.size();
        b.resize(at + stride, l.bits == 1 && l.bimp ? 0xFF : 0);
        for (int32_t x = 0; x < pic.cols; ++x) {
            uint8_t v = pic.At(x, y), mask = uint8_t(0x80 >> (x % 8)), &byte = b[at + size_t(x * l.bits / 8)];
            if (l.bits == 1) byte = uint8_t(v ? byte | mask : byte & ~mask);
            else if (l.bits == 4) byte |= uint8_t(v << (x % 2 ? 0 : 4));
            else byte = v;
        }
    }
    return b;
}

// Checks the whole block of image `pic`, and frees it.
void ExpectImage(TL_HANDLE block, const RasPicture &pic, const RasLayout &layout) {
    ASSERT_NE(block, nullptr);
    std::vector<uint8_t> bytes = test::BlockBytes(block);
    test::FreeBlock(block);
    EXPECT_EQ(bytes, ExpectedBlock(pic, layout));
}

int32_t Parse(const RasHeader &h) {
    memcpy(RasState.Header, h.bytes.data(), RasHeaderSize);
    return RasParseHeader();
}

TEST(RasHeader, LayoutValuesAndRejections) {
    auto bild = [](int32_t recordSize = 100) { return RasHeader("bild", recordSize); };
    auto bimp = [](int32_t recordSize = 100) { return RasHeader("bimp", recordSize); };
    auto var = [](RasHeader h) { return h.Element("bild", -1, -1, 1, 1, 2); };  // 1 bit, records of their own size
    RasHeader full = bild();
    for (int i = 0; i < 15; ++i) full.Element("data", 1, 0, 8);
    // Variable, Rows, Cols, Bits, PrefixBytes, GapBytes, PixelBytes, TailBytes; nothing for a rejection.
    struct Case { const char *what; RasHeader header; std::vector<int32_t> want; bool detected = true; } cases[] = {
        {"variable bild, 12 bytes in front", var(bild().Element("time", 12, 0, 8)), {1, 0, 0, 1, 12, 0, 0, 0}},
        {"an element behind the picture counts into the gap",
         var(bild().Element("time", 12, 0, 8)).Element("more", 3, 2, 4), {1, 0, 0, 1, 12, 3, 0, 0}},
        {"a value of an element with both extents 0", bild(30).Element("flag", 0, 0, 1).Element("bild", 2, 2, 8, 1, 2),
         {0, 2, 2, 8, 0, 1, 4, 25}},
        {"fixed bimp: tail is the rest of RecordSize",
         bimp(100).Element("head", 4, 0, 8).Element("dims", 8, 0, 8).Element("bild", 2, 32, 1, 1, 2),
         {0, 2, 32, 1, 4, 8, 8, 72}},
        {"bimp: any name starting with dim marks the size",
         bimp().Element("dimx", 2, 0, 8).Element("bild", -1, 5, 4, 1, 2), {1, 0, 0, 4, 0, 2, 0, 0}},
        {"magic", var(RasHeader("bilx")), {}, false},
        {"16 elements without an end", var(full), {}},
        {"negative extent behind a picture", bild().Element("bild", 2, 2, 1, 1, 2).Element("more", -1, 2, 8), {}},
        {"directions 0, 2", bild().Element("bild", -1, -1, 1, 0, 2), {}},
        {"directions 2, 1", bild().Element("bild", -1, -1, 1, 2, 1), {}},
        {"directions 1, -2", bild().Element("bild", -1, -1, 1, 1, -2), {}},
        {"4 bits in a bild file", bild().Element("bild", -1, -1, 4, 1, 2), {}},
        {"2 bits", bimp().Element("bild", -1, -1, 2, 1, 2), {}, false},
        // Our own refusals of sizes no file can have.
        {"fixed pixel bytes past 31 bits", bild().Element("bild", 0x7FFFFFFF, 0x7FFFFFFF, 8, 1, 2), {}},
        {"element of a negative size", var(bild().Element("data", 4, 0, -8)), {}},
        {"fixed file with RecordSize 0", bild(0).Element("bild", 2, 2, 1, 1, 2), {}, false},
    };
    test::Recorder recorder;
    test::LeakGuard guard;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(Parse(c.header), c.want.empty() ? 0 : 1);
        const RasStateRecord &s = RasState;
        if (c.want.empty()) {
            // Through the entry: 0 with no report and the file closed, where
            // detection passed the file and the reader refused it.
            std::vector<uint8_t> file = c.header.bytes;
            file.resize(3000, 0);
            std::string path = test::WriteTemp("rejected.ras", file);
            LastImageType = TypeUnknown;
            EXPECT_EQ(Load(path, 0), nullptr);
            EXPECT_EQ(Load(path, -1), nullptr);
            EXPECT_EQ(LastImageType, c.detected ? TypeRAS : TypeUnknown);
            EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
            EXPECT_TRUE(recorder.reports.empty());
            EXPECT_TRUE(guard.Same());
            continue;
        }
        EXPECT_EQ((std::vector<int32_t>{s.Variable, s.Rows, s.Cols, s.Bits, s.PrefixBytes, s.GapBytes, s.PixelBytes,
                                        s.TailBytes}),
                  c.want);
    }
}

TEST(RasHeader, Palettes) {
    auto picture = [](RasHeader h) { return h.Element("bild", -1, -1, 4, 1, 2); };
    // "clrs" read like atoi, in any slot; entries 8 to 15 start the slot after "rgbq", whatever its key; hex digits
    // in either case, any ninth char.
    char text[16 * 9 + 1];
    for (int e = 0; e < 16; ++e) snprintf(text + 9 * e, 10, "%02xbBCc%02X/", 16 * e + 10, e);
    RasHeader h = RasHeader("bimp").Key(5, "clrs", " +16").Key(3, "rgbq", std::string(text, 72));
    ASSERT_EQ(Parse(picture(h.Key(4, "junk", text + 72))), 1);
    ASSERT_EQ(RasState.Colours, 16);
    for (int e = 0; e < 16; ++e)
        EXPECT_EQ(LoadU32(RasState.Palette[e]), uint32_t((16 * e + 10) | 0xCCBB00 | (e << 24))) << "entry " << e;

    auto clrs = [&](const char *count) { return picture(RasHeader("bimp").Key(0, "clrs", count).Key(1, "rgbq", "")); };
    struct Count { const char *what; RasHeader header; int32_t ok, colours; bool whiteBlack; } counts[] = {
        {"bimp without clrs", picture(RasHeader("bimp")), 1, 2, true},
        {"clrs 17", clrs("17"), 0, 0, false},
        {"clrs without rgbq", picture(RasHeader("bimp").Key(0, "clrs", "2")), 0, 0, false},
        {"clrs -1 (our refusal)", clrs("-1"), 0, 0, false},
        {"clrs kept in 16 bits: 65538 is 2", clrs("65538"), 1, 2, false},
        {"clrs past 32 bits", clrs("99999999999"), 0, 0, false},
    };
    for (const Count &c : counts) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(Parse(c.header), c.ok);
        if (!c.ok) continue;
        EXPECT_EQ(RasState.Colours, c.colours);
        if (!c.whiteBlack) continue;
        EXPECT_EQ(std::vector<uint8_t>(RasState.Palette[0], RasState.Palette[2]),
                  (std::vector<uint8_t>{255, 255, 255, 0, 0, 0, 0, 0}));
    }
    uint8_t entry[4];
    RasParseColour(entry, "G0000000");  // not a hex digit: taken by its code
    EXPECT_EQ(entry[0], uint8_t(16 * ('G' - 55)));
}

const RasLayout Bild1{.before = 3, .after = 5};
std::vector<RasPicture> ThreePictures() {
    return {PatternPicture(5, 13, 1, 1), PatternPicture(9, 7, 1, 2), PatternPicture(4, 40, 1, 3)};
}

TEST(RasSequence, WalksNumbersAndNamesAgainstTheStates) {
    TL_IMAGE_E(nullptr, 0);
    struct File { RasLayout layout; std::vector<RasPicture> pics; std::string path = ""; };
    File files[] = {{Bild1, ThreePictures()}, {Bild1, {PatternPicture(6, 20, 1, 4)}},
                    {{}, {PatternPicture(8, 8, 1, 7), PatternPicture(8, 8, 1, 8)}}};  // records of 8 + 8 bytes
    for (File &f : files) f.path = test::WriteTemp(std::to_string(f.pics.size()) + ".ras", MakeRas(f.layout, f.pics));
    enum { Three, One, Two, Empty /* "" with Three's pictures */, Null };
    // image -1: 0 and no report; -2: 0 with the report of an empty name.
    struct Step { int file; int32_t number; int image; bool held; };
    const Step steps[] = {
        // A walk gives every image, holding the file until the last, then 0, then starts again.
        {Three, -1, 0, 1}, {Three, -1, 1, 1}, {Three, -1, 2, 0}, {Three, -1, -1, 0},
        {Three, -1, 0, 1}, {Three, -1, 1, 1}, {Three, -1, 2, 0}, {Three, -1, -1, 0},
        // An empty name means the file of the last read until that file ends; then it names nothing.
        {Three, 0, 0, 0}, {Empty, 1, 1, 0}, {Empty, 2, 2, 0}, {Empty, 3, -1, 0}, {Empty, 0, -2, 0},
        // Records with nothing but size and pixels: the end test after each.
        {Two, -1, 0, 1}, {Two, -1, 1, 0}, {Two, -1, -1, 0},
        // After the last image by number the next call, any number, ends the file; numbers past it give 0.
        {Two, 1, 1, 0}, {Two, 0, -1, 0}, {Two, 2, -1, 0}, {Two, 0x7FFFFFFF, -1, 0},
        // Image 0 is not the last; 1 opens the file anew and steps over one record.
        {Two, 0, 0, 0}, {Two, 1, 1, 0}, {Two, 1, -1, 0},
        // Image 0 twice on a one-image file: the image, 0, the image; a walk then was ended by it.
        {One, 0, 0, 0}, {One, 0, -1, 0}, {One, 0, 0, 0}, {One, -1, -1, 0},
        // NULL during a walk closes the file; the walk starts again at 0.
        {Three, -1, 0, 1}, {Three, -1, 1, 1}, {Null, 0, -1, 0}, {Three, -1, 0, 1},
        // Another file during a walk closes the walked one, and that walk is gone.
        {One, -1, 0, 0}, {One, -1, -1, 0}, {Three, -1, 0, 1},
        // During a walk 0 gives image 0 and closes; below -1 gives image 0 with the file held.
        {Three, 0, 0, 0}, {Three, -1, 0, 1}, {Three, -5, 0, 1}, {Three, -5, 0, 1}, {Three, -1, 0, 1},
        // Our choice: a numbered read during a walk gives image N of the file.
        {Three, 2, 2, 0}, {Three, -1, -1, 0}, {Three, -1, 0, 1}, {Three, 1, 1, 0}, {Null, 0, -1, 0},
    };
    test::Recorder recorder;
    test::LeakGuard guard;
    for (size_t i = 0; i < std::size(steps); ++i) {
        const Step &s = steps[i];
        const File &f = files[s.file >= Empty ? Three : s.file];
        SCOPED_TRACE(testing::Message() << "step " << i);
        TL_HANDLE block = s.file == Null ? TL_IMAGE_E(nullptr, 0) : Load(s.file == Empty ? "" : f.path, s.number);
        if (s.image >= 0)
            ExpectImage(block, f.pics[size_t(s.image)], f.layout);
        else
            EXPECT_EQ(block, nullptr);
        EXPECT_EQ(LastImageType, TypeRAS);
        EXPECT_EQ(TL_ERRORSTATUS_E(), s.image == -2 ? 1 : 0);
        EXPECT_EQ(test::Heard(recorder), std::vector<std::string>(s.image == -2, "TOPEN: TL_OPEN  empty filename (0)"));
        EXPECT_EQ(RasFile != NoFile, s.held);
        EXPECT_EQ(platform::OpenFiles(), guard.files + (s.held ? 1 : 0));
    }
    EXPECT_TRUE(guard.Same());
}

TEST(RasPixels, EveryVariantDepthDirectionAndRecordKind) {
    test::QuietDefaults();
    struct Case { RasLayout layout; std::vector<RasPicture> pics; };
    std::vector<Case> cases;
    struct Form { bool bimp; int32_t bits; };
    // Rows that start inside a byte (4 x 10), need padding (100 columns: 28 fill bits), fill whole words (64).
    const int32_t sizes[][2] = {{4, 10}, {3, 100}, {2, 64}};
    for (Form form : {Form{false, 1}, Form{false, 8}, Form{true, 1}, Form{true, 4}, Form{true, 8}})
        for (int8_t order0 : {1, -1})
            for (bool variable : {true, false})
                for (const auto &size : sizes) {
                    // A fixed "bimp" record holds the packed bytes of the header's picture:
                    // padded rows of 1 or 4 bits fit only when they fill whole words.
                    if (!variable && form.bimp && form.bits < 8 && (size[1] * form.bits) % 32) continue;
                    RasLayout l{.bimp = form.bimp, .bits = form.bits, .order0 = order0, .variable = variable,
                                .before = 6, .dim = form.bimp ? 4 : 0, .after = 2};
                    if (form.bimp && form.bits != 1) l.palette = test::TestPalette(form.bits == 4 ? 16 : 11);
                    cases.push_back({l, {PatternPicture(size[0], size[1], form.bits, 11),
                                         PatternPicture(size[0], size[1], form.bits, 12)}});
                }
    // A fixed "bimp" file's records may hold smaller pictures than the header.
    cases.push_back({{.bimp = true, .bits = 8, .variable = false, .headerRows = 10, .headerCols = 12,
                      .palette = test::TestPalette(16)},
                     {PatternPicture(10, 12, 4, 1), PatternPicture(4, 3, 4, 2), PatternPicture(10, 1, 4, 3)}});

    test::LeakGuard guard;
    for (const Case &c : cases) {
        const RasLayout &l = c.layout;
        SCOPED_TRACE(testing::Message() << (l.bimp ? "bimp " : "bild ") << l.bits << " bits, order " << int(l.order0)
                                        << ", variable " << l.variable << ", cols " << c.pics[0].cols);
        std::string path = test::WriteTemp("form.ras", MakeRas(l, c.pics));
        for (const RasPicture &pic : c.pics) ExpectImage(Load(path, -1), pic, l);
        EXPECT_EQ(Load(path, -1), nullptr);
        ExpectImage(Load(path, int32_t(c.pics.size() - 1)), c.pics.back(), l);
        EXPECT_EQ(Load(path, 0), nullptr) << "that image was the last";
        EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    }
    EXPECT_TRUE(guard.Same());
}

TEST(RasSamples, TheSamplesShowTheirSourcePictures) {
    test::QuietDefaults();
    test::LeakGuard guard;
    // Written by an independent writer: a walk gives each source picture, then 0.
    for (auto [file, sources, bits] : {std::tuple{"multi.ras", "page1.pbm page2.pbm page3.pbm", 1},
                                       std::tuple{"colour16.ras", "colour16.ppm", 4}}) {
        std::istringstream names(sources);
        for (std::string source; names >> source;) {
            SCOPED_TRACE(source);
            TL_HANDLE block = Load(test::Sample(file), -1);
            ASSERT_NE(block, nullptr);
            std::vector<uint8_t> bytes = test::BlockBytes(block);
            test::FreeBlock(block);
            EXPECT_EQ(LoadU16(&bytes[14]), bits);
            EXPECT_EQ(test::BlockDiffers(bytes, test::Fixture("ras/src/" + source)), "");
        }
        EXPECT_EQ(Load(test::Sample(file), -1), nullptr);
        EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    }
    EXPECT_TRUE(guard.Same());
}

// Cut files and lying stored sizes: the images before the damage, then 0 for a walk and for numbered reads of the
// damaged record, with no report even to a callback and nothing left behind.
TEST(RasDamage, CutFilesAndLyingSizesGiveZeroSilently) {
    struct Damaged { std::string what; RasLayout layout; std::vector<RasPicture> pics; std::vector<uint8_t> bytes;
                     size_t whole; std::vector<int32_t> numbers; };
    std::vector<Damaged> files;
    for (const RasLayout &layout : {Bild1, RasLayout{.bimp = true, .bits = 4, .variable = false, .before = 3},
                                    RasLayout{.variable = false, .after = 5}}) {
        std::vector<RasPicture> pics;
        for (uint32_t seed : {1u, 2u, 3u}) pics.push_back(PatternPicture(5, 16, layout.bits, seed));
        std::vector<uint8_t> whole = MakeRas(layout, pics);
        auto places = test::RasPlaces(layout, pics);
        // Cuts around the ends of the header and of each record's parts, and a spread between.
        std::vector<size_t> cuts = {0, 1, 2, 100, 2443, 2444, 2445};
        for (const auto &place : places)
            for (size_t at : {place.start, place.size, place.size + 4, place.pixels, place.end})
                for (size_t d : {0, 1, 2, 7, 8, 9}) cuts.push_back(at + d >= 1 ? at + d - 1 : 0);
        for (size_t cut = 2446; cut < whole.size(); cut += 61) cuts.push_back(cut);
        for (size_t cut : cuts) {
            if (cut >= whole.size()) continue;
            size_t fit = 0;
            while (cut >= 2444 && fit < 3 && places[fit].end <= cut) ++fit;
            files.push_back({"cut at " + std::to_string(cut) + (layout.bimp ? " bimp" : " bild"), layout, pics,
                             {whole.begin(), whole.begin() + long(cut)}, fit, {int32_t(fit)}});
        }
    }
    struct Lie { const char *what; bool bimp, variable; int32_t rows, cols; } lies[] = {
        {"rows 0", false, true, 0, 8}, {"cols 0", true, true, 8, 0}, {"negative rows", false, true, -8, 8},
        {"negative cols", true, true, 8, -1}, {"product past 32 bits", false, true, 0x10000, 0x10001},
        {"fixed bimp: more rows than the header", true, false, 100000, 8},
        {"fixed bimp: more cols than the header", true, false, 2, 1000}, {"fixed bimp: negative", true, false, -2, 8},
        {"fixed bimp: huge", true, false, 0x7FFFFFFF, 0x7FFFFFFF},
    };
    for (const Lie &lie : lies) {
        RasLayout layout{.bimp = lie.bimp, .bits = 8, .variable = lie.variable};
        std::vector<RasPicture> pics = {PatternPicture(8, 8, 8, 1), PatternPicture(8, 8, 8, 2)};
        for (size_t record : {0u, 1u}) {
            std::vector<uint8_t> bad = MakeRas(layout, pics);
            StoreU32(&bad[test::RasPlaces(layout, pics)[record].size], uint32_t(lie.rows));
            StoreU32(&bad[test::RasPlaces(layout, pics)[record].size + 4], uint32_t(lie.cols));
            std::vector<int32_t> numbers = {int32_t(record)};
            if (record == 1 && lie.variable) numbers.push_back(2);  // stepping over the lying record
            files.push_back({lie.what + std::string(" in record ") + char('0' + record), layout, pics, bad, record,
                             numbers});
        }
    }
    test::Recorder recorder;
    test::LeakGuard guard;
    for (const Damaged &d : files) {
        SCOPED_TRACE(d.what);
        std::string path = test::WriteTemp("damaged.ras", d.bytes);
        for (size_t i = 0; i < d.whole; ++i) ExpectImage(Load(path, -1), d.pics[i], d.layout);
        EXPECT_EQ(Load(path, -1), nullptr);
        EXPECT_EQ(TL_ERRORSTATUS_E(), d.bytes.size() < 2444 ? 1 : 0);
        for (int32_t number : d.numbers) EXPECT_EQ(Load(path, number), nullptr) << number;
        EXPECT_TRUE(d.bytes.size() < 2444 || recorder.reports.empty());
        recorder.reports.clear();
        EXPECT_TRUE(guard.Same());
    }
}

TEST(RasDamage, AReadTheSystemRefusesReachesTheCallbackOnly) {
    TL_POSIX_ONLY("Windows does not let a file that is open for reading be cut short");
    // A file that shrinks during a walk: the callback hears the short read, but no quit message is posted though
    // ErrorContinue is 0, and no error is left behind.
    auto pictures = ThreePictures();
    std::string path = test::WriteTemp("shrinks.ras", MakeRas(Bild1, pictures));
    test::Recorder recorder(0, 1);
    test::LeakGuard guard;
    ExpectImage(Load(path, -1), pictures[0], Bild1);
    std::filesystem::resize_file(path, test::RasPlaces(Bild1, pictures)[1].pixels + 1);
    EXPECT_EQ(Load(path, -1), nullptr);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    EXPECT_EQ(test::Heard(recorder, path), std::vector<std::string>{"ReadRAS: @ (1)"});
    EXPECT_EQ(GetErrorContinue(), 0) << "flags restored";
    EXPECT_EQ(GetErrorBox(), 1);
    MSG msg;
    EXPECT_FALSE(PeekMessageA(&msg, nullptr, WM_QUIT, WM_QUIT, PM_REMOVE)) << "no quit message";
    EXPECT_EQ(RasFile, NoFile);
    EXPECT_EQ(RasMemo.Name[0], '\0') << "memo cleared";
    EXPECT_TRUE(guard.Same());
}

TEST(RasSequence, TenThousandCallsAcrossSeveralFilesLeaveNothingBehind) {
    test::QuietDefaults();
    TL_IMAGE_E(nullptr, 0);
    std::vector<uint8_t> cut = MakeRas(Bild1, ThreePictures());
    cut.resize(cut.size() - 3);
    const std::string paths[] = {
        test::WriteTemp("many_a.ras", MakeRas(Bild1, ThreePictures())), test::WriteTemp("many_cut.ras", cut),
        test::WriteTemp("many_b.ras", MakeRas({.bimp = true, .bits = 4, .palette = test::TestPalette(16)},
                                              {PatternPicture(3, 9, 4, 1), PatternPicture(2, 2, 4, 2)})),
        test::WriteTemp("many_c.ras", MakeRas({.bits = 8, .variable = false}, {PatternPicture(6, 6, 8, 1)}))};
    test::LeakGuard guard;
    int images = 0;
    for (uint32_t call = 0, v = 1; call < 2000; ++call) {
        v = v * 1103515245u + 12345u;
        TL_HANDLE block = Load(paths[(v >> 16) % 4], (v >> 8) % 5 == 0 ? int32_t((v >> 4) % 4) : -1);
        images += block != nullptr;
        test::FreeBlock(block);
        ASSERT_EQ(TL_ERRORSTATUS_E(), 0);
        ASSERT_LE(platform::OpenFiles(), guard.files + 1) << "at most the walked file is held";
    }
    EXPECT_GT(images, 1000);
    EXPECT_EQ(TL_IMAGE_E(nullptr, 0), nullptr);
    EXPECT_TRUE(guard.Same());
}

}  // namespace
