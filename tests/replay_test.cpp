// Every input that ever crashed or hung a fuzz target, the targets' seeds
// and their kept corpora, replayed through the same harnesses: the harness
// checks blocks, files and the bytes that headers claim, the sanitized build
// shows any fault again, and each run's digest (every pixel, report and
// status it produced) must be the one kept in fuzz/replay.digests.  So a
// change in what any of these thousands of damaged and odd files gives
// fails here.  After a deliberate change, or when the corpora grow, the
// digests are written anew with TL_WRITE_DIGESTS=1.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "fuzz/harness.h"
#include "support/support.h"

namespace {

TEST(Replay, EveryKeptInputGivesWhatItGaveBefore) {
    namespace fs = std::filesystem;
    const fs::path fuzz = fs::path(TL_CRASHERS).parent_path(), list = fuzz / "replay.digests";
    std::map<std::string, std::string> kept, seen;
    std::ifstream in(list);
    for (std::string key, digest; in >> key >> digest;) kept[key] = digest;
    // Crashers and seeds through the image entry; seeds and corpora through
    // the target their folder is named after.
    const struct { const char *folder; bool byFolder; } runs[] = {
        {"crashers", false}, {"seeds", false}, {"seeds", true}, {"corpus", true}};
    test::LeakGuard guard;
    for (const auto &run : runs) {
        if (!fs::is_directory(fuzz / run.folder)) continue;
        for (const auto &entry : fs::recursive_directory_iterator(fuzz / run.folder)) {
            if (!entry.is_regular_file() || entry.path().filename().string()[0] == '.') continue;
            const std::string name = fs::relative(entry.path(), fuzz).generic_string();
            SCOPED_TRACE(name);
            const std::vector<uint8_t> bytes = test::ReadFileBytes(entry.path().string());
            const Harness h = run.byFolder ? HarnessNamed(entry.path().parent_path().filename().string().c_str())
                                           : Harness::Image;
            uint64_t digest = 0;
            RunHarness(h, bytes.data(), bytes.size(), &digest);
            ASSERT_TRUE(guard.Same());
            char hex[17];
            std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(digest));
            const std::string key = std::string(run.byFolder ? "own:" : "image:") + name;
            seen[key] = hex;
            if (kept.count(key)) {
                EXPECT_EQ(kept[key], hex) << "what this input gives has changed";
            }
        }
    }
    if (std::getenv("TL_WRITE_DIGESTS")) {
        std::ofstream out(list, std::ios::trunc);
        for (const auto &[key, digest] : seen) out << key << ' ' << digest << '\n';
    } else {
        EXPECT_EQ(kept.size(), seen.size()) << "inputs without a kept digest, or digests without an input: "
                                               "write them anew with TL_WRITE_DIGESTS=1";
    }
}

}  // namespace
