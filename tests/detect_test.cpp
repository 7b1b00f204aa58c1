// Format detection and the image-number protocol seen from the entry.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "core/image.h"
#include "platform/win32.h"
#include "support/load.h"
#include "support/ras_writer.h"

namespace {

using test::Heard;
using test::Load;

TEST(Detection, TheFirstBytesDecide) {
    auto p = [](int32_t bits, int8_t o0 = 0, int8_t o1 = 0, const char *type = nullptr, const char *name = "p") {
        return test::RasHeader("bild").Element(name, 0, 0, bits, o0, o1, type);
    };
    std::vector<uint8_t> cut = p(8).bytes;
    cut.resize(2443);
    // LastImageType is TypePCX before each case; -1: it stays so.
    struct Case { const char *what; std::vector<uint8_t> bytes; int32_t type; bool reported = false; } cases[] = {
        {"1 byte", {'B'}, -1, true},
        {"PCX version 4", {0x0A, 0x04, 0, 0}, TypeUnknown},
        {"half of a TIFF magic", {'M', 'I'}, TypeUnknown},
        {"RAS 8-bit picture", p(8).bytes, TypeRAS},
        {"RAS bits not taken", p(8, 0, 0, "bi").bytes, TypeUnknown},
        {"RAS upper-case name", p(8, 0, 0, nullptr, "P").bytes, TypeUnknown},
        {"RAS order 2 x -2", p(8, 2, -2).bytes, TypeUnknown},
        {"RAS order 1 x -2", p(8, 1, -2).bytes, TypeRAS},
        {"RAS record size 0", test::RasHeader("bild", 0).Element("p", 0, 0, 8).bytes, -1},
        // Element 0 passes and matches nothing; the picture is element 1.
        {"RAS picture is element 1", p(0, 0, 0, "xx").Element("q", 0, 0, 8).bytes, TypeRAS},
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
        EXPECT_EQ(Heard(recorder, path), std::vector<std::string>(c.reported, "ReadIMG: @ (1)"));
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
    // A reset keeps the last type and empties the memo: an empty name then names nothing.
    TL_HANDLE block = Load(path, -3);
    ASSERT_NE(block, nullptr);
    GlobalFree(block);
    EXPECT_EQ(TL_IMAGE_E(nullptr, 0), nullptr);
    EXPECT_EQ(LastImageType, TypeBMP);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    EXPECT_EQ(Load(""), nullptr);
    EXPECT_EQ(Heard(recorder), std::vector<std::string>{"TOPEN: TL_OPEN  empty filename (0)"});
    // The next call starts with a clear error state.
    EXPECT_EQ(TL_ERRORSTATUS_E(), 1);
    block = Load(path);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    GlobalFree(block);
    EXPECT_TRUE(guard.Same());
}

// A file named in any form the system takes (as given, in its full form,
// which on Windows has a drive and backslashes, through a ".." step) gives
// the same image, with no report and nothing left behind.
TEST(Detection, EveryFormOfAPathGivesTheSameImage) {
    const std::string given = test::Fixture("bmp/netpbm_1bit.bmp");
    const std::string folder = given.substr(0, given.find_last_of('/'));
    const std::string forms[] = {given, test::FullPath(given), folder + "/../bmp/netpbm_1bit.bmp",
                                 test::FullPath(folder + "/../bmp") + "/netpbm_1bit.bmp"};
    test::LeakGuard guard;
    test::Recorder recorder;
    std::vector<uint8_t> first;
    for (const std::string &form : forms) {
        SCOPED_TRACE(form);
        TL_HANDLE block = Load(form, 0);
        ASSERT_NE(block, nullptr);
        const std::vector<uint8_t> bytes = test::BlockBytes(block);
        test::FreeBlock(block);
        if (first.empty()) first = bytes;
        EXPECT_EQ(bytes, first);
    }
    EXPECT_TRUE(Heard(recorder).empty());
    EXPECT_TRUE(guard.Same());
}

// A path takes up to 259 characters in its full form: a file whose full
// path is that long loads; one character more gives no image, and leaves
// nothing behind.  On Windows these are drive paths with backslashes.
TEST(Detection, AFullPathOf259CharactersLoadsAndOneMoreDoesNot) {
    const std::string folder = test::FullPath(test::TempDir());
    const std::vector<uint8_t> bmp = test::ReadFileBytes(test::Fixture("bmp/netpbm_1bit.bmp"));
    const char separator = folder.find('\\') != std::string::npos ? '\\' : '/';
    test::LeakGuard guard;
    for (const size_t length : {size_t(259), size_t(260)}) {
        SCOPED_TRACE(length);
        ASSERT_LT(folder.size() + 1 + 4, length);
        const size_t stem = length - folder.size() - 1 - 4;
        ASSERT_LE(stem + 4, size_t(255)) << "a name longer than the file system takes";
        const std::string path = folder + separator + std::string(stem, 'n') + ".bmp";
        ASSERT_EQ(path.size(), length);
        {
            std::error_code error;
            std::filesystem::remove(path, error);
        }
        FILE *file = fopen(path.c_str(), "wb");
        if (file == nullptr) {
            // Windows keeps paths below 260 characters: the longer file cannot be made there, and
            // the load below meets a name that names nothing.
            ASSERT_EQ(length, size_t(260));
        } else {
            fwrite(bmp.data(), 1, bmp.size(), file);
            fclose(file);
        }
        test::Recorder recorder;
        TL_HANDLE block = Load(path, 0);
        if (length == 259) {
            ASSERT_NE(block, nullptr);
            EXPECT_TRUE(Heard(recorder).empty());
            test::FreeBlock(block);
        } else {
            EXPECT_EQ(block, nullptr);
        }
        TL_CLEARERROR_E();
        std::error_code error;
        std::filesystem::remove(path, error);
    }
    EXPECT_TRUE(guard.Same());
}

}  // namespace
