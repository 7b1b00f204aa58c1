// The runtime services: what a report does under each choice of flags, the
// working memory blocks, the managed file table, the user's abort, the file
// selection dialog, and every allocation and lock of a load failing in turn.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "platform/win32.h"
#include "services/abort.h"
#include "services/blocks.h"
#include "services/dialog.h"
#include "services/errors.h"
#include "services/files.h"
#include "support/support.h"

namespace {

// ---- errors -----------------------------------------------------------------

// Quit messages waiting on this thread's queue (each with code 4), taken out.
int TakeQuitMessages() {
    int count = 0;
    for (MSG msg; PeekMessageA(&msg, nullptr, WM_QUIT, WM_QUIT, PM_REMOVE); ++count) EXPECT_EQ(msg.wParam, 4u);
    return count;
}

std::string BoxOf(const char *title, const char *text, int32_t withSystemText) {
    testing::internal::CaptureStderr();
    ReportError(title, text, withSystemText);
    return testing::internal::GetCapturedStderr();
}

// Two reports in a row under each choice of flags: the error stays pending, only the first is shown, a
// quit message for each when the host does not continue, and a callback hears both (and then no box shows).
TEST(Errors, OnlyTheFirstReportIsShownAndACallbackHearsEvery) {
    TL_POSIX_ONLY("on Windows the report's message box is a window, which no test may wait on");
    const struct { int32_t cont, box; bool callback; int quits; const char *shown; } cases[] = {
        {1, 1, false, 0, "T: first\n"}, {0, 1, false, 1, "T: first\n"}, {1, 0, false, 0, ""},
        {0, 0, false, 1, ""},           {1, 1, true, 0, ""},             {0, 0, true, 2, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.cont << c.box << c.callback);
        test::Recorder recorder(c.cont, c.box);
        if (!c.callback) ERROR_FLAGS_E(c.cont, c.box, 1, nullptr);
        SetLastError(0);
        std::string shown = BoxOf("T", "first", 0);
        EXPECT_EQ(TL_ERRORSTATUS_E(), 1);
        shown += BoxOf("T", "second", 1);
        EXPECT_EQ(shown, c.shown);
        EXPECT_EQ(TakeQuitMessages(), c.quits);
        std::string heard;
        for (const auto &r : recorder.reports) heard += r.title + ":" + r.text + ":" + std::to_string(r.withSystemText) + " ";
        EXPECT_EQ(heard, c.callback ? "T:first:0 T:second:1 " : "");
    }
    ERROR_FLAGS_E(1, 1, 1, nullptr);
    EXPECT_EQ(BoxOf("A", "again", 0), "A: again\n");  // after a clear the next report is shown again
    EXPECT_EQ(TL_CLEARERROR_E(), 1);
    EXPECT_EQ(TL_CLEARERROR_E(), 0);
    // The system's text follows a line feed, and the box holds 511 characters.
    const std::string longText(505, 'x');
    TL_CLEARERROR_E();
    SetLastError(ENOENT);
    EXPECT_EQ(BoxOf("T", longText.c_str(), 1), "T: " + longText + "\nNo su\n");
    TL_CLEARERROR_E();
}

TEST(Errors, ASilentAttemptShowsNothingAndRestoresTheFlags) {
    ERROR_FLAGS_E(0, 1, 1, nullptr);
    testing::internal::CaptureStderr();
    {
        SilentAttempt silent;
        ReportError("ReadRAS", "hidden", 1);
        EXPECT_EQ(ErrorStatus(), 1);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(TakeQuitMessages() + ErrorStatus() + GetErrorContinue(), 0);
    EXPECT_EQ(GetErrorBox(), 1);
    {
        test::Recorder recorder(1, 1);
        {
            SilentAttempt silent;
            ReportError("ReadRAS", "heard", 0);
        }
        EXPECT_EQ(recorder.reports.size(), 1u) << "a callback still hears a silent attempt";
        EXPECT_EQ(ErrorStatus(), 0);
    }
    ERROR_FLAGS_E(7, 8, 9, nullptr);  // the setters return the value before
    EXPECT_EQ(std::vector<int32_t>({SetErrorContinue(1), SetErrorBox(1), SetAbortEnabled(1), GetAbortEnabled()}),
              std::vector<int32_t>({7, 8, 9, 1}));
    test::QuietDefaults();
}

// ---- working memory blocks ----------------------------------------------------

bool IsEmpty(const MemoryBlock &b) { return b.handle == 0 && b.offset == 0 && b.pointer == nullptr; }
HGLOBAL HandleOf(const MemoryBlock &b) { return reinterpret_cast<HGLOBAL>(uintptr_t(b.handle)); }

TEST(Blocks, ADescriptorHoldsItsBlockUntilFreedAndFailuresLeaveItEmpty) {
    test::LeakGuard guard;
    MemoryBlock b{};
    ASSERT_EQ(BlockAlloc(&b, 0, 7, 13, "test block"), 1);
    EXPECT_TRUE(b.handle != 0 && b.pointer == nullptr);  // allocated, not locked
    EXPECT_EQ(GlobalSize(HandleOf(b)), 7u * 13u);
    auto *bytes = static_cast<uint8_t *>(BlockLock(&b));
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(std::count(bytes, bytes + 7 * 13, 0), 7 * 13) << "flags 0 means zero-filled";
    memset(bytes, 0x5A, 7 * 13);
    EXPECT_EQ(BlockLock(&b), bytes);  // a second lock: same address, and one unlock ends both
    BlockUnlock(&b);
    EXPECT_TRUE(b.pointer == nullptr && b.handle != 0);
    GlobalLock(HandleOf(b));
    EXPECT_EQ(GlobalUnlock(HandleOf(b)), 0);  // no lock was left on the platform's block
    EXPECT_EQ(static_cast<uint8_t *>(BlockLock(&b))[7 * 13 - 1], 0x5A);
    BlockFree(&b);  // locked: unlocked, then freed
    EXPECT_TRUE(IsEmpty(b));
    EXPECT_TRUE(BlockAlloc(nullptr, 0, 1, 1, "null") == 0 && BlockLock(nullptr) == nullptr && BlockLock(&b) == nullptr);
    BlockUnlock(nullptr), BlockFree(nullptr);
    int scratch = 0;  // unlock or free of a descriptor without a block clears what else it holds
    for (void (*op)(MemoryBlock *) : {BlockUnlock, BlockFree}) {
        b = MemoryBlock{0, 9, &scratch};
        op(&b);
        EXPECT_TRUE(IsEmpty(b));
    }
    // A failed allocation (nothing, past 32 bits, past the ceiling) leaves the descriptor empty.
    const struct { uint32_t count, size; } sizes[] = {{0, 16}, {16, 0}, {0x10000, 0x10000}, {0x4000, 0x10001}};
    for (const auto &c : sizes) {
        b = MemoryBlock{0x1234, 7, &scratch};
        EXPECT_EQ(BlockAlloc(&b, 0, c.count, c.size, "too big"), 0) << c.count << " x " << c.size;
        EXPECT_TRUE(IsEmpty(b));
    }
    // A lock that fails (foreign handle, block freed behind our back) empties the descriptor.
    b = MemoryBlock{0x7FFF0001u, 0, nullptr};
    EXPECT_EQ(BlockLock(&b), nullptr);
    EXPECT_TRUE(IsEmpty(b));
    ASSERT_EQ(BlockAlloc(&b, 0, 1, 8, "freed"), 1);
    EXPECT_EQ(GlobalFree(HandleOf(b)), nullptr);
    EXPECT_EQ(BlockLock(&b), nullptr);
    EXPECT_TRUE(IsEmpty(b));
    EXPECT_TRUE(guard.Same());
}

// ---- the managed file table ---------------------------------------------------

std::string SmallFile() { return test::WriteTemp("ten.bin", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}); }

TEST(FileTable, OpenChecksTheNameThenTheModeAndReportsEachFault) {
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
        const std::vector<std::string> want(!c.text.empty(), "TOPEN: " + c.text + " (" + std::to_string(c.system) + ")");
        EXPECT_EQ(test::Heard(recorder), want);
    }
    // 64 files fit; the 65th is refused, and a freed slot is the next one taken.
    std::vector<ManagedFile> files;
    test::QuietDefaults();
    for (ManagedFile f; (f = TL_OPEN(path.c_str(), "rb")) != NoFile;) files.push_back(f);
    EXPECT_EQ(files.size(), size_t(FileTableSlots)) << "no other file may be open while this test runs";
    test::Recorder recorder;
    EXPECT_EQ(TL_OPEN(path.c_str(), "rb"), NoFile);
    EXPECT_EQ(test::Heard(recorder), std::vector<std::string>{"TOPEN: TL_OPEN  More than 64 Files open (0)"});
    const int32_t freed = FindFileSlot(files[10]);
    EXPECT_EQ(TL_CLOSE(files[10]), 0);
    files[10] = TL_OPEN(path.c_str(), "rb");
    EXPECT_EQ(FindFileSlot(files[10]), freed);
    for (ManagedFile file : files) EXPECT_EQ(TL_CLOSE(file), 0);
    EXPECT_TRUE(guard.Same());
}

TEST(FileTable, ReadsSeeksAndMisuse) {
    const std::string path = SmallFile(), written = test::TempDir() + "/written.bin";
    FindFileSlot(NoFile);  // the very first lookup only readies the table
    {
        test::Recorder recorder;
        ManagedFile file = TL_OPEN(path.c_str(), "rb"), both = TL_OPEN(written.c_str(), "w+b");
        uint8_t bytes[16] = {};
        EXPECT_EQ(TL_READ(bytes, 4, file), 4u);
        EXPECT_EQ(bytes[3], 3);
        EXPECT_EQ(TL_SEEK(file, -2, 2), 0);
        EXPECT_EQ(TL_READ(bytes, 16, file), 2u) << "a read past the end gives what there was";
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
    static uint8_t byte;
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
        EXPECT_EQ(test::Heard(recorder), std::vector<std::string>{"TOPEN: " + std::string(c.text) + " (0)"});
        EXPECT_EQ(TL_ERRORSTATUS_E(), 1);
    }
    TL_CLOSE(reader), TL_CLOSE(writer);
    for (auto [in, out] : {std::pair{"  x y  ", "x y"}, {"    ", ""}, {"", ""}, {"\tx ", "\tx"}}) {
        std::string buffer = in;
        TrimBlanks(buffer.data());
        EXPECT_STREQ(buffer.c_str(), out);
    }
}

// A file opened for reading only goes through the read window; the same file opened "r+b" is read
// directly.  Any mix of reads, seeks and tells gives the same results, bytes and positions both ways.
TEST(FileTable, ReadsThroughTheWindowMatchDirectReads) {
    test::LeakGuard guard;
    test::Recorder recorder;
    std::vector<uint8_t> content(700 * 1024 + 17);
    uint32_t seed = 12345;
    auto next = [&seed] { return seed = seed * 1103515245u + 12345u, seed >> 8; };
    for (uint8_t &byte : content) byte = uint8_t(next());
    const std::string path = test::WriteTemp("window.bin", content), copy = test::WriteTemp("window-copy.bin", content);
    ManagedFile windowed = TL_OPEN(path.c_str(), "rb"), direct = TL_OPEN(copy.c_str(), "r+b");
    const int32_t size = int32_t(content.size());
    const uint32_t counts[] = {0, 1, 3, 4096, 8000, 70000, 256 * 1024, 300000, 800000};
    std::vector<uint8_t> a(800000), b(800000);
    for (int step = 0; step < 3000; ++step) {
        SCOPED_TRACE(step);
        const uint32_t pick = next();
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

// ---- the user's abort ---------------------------------------------------------
// An abort is latched for the life of the process, so every case that ends in one runs in a child.

constexpr WPARAM KeyA = 'A';
constexpr UINT MouseMove = 0x0200;
using Seen = std::tuple<UINT, WPARAM, LPARAM>;  // message, wParam, lParam
using Queue = std::vector<Seen>;

MSG Message(UINT message, WPARAM wParam) { return MSG{nullptr, message, wParam, 0, 0, {}}; }

Queue Drain() {  // every message of the calling thread, in order
    Queue out;
    for (MSG m; PeekMessageA(&m, nullptr, 0, 0, PM_REMOVE);) out.push_back({m.message, m.wParam, m.lParam});
    return out;
}

void PostAll(const Queue &messages) {
    for (auto [message, wParam, lParam] : messages) ASSERT_NE(PostMessageA(nullptr, message, wParam, lParam), 0);
}

Queue Join(Queue a, const Queue &b) { return a.insert(a.end(), b.begin(), b.end()), a; }

// Keys 'A', 'B', ... as WM_KEYDOWN, lParam numbering them.
Queue Letters(int count) {
    Queue out;
    for (int i = 0; i < count; ++i) out.push_back({WM_KEYDOWN, WPARAM('A' + i), LPARAM(i)});
    return out;
}

TEST(Abort, MessagesThatAreNoAbortAreAllPutBackInOrder) {
    TL_POSIX_ONLY("on Windows a posted key is not input: GetInputState does not see it, and the queue's order is the system's");
    test::Recorder recorder;
    Drain();
    const Seen cases[] = {{WM_KEYUP, VK_ESCAPE, 0}, {WM_KEYDOWN, VK_F4, 0}, {WM_SYSKEYDOWN, VK_ESCAPE, 0},
                          {WM_KEYUP + 4, VK_F4, 0} /* WM_SYSKEYUP */, {MouseMove, 0, 0}};
    for (const Seen &c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << std::get<0>(c) << " " << std::get<1>(c));
        MSG m = Message(std::get<0>(c), std::get<1>(c));
        EXPECT_EQ(AbortFromMessage(&m) + AbortPoll(&m), 0);
        PostAll({c});
        EXPECT_EQ(AbortPoll(nullptr), 0);
        EXPECT_EQ(Drain(), Queue{c});
    }
    // A poll examines ten: an Escape behind ten letters is not seen, and the ten go back behind it.
    const Seen escape{WM_KEYDOWN, VK_ESCAPE, 99};
    const Queue ranges = {{MouseMove, 1, 0}, {UINT(KeyA), 0, 0}, {WM_KEYDOWN, KeyA, 0}};  // 0x41: no key message
    const struct { Queue queued, after; } polls[] = {
        {Join(Letters(10), {escape}), Join({escape}, Letters(10))},
        {ranges, ranges},                        // what lies outside the two ranges stays where it is
        {{{WM_QUIT, 0, 0}}, {{WM_QUIT, 0, 0}}},  // a quit message alone is no input: not looked at
    };
    for (const auto &p : polls) {
        PostAll(p.queued);
        EXPECT_EQ(AbortPoll(nullptr), 0);
        EXPECT_EQ(Drain(), p.after);
    }
    EXPECT_TRUE(recorder.reports.empty());
}

// Runs `body(check)` in a child whose exit code counts its failed checks.
using Check = const std::function<void(bool, const char *)> &;
void InChild(const std::function<void(Check)> &body) {
    EXPECT_EXIT(
        {
            test::QuietDefaults();
            Drain();
            int failed = 0;
            body([&](bool ok, const char *what) {
                if (!ok) fprintf(stderr, "child check failed: %s\n", what), ++failed;
            });
            std::_Exit(failed);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(AbortDeathTest, EachAbortLatchesPostsOneQuitMessageAndPutsBackWhatItTook) {
    TL_POSIX_ONLY("on Windows a posted key is not input: GetInputState does not see it, and the queue's order is the system's");
    InChild([](Check check) {
        const Queue taken = Join(Letters(3), {{WM_KEYDOWN, VK_ESCAPE, 50}}), behind = {{WM_KEYDOWN, 'X', 51}};
        PostAll(Join(taken, behind));
        check(AbortPoll(nullptr) == 1, "Escape gives 1");
        // Untaken messages stay in front, then the quit message (code 4), then what was taken.
        check(Drain() == Join(Join(behind, {{WM_QUIT, 4, 0}}), taken), "queue after the poll");
        check(TL_ERRORSTATUS_E() == 0, "an abort is no error");
        PostAll(Letters(2));  // latched: later polls give 1 without looking at the queue
        check(AbortPoll(nullptr) == 1 && AbortFromMessage(nullptr) == 1, "latched");
        check(Drain() == Letters(2), "latched poll left the queue alone");
        SetAbortEnabled(0);  // polling off hides the latch; on again, it is still there
        check(AbortPoll(nullptr) == 0 && AbortFromMessage(nullptr) == 0, "disabled hides the latch");
        SetAbortEnabled(1);
        check(AbortPoll(nullptr) == 1 && Drain().empty(), "still latched, no second quit message");
    });
    const struct { UINT message; WPARAM wParam; bool postsQuit; } cases[] = {
        {WM_KEYDOWN, VK_CANCEL, true}, {WM_SYSKEYDOWN, VK_F4, true}, {WM_QUIT, 7, false}, {WM_ENDSESSION, 1, false},
    };
    for (const auto &c : cases)
        for (int way = 0; way < 3; ++way) {  // handed to AbortFromMessage, to AbortPoll, or queued behind a letter
            SCOPED_TRACE(testing::Message() << std::hex << c.message << " " << c.wParam << " way " << way);
            InChild([&](Check check) {
                MSG m = Message(c.message, c.wParam);
                const Queue queued = {{WM_KEYDOWN, KeyA, 0}, {c.message, c.wParam, 5}};
                if (way == 2) PostAll(queued);
                check((way == 0 ? AbortFromMessage(&m) : AbortPoll(way == 1 ? &m : nullptr)) == 1, "gives 1");
                const Queue quit = c.postsQuit ? Queue{{WM_QUIT, 4, 0}} : Queue{};
                check(Drain() == (way == 2 ? Join(quit, queued) : quit), "a quit message only for a key");
            });
        }
}

// ---- the file selection dialog ------------------------------------------------

constexpr char ImageFilters[] =
    "BMP Files (*.BMP)\0*.BMP\0DIB Files (*.DIB)\0*.DIB\0TIF Files (*.TIF)\0*.TIF\0"
    "PCX Files (*.PCX)\0*.PCX\0RAS Files (*.RAS)\0*.RAS\0";
constexpr uint32_t Always = 0x6000;  // open dialog, no existence test: what the image entry asks

// What the scripted dialog was asked ("open|save flags filter N in DIR file NAME"), and what it
// confirms (empty: a cancel).
struct Script {
    int calls = 0;
    std::string asked, title, label, file, chosen;
} script;

void Answer(const std::string &chosen = "") { script = Script{}, script.chosen = chosen; }

int32_t TL_CALL Scripted(TL_FILE_REQUEST *request) {
    script.calls++;
    script.asked = std::string(request->save ? "save " : "open ") + std::to_string(request->flags) + " filter " +
                   std::to_string(request->filterIndex) + " in " + request->initialDir + " file " + request->file;
    script.title = request->title;
    script.label = request->filterLabel ? request->filterLabel : "";
    script.file = request->file;
    if (!script.chosen.empty()) snprintf(request->file, request->fileBytes, "%s", script.chosen.c_str());
    return !script.chosen.empty();
}

std::string Stored(const std::string &value) { return "[Paths]\nLast=" + value + "\n"; }
auto Inode(const std::string &path) {  // a profile written anew is renamed into place
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}
bool Exists(const std::string &path) {
    std::error_code error;
    return std::filesystem::exists(path, error);
}
void SetConfigHome(const std::string &path) {
#if defined(_WIN32)
    _putenv_s("XDG_CONFIG_HOME", path.c_str());
#else
    setenv("XDG_CONFIG_HOME", path.c_str(), 1);
#endif
}
void Fill(char (&buffer)[DialogPathBytes], const std::string &text) { snprintf(buffer, sizeof buffer, "%s", text.c_str()); }

// Every test gets a fresh configuration directory and the scripted dialog.
class Dialog : public ::testing::Test {
  protected:
    void SetUp() override {
        static int count = 0;
        config = test::TempDir() + "/config" + std::to_string(++count);
        SetConfigHome(config);
        profileDir = config + "/tolimage";
        Answer();
        before = TlSetFileDialog(Scripted);
        test::QuietDefaults();
    }
    void TearDown() override { TlSetFileDialog(before); }
    std::string Remember(const std::string &value) {  // a profile named "scan" remembering `value`
        std::error_code error;
        std::filesystem::create_directories(profileDir, error);
        test::WriteText(profileDir + "/scan.STS", Stored(value));
        return profileDir + "/scan.STS";
    }
    int32_t Ask(char *buffer, uint32_t flags, const char *profile = "scan", const char *section = "Paths",
                const char *key = "Last") {
        return SelectFileDialog(buffer, ImageFilters, flags, "Open Image File", profile, section, key);
    }
    TL_FILE_DIALOG before = nullptr;
    std::string config, profileDir;
};

TEST(DialogStrings, TokensAndFilterPatterns) {
    const struct { const char *source; int32_t index; const char *expected; } tokens[] = {
        {"  *.BMP;*.TIF", 0, "*.BMP"}, {"*.BMP;  *.TIF", 1, "*.TIF"}, {"a;b c ;d", 1, "b c "},
        {"a;;c", 1, ""}, {"a;;c", 2, "c"}, {"a;b", 2, ""}};
    for (const auto &t : tokens) {
        char target[DialogPathBytes];
        GetToken(target, t.source, t.index, ';');
        EXPECT_STREQ(target, t.expected) << t.source << " " << t.index;
    }
    const std::string longToken(600, 'a');
    const struct { std::string patterns; const char *name, *extension; int32_t expected; } matches[] = {
        {"*.TIF", "scan", "TIF", 1},       {"*.TIF", "scan", ".TIF", 1},  // _splitpath's form
        {"*.TIF", "scan", "tif", 0},       {"*.BMP;   *.TIF  ", "scan", "TIF", 1},
        {"*", "scan", "", 1},              {"*", "scan", "TIF", 0},
        {"sc?n.T?F", "scan", "TIF", 1},    {"scan?.TIF", "scan", "TIF", 1},  // ? passes the end of the text
        {"sca.TIF", "scan", "TIF", 0},     {"scan.TIFF", "scan", "TIF", 0},
        {"", "scan", "TIF", 0},            {";*.TIF", "scan", "TIF", 0},  // an empty first token ends the search
        {longToken + ";*.TIF", "scan", "TIF", 1},
    };
    for (const auto &c : matches)
        EXPECT_EQ(MatchFileFilter(c.patterns.c_str(), c.name, c.extension), c.expected)
            << c.patterns.substr(0, 20) << " / " << c.name << " / " << c.extension;
}

TEST_F(Dialog, TheProposedNameChoosesTheFilter) {
    const char badList[] = "A\0*.X\0B\0\0C\0*.TIF\0";  // an empty pattern string ends the walk
    const struct { const char *proposed; const char *filters; uint32_t expected; } cases[] = {
        {"scan.TIF", ImageFilters, 3}, {"scan.tif", ImageFilters, 1}, {"scan", ImageFilters, 1},
        {"c:\\a.b\\x.TIF", ImageFilters, 1},  // a dot in a folder: cut at the first dot, b\x.TIF
        {"page.RAS", ImageFilters, 5}, {"scan.TIF", nullptr, 1}, {"scan.TIF", "\0", 1}, {"scan.TIF", badList, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.proposed);
        Answer();
        char buffer[DialogPathBytes];
        Fill(buffer, c.proposed);
        EXPECT_EQ(SelectFileDialog(buffer, c.filters, Always, "Open Image File", nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(script.asked, "open 6156 filter " + std::to_string(c.expected) + " in  file ");
        EXPECT_STREQ(buffer, c.proposed);  // a cancel leaves the name
    }
}

TEST_F(Dialog, TheProfileLivesWhereItsNameSays) {
    TL_POSIX_ONLY("the profile lives in the configuration directory of POSIX; on Windows in the Windows directory");
    const std::string dir = profileDir + "\\";
    const struct { std::string profile; int32_t result; std::string path; } paths[] = {
        {"scan", 1, dir + "scan.STS"}, {"c:\\x\\scan", 1, "c:\\x\\scan.STS"}, {"scan.ini", 1, dir + "scan.ini"},
        {"d:scan", 1, "d:scan.STS"},   {std::string(300, 'p'), 0, ""} /* would not fit: off */, {"", 0, ""},
    };
    for (const auto &p : paths) {
        char path[DialogPathBytes] = "";
        EXPECT_EQ(DialogProfilePath(path, p.profile.c_str()), p.result) << p.profile;
        EXPECT_EQ(std::string(path), p.path);  // untouched when the profile is off
    }
}

TEST_F(Dialog, FlagsDecideWhetherTheRememberedFileSparesTheDialog) {
    TL_POSIX_ONLY("the profile lives in the configuration directory of POSIX; on Windows in the Windows directory");
    const std::string remembered = test::WriteTemp("page.TIF", {1, 2}), other = test::WriteTemp("other.BMP", {1});
    // It opens in the remembered directory with the remembered name (blanks around it go); the filter follows
    // that name.  What is chosen is stored, the profile written anew.
    const std::string in = " filter 3 in " + test::TempDir() + "/ file page.TIF";
    const struct { uint32_t flags; std::string asked; } cases[] = {
        {0, ""},  // the remembered file is taken without a dialog
        {0x2000, "open 6156" + in}, {0x1000, "save 6158" + in}, {0x5000, "open 6158" + in},
    };
    char buffer[DialogPathBytes];
    std::string profile;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.flags);
        profile = Remember("\" " + remembered + "  \"");
        const auto before = Inode(profile);
        Answer(other);
        Fill(buffer, "proposed.PCX");
        EXPECT_EQ(Ask(buffer, c.flags), 1);
        EXPECT_EQ(script.asked, c.asked);
        const std::string expected = c.asked.empty() ? remembered : other;
        EXPECT_EQ(std::string(buffer), expected);
        EXPECT_EQ(test::ReadText(profile), Stored(expected));
        EXPECT_NE(Inode(profile), before);
    }
    // A remembered file that is gone leads to the dialog in its directory.
    Answer(remembered);
    Remember(test::TempDir() + "/gone.RAS");
    Fill(buffer, "x");
    EXPECT_EQ(Ask(buffer, 0), 1);
    EXPECT_EQ(script.asked, "open 6156 filter 5 in " + test::TempDir() + "/ file gone.RAS");
    // Only a remembered path spares the dialog: an existing file in the buffer, with no profile, does not.
    Answer();
    Fill(buffer, remembered);
    EXPECT_EQ(SelectFileDialog(buffer, ImageFilters, 0, "t", nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(script.calls, 1);
    // An empty section turns the profile off.
    Answer("/elsewhere.TIF");
    Remember(remembered);
    Fill(buffer, "x");
    EXPECT_EQ(Ask(buffer, 0, "scan", ""), 1);
    EXPECT_EQ(script.asked, "open 6156 filter 1 in  file ");
    EXPECT_EQ(test::ReadText(profile), Stored(remembered));
}

TEST_F(Dialog, ACancelWritesNothingAndLongTextsAreCut) {
    TL_POSIX_ONLY("the profile lives in the configuration directory of POSIX; on Windows in the Windows directory");
    const std::string gone = test::TempDir() + "/gone.TIF", profile = Remember(gone);
    const auto before = Inode(profile);
    char buffer[DialogPathBytes] = "scan.TIF";
    EXPECT_EQ(Ask(buffer, Always), 0);
    EXPECT_EQ(std::string(buffer), gone);  // the remembered path, as shown
    EXPECT_EQ(Inode(profile), before);
    EXPECT_EQ(SelectFileDialog(nullptr, ImageFilters, Always, "t", nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(script.calls, 1) << "a NULL buffer gives 0 without a dialog";
    // A profile value longer than a path, and a proposed name filling the buffer without a NUL: cut, not overrun.
    Remember("/" + std::string(400, 'd') + "/" + std::string(300, 'n') + "." + std::string(300, 'e'));
    for (const char *name : {"scan", static_cast<const char *>(nullptr)}) {
        Answer();
        memset(buffer, 'q', sizeof buffer);
        EXPECT_EQ(Ask(buffer, Always, name), 0);
        EXPECT_LE(strlen(name ? buffer : ""), DialogPathBytes - 1);
        EXPECT_LE(script.file.size(), DialogPathBytes - 1);
    }
    // The abort latch gives 0 with no dialog; it stays for the life of the process, so in a child.
    EXPECT_EXIT(
        {
            PostMessageA(nullptr, WM_KEYDOWN, VK_ESCAPE, 0);
            Fill(buffer, "scan.TIF");
            Answer("/x.TIF");
            const int32_t result = Ask(buffer, Always);
            _exit(result == 0 && script.calls == 0 && strcmp(buffer, "scan.TIF") == 0 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(Dialog, AMissingImageFileAsksForAnother) {
    const std::string bmp = test::Fixture("bmp/netpbm_1bit.bmp");
    test::LeakGuard guard;
    char name[DialogPathBytes];
    // Confirmed: the chosen file is read and its path stands in the name; a file that exists spares the dialog.
    for (const std::string &given : {test::TempDir() + "/missing.BMP", bmp}) {
        Answer(bmp);
        Fill(name, given);
        TL_HANDLE block = TL_IMAGE_E(name, 0);
        EXPECT_NE(block, nullptr);
        test::FreeBlock(block);
        EXPECT_EQ(std::string(name), given == bmp ? bmp : test::FullPath(bmp));
        EXPECT_EQ(script.calls, given == bmp ? 0 : 1);
    }
    // Cancelled: no image, and an earlier error still pending.  A name with no folder, so that the
    // filter comes from its own extension and not from a dot on the path to the temporary folder.
    test::Recorder recorder;
    ReportError("earlier", "failure", 0);
    Answer();
    Fill(name, "tolimage-no-such-page.TIF");
    EXPECT_EQ(TL_IMAGE_E(name, 0), nullptr);
    EXPECT_EQ(script.asked, "open 6156 filter 3 in  file ");
    EXPECT_EQ(script.title + " / " + script.label, "Open Image File / TIF Files (*.TIF)");
    EXPECT_EQ(TL_ERRORSTATUS_E(), 1);
    EXPECT_FALSE(Exists(config));  // no profile is ever written
    EXPECT_TRUE(guard.Same());
}

// ---- every allocation and lock of a load failing in turn ----------------------

enum class Call { Load, LoadThird, HandOver, HandOverBitmap };

// The n-th allocation (or lock) fails; true while it was reached.  n 0 fills `image`, which any block
// that comes despite a failure must equal.  A failure gives a report and no image, and leaves nothing.
bool RunWithFailure(Call call, const std::string &path, bool lock, int32_t n, std::vector<uint8_t> &image) {
    SCOPED_TRACE((lock ? "lock " : "allocation ") + std::to_string(n));
    test::LeakGuard guard;
    test::Recorder recorder(1, 0, 1);
    std::vector<char> name(path.begin(), path.end());
    name.push_back('\0');
    std::vector<uint8_t> record(TL_RECORD_MIN_SIZE, 0);
    TL_HANDLE bitmap = call == Call::HandOverBitmap ? TL_IMAGE_E(name.data(), 0) : nullptr;
    TL_IMAGE_E(nullptr, 0);
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

TEST(Failures, EveryAllocationAndLockOfALoadOrHandOverFailsCleanly) {
    const std::pair<Call, std::string> cases[] = {
        {Call::Load, test::Sample("sample.bmp")},         {Call::Load, test::Fixture("pcx/netpbm_1plane.pcx")},
        {Call::Load, test::Fixture("fax/edges-g4-strips.tif")}, {Call::LoadThird, test::Sample("multi.ras")},
        {Call::HandOver, test::Sample("sample.tif")},     {Call::HandOverBitmap, test::Sample("sample.pcx")},
    };
    for (const auto &[call, path] : cases) {
        SCOPED_TRACE(path);
        std::vector<uint8_t> image;
        RunWithFailure(call, path, false, 0, image);
        ASSERT_FALSE(image.empty());
        for (bool lock : {false, true})
            for (int32_t n = 1; RunWithFailure(call, path, lock, n, image) && n < 64;) ++n;
    }
    // A ceiling on block sizes (what the fuzz targets set) fails only the loads whose block passes it.
    const std::string path = test::Sample("sample.tif");
    const TL_HANDLE whole = test::Load(path);
    ASSERT_NE(whole, nullptr);
    const uintptr_t size = uintptr_t(GlobalSize(whole));
    GlobalFree(whole);
    for (const uintptr_t ceiling : {size - 1, size, uintptr_t(0)}) {
        test::LeakGuard guard;
        test::Recorder recorder(1, 0, 1);
        EXPECT_EQ(platform::LimitBlockBytes(ceiling), uintptr_t(0));
        const TL_HANDLE block = test::Load(path);
        EXPECT_EQ(platform::LimitBlockBytes(0), ceiling);
        EXPECT_EQ(block == nullptr, ceiling == size - 1) << ceiling;
        EXPECT_EQ(test::Heard(recorder), std::vector<std::string>(ceiling == size - 1, "ReadTIF: Out of memory (0)"));
        test::FreeBlock(block);
        TL_CLEARERROR_E();
        EXPECT_TRUE(guard.Same());
    }
}

}  // namespace
