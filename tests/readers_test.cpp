// The PCX and RAS readers across calls: walks, numbered reads and names
// against the state each reader keeps, and a file cut during a walk.  What each file gives on its own, the replay
// of the kept inputs pins, and the sources test checks the pixels.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/image.h"
#include "platform/win32.h"
#include "readers/ras.h"
#include "services/errors.h"
#include "support/support.h"

namespace {

using Bytes = std::vector<uint8_t>;

TEST(PcxReader, WalksGoOnOverGoodAndDamagedFiles) {
    test::LeakGuard guard;
    test::Recorder recorder;
    // Version 5, run-length coded, 16 x 2 pixels, 2 bytes a line: the file holds one line of two.
    Bytes damaged = {10, 5, 1, 1, 0, 0, 0, 0, 15, 0, 1, 0};
    damaged.resize(128, 0);
    damaged[65] = 1;
    damaged[66] = 2;
    damaged.insert(damaged.end(), {0, 0});
    const std::string good = test::Fixture("pcx/netpbm_1plane.pcx"), none, bad = test::WriteTemp("walked.pcx", damaged);
    struct Step { const std::string *name; int32_t number; bool image; size_t reports; } steps[] = {
        // A walk gives the image, then 0 with no report, then the image again.
        {&good, -1, 1, 0}, {&good, -1, 0, 0}, {&good, -1, 1, 0},
        // 0 ends the walk; below -1 ends none; an empty name means the walked file, where 3 is read like 0.
        {&good, 0, 0, 0}, {&good, -2, 1, 0}, {&none, 3, 1, 0},
        {&good, 1, 0, 0},  // a PCX file has no image 1
        // NULL forgets the walk.
        {&good, -1, 1, 0}, {nullptr, 0, 0, 0}, {&good, -1, 1, 0}, {nullptr, 0, 0, 0},
        // A damaged file: its reports and 0, then 0 alone as the walk ends, then the reports again.
        {&bad, -1, 0, 2}, {&bad, -1, 0, 0}, {&bad, -1, 0, 2}, {nullptr, 0, 0, 0},
    };
    for (size_t i = 0; i < std::size(steps); ++i) {
        const Step &s = steps[i];
        SCOPED_TRACE(testing::Message() << "step " << i);
        TL_HANDLE block = s.name ? test::Load(*s.name, s.number) : TL_IMAGE_E(nullptr, 0);
        EXPECT_EQ(block != nullptr, s.image);
        test::FreeBlock(block);
        EXPECT_EQ(test::Heard(recorder).size(), s.reports);
        EXPECT_EQ(TL_ERRORSTATUS_E(), s.reports ? 1 : 0);
    }
    EXPECT_TRUE(guard.Same());
}

// The blocks of every image of a RAS file, each read by number on its own.
std::vector<Bytes> ImagesOf(const std::string &path) {
    std::vector<Bytes> images;
    for (int32_t n = 0;; ++n) {
        TL_IMAGE_E(nullptr, 0);
        TL_HANDLE block = test::Load(path, n);
        if (!block) break;
        images.push_back(test::BlockBytes(block));
        test::FreeBlock(block);
    }
    TL_IMAGE_E(nullptr, 0);
    return images;
}

TEST(RasReader, WalksNumbersAndNamesAgainstTheStates) {
    TL_IMAGE_E(nullptr, 0);
    // Three images; one; two whose records hold nothing but size and pixels.
    const std::string paths[] = {test::Fixture("ras/three.ras"), test::Fixture("ras/one.ras"), test::Fixture("ras/two.ras")};
    std::vector<Bytes> images[3];
    for (int f = 0; f < 3; ++f) images[f] = ImagesOf(paths[f]);
    ASSERT_TRUE(images[0].size() == 3 && images[1].size() == 1 && images[2].size() == 2);
    enum { Three, One, Two, Empty /* "" with Three's images */, Null };
    // image -1: 0 and no report; -2: 0 with the report of an empty name.
    struct Step { int file; int32_t number; int image; bool held; };
    const Step steps[] = {
        // A walk gives every image, holding the file until the last, then 0, then starts again.
        {Three, -1, 0, 1}, {Three, -1, 1, 1}, {Three, -1, 2, 0}, {Three, -1, -1, 0}, {Three, -1, 0, 1},
        {Three, -1, 1, 1}, {Three, -1, 2, 0}, {Three, -1, -1, 0},
        // An empty name means the file of the last read until that file ends; then it names nothing.
        {Three, 0, 0, 0}, {Empty, 1, 1, 0}, {Empty, 2, 2, 0}, {Empty, 3, -1, 0}, {Empty, 0, -2, 0},
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
        const int f = s.file >= Empty ? Three : s.file;
        SCOPED_TRACE(testing::Message() << "step " << i);
        TL_HANDLE block = s.file == Null ? TL_IMAGE_E(nullptr, 0) : test::Load(s.file == Empty ? "" : paths[f], s.number);
        EXPECT_EQ(block ? test::BlockBytes(block) : Bytes(), s.image >= 0 ? images[f][size_t(s.image)] : Bytes());
        test::FreeBlock(block);
        EXPECT_EQ(test::Heard(recorder), std::vector<std::string>(s.image == -2, "TOPEN: TL_OPEN  empty filename (0)"));
        EXPECT_EQ(TL_ERRORSTATUS_E(), s.image == -2 ? 1 : 0);
        EXPECT_EQ(platform::OpenFiles(), guard.files + (s.held ? 1 : 0));
    }
    EXPECT_TRUE(guard.Same());
}

// A file that shrinks during a walk: the callback hears the short read, but no quit message is posted
// though ErrorContinue is 0, no error is left behind, and the walk is forgotten.
TEST(RasReader, AReadTheSystemRefusesReachesTheCallbackOnly) {
    TL_POSIX_ONLY("Windows does not let a file that is open for reading be cut short");
    const std::string path = test::WriteTemp("shrinks.ras", test::ReadFileBytes(test::Fixture("ras/three.ras")));
    const std::vector<Bytes> images = ImagesOf(path);
    test::Recorder recorder(0, 1);
    test::LeakGuard guard;
    TL_HANDLE block = test::Load(path, -1);
    EXPECT_EQ(test::BlockBytes(block), images[0]);
    test::FreeBlock(block);
    std::filesystem::resize_file(path, 2485 + 1);  // one byte of the second image's pixels
    EXPECT_EQ(test::Load(path, -1), nullptr);
    EXPECT_EQ(TL_ERRORSTATUS_E(), 0);
    EXPECT_EQ(test::Heard(recorder, path), std::vector<std::string>{"ReadRAS: @ (1)"});
    EXPECT_EQ(GetErrorContinue() * 10 + GetErrorBox(), 1) << "flags restored";
    MSG msg;
    EXPECT_FALSE(PeekMessageA(&msg, nullptr, WM_QUIT, WM_QUIT, PM_REMOVE)) << "no quit message";
    EXPECT_EQ(RasMemo.Name[0], '\0') << "memo cleared";
    EXPECT_TRUE(guard.Same());
}

}  // namespace
