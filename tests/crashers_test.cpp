// Every input that ever crashed or hung a fuzz target, the targets' seeds and
// their kept corpora, replayed through the same harnesses; the harness checks
// blocks, files and the bytes that headers claim, and the sanitized build
// shows any fault again.
#include <gtest/gtest.h>

#include <filesystem>

#include "fuzz/harness.h"
#include "support/support.h"

namespace {

// Each file below `dir`, through `harness`, or through the harness its
// folder is named after when `byFolder`.
void Replay(const std::string &dir, Harness harness, bool byFolder) {
    test::LeakGuard guard;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(dir)) {
        if (!entry.is_regular_file() || entry.path().filename().string()[0] == '.') continue;
        SCOPED_TRACE(entry.path().string());
        const std::vector<uint8_t> bytes = test::ReadFileBytes(entry.path().string());
        const Harness h = byFolder ? HarnessNamed(entry.path().parent_path().filename().string().c_str()) : harness;
        RunHarness(h, bytes.data(), bytes.size());
        ASSERT_TRUE(guard.Same());
    }
}

TEST(Crashers, CrashersAndSeedsReplayThroughTheImageEntry) {
    Replay(TL_CRASHERS, Harness::Image, false);
    Replay(TL_CRASHERS "/../seeds", Harness::Image, false);
}

TEST(Crashers, SeedsAndCorporaReplayThroughTheirOwnTargets) {
    Replay(TL_CRASHERS "/../seeds", Harness::Image, true);
    Replay(TL_CRASHERS "/../corpus", Harness::Image, true);
}

}  // namespace
