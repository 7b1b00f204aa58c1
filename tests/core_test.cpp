// The image entry: the image-number protocol and a clear start for each call.
// What each file gives, format by format, the replay of the kept inputs pins,
// and the sources test checks the pixels.
#include <gtest/gtest.h>

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

}  // namespace
