// support.h - what the tests share: fixture paths, scratch files, a
// recorder for reports, and a guard that proves a call left nothing behind.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tolimage.h"

// Skips a test that stands on what the POSIX stand-ins for the system's
// calls do and Windows does otherwise; `why` says what.
#if defined(_WIN32)
#define TL_POSIX_ONLY(why) GTEST_SKIP() << "POSIX only: " << why
#else
#define TL_POSIX_ONLY(why) static_cast<void>(0)
#endif

namespace test {

// Path of a committed fixture, relative to tests/fixtures.
std::string Fixture(const std::string &relative);
// Path of a bundled sample, relative to samples/.
std::string Sample(const std::string &relative);
// Whole contents of a file.
std::vector<uint8_t> ReadFileBytes(const std::string &path);
// Whole contents of a text file; writing one (any path) replaces it.
std::string ReadText(const std::string &path);
void WriteText(const std::string &path, const std::string &text);
// A file in a fresh scratch directory holding `bytes`; returns its path.
std::string WriteTemp(const std::string &name, const std::vector<uint8_t> &bytes);
// The full form of a path, as the library reports it (on Windows with a
// drive and backslashes).
std::string FullPath(const std::string &path);
// Absolute path of the test's scratch directory (created on first use).
std::string TempDir();

// One report as the host's callback hears it.
struct Report {
    std::string title;
    std::string text;
    int32_t withSystemText;
};

// Installs a recording callback with the given flags for its lifetime, and
// restores the library's defaults (continue 1, box 1, abort 1, no callback)
// and a clear error state afterwards.
struct Recorder {
    explicit Recorder(int32_t cont = 1, int32_t box = 0, int32_t abort = 1);
    ~Recorder();
    std::vector<Report> reports;
};

// Sets quiet defaults (no box, no callback), clears the error state.
void QuietDefaults();

// Counts live blocks and open files at construction; Same() tells whether
// both are as they were.
struct LeakGuard {
    LeakGuard();
    bool Same() const;
    int32_t blocks;
    int32_t files;
};

// TL_IMAGE_E on a copy of `path` in a buffer of at least 260 bytes.
TL_HANDLE Load(const std::string &path, int32_t number = 0);
// The reports heard so far, each as "title: text (withSystemText)" with
// `path` in the text written "@", as given or in the full form that the
// library reports; the recorder forgets them.
std::vector<std::string> Heard(Recorder &recorder, const std::string &path = "");

// Copy of a block's bytes (locks and unlocks it).
std::vector<uint8_t> BlockBytes(TL_HANDLE block);
// Frees a block that is unlocked (GlobalFree) or still locked once.
void FreeBlock(TL_HANDLE block, bool locked = false);

}  // namespace test
