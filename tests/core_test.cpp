// The image entry: the image-number protocol, a clear start for each call, and
// the forms and lengths of a path.  What each file gives, format by format,
// the replay of the kept inputs pins, and the sources test checks the pixels.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "core/image.h"
#include "platform/win32.h"
#include "support/support.h"

namespace {




TEST(Entry, NumbersResetsAndAClearStartForEachCall) {
    test::Recorder recorder;
    test::LeakGuard guard;
    std::string path = test::Fixture("bmp/magick_1bit.bmp");
    // Further images exist only in RAS files; the format is still noted.
    LastImageType = TypeUnknown;
    EXPECT_EQ(test::Load(path, 1), nullptr);
    EXPECT_EQ(LastImageType, TypeBMP);
    // A reset keeps the last type and empties the memo: an empty name then names nothing.
    TL_HANDLE block = test::Load(path, -3);
    ASSERT_NE(block, nullptr);
    GlobalFree(block);
    EXPECT_EQ(TL_IMAGE_E(nullptr, 0), nullptr);
    EXPECT_EQ(LastImageType, TypeBMP);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    EXPECT_EQ(test::Load(""), nullptr);
    EXPECT_EQ(test::Heard(recorder), std::vector<std::string>{"TOPEN: TL_OPEN  empty filename (0)"});
    // The next call starts with a clear error state.
    EXPECT_EQ(TL_ERRORSTATUS_E(), 1);
    block = test::Load(path);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    GlobalFree(block);
    EXPECT_TRUE(guard.Same());
}

// A path takes up to 259 characters in its full form: a file whose full
// path is that long loads; one character more gives no image, and leaves
// nothing behind.  On Windows these are drive paths with backslashes.
TEST(Entry, AFullPathOf259CharactersLoadsAndOneMoreDoesNot) {
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
        TL_HANDLE block = test::Load(path, 0);
        if (length == 259) {
            ASSERT_NE(block, nullptr);
            EXPECT_TRUE(test::Heard(recorder).empty());
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
