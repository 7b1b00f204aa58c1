// Every input that ever crashed or hung the fuzzer, replayed through the
// same harness; the sanitized build shows any fault again.
#include <gtest/gtest.h>

#include <filesystem>

#include "fuzz/harness.h"
#include "support/support.h"

TEST(Crashers, ReplayLeavesNothingBehind) {
    test::LeakGuard guard;
    for (const auto &entry : std::filesystem::directory_iterator(TL_CRASHERS)) {
        if (!entry.is_regular_file() || entry.path().filename().string()[0] == '.') continue;
        SCOPED_TRACE(entry.path().string());
        std::vector<uint8_t> bytes = test::ReadFileBytes(entry.path().string());
        RunImageHarness(bytes.data(), bytes.size());
        EXPECT_TRUE(guard.Same());
    }
}

TEST(Crashers, SeedsLoadWithoutFault) {
    test::LeakGuard guard;
    for (const auto &format : std::filesystem::directory_iterator(std::string(TL_CRASHERS) + "/../seeds")) {
        for (const auto &entry : std::filesystem::directory_iterator(format.path())) {
            std::vector<uint8_t> bytes = test::ReadFileBytes(entry.path().string());
            RunImageHarness(bytes.data(), bytes.size());
        }
    }
    EXPECT_TRUE(guard.Same());
}
