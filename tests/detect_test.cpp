// Format detection and the image-number protocol seen from the entry.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/image.h"
#include "platform/win32.h"
#include "support/ras_writer.h"
#include "support/support.h"

namespace {

TL_HANDLE Load(const std::string &path, int32_t number = 0) {
    std::vector<char> name(path.begin(), path.end());
    name.resize(std::max<size_t>(name.size() + 1, 260), '\0');
    return TL_IMAGE_E(name.data(), number);
}

TEST(Detection, TheFirstBytesDecide) {
    auto ras = [](test::RasHeader h) { return h.bytes; };
    auto p = [](int32_t bits, int8_t o0 = 0, int8_t o1 = 0, const char *type = nullptr, const char *name = "p") {
        return test::RasHeader("bild").Element(name, 0, 0, bits, o0, o1, type);
    };
    std::vector<uint8_t> cut = ras(p(8));
    cut.resize(2443);
    // LastImageType is TypePCX before each case; -1: it stays so.
    struct Case { const char *what; std::vector<uint8_t> bytes; int32_t type; bool reported = false; } cases[] = {
        {"1 byte", {'B'}, -1, true},
        {"no byte", {}, -1, true},
        {"PCX version 4", {0x0A, 0x04, 0, 0}, TypeUnknown},
        {"GIF", {'G', 'I', 'F', '8'}, TypeUnknown},
        {"half of a TIFF magic", {'M', 'I'}, TypeUnknown},
        {"RAS 8-bit picture", ras(p(8)), TypeRAS},
        {"RAS 4-bit picture", ras(p(4)), TypeRAS},
        {"RAS bits not taken", ras(p(8, 0, 0, "bi")), TypeUnknown},
        {"RAS upper-case name", ras(p(8, 0, 0, nullptr, "P")), TypeUnknown},
        {"RAS order 2 x -2", ras(p(8, 2, -2)), TypeUnknown},
        {"RAS order 1 x -2", ras(p(8, 1, -2)), TypeRAS},
        {"magic bi but not bild", ras(test::RasHeader("bixd").Element("p", 0, 0, 8)), -1},
        {"RAS record size 0", ras(test::RasHeader("bild", 0).Element("p", 0, 0, 8)), -1},
        // Element 0 passes and matches nothing; the picture is element 1.
        {"RAS picture is element 1", ras(p(0, 0, 0, "xx").Element("q", 0, 0, 8)), TypeRAS},
        {"RAS header cut", cut, -1, true},
    };
    test::LeakGuard guard;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        test::Recorder recorder;
        LastImageType = TypePCX;
        std::string path = test::WriteTemp("candidate.bin", c.bytes);
        EXPECT_EQ(Load(path), nullptr);
        EXPECT_EQ(LastImageType, c.type < 0 ? TypePCX : c.type);
        EXPECT_EQ(TL_ERRORSTATUS_E(), c.reported ? 1 : 0);
        ASSERT_EQ(recorder.reports.size(), c.reported ? 1u : 0u);
        if (c.reported) {
            EXPECT_EQ(recorder.reports[0].title, "ReadIMG");
            EXPECT_EQ(recorder.reports[0].text, path);
            EXPECT_EQ(recorder.reports[0].withSystemText, 1);
        }
        if (c.type != TypeUnknown) continue;
        // With nothing detected, an empty or NULL name reaches no reader.
        EXPECT_EQ(Load(""), nullptr);
        EXPECT_EQ(TL_IMAGE_E(nullptr, 0), nullptr);
        EXPECT_TRUE(recorder.reports.empty());
    }
    EXPECT_TRUE(guard.Same());
}

TEST(Detection, NumbersResetsAndAClearStartForEachCall) {
    test::Recorder recorder;
    test::LeakGuard guard;
    std::string path = test::Fixture("bmp/magick_1bit.bmp");
    // Further images exist only in RAS files; the format is still noted.
    LastImageType = TypeUnknown;
    EXPECT_EQ(Load(path, 1), nullptr);
    EXPECT_EQ(LastImageType, TypeBMP);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    // A reset keeps the last type and empties the memo: an empty name then names nothing.
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
    // The next call starts with a clear error state.
    EXPECT_EQ(TL_ERRORSTATUS_E(), 1);
    block = Load(path);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    GlobalFree(block);
    EXPECT_TRUE(guard.Same());
}

}  // namespace
