// The managed file table: its checks, its reports and its slots.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "services/errors.h"
#include "services/files.h"
#include "support/support.h"

namespace {

std::string SmallFile() { return test::WriteTemp("ten.bin", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}); }

TEST(FileTable, OpenChecksNameThenModeAndReports) {
    test::LeakGuard guard;
    const std::string path = SmallFile(), name259 = "/" + std::string(258, 'n');
    const std::string cant = "TL_OPEN  Can't open File ";
    const struct { std::string name; bool null; const char *mode; std::string text; int32_t system; } cases[] = {
        {"", true, "rb", "TL_OPEN  filename==NULL", 0},
        {" \t\r\n ", false, "rb", "TL_OPEN  empty filename", 0},
        {"", false, "rt", "TL_OPEN  empty filename", 0},  // the name is looked at before the mode
        {name259, false, "r+b", cant + name259 + " in Mode r+b", 1},
        {name259 + "n", false, "rb", "TL_OPEN  filename too long", 0},
        {" " + path, false, "rb", cant + " " + path + " in Mode rb", 1},  // the platform gets the name as given
        {path, false, "rb", "", 0}, {path, false, "rb+", "", 0}, {path, false, "a+", "", 0},
        {path, false, "wa", "TL_OPEN  Illegal mode", 0}, {path, false, "", "TL_OPEN  Illegal mode", 0},
        {path, false, "wr+t", "TL_OPEN  Illegal mode", 0},  // the letters are looked at first
        {path, false, "rt", "TL_OPEN  Illegal mode='t'", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name.substr(0, 30) + " / " + c.mode);
        test::Recorder recorder;
        ManagedFile file = TL_OPEN(c.null ? nullptr : c.name.c_str(), c.mode);
        EXPECT_EQ(file == NoFile, !c.text.empty());
        if (file != NoFile) {
            EXPECT_EQ(TL_TELL(file), c.mode[0] == 'a' ? 10u : 0u);  // append modes start at the end
            EXPECT_EQ(TL_CLOSE(file), 0);
        }
        ASSERT_EQ(recorder.reports.size(), c.text.empty() ? 0u : 1u);
        if (c.text.empty()) continue;
        const test::Report &r = recorder.reports[0];
        EXPECT_EQ(r.title + "|" + r.text + "|" + std::to_string(r.withSystemText), "TOPEN|" + c.text + "|" + std::to_string(c.system));
    }
    EXPECT_TRUE(guard.Same());
}

TEST(FileTable, SixtyFourFilesFitAndTheLowestFreeSlotIsTakenNext) {
    test::LeakGuard guard;
    const std::string path = SmallFile();
    std::vector<ManagedFile> files;
    test::QuietDefaults();
    for (ManagedFile f; (f = TL_OPEN(path.c_str(), "rb")) != NoFile;) files.push_back(f);
    EXPECT_EQ(files.size(), size_t(FileTableSlots)) << "no other file may be open while this test runs";
    test::Recorder recorder;
    EXPECT_EQ(TL_OPEN(path.c_str(), "rb"), NoFile);
    ASSERT_EQ(recorder.reports.size(), 1u);
    EXPECT_EQ(recorder.reports[0].text, "TL_OPEN  More than 64 Files open");
    const int32_t freed = FindFileSlot(files[10]);
    EXPECT_EQ(TL_CLOSE(files[10]), 0);
    files[10] = TL_OPEN(path.c_str(), "rb");
    EXPECT_EQ(FindFileSlot(files[10]), freed);
    for (ManagedFile file : files) EXPECT_EQ(TL_CLOSE(file), 0);
    EXPECT_TRUE(guard.Same());
}

TEST(FileTable, ReadsAndPositions) {
    test::Recorder recorder;
    const std::string path = SmallFile(), written = test::TempDir() + "/written.bin";
    ManagedFile file = TL_OPEN(path.c_str(), "rb");
    ManagedFile both = TL_OPEN(written.c_str(), "w+b");
    uint8_t bytes[16] = {};
    EXPECT_EQ(TL_READ(bytes, 4, file), 4u);
    EXPECT_EQ(bytes[3], 3);
    EXPECT_EQ(TL_TELL(file), 4u);
    EXPECT_EQ(TL_SEEK(file, -2, 2), 0);
    EXPECT_EQ(TL_READ(bytes, 16, file), 2u) << "a read past the end gives what there was";
    EXPECT_EQ(TL_READ(bytes, 16, file), 0u);
    EXPECT_EQ(TL_SEEK(file, -20, 1), 1) << "a position before the start is refused";
    TL_REWIND(file);
    EXPECT_EQ(TL_TELL(file), 0u);
    EXPECT_EQ(TL_FILELENGTH(file), 10u);
    EXPECT_EQ(TL_READ(nullptr, 0, 12345), 0u) << "count 0 is looked at first";
    EXPECT_EQ(TL_READ(bytes, 1, both), 0u) << "w+ may read; the new file is empty";
    for (ManagedFile f : {file, both}) EXPECT_EQ(TL_CLOSE(f), 0);
    EXPECT_EQ(TL_CLOSE(file), -1) << "a second close is unknown, and silent";
    EXPECT_TRUE(recorder.reports.empty());
}

// A file opened for reading only goes through the read window; the same file
// opened "r+b" is read directly.  Any mix of reads, seeks and tells must give
// the same results, bytes and positions both ways: small and window-sized
// reads, seeks inside and outside the window, before the start and past the
// end.
TEST(FileTable, ReadsThroughTheWindowMatchDirectReads) {
    test::LeakGuard guard;
    test::Recorder recorder;
    std::vector<uint8_t> content(700 * 1024 + 17);
    uint32_t seed = 12345;
    auto next = [&seed] { return seed = seed * 1103515245u + 12345u, seed >> 8; };
    for (uint8_t &byte : content) byte = uint8_t(next());
    // Two copies: a file open for reading may not be opened for writing
    // as well on every system.
    const std::string path = test::WriteTemp("window.bin", content);
    const std::string copy = test::WriteTemp("window-copy.bin", content);
    ManagedFile windowed = TL_OPEN(path.c_str(), "rb"), direct = TL_OPEN(copy.c_str(), "r+b");
    const int32_t size = int32_t(content.size());
    const uint32_t counts[] = {0, 1, 3, 4096, 8000, 70000, 256 * 1024, 300000, 800000};
    std::vector<uint8_t> a(800000), b(800000);
    for (int step = 0; step < 3000; ++step) {
        SCOPED_TRACE(step);
        uint32_t pick = next();
        if (pick % 3 == 0) {
            const int32_t method = int32_t(next() % 3);
            const int32_t base = method == 0 ? 0 : method == 1 ? int32_t(TL_TELL(direct)) : size;
            const int32_t offset = int32_t(next() % uint32_t(size + 40000)) - base - 20000;
            ASSERT_EQ(TL_SEEK(windowed, offset, method), TL_SEEK(direct, offset, method));
        } else if (pick % 3 == 1) {
            const uint32_t count = counts[next() % std::size(counts)] + next() % 3;
            const uint32_t got = TL_READ(a.data(), count, windowed);
            ASSERT_EQ(got, TL_READ(b.data(), count, direct));
            ASSERT_TRUE(std::equal(a.begin(), a.begin() + got, b.begin()));
        } else if (pick % 50 == 2) {
            TL_REWIND(windowed), TL_REWIND(direct);
        }
        ASSERT_EQ(TL_TELL(windowed), TL_TELL(direct));
    }
    EXPECT_EQ(TL_FILELENGTH(windowed), uint32_t(size));
    TL_CLOSE(windowed), TL_CLOSE(direct);
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_TRUE(guard.Same());
}

TEST(FileTable, MisuseIsReported) {
    static uint8_t byte;
    const std::string path = SmallFile(), written = test::TempDir() + "/written.bin";
    FindFileSlot(NoFile);  // the very first lookup only readies the table
    test::QuietDefaults();
    const ManagedFile unknown = 0x7654321, reader = TL_OPEN(path.c_str(), "rb"), writer = TL_OPEN(written.c_str(), "wb");
    auto read = [](ManagedFile f) { return TL_READ(&byte, 1, f); };
    const struct { const char *text; ManagedFile file; uint32_t result; uint32_t (*call)(ManagedFile); } cases[] = {
        {"TL_READ  Invalid FileHandle", unknown, 0, read},
        {"TL_TELL  Invalid FileHandle", unknown, 0, [](ManagedFile f) { return TL_TELL(f); }},
        {"TL_SEEK  Invalid FileHandle", unknown, 0, [](ManagedFile f) { return uint32_t(TL_SEEK(f, 0, 0)); }},
        {"TL_REWIND  Invalid FileHandle", unknown, 0, [](ManagedFile f) { return TL_REWIND(f), 0u; }},
        {"TL_FILELENGTH  Invalid FileHandle", unknown, 0xFFFFFFFFu, [](ManagedFile f) { return TL_FILELENGTH(f); }},
        {"TL_SEEK  Invalid method specification", reader, 0, [](ManagedFile f) { return uint32_t(TL_SEEK(f, 0, 3)); }},
        {"TL_READ  buffer==NULL", reader, 0, [](ManagedFile f) { return TL_READ(nullptr, 1, f); }},
        {"TL_READ  File not Open for Reading", writer, 0, read},
    };
    for (const auto &c : cases) {
        test::Recorder recorder;
        EXPECT_EQ(c.call(c.file), c.result) << c.text;
        ASSERT_EQ(recorder.reports.size(), 1u);
        EXPECT_EQ(recorder.reports[0].text, c.text);
        EXPECT_EQ(recorder.reports[0].withSystemText + TL_ERRORSTATUS_E(), 1);  // no system text, error pending
    }
    TL_CLOSE(reader), TL_CLOSE(writer);
}

TEST(FileTable, TranslateAndTrim) {
    char text[] = "\ta\rb\nc ", chained[] = "abc";
    TranslateChars(text, "   ", "\t\r\n");
    TranslateChars(chained, "b", "ab");  // a becomes b, and b then becomes a blank
    EXPECT_EQ(std::string(text) + "|" + chained, " a b c |  c");
    for (auto [in, out] : {std::pair{"  x y  ", "x y"}, {"    ", ""}, {"", ""}, {"\tx ", "\tx"}}) {
        std::string buffer = in;
        TrimBlanks(buffer.data());
        EXPECT_STREQ(buffer.c_str(), out);
    }
}

}  // namespace
