// Format detection and the image-number protocol seen from the entry.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/image.h"
#include "platform/win32.h"
#include "support/support.h"

namespace {

TL_HANDLE Load(const std::string &path, int32_t number = 0) {
    std::vector<char> name(path.begin(), path.end());
    name.resize(std::max<size_t>(name.size() + 1, 260), '\0');
    return TL_IMAGE_E(name.data(), number);
}

// A 2444-byte RAS header that passes the test with element 0, of the given
// type and bits, to be spoilt by the cases.
std::vector<uint8_t> RasHeader(const char *type, int32_t bits) {
    std::vector<uint8_t> h(2444, 0);
    memcpy(&h[0], "bild", 4);
    StoreU32(&h[4], 100);
    StoreU32(&h[8], 1);
    h[2124] = 'p';
    h[2348] = uint8_t(type[0]);
    h[2349] = uint8_t(type[1]);
    StoreU32(&h[2380], uint32_t(bits));
    return h;
}

TEST(Detection, ShortAndUnknownFiles) {
    test::LeakGuard guard;
    for (size_t size : {0, 1}) {
        test::Recorder recorder;
        std::string path = test::WriteTemp("short.bin", std::vector<uint8_t>(size, 'B'));
        EXPECT_EQ(Load(path), nullptr);
        ASSERT_EQ(recorder.reports.size(), 1u);
        EXPECT_EQ(recorder.reports[0].title, "ReadIMG");
        EXPECT_EQ(recorder.reports[0].text, path);
        EXPECT_EQ(recorder.reports[0].withSystemText, 1);
    }
    for (std::vector<uint8_t> magic : {std::vector<uint8_t>{0x0A, 0x04, 0, 0}, {'G', 'I', 'F', '8'}, {'M', 'I'}}) {
        test::Recorder recorder;
        LastImageType = TypeBMP;
        EXPECT_EQ(Load(test::WriteTemp("unknown.bin", magic)), nullptr);
        EXPECT_TRUE(recorder.reports.empty());
        EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
        EXPECT_EQ(LastImageType, TypeUnknown);
        // With nothing detected, an empty or NULL name reaches no reader.
        EXPECT_EQ(Load(""), nullptr);
        EXPECT_EQ(TL_IMAGE_E(nullptr, 0), nullptr);
        EXPECT_TRUE(recorder.reports.empty());
    }
    EXPECT_TRUE(guard.Same());
}

TEST(Detection, TheRasTest) {
    test::LeakGuard guard;
    struct Case {
        const char *label;
        std::vector<uint8_t> bytes;
        int32_t type;  // -1: LastImageType stays
    };
    std::vector<Case> cases;
    auto spoil = [](std::vector<uint8_t> h, size_t at, uint8_t value) {
        h[at] = value;
        return h;
    };
    cases.push_back({"8-bit picture", RasHeader("un", 8), TypeRAS});
    cases.push_back({"4-bit picture", RasHeader("bi", 4), TypeRAS});
    cases.push_back({"bits not taken", RasHeader("bi", 8), TypeUnknown});
    cases.push_back({"upper-case name", spoil(RasHeader("un", 8), 2124, 'P'), TypeUnknown});
    cases.push_back({"order 2 x 2", spoil(spoil(RasHeader("un", 8), 2316, 2), 2317, 0xFE), TypeUnknown});
    cases.push_back({"order 1 x -2", spoil(spoil(RasHeader("un", 8), 2316, 1), 2317, 0xFE), TypeRAS});
    cases.push_back({"magic bi but not bild", spoil(RasHeader("un", 8), 2, 'x'), -1});
    auto zeroSize = RasHeader("un", 8);
    StoreU32(&zeroSize[4], 0);
    cases.push_back({"record size 0", zeroSize, -1});
    // The picture may be a later element: element 0 passes and matches nothing.
    auto later = RasHeader("xx", 0);
    later[2128] = 'q';
    later[2350] = 'u';
    later[2351] = 'n';
    StoreU32(&later[2384], 8);
    cases.push_back({"picture is element 1", later, TypeRAS});
    auto cut = RasHeader("un", 8);
    cut.resize(2443);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.label);
        test::Recorder recorder;
        LastImageType = TypePCX;
        EXPECT_EQ(Load(test::WriteTemp("candidate.ras", c.bytes)), nullptr);
        EXPECT_TRUE(recorder.reports.empty());
        EXPECT_EQ(LastImageType, c.type < 0 ? TypePCX : c.type);
    }
    test::Recorder recorder;
    std::string path = test::WriteTemp("cut.ras", cut);
    EXPECT_EQ(Load(path), nullptr);
    ASSERT_EQ(recorder.reports.size(), 1u);
    EXPECT_EQ(recorder.reports[0].text, path);
    EXPECT_TRUE(guard.Same());
}

TEST(Detection, FurtherImagesExistOnlyInRasFiles) {
    test::Recorder recorder;
    std::string path = test::Fixture("bmp/magick_1bit.bmp");
    LastImageType = TypeUnknown;
    EXPECT_EQ(Load(path, 1), nullptr);
    EXPECT_EQ(LastImageType, TypeBMP);
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
}

TEST(Detection, AResetLeavesTheLastTypeAndEmptiesTheMemo) {
    test::Recorder recorder;
    std::string path = test::Fixture("bmp/magick_1bit.bmp");
    TL_HANDLE block = Load(path, -3);
    ASSERT_NE(block, nullptr);
    GlobalFree(block);
    EXPECT_EQ(TL_IMAGE_E(nullptr, 0), nullptr);
    EXPECT_EQ(LastImageType, TypeBMP);
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_EQ(Load(""), nullptr);
    ASSERT_EQ(recorder.reports.size(), 1u);
    EXPECT_EQ(recorder.reports[0].title, "TOPEN");
    EXPECT_EQ(recorder.reports[0].text, "TL_OPEN  empty filename");
}

TEST(Detection, EachCallStartsWithAClearErrorState) {
    test::Recorder recorder;
    TL_HANDLE none = Load(test::WriteTemp("one.bin", {'B'}));
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 1);
    TL_HANDLE block = Load(test::Fixture("bmp/magick_1bit.bmp"));
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    GlobalFree(block);
}

}  // namespace
