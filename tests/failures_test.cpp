// failures_test.cpp - each allocation and lock of a load or hand-over fails in turn: a report and
// no image, or the image as if nothing failed; no block and no open file left behind.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/win32.h"
#include "support/support.h"

namespace {

enum class Call { Load, LoadThird, HandOver, HandOverBitmap };

// The n-th allocation (or lock) fails; true while it was reached. n 0 fills `image`, which any
// block that comes despite a failure must equal.
bool RunWithFailure(Call call, const std::string &path, bool lock, int32_t n, std::vector<uint8_t> &image) {
    SCOPED_TRACE((lock ? "lock " : "allocation ") + std::to_string(n));
    test::LeakGuard guard;
    test::Recorder recorder(1, 0, 1);
    std::vector<char> name(path.begin(), path.end());
    name.push_back('\0');
    std::vector<uint8_t> record(TL_RECORD_MIN_SIZE, 0);
    // A bitmap the host holds, loaded before the failures start.
    TL_HANDLE bitmap = call == Call::HandOverBitmap ? TL_IMAGE_E(name.data(), 0) : nullptr;
    if (call == Call::HandOverBitmap) {
        EXPECT_NE(bitmap, nullptr);
    }
    TL_IMAGE_E(nullptr, 0);  // a RAS file that was read to its end gives 0 once more
    (lock ? platform::FailLock : platform::FailAllocation)(n);
    TL_HANDLE block = nullptr;
    switch (call) {
    case Call::Load: block = TL_IMAGE_E(name.data(), 0); break;
    case Call::LoadThird: block = TL_IMAGE_E(name.data(), 2); break;
    case Call::HandOver: block = TLC_IMAGE_E(record.data(), name.data(), 0); break;
    case Call::HandOverBitmap: block = TLC_BITMAP_E(record.data(), bitmap); break;
    }
    const bool reached = (lock ? platform::FailLock : platform::FailAllocation)(0) == 0;
    if (block == nullptr) {
        EXPECT_FALSE(recorder.reports.empty()) << "no image and no report";
    } else {
        EXPECT_TRUE(recorder.reports.empty()) << recorder.reports[0].text;
        if (n == 0) image = test::BlockBytes(block);
        EXPECT_EQ(test::BlockBytes(block), image);
        test::FreeBlock(block, call == Call::HandOver || call == Call::HandOverBitmap);
    }
    if (bitmap) GlobalFree(bitmap);
    TL_CLEARERROR_E();
    EXPECT_TRUE(guard.Same());
    return reached;
}

}  // namespace

TEST(Failures, EveryAllocationAndLockOfALoadOrHandOverFailsCleanly) {
    struct Case {
        Call call;
        std::string path;
    };
    const std::vector<Case> cases = {
        {Call::Load, test::Sample("sample.bmp")},
        {Call::Load, test::Fixture("pcx/netpbm_1plane.pcx")},
        {Call::Load, test::Fixture("fax/edges-g4-strips.tif")},
        {Call::LoadThird, test::Sample("multi.ras")},
        {Call::HandOver, test::Sample("sample.tif")},
        {Call::HandOverBitmap, test::Sample("sample.pcx")},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path);
        std::vector<uint8_t> image;
        RunWithFailure(c.call, c.path, false, 0, image);
        ASSERT_FALSE(image.empty());
        for (bool lock : {false, true}) {
            int32_t n = 1;
            while (RunWithFailure(c.call, c.path, lock, n, image) && n < 64) ++n;
        }
    }
}

// A ceiling on block sizes (what the fuzz targets set) fails the loads whose block passes it with
// the allocation report, and leaves the rest as they are; lifting it loads them again.
TEST(Failures, ABlockCeilingRefusesOnlyTheLargerBlocks) {
    const std::string path = test::Sample("sample.tif");
    std::vector<char> name(path.begin(), path.end());
    name.push_back('\0');
    const TL_HANDLE whole = TL_IMAGE_E(name.data(), 0);
    ASSERT_NE(whole, nullptr);
    const uintptr_t size = uintptr_t(GlobalSize(whole));
    GlobalFree(whole);
    for (const uintptr_t ceiling : {size - 1, size, uintptr_t(0)}) {
        SCOPED_TRACE(ceiling);
        test::LeakGuard guard;
        test::Recorder recorder(1, 0, 1);
        EXPECT_EQ(platform::LimitBlockBytes(ceiling), uintptr_t(0));
        const TL_HANDLE block = TL_IMAGE_E(name.data(), 0);
        EXPECT_EQ(platform::LimitBlockBytes(0), ceiling);
        if (ceiling == size - 1) {
            EXPECT_EQ(block, nullptr);
            ASSERT_EQ(recorder.reports.size(), 1u);
            EXPECT_EQ(recorder.reports[0].text, "Out of memory");
        } else {
            ASSERT_NE(block, nullptr);
            EXPECT_TRUE(recorder.reports.empty());
            GlobalFree(block);
        }
        TL_CLEARERROR_E();
        EXPECT_TRUE(guard.Same());
    }
}
