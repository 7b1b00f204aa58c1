// The POSIX stand-ins for the Win32 calls: results callers depend on, faults
// that must not go unnoticed; and those around the dialog: profile files,
// their directory, path splitting and the dialog record.  The terminal
// dialog is tried through the tool (cli_dialog_test.sh).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/win32.h"
#include "support/support.h"
#include "tolimage_posix.h"

#if defined(TL_ASAN) || defined(__SANITIZE_ADDRESS__)
#define TL_TEST_ASAN 1
#else
#define TL_TEST_ASAN 0
#endif

namespace {

uintptr_t Value(const void *p) { return reinterpret_cast<uintptr_t>(p); }
constexpr uintptr_t Low = uintptr_t(1) << 31;  // the host record holds 32-bit addresses

// The block has a 32-bit handle, is 16-aligned, below 2 GiB, zero and writable; then it is freed.
void ExpectZeroedAndFree(TL_HANDLE block, uintptr_t size) {
    ASSERT_NE(block, nullptr);
    EXPECT_LE(Value(block), 0xFFFFFFFFu);
    EXPECT_EQ(GlobalSize(block), size);
    auto *bytes = static_cast<uint8_t *>(GlobalLock(block));
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(Value(bytes) % 16, 0u);
    EXPECT_LE(Value(bytes) + size, Low);
    EXPECT_EQ(size_t(std::count(bytes, bytes + size, 0)), size);
    std::memset(bytes, 0x5A, size);
    EXPECT_EQ(GlobalUnlock(block), 0);
    EXPECT_EQ(GlobalFree(block), nullptr);
}

TEST(MovableMemory, FreshAndReusedBlocksAreLowAlignedAndZeroed) {
    // A dirty block of `before` bytes is freed first (0: none); its mapping may come back, also smaller.
    const struct { uintptr_t before, size; } cases[] = {
        {0, 0},       {0, 15},          {0, 16},       {0, 17},      {0, 4096},       {0, 4097},    {0, 3u << 20},
        {4096, 4096}, {1088528, 600000}, {3u << 20, (3u << 20) - 4096}, {8192, 5000}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.before << " -> " << c.size);
        if (c.before) {
            TL_HANDLE dirty = GlobalAlloc(GMEM_MOVEABLE, c.before);
            std::memset(GlobalLock(dirty), 0xEE, c.before);
            GlobalFree(dirty);
        }
        ExpectZeroedAndFree(GlobalAlloc(GHND, c.size), c.size);
    }
}

#if !TL_TEST_ASAN  // the sanitizer's shadow of these would cost 64 MiB and more
TEST(MovableMemory, LargeBlocksStayLow) {
    std::vector<TL_HANDLE> small;  // small blocks live meanwhile must not crowd out nearly 1 GiB
    for (int i = 0; i < 500; i++) small.push_back(GlobalAlloc(GHND, 1000));
    for (uintptr_t size : {uintptr_t(512) << 20, (uintptr_t(1) << 30) - 4096}) {
        TL_HANDLE block = GlobalAlloc(GHND, size);
        auto *bytes = static_cast<uint8_t *>(GlobalLock(block));
        ASSERT_NE(bytes, nullptr) << size;
        EXPECT_LE(Value(bytes) + size, Low);
        EXPECT_EQ(bytes[0] | bytes[size - 1], 0);
        bytes[0] = bytes[size - 1] = 1;
        EXPECT_EQ(GlobalFree(block), nullptr);
    }
    for (TL_HANDLE block : small) GlobalFree(block);
}
#endif

TEST(MovableMemory, ManyBlocksAtOnceAndManyFreedInARow) {
    test::LeakGuard guard;
    std::vector<TL_HANDLE> blocks;
    for (size_t i = 0; i < 2000; i++) {
        blocks.push_back(GlobalAlloc(GHND, i * 7));
        ASSERT_NE(blocks.back(), nullptr) << i;
        std::memset(GlobalLock(blocks[i]), int(i), i * 7);
        GlobalUnlock(blocks[i]);
    }
    EXPECT_EQ(platform::LiveBlocks(), guard.blocks + 2000);
    for (size_t i = 0; i < blocks.size(); i++) {  // no block overlaps another
        auto *bytes = static_cast<uint8_t *>(GlobalLock(blocks[i]));
        EXPECT_TRUE(i == 0 || (bytes[0] == uint8_t(i) && bytes[i * 7 - 1] == uint8_t(i))) << i;
        EXPECT_EQ(GlobalFree(blocks[i]), nullptr);
    }
    EXPECT_TRUE(guard.Same());
}

TEST(MovableMemory, LocksFreesAndHandles) {
    test::LeakGuard guard;
    TL_HANDLE block = GlobalAlloc(GHND, 64);
    EXPECT_EQ(platform::LiveBlocks(), guard.blocks + 1);
    void *first = GlobalLock(block);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(GlobalLock(block), first);  // a second lock, same address
    EXPECT_NE(GlobalUnlock(block), 0);    // still locked once
    EXPECT_EQ(GlobalUnlock(block), 0);
    EXPECT_EQ(GlobalUnlock(block), 0);  // not locked at all
    EXPECT_EQ(GlobalLock(block), first);
    EXPECT_EQ(GlobalFree(block), nullptr);  // a locked block is freed too
    EXPECT_EQ(platform::LiveBlocks(), guard.blocks);
    // The slot is reused; the old handle, a foreign value or a data address must not reach the new block.
    TL_HANDLE next = GlobalAlloc(GHND, 64);
    EXPECT_NE(next, block);
    for (TL_HANDLE bad : {TL_HANDLE(nullptr), block, TL_HANDLE(uintptr_t(0x1235)), TL_HANDLE(first)}) {
        EXPECT_EQ(GlobalLock(bad), nullptr);
        EXPECT_EQ(GlobalUnlock(bad), 0);
        EXPECT_EQ(GlobalSize(bad), 0u);
        EXPECT_EQ(GlobalFree(bad), bad);
    }
    EXPECT_EQ(GlobalFree(next), nullptr);
    SetLastError(0);
    EXPECT_EQ(GlobalAlloc(GHND, (uintptr_t(1) << 30) + 1), nullptr);  // oversized
    EXPECT_EQ(GetLastError(), DWORD(ENOMEM));
    EXPECT_EQ(LocalAlloc(LMEM_MOVEABLE, ~uintptr_t(0)), nullptr);
    // A fixed block's handle is its address, always usable, without a lock count.
    void *fixed = GlobalAlloc(GMEM_FIXED | GMEM_ZEROINIT, 24);
    std::memset(fixed, 0, 24);
    EXPECT_EQ(GlobalLock(fixed), fixed);
    ExpectZeroedAndFree(fixed, 24);
    EXPECT_EQ(GlobalFree(fixed), fixed);
    EXPECT_TRUE(guard.Same());
}

void WriteAt(void *base, size_t index) { static_cast<volatile uint8_t *>(base)[index] = 1; }
[[maybe_unused]] void ReadAt(void *base, size_t index) { (void)static_cast<volatile uint8_t *>(base)[index]; }
void *LockedAfterLargerFreed() {
    GlobalFree(GlobalAlloc(GHND, 1088528));
    return GlobalLock(GlobalAlloc(GHND, 600000));
}

TEST(MovableMemoryDeathTest, OverrunsAndUseAfterUnlockFault) {
    const std::string style = GTEST_FLAG_GET(death_test_style);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // A multiple of 16 ends at the guard page, also in the reused mapping of a larger block.
    for (uintptr_t size : {16u, 4096u, 8192u + 48u})
        EXPECT_DEATH(WriteAt(GlobalLock(GlobalAlloc(GHND, size)), size), "") << size;
    EXPECT_DEATH(WriteAt(LockedAfterLargerFreed(), 600000), "");
#if TL_TEST_ASAN
    // Below a reused mapping, the slack before the guard page, unlocked (one unlock of two: still locked), freed.
    static TL_HANDLE block;
    const struct { void (*body)(); const char *regex; } cases[] = {
        {[] { WriteAt(static_cast<uint8_t *>(LockedAfterLargerFreed()) - 1, 0); }, "use-after-poison"},
        {[] { WriteAt(GlobalLock(GlobalAlloc(GHND, 13)), 13); }, "use-after-poison"},
        {[] { void *p = GlobalLock(block = GlobalAlloc(GHND, 100)); GlobalUnlock(block), ReadAt(p, 0); }, "use-after-poison"},
        {[] {
             void *p = (GlobalLock(block = GlobalAlloc(GHND, 13)), GlobalLock(block));
             GlobalUnlock(block), ReadAt(p, 12), GlobalUnlock(block), ReadAt(p, 12);
         }, "use-after-poison"},
        {[] { void *p = GlobalLock(block = GlobalAlloc(GHND, 100)); GlobalFree(block), ReadAt(p, 50); }, ""},
    };
    for (const auto &c : cases) EXPECT_DEATH(c.body(), c.regex);
#endif
    GTEST_FLAG_SET(death_test_style, style);
}

HANDLE Open(const std::string &path, DWORD access = GENERIC_READ, DWORD disposition = OPEN_EXISTING) {
    return CreateFileA(path.c_str(), access, FILE_SHARE_READ, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
}

std::vector<uint8_t> Counting(size_t end, size_t from = 0) {  // from, from + 1, ... end - 1
    std::vector<uint8_t> bytes;
    for (size_t i = from; i < end; i++) bytes.push_back(uint8_t(i));
    return bytes;
}

TEST(Files, OpenModesAndFailures) {
    test::LeakGuard guard;
    const std::string dir = test::TempDir(), existing = test::WriteTemp("modes.bin", Counting(10));
    const std::string created = dir + "/created.bin", fifo = dir + "/fifo";
    unlink(created.c_str());
    unlink(fifo.c_str());
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const DWORD R = GENERIC_READ, W = GENERIC_WRITE;
    const struct { std::string name; DWORD access, disposition, error; int64_t size; } cases[] = {
        {existing, R, OPEN_EXISTING, 0, 10},       {dir + "/missing.bin", R, OPEN_EXISTING, ENOENT, -1},
        {existing, W, OPEN_ALWAYS, 0, 10},         {created, W, OPEN_ALWAYS, 0, 0},
        {existing, R | W, CREATE_ALWAYS, 0, 0},    {dir, R, OPEN_EXISTING, EISDIR, -1},
        {fifo, R, OPEN_EXISTING, ENODEV, -1},  // must not wait for a writer
        {existing, 0, OPEN_EXISTING, EINVAL, -1},  {existing, R, 9, EINVAL, -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name + " " + std::to_string(c.access) + " " + std::to_string(c.disposition));
        SetLastError(0);
        HANDLE file = Open(c.name, c.access, c.disposition);
        if (c.error) {
            EXPECT_EQ(file, INVALID_HANDLE_VALUE);
            EXPECT_EQ(GetLastError(), c.error);
            EXPECT_EQ(platform::OpenFiles(), guard.files);
            continue;
        }
        ASSERT_NE(file, INVALID_HANDLE_VALUE);
        EXPECT_LT(Value(file), 0xFFFFFFFFu);  // fits a ManagedFile and is not its "none"
        EXPECT_EQ(platform::OpenFiles(), guard.files + 1);
        EXPECT_EQ(int64_t(GetFileSize(file, nullptr)), c.size);
        EXPECT_EQ(fcntl(int(Value(file)), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
        EXPECT_EQ(CloseHandle(file), 1);
        EXPECT_EQ(CloseHandle(file), 0);
    }
    EXPECT_EQ(CreateFileA(nullptr, R, 1, nullptr, OPEN_EXISTING, 0x80, nullptr), INVALID_HANDLE_VALUE);
    EXPECT_TRUE(guard.Same());
}

TEST(Files, ReadSeekSizeAndHandles) {
    test::LeakGuard guard;
    const std::string path = test::WriteTemp("seek.bin", Counting(100));
    HANDLE file = Open(path);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    DWORD high = 9;
    EXPECT_EQ(GetFileSize(file, &high), 100u);
    EXPECT_EQ(high, 0u);
    constexpr DWORD Fail = INVALID_SET_FILE_POINTER;
    const struct { LONG offset; DWORD method, expect, positionAfter; } steps[] = {
        {50, FILE_BEGIN, 50, 50},     {10, FILE_CURRENT, 60, 60},   {-5, FILE_END, 95, 95},
        {-101, FILE_END, Fail, 95},   {-1, FILE_BEGIN, Fail, 95},   {-96, FILE_CURRENT, Fail, 95},
        {-95, FILE_CURRENT, 0, 0},    {500, FILE_BEGIN, 500, 500},  // past the end is allowed
        {0x7FFFFFFF, FILE_BEGIN, 0x7FFFFFFF, 0x7FFFFFFF}, {0x7FFFFFFF, FILE_CURRENT, 0xFFFFFFFE, 0xFFFFFFFE},
        {1, FILE_CURRENT, Fail, 0xFFFFFFFE},  // 0xFFFFFFFF would read as the failure value
        {0, 3, Fail, 0xFFFFFFFE},             // no such method
    };
    for (const auto &s : steps) {
        SCOPED_TRACE(std::to_string(s.offset) + " method " + std::to_string(s.method));
        EXPECT_EQ(SetFilePointer(file, s.offset, nullptr, s.method), s.expect);
        EXPECT_EQ(SetFilePointer(file, 0, nullptr, FILE_CURRENT), s.positionAfter);
    }
    // Reads: full, short at the end (still success), empty at the end.
    for (auto [from, count, got] : {std::array<DWORD, 3>{10, 20, 20}, {90, 64, 10}, {100, 64, 0}}) {
        uint8_t buffer[64];
        DWORD read = 99;
        SetFilePointer(file, LONG(from), nullptr, FILE_BEGIN);
        EXPECT_EQ(ReadFile(file, buffer, count, &read, nullptr), 1);
        ASSERT_EQ(read, got);
        EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + got), Counting(from + got, from));
    }
    uint8_t x[4];
    DWORD got;
    EXPECT_EQ(CloseHandle(file), 1);
    // Handles CreateFileA did not give (or already took back) are refused; stdin stays open.
    const int stdinState = fcntl(STDIN_FILENO, F_GETFD);
    for (HANDLE h : {INVALID_HANDLE_VALUE, file, HANDLE(intptr_t(STDIN_FILENO)), HANDLE(intptr_t(1) << 40)}) {
        SetLastError(0);
        EXPECT_EQ(ReadFile(h, x, 4, &got, nullptr), 0);
        EXPECT_EQ(GetLastError(), DWORD(EBADF));
        EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
        EXPECT_EQ(GetFileSize(h, nullptr), 0xFFFFFFFFu);
        EXPECT_EQ(CloseHandle(h), 0);
    }
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), stdinState);
    EXPECT_TRUE(guard.Same());
}

// The first message PeekMessageA finds, as "message wParam lParam window", or "none".
std::string Peek(HWND window = nullptr, UINT first = 0, UINT last = 0, UINT remove = PM_REMOVE) {
    MSG m;
    if (!PeekMessageA(&m, window, first, last, remove)) return "none";
    return std::to_string(m.message) + " " + std::to_string(m.wParam) + " " + std::to_string(m.lParam) + " " +
           std::to_string(Value(m.hwnd));
}

TEST(MessageQueue, OrderRangesWindowsAndInputState) {
    while (Peek() != "none") {
    }
    EXPECT_EQ(GetInputState(), 0);
    HWND window = reinterpret_cast<HWND>(intptr_t(0x55));
    PostQuitMessage(4);
    EXPECT_EQ(GetInputState(), 0);  // a quit message is no input
    EXPECT_EQ(PostMessageA(nullptr, WM_CHAR, 'a', 0), 1);
    EXPECT_EQ(PostMessageA(window, WM_KEYDOWN, VK_ESCAPE, 7), 1);
    EXPECT_EQ(PostMessageA(nullptr, WM_KEYDOWN, 'B', 0), 1);
    EXPECT_NE(GetInputState(), 0);
    const std::string escape = std::to_string(WM_KEYDOWN) + " 27 7 85";
    EXPECT_EQ(Peek(nullptr, WM_KEYDOWN, WM_KEYDOWN, PM_NOREMOVE), escape);  // not removed: the same again
    EXPECT_EQ(Peek(nullptr, WM_KEYDOWN, WM_KEYDOWN), escape);
    EXPECT_EQ(Peek(nullptr, WM_KEYFIRST, WM_KEYLAST), std::to_string(WM_CHAR) + " 97 0 0");  // posting order
    EXPECT_EQ(Peek(window), "none");
    EXPECT_EQ(Peek(nullptr, WM_QUIT, WM_ENDSESSION), std::to_string(WM_QUIT) + " 4 0 0");
    EXPECT_EQ(Peek(nullptr, WM_QUIT, WM_ENDSESSION), "none");
    EXPECT_EQ(Peek(), std::to_string(WM_KEYDOWN) + " 66 0 0");
    EXPECT_EQ(GetInputState(), 0);
    PostMessageA(nullptr, WM_MOUSELAST, 0, 0);  // mouse messages are input too; the queue is the thread's own
    EXPECT_NE(GetInputState(), 0);
    EXPECT_NE(Peek(), "none");
}

TEST(Text, WsprintfWidthsPrecisionAndTheCutAt1024) {
    char buffer[1100];
    EXPECT_EQ(wsprintfA(buffer, "[%9d][%.3s][%lu]", 42, "abcdef", uint32_t(0xFFFFFFFF)), 28);
    EXPECT_STREQ(buffer, "[       42][abc][4294967295]");
    EXPECT_EQ(wsprintfA(buffer, "%s", std::string(2000, 'a').c_str()), 1024);
}

TEST(Paths, FullpathAndAccess) {
    char cwd[4096], buffer[260];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    const std::string here = cwd;
    const struct { const char *name; std::string expected; } cases[] = {
        {"/a/./b//c/", "/a/b/c"}, {"/a/b/../../c", "/c"}, {"/../..", "/"},
        {"x.tif", here + "/x.tif"}, {"./x/../y.tif", here + "/y.tif"}, {".", here},
    };
    for (const auto &c : cases) {
        ASSERT_EQ(_fullpath(buffer, c.name, sizeof buffer), buffer) << c.name;
        EXPECT_EQ(std::string(buffer), c.expected) << c.name;
    }
    EXPECT_EQ(_fullpath(buffer, "/abc", 5), buffer);  // the size counts the NUL
    EXPECT_EQ(_fullpath(buffer, "/abcd", 5), nullptr);
    EXPECT_EQ(_fullpath(buffer, std::string(300, 'a').c_str(), sizeof buffer), nullptr);
    EXPECT_EQ(_fullpath(nullptr, "/a", 260), nullptr);
    EXPECT_EQ(_fullpath(buffer, nullptr, 260), nullptr);
    const std::string existing = test::WriteTemp("exists.bin", {1});
    EXPECT_EQ(_access(existing.c_str(), 0), 0);
    EXPECT_EQ(_access((existing + ".not").c_str(), 0), -1);
    EXPECT_EQ(_access(nullptr, 0), -1);
}

// ---- around the dialog: profiles, paths, the dialog record, the terminal ----

std::string Get(const char *section, const char *key, const std::string &path, DWORD size = 260) {
    char buffer[300];
    memset(buffer, 'x', sizeof buffer);
    const DWORD n = GetPrivateProfileStringA(section, key, "dflt", buffer, size, path.c_str());
    EXPECT_EQ(n, strlen(buffer));
    return buffer;
}

BOOL Put(const char *section, const char *key, const char *value, const std::string &path) {
    return WritePrivateProfileStringA(section, key, value, path.c_str());
}

TEST(Profile, ReadWriteAndReplace) {
    const std::string path = test::TempDir() + "/p.ini";
    unlink(path.c_str());
    EXPECT_EQ(Get("S", "k", path), "dflt");  // no file
    test::WriteText(path, "; a comment\n[Other]\nk=other\n\n[Paths]\r\n  Last = /a/b.TIF  \r\nQuoted=\" x \"\n"
                          "[paths]\nLast=second\n");
    chmod(path.c_str(), 0640);
    EXPECT_EQ(Get("PATHS", "last", path), "/a/b.TIF");  // case and blanks do not count; first section wins
    EXPECT_EQ(Get("Paths", "Quoted", path), " x ");
    EXPECT_EQ(Get("Paths", "none", path), "dflt");
    EXPECT_EQ(Get("Paths", "Last", path, 5), "/a/b");  // cut to size - 1
    EXPECT_TRUE(Put("paths", "LAST", "/c/d.TIF", path));
    EXPECT_TRUE(Put("Paths", "New", "v", path));
    EXPECT_TRUE(Put("Fresh", "k", "1", path));
    EXPECT_TRUE(Put("Other", "k", nullptr, path));     // removes the key
    EXPECT_TRUE(Put("Gone", nullptr, nullptr, path));  // nothing to remove
    EXPECT_EQ(test::ReadText(path), "; a comment\n[Other]\n\n[Paths]\nLast=/c/d.TIF\nQuoted=\" x \"\nNew=v\n[paths]\n"
                              "Last=second\n\n[Fresh]\nk=1\n");
    EXPECT_TRUE(Put("paths", nullptr, nullptr, path));  // removes the first section
    EXPECT_EQ(test::ReadText(path), "; a comment\n[Other]\n\n[paths]\nLast=second\n\n[Fresh]\nk=1\n");
    // Values and names that would break the lines, and a directory, are refused; nothing changes.
    const std::string before = test::ReadText(path);
    const struct { const char *section, *key, *value; std::string path; } refused[] = {
        {"Paths", "Last", "a\nb", path}, {"Pa]ths", "Last", "a", path}, {"Paths", "La=st", "a", path},
        {"", "Last", "a", path},         {"Paths", "Last", "a", test::TempDir()}};
    for (const auto &r : refused) EXPECT_FALSE(Put(r.section, r.key, r.value, r.path)) << r.section << r.key << r.value;
    EXPECT_EQ(test::ReadText(path), before);
    // Written anew and renamed into place: the mode stays, no scratch file stays.
    struct stat info {};
    stat(path.c_str(), &info);
    EXPECT_EQ(info.st_mode & 0777, 0640u);
    // A file too large to be a profile is neither read nor rewritten.
    test::WriteText(path, "[S]\nk=v\n" + std::string(2 << 20, ';'));
    EXPECT_EQ(Get("S", "k", path), "dflt");
    EXPECT_FALSE(Put("S", "k", "w", path));
    unlink(path.c_str());
}

TEST(Profile, PlatformDirectory) {
    const std::string home = test::TempDir() + "/home";
    const char *savedHome = getenv("HOME");
    const std::string oldHome = savedHome ? savedHome : "";
    setenv("HOME", home.c_str(), 1);
    const struct { const char *xdg; std::string expected; } cases[] = {  // xdg NULL: unset; only an absolute one counts
        {nullptr, home + "/.config/tolimage"}, {"relative/dir", home + "/.config/tolimage"},
        {"/some/config", "/some/config/tolimage"}};
    for (const auto &c : cases) {
        c.xdg ? setenv("XDG_CONFIG_HOME", c.xdg, 1) : unsetenv("XDG_CONFIG_HOME");
        char buffer[259], small[8] = "keep";
        EXPECT_EQ(GetWindowsDirectoryA(buffer, sizeof buffer), c.expected.size());
        EXPECT_EQ(buffer, c.expected);
        EXPECT_EQ(GetWindowsDirectoryA(small, sizeof small), c.expected.size() + 1);
        EXPECT_STREQ(small, "keep");
    }
    // Made (private) when the first profile goes into it; elsewhere nothing is created.
    unsetenv("XDG_CONFIG_HOME");
    EXPECT_TRUE(Put("S", "k", "v", home + "/.config/tolimage\\scan.STS"));
    EXPECT_EQ(test::ReadText(home + "/.config/tolimage/scan.STS"), "[S]\nk=v\n");
    struct stat info {};
    ASSERT_EQ(stat((home + "/.config/tolimage").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    EXPECT_FALSE(Put("S", "k", "v", home + "/nodir/x.ini"));
    setenv("HOME", oldHome.c_str(), 1);
}

// A host dialog whose answer the test sets; "no NUL" fills the whole buffer.
std::string hostAnswer;
int hostCalls = 0;
int32_t TL_CALL Host(TL_FILE_REQUEST *request) {
    ++hostCalls;
    if (hostAnswer == "no NUL") return memset(request->file, 'z', request->fileBytes), 1;
    return snprintf(request->file, request->fileBytes, "%s", hostAnswer.c_str()), 1;
}

OPENFILENAMEA Record(char *file, char *title, const char *initialDir, DWORD structSize = 76, DWORD maxFile = 260) {
    OPENFILENAMEA record{};
    record.lStructSize = structSize;
    record.lpstrFile = file;
    record.nMaxFile = maxFile;
    record.lpstrFileTitle = title;
    record.nMaxFileTitle = 260;
    record.lpstrInitialDir = initialDir;
    record.Flags = 6156;
    return record;
}

TEST(DialogRecord, AnswersAreCheckedAndResolved) {
    EXPECT_EQ(GetActiveWindow(), nullptr);
    const TL_FILE_DIALOG before = TlSetFileDialog(Host);
    const std::string dir = test::TempDir();
    const struct { std::string answer; DWORD structSize, maxFile; BOOL expected; std::string file, title; } cases[] = {
        {"x.TIF", 76, 260, 1, dir + "/x.TIF", "x.TIF"},  // relative to the initial directory
        {"/a/./b/../y.tar.gz", 76, 260, 1, "/a/y.tar.gz", "y.tar.gz"},
        {"  /a/noext  ", 76, 260, 1, "/a/noext", "noext"},
        {"/a/x.TIF", 80, 260, 0, "keep", ""},  // a record of another layout
        {"/a/x.TIF", 76, 8, 0, "keep", ""},    // its NUL does not fit nMaxFile
        {"no NUL", 76, 260, 0, "keep", ""},
        {"", 76, 260, 0, "keep", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.answer);
        hostAnswer = c.answer;
        hostCalls = 0;
        char file[260] = "keep", title[260] = "";
        OPENFILENAMEA record = Record(file, title, dir.c_str(), c.structSize, c.maxFile);
        EXPECT_EQ(GetOpenFileNameA(&record), c.expected);
        EXPECT_EQ(file, c.file);
        EXPECT_EQ(title, c.title);
        EXPECT_EQ(hostCalls, c.structSize == 76 ? 1 : 0);
        if (!c.expected) continue;
        EXPECT_EQ(std::string(file + record.nFileOffset), c.title);
        const char *dot = strrchr(file + record.nFileOffset, '.');
        EXPECT_EQ(file + record.nFileExtension, dot ? dot + 1 : file + strlen(file));
    }
    TlSetFileDialog(before);
}

}  // namespace
