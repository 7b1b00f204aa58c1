// Every input that ever crashed or hung the fuzzer, and the fuzzer's seeds, replayed through the
// same harness; the sanitized build shows any fault again.
#include <gtest/gtest.h>

#include <filesystem>

#include "fuzz/harness.h"
#include "support/support.h"

TEST(Crashers, CrashersAndSeedsReplayWithoutFaultOrLeak) {
    test::LeakGuard guard;
    for (const std::string dir : {TL_CRASHERS, TL_CRASHERS "/../seeds"})
        for (const auto &entry : std::filesystem::recursive_directory_iterator(dir)) {
            if (!entry.is_regular_file() || entry.path().filename().string()[0] == '.') continue;
            SCOPED_TRACE(entry.path().string());
            std::vector<uint8_t> bytes = test::ReadFileBytes(entry.path().string());
            RunImageHarness(bytes.data(), bytes.size());
            EXPECT_TRUE(guard.Same());
        }
}
