// The managed file table: its checks, its reports and its slots.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "services/errors.h"
#include "services/files.h"
#include "support/support.h"

namespace {

std::string SmallFile() { return test::WriteTemp("ten.bin", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}); }

// Opens with the mode and gives back the one report it made ("" for none).
std::string OpenReport(const char *name, const char *mode, ManagedFile *file = nullptr) {
    test::Recorder recorder;
    ManagedFile opened = TL_OPEN(name, mode);
    if (file) {
        *file = opened;
    } else if (opened != NoFile) {
        TL_CLOSE(opened);
    }
    if (recorder.reports.empty()) return "";
    EXPECT_EQ(recorder.reports.size(), 1u);
    EXPECT_EQ(recorder.reports[0].title, "TOPEN");
    return recorder.reports[0].text;
}

TEST(FileTable, ModesAreCheckedLettersFirst) {
    std::string path = SmallFile();
    for (const char *good : {"rb", "r", "r+b", "rb+", "a+", "r+"}) EXPECT_EQ(OpenReport(path.c_str(), good), "") << good;
    for (const char *bad : {"wa", "", "b", "wr+t", "rwa"})
        EXPECT_EQ(OpenReport(path.c_str(), bad), "TL_OPEN  Illegal mode") << bad;
    EXPECT_EQ(OpenReport(path.c_str(), "rt"), "TL_OPEN  Illegal mode='t'");
    EXPECT_EQ(OpenReport("", "rt"), "TL_OPEN  empty filename") << "the name is looked at before the mode";
}

TEST(FileTable, NamesAreCheckedBeforeThePlatformSeesThem) {
    test::LeakGuard guard;
    EXPECT_EQ(OpenReport(nullptr, "rb"), "TL_OPEN  filename==NULL");
    EXPECT_EQ(OpenReport(" \t\r\n ", "rb"), "TL_OPEN  empty filename");
    std::string name259 = "/" + std::string(258, 'n');
    EXPECT_EQ(OpenReport(name259.c_str(), "rb"), "TL_OPEN  Can't open File " + name259 + " in Mode rb");
    std::string name260 = name259 + "n";
    EXPECT_EQ(OpenReport(name260.c_str(), "rb"), "TL_OPEN  filename too long");

    // The platform gets the name as given: a leading blank is part of it.
    std::string path = SmallFile();
    EXPECT_EQ(OpenReport((" " + path).c_str(), "rb"), "TL_OPEN  Can't open File  " + path + " in Mode rb");
    EXPECT_TRUE(guard.Same());
}

TEST(FileTable, FailedOpenReportsWithSystemText) {
    test::Recorder recorder;
    EXPECT_EQ(TL_OPEN("/no/such/dir/file.tif", "r+b"), NoFile);
    ASSERT_EQ(recorder.reports.size(), 1u);
    EXPECT_EQ(recorder.reports[0].text, "TL_OPEN  Can't open File /no/such/dir/file.tif in Mode r+b");
    EXPECT_EQ(recorder.reports[0].withSystemText, 1);
}

TEST(FileTable, SixtyFourFilesFitAndTheLowestFreeSlotIsTakenNext) {
    test::LeakGuard guard;
    std::string path = SmallFile();
    std::vector<ManagedFile> files;
    test::QuietDefaults();
    for (;;) {
        ManagedFile file = TL_OPEN(path.c_str(), "rb");
        if (file == NoFile) break;
        files.push_back(file);
    }
    EXPECT_EQ(files.size(), size_t(FileTableSlots)) << "no other file may be open while this test runs";
    TL_CLEARERROR_E();
    EXPECT_EQ(OpenReport(path.c_str(), "rb"), "TL_OPEN  More than 64 Files open");

    int32_t freed = FindFileSlot(files[10]);
    EXPECT_EQ(TL_CLOSE(files[10]), 0);
    ManagedFile again = NoFile;
    EXPECT_EQ(OpenReport(path.c_str(), "rb", &again), "");
    EXPECT_EQ(FindFileSlot(again), freed);
    files[10] = again;
    for (ManagedFile file : files) EXPECT_EQ(TL_CLOSE(file), 0);
    EXPECT_TRUE(guard.Same());
}

TEST(FileTable, ReadsAndPositions) {
    test::Recorder recorder;
    std::string path = SmallFile();
    ManagedFile file = TL_OPEN(path.c_str(), "rb");
    ManagedFile second = TL_OPEN(path.c_str(), "rb");
    ASSERT_NE(file, NoFile);
    ASSERT_NE(second, NoFile);
    uint8_t bytes[16] = {};
    EXPECT_EQ(TL_READ(bytes, 4, file), 4u);
    EXPECT_EQ(bytes[3], 3);
    EXPECT_EQ(TL_READ(bytes, 2, second), 2u) << "two readers of one file each keep a position";
    EXPECT_EQ(bytes[1], 1);
    EXPECT_EQ(TL_TELL(file), 4u);
    EXPECT_EQ(TL_SEEK(file, -2, 2), 0);
    EXPECT_EQ(TL_READ(bytes, 16, file), 2u) << "a read past the end gives what there was";
    EXPECT_EQ(TL_READ(bytes, 16, file), 0u);
    EXPECT_EQ(TL_SEEK(file, -20, 1), 1) << "a position before the start is refused";
    TL_REWIND(file);
    EXPECT_EQ(TL_TELL(file), 0u);
    EXPECT_EQ(TL_FILELENGTH(file), 10u);
    EXPECT_EQ(TL_READ(nullptr, 0, 12345), 0u) << "count 0 is looked at first";
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_EQ(TL_CLOSE(file), 0);
    EXPECT_EQ(TL_CLOSE(file), -1) << "a second close is unknown, and silent";
    EXPECT_EQ(TL_CLOSE(second), 0);
    EXPECT_TRUE(recorder.reports.empty());
}

TEST(FileTable, MisuseIsReported) {
    std::string path = SmallFile();
    // The very first lookup only readies the table and answers slot 0.
    FindFileSlot(NoFile);
    const ManagedFile unknown = 0x7654321;
    struct Case {
        std::string expected;
        uint32_t result;
        uint32_t (*call)(ManagedFile);
    };
    uint8_t byte;
    static uint8_t *buffer = &byte;
    Case cases[] = {
        {"TL_READ  Invalid FileHandle", 0, [](ManagedFile f) { return TL_READ(buffer, 1, f); }},
        {"TL_TELL  Invalid FileHandle", 0, [](ManagedFile f) { return TL_TELL(f); }},
        {"TL_SEEK  Invalid FileHandle", 0, [](ManagedFile f) { return uint32_t(TL_SEEK(f, 0, 0)); }},
        {"TL_REWIND  Invalid FileHandle", 0, [](ManagedFile f) { TL_REWIND(f); return 0u; }},
        {"TL_FILELENGTH  Invalid FileHandle", 0xFFFFFFFFu, [](ManagedFile f) { return TL_FILELENGTH(f); }},
    };
    for (const Case &c : cases) {
        test::Recorder recorder;
        EXPECT_EQ(c.call(unknown), c.result) << c.expected;
        ASSERT_EQ(recorder.reports.size(), 1u);
        EXPECT_EQ(recorder.reports[0].text, c.expected);
        EXPECT_EQ(recorder.reports[0].withSystemText, 0);
        EXPECT_EQ(TL_ERRORSTATUS_E(), 1);
    }

    test::Recorder recorder;
    ManagedFile file = TL_OPEN(path.c_str(), "rb");
    EXPECT_EQ(TL_SEEK(file, 0, 3), 0);
    EXPECT_EQ(TL_READ(nullptr, 1, file), 0u);
    EXPECT_EQ(TL_CLOSE(unknown), -1);
    TL_CLOSE(file);

    std::string written = test::TempDir() + "/written.bin";
    ManagedFile writeOnly = TL_OPEN(written.c_str(), "wb");
    EXPECT_EQ(TL_READ(&byte, 1, writeOnly), 0u);
    TL_CLOSE(writeOnly);
    ManagedFile readWrite = TL_OPEN(written.c_str(), "w+b");
    EXPECT_EQ(TL_READ(&byte, 1, readWrite), 0u) << "w+ may read; the new file is empty";
    TL_CLOSE(readWrite);

    std::vector<std::string> texts;
    for (const auto &r : recorder.reports) texts.push_back(r.text);
    EXPECT_EQ(texts, (std::vector<std::string>{"TL_SEEK  Invalid method specification", "TL_READ  buffer==NULL",
                                               "TL_READ  File not Open for Reading"}));
}

TEST(FileTable, AppendModesStartAtTheEnd) {
    test::Recorder recorder;
    std::string path = SmallFile();
    ManagedFile file = TL_OPEN(path.c_str(), "a+");
    ASSERT_NE(file, NoFile);
    EXPECT_EQ(TL_TELL(file), 10u);
    TL_CLOSE(file);
    EXPECT_TRUE(recorder.reports.empty());
}

TEST(FileTable, TranslateAndTrim) {
    char text[] = "\ta\rb\nc ";
    TranslateChars(text, "   ", "\t\r\n");
    EXPECT_STREQ(text, " a b c ");
    char chained[] = "abc";
    TranslateChars(chained, "b", "ab");  // a becomes b, and b then becomes a blank
    EXPECT_STREQ(chained, "  c");
    for (auto [in, out] : {std::pair{"  x y  ", "x y"}, {"    ", ""}, {"", ""}, {"\tx ", "\tx"}}) {
        std::string buffer = in;
        TrimBlanks(buffer.data());
        EXPECT_STREQ(buffer.c_str(), out);
    }
}

}  // namespace
