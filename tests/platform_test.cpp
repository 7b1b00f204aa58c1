// platform_test.cpp - the POSIX stand-ins for the Win32 calls: results that
// the library's callers depend on, and faults that must not go unnoticed.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/win32.h"
#include "support/support.h"
#include "tolimage_posix.h"

#if defined(TL_ASAN) || defined(__SANITIZE_ADDRESS__)  // CMake sets TL_ASAN with TL_SANITIZE
#define TL_TEST_ASAN 1
#else
#define TL_TEST_ASAN 0
#endif

namespace {

uintptr_t Value(const void *p) { return reinterpret_cast<uintptr_t>(p); }

// ---------------------------------------------------------------- memory

TEST(MovableMemory, BlocksAreLowAlignedZeroedAndSized) {
    const uintptr_t sizes[] = {0, 1, 15, 16, 17, 4095, 4096, 4097, 100000, 3u << 20};
    for (uintptr_t size : sizes) {
        SCOPED_TRACE(size);
        TL_HANDLE block = GlobalAlloc(GHND, size);
        ASSERT_NE(block, nullptr);
        EXPECT_LE(Value(block), 0xFFFFFFFFu);  // the TIFF reader keeps handles in 32 bits
        EXPECT_EQ(GlobalSize(block), size);
        auto *bytes = static_cast<uint8_t *>(GlobalLock(block));
        ASSERT_NE(bytes, nullptr);
        EXPECT_EQ(Value(bytes) % 16, 0u);
        EXPECT_LE(Value(bytes) + size, uintptr_t(1) << 31);  // the host record holds 32-bit addresses
        std::vector<uint8_t> zeros(size + 1, 0);
        EXPECT_EQ(std::memcmp(bytes, zeros.data(), size), 0);
        std::memset(bytes, 0x5A, size);  // every byte is writable
        EXPECT_EQ(GlobalUnlock(block), 0);
        EXPECT_EQ(GlobalFree(block), nullptr);
    }
}

#if !TL_TEST_ASAN  // under the sanitizer the shadow of these blocks would cost 64 MiB and more
TEST(MovableMemory, LargeBlocksStayLow) {
    // Small blocks live meanwhile must not crowd out a block of nearly 1 GiB.
    std::vector<TL_HANDLE> small;
    for (int i = 0; i < 500; i++) small.push_back(GlobalAlloc(GHND, 1000));
    for (uintptr_t size : {uintptr_t(512) << 20, (uintptr_t(1) << 30) - 4096}) {
        SCOPED_TRACE(size);
        TL_HANDLE block = GlobalAlloc(GHND, size);
        ASSERT_NE(block, nullptr);
        auto *bytes = static_cast<uint8_t *>(GlobalLock(block));
        ASSERT_NE(bytes, nullptr);
        EXPECT_LE(Value(bytes) + size, uintptr_t(1) << 31);
        EXPECT_EQ(bytes[0] | bytes[size - 1], 0);
        bytes[0] = bytes[size - 1] = 1;
        GlobalUnlock(block);
        EXPECT_EQ(GlobalFree(block), nullptr);
    }
    for (TL_HANDLE block : small) GlobalFree(block);
}
#endif

TEST(MovableMemory, ReusedMemoryIsZeroedAgain) {
    // Freed blocks may come back at the same place, also in the room of a
    // larger one (a bitmap of 1.1 MB, then a smaller page); GHND must still
    // give zeros, and a reused block keeps the guarantees of a fresh one.
    struct Case {
        uintptr_t before, size;
    };
    const Case cases[] = {{100, 100},          {4096, 4096},        {70000, 70000},         {1088528, 1088528},
                          {1088528, 1000000},  {1088528, 600000},   {3u << 20, (3u << 20) - 4096}, {8192, 5000}};
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.before << " -> " << c.size);
        for (int round = 0; round < 3; round++) {
            TL_HANDLE dirty = GlobalAlloc(GMEM_MOVEABLE, c.before);
            std::memset(GlobalLock(dirty), 0xEE, c.before);
            GlobalUnlock(dirty);
            GlobalFree(dirty);
            TL_HANDLE clean = GlobalAlloc(GHND, c.size);
            EXPECT_EQ(GlobalSize(clean), c.size);
            auto *bytes = static_cast<uint8_t *>(GlobalLock(clean));
            ASSERT_NE(bytes, nullptr);
            EXPECT_EQ(Value(bytes) % 16, 0u);
            EXPECT_LE(Value(bytes) + c.size, uintptr_t(1) << 31);
            std::vector<uint8_t> zeros(c.size, 0);
            EXPECT_EQ(std::memcmp(bytes, zeros.data(), c.size), 0);
            std::memset(bytes, 0x5A, c.size);
            GlobalUnlock(clean);
            GlobalFree(clean);
        }
    }
}

TEST(MovableMemory, ManyFreedLargeBlocksAreNotAllKept) {
    // Blocks freed in a row, more and larger than the cache of freed
    // mappings keeps, come back usable and zeroed.
    test::LeakGuard guard;
    std::vector<TL_HANDLE> blocks;
    for (int i = 0; i < 40; i++) blocks.push_back(GlobalAlloc(GHND, uintptr_t(3) << 20));
    for (TL_HANDLE block : blocks) {
        ASSERT_NE(block, nullptr);
        static_cast<uint8_t *>(GlobalLock(block))[0] = 1;
        GlobalUnlock(block);
    }
    for (TL_HANDLE block : blocks) EXPECT_EQ(GlobalFree(block), nullptr);
    EXPECT_TRUE(guard.Same());
    for (int i = 0; i < 40; i++) {
        TL_HANDLE block = GlobalAlloc(GHND, uintptr_t(2) << 20);
        auto *bytes = static_cast<uint8_t *>(GlobalLock(block));
        ASSERT_NE(bytes, nullptr);
        EXPECT_EQ(bytes[0] | bytes[(uintptr_t(2) << 20) - 1], 0);
        GlobalFree(block);
    }
    EXPECT_TRUE(guard.Same());
}

TEST(MovableMemory, LockCountsAndResults) {
    TL_HANDLE block = GlobalAlloc(GHND, 64);
    void *first = GlobalLock(block);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(GlobalLock(block), first);  // a second lock, same address
    EXPECT_NE(GlobalUnlock(block), 0);    // still locked once
    EXPECT_EQ(GlobalUnlock(block), 0);    // count reaches 0
    EXPECT_EQ(GlobalUnlock(block), 0);    // not locked at all
    EXPECT_EQ(GlobalLock(block), first);  // usable again
    EXPECT_EQ(GlobalUnlock(block), 0);
    EXPECT_EQ(GlobalFree(block), nullptr);

    // Bad handles: 0, a freed block, a foreign value, a data address.
    TL_HANDLE foreign = reinterpret_cast<TL_HANDLE>(uintptr_t(0x1235));
    for (TL_HANDLE bad : {TL_HANDLE(nullptr), block, foreign, TL_HANDLE(first)}) {
        EXPECT_EQ(GlobalLock(bad), nullptr);
        EXPECT_EQ(GlobalUnlock(bad), 0);
        EXPECT_EQ(GlobalSize(bad), 0u);
    }
}

TEST(MovableMemory, FreeResultsAndStaleHandles) {
    test::LeakGuard guard;
    TL_HANDLE a = GlobalAlloc(GHND, 32);
    EXPECT_EQ(platform::LiveBlocks(), guard.blocks + 1);
    EXPECT_EQ(GlobalFree(a), nullptr);
    EXPECT_EQ(GlobalFree(a), a);  // double free: the handle back, nothing else happens
    EXPECT_EQ(platform::LiveBlocks(), guard.blocks);

    // The freed slot is reused; the old handle must not reach the new block.
    TL_HANDLE b = GlobalAlloc(GHND, 32);
    EXPECT_NE(b, a);
    EXPECT_EQ(GlobalLock(a), nullptr);
    EXPECT_EQ(GlobalFree(a), a);
    EXPECT_NE(GlobalLock(b), nullptr);
    EXPECT_EQ(GlobalFree(b), nullptr);  // a locked block is freed too
    EXPECT_TRUE(guard.Same());

    // Oversized requests fail and leave nothing.
    SetLastError(0);
    EXPECT_EQ(GlobalAlloc(GHND, (uintptr_t(1) << 30) + 1), nullptr);
    EXPECT_EQ(GetLastError(), DWORD(ENOMEM));
    EXPECT_EQ(LocalAlloc(LMEM_MOVEABLE, ~uintptr_t(0)), nullptr);
    EXPECT_TRUE(guard.Same());
}

TEST(MovableMemory, LocalAndFixedBlocks) {
    test::LeakGuard guard;
    // Local and Global blocks are one kind and are counted together.
    HLOCAL local = LocalAlloc(LMEM_MOVEABLE | LMEM_ZEROINIT, 10);
    TL_HANDLE global = GlobalAlloc(GMEM_MOVEABLE, 10);
    EXPECT_EQ(platform::LiveBlocks(), guard.blocks + 2);
    EXPECT_NE(LocalLock(local), nullptr);
    EXPECT_EQ(LocalUnlock(local), 0);
    EXPECT_EQ(LocalFree(global), nullptr);
    EXPECT_EQ(GlobalFree(local), nullptr);

    // A fixed block's handle is its address, always usable; it has no lock count.
    for (bool isLocal : {false, true}) {
        void *fixed = isLocal ? LocalAlloc(0, 24) : GlobalAlloc(GMEM_FIXED, 24);
        ASSERT_NE(fixed, nullptr);
        EXPECT_EQ(Value(fixed) % 16, 0u);
        EXPECT_LT(Value(fixed), uintptr_t(1) << 31);
        std::memset(fixed, 1, 24);
        EXPECT_EQ(GlobalLock(fixed), fixed);
        EXPECT_EQ(GlobalUnlock(fixed), 0);
        EXPECT_EQ(GlobalSize(fixed), 24u);
        EXPECT_EQ(isLocal ? LocalFree(fixed) : GlobalFree(fixed), nullptr);
        EXPECT_EQ(GlobalFree(fixed), fixed);
    }
    EXPECT_TRUE(guard.Same());
}

TEST(MovableMemory, ManyBlocksAtOnce) {
    test::LeakGuard guard;
    std::vector<TL_HANDLE> blocks;
    for (int i = 0; i < 2000; i++) {
        blocks.push_back(GlobalAlloc(GHND, uintptr_t(i) * 7));
        ASSERT_NE(blocks.back(), nullptr) << i;
    }
    for (size_t i = 0; i < blocks.size(); i++) {
        auto *bytes = static_cast<uint8_t *>(GlobalLock(blocks[i]));
        ASSERT_NE(bytes, nullptr);
        std::memset(bytes, int(i), i * 7);
        GlobalUnlock(blocks[i]);
    }
    EXPECT_EQ(platform::LiveBlocks(), guard.blocks + 2000);
    for (size_t i = 0; i < blocks.size(); i++) {
        auto *bytes = static_cast<uint8_t *>(GlobalLock(blocks[i]));
        EXPECT_TRUE(i == 0 || (bytes[0] == uint8_t(i) && bytes[i * 7 - 1] == uint8_t(i))) << i;
        GlobalUnlock(blocks[i]);
        EXPECT_EQ(GlobalFree(blocks[i]), nullptr);
    }
    EXPECT_TRUE(guard.Same());
}

void WriteAt(void *base, size_t index) { static_cast<volatile uint8_t *>(base)[index] = 1; }
[[maybe_unused]] uint8_t ReadAt(void *base, size_t index) { return static_cast<volatile uint8_t *>(base)[index]; }

TEST(MovableMemoryDeathTest, OverrunsAndUseAfterUnlockFault) {
    const std::string style = GTEST_FLAG_GET(death_test_style);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // A size that is a multiple of 16 ends at the guard page: one byte more faults in every build.
    for (uintptr_t size : {16u, 4096u, 8192u + 48u})
        EXPECT_DEATH(WriteAt(GlobalLock(GlobalAlloc(GHND, size)), size), "") << size;
    // Also when the block reuses the mapping of a larger freed one.
    EXPECT_DEATH(
        {
            GlobalFree(GlobalAlloc(GHND, 1088528));
            WriteAt(GlobalLock(GlobalAlloc(GHND, 600000)), 600000);
        },
        "");
#if TL_TEST_ASAN
    // The slack before the guard page, a block no longer locked (after one
    // unlock of two it still is), and a freed block.
    using Body = void (*)();
    const struct { Body body; const char *regex; } cases[] = {
        {[] {  // the room below a block that reuses a larger mapping
             GlobalFree(GlobalAlloc(GHND, 1088528));
             WriteAt(static_cast<uint8_t *>(GlobalLock(GlobalAlloc(GHND, 600000))) - 1, 0);
         }, "use-after-poison"},
        {[] { WriteAt(GlobalLock(GlobalAlloc(GHND, 13)), 13); }, "use-after-poison"},
        {[] {
             TL_HANDLE block = GlobalAlloc(GHND, 100);
             void *bytes = GlobalLock(block);
             GlobalUnlock(block);
             ReadAt(bytes, 0);
         }, "use-after-poison"},
        {[] {
             TL_HANDLE block = GlobalAlloc(GHND, 13);
             void *bytes = GlobalLock(block);
             GlobalLock(block);
             GlobalUnlock(block);
             ReadAt(bytes, 12);
             GlobalUnlock(block);
             ReadAt(bytes, 12);
         }, "use-after-poison"},
        {[] {
             TL_HANDLE block = GlobalAlloc(GHND, 100);
             void *bytes = GlobalLock(block);
             GlobalFree(block);
             ReadAt(bytes, 50);
         }, ""},
    };
    for (const auto &c : cases) EXPECT_DEATH(c.body(), c.regex);
#endif
    GTEST_FLAG_SET(death_test_style, style);
}

// ---------------------------------------------------------------- files

std::vector<uint8_t> Counting(size_t n) {
    std::vector<uint8_t> bytes(n);
    for (size_t i = 0; i < n; i++) bytes[i] = uint8_t(i);
    return bytes;
}

HANDLE OpenRead(const std::string &path) {
    return CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                       nullptr);
}

TEST(Files, OpenModesAndFailures) {
    test::LeakGuard guard;
    const std::string existing = test::WriteTemp("modes.bin", Counting(10));
    const std::string missing = test::TempDir() + "/missing.bin";
    const std::string created = test::TempDir() + "/created.bin";
    const std::string fifo = test::TempDir() + "/fifo";
    unlink(created.c_str());
    unlink(fifo.c_str());
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    struct Case {
        std::string name;
        DWORD access, disposition;
        bool opens;
        DWORD error;        // GetLastError after a failure
        int64_t sizeAfter;  // file size after the open, -1: no file
    } cases[] = {
        {existing, GENERIC_READ, OPEN_EXISTING, true, 0, 10},
        {existing, GENERIC_READ | GENERIC_WRITE, OPEN_EXISTING, true, 0, 10},
        {missing, GENERIC_READ, OPEN_EXISTING, false, ENOENT, -1},
        {existing, GENERIC_WRITE, OPEN_ALWAYS, true, 0, 10},
        {created, GENERIC_WRITE, OPEN_ALWAYS, true, 0, 0},
        {existing, GENERIC_READ | GENERIC_WRITE, CREATE_ALWAYS, true, 0, 0},  // truncates
        {test::TempDir(), GENERIC_READ, OPEN_EXISTING, false, EISDIR, -1},
        {"/dev/null", GENERIC_READ, OPEN_EXISTING, false, ENODEV, -1},
        {fifo, GENERIC_READ, OPEN_EXISTING, false, ENODEV, -1},  // must not wait for a writer
        {existing, 0, OPEN_EXISTING, false, EINVAL, -1},
        {existing, GENERIC_READ, 9, false, EINVAL, -1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name + " " + std::to_string(c.access) + " " + std::to_string(c.disposition));
        SetLastError(0);
        HANDLE file = CreateFileA(c.name.c_str(), c.access, 0, nullptr, c.disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (!c.opens) {
            EXPECT_EQ(file, INVALID_HANDLE_VALUE);
            EXPECT_EQ(GetLastError(), c.error);
            EXPECT_EQ(platform::OpenFiles(), guard.files);
            continue;
        }
        ASSERT_NE(file, INVALID_HANDLE_VALUE);
        EXPECT_LT(Value(file), 0xFFFFFFFFu);  // fits a ManagedFile and is not its "none"
        EXPECT_EQ(platform::OpenFiles(), guard.files + 1);
        EXPECT_EQ(int64_t(GetFileSize(file, nullptr)), c.sizeAfter);
        EXPECT_EQ(fcntl(int(Value(file)), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
        EXPECT_EQ(CloseHandle(file), 1);
        EXPECT_EQ(CloseHandle(file), 0);  // closed twice
    }
    EXPECT_EQ(CreateFileA(nullptr, GENERIC_READ, 1, nullptr, OPEN_EXISTING, 0x80, nullptr), INVALID_HANDLE_VALUE);

    // A file opened for writing only cannot be read.
    HANDLE writer = CreateFileA(created.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0x80, nullptr);
    uint8_t byte;
    DWORD got = 7;
    EXPECT_EQ(ReadFile(writer, &byte, 1, &got, nullptr), 0);
    EXPECT_EQ(got, 0u);
    CloseHandle(writer);
    EXPECT_TRUE(guard.Same());
}

TEST(Files, ReadSeekAndSize) {
    test::LeakGuard guard;
    const std::vector<uint8_t> content = Counting(100);
    HANDLE file = OpenRead(test::WriteTemp("seek.bin", content));
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetFileSize(file, nullptr), 100u);
    DWORD high = 9;
    EXPECT_EQ(GetFileSize(file, &high), 100u);
    EXPECT_EQ(high, 0u);

    constexpr DWORD Fail = INVALID_SET_FILE_POINTER;
    struct Step { LONG offset; DWORD method, expect, positionAfter; } steps[] = {
        {50, FILE_BEGIN, 50, 50},     {10, FILE_CURRENT, 60, 60},   {-5, FILE_END, 95, 95},
        {-101, FILE_END, Fail, 95},   {-1, FILE_BEGIN, Fail, 95},   {-96, FILE_CURRENT, Fail, 95},
        {-95, FILE_CURRENT, 0, 0},    {500, FILE_BEGIN, 500, 500},  // past the end is allowed
        {0x7FFFFFFF, FILE_BEGIN, 0x7FFFFFFF, 0x7FFFFFFF},
        {0x7FFFFFFF, FILE_CURRENT, 0xFFFFFFFE, 0xFFFFFFFE},
        {1, FILE_CURRENT, Fail, 0xFFFFFFFE},  // 0xFFFFFFFF would read as the failure value
        {0, 3, Fail, 0xFFFFFFFE},             // no such method
    };
    for (const Step &s : steps) {
        SCOPED_TRACE(std::to_string(s.offset) + " method " + std::to_string(s.method));
        EXPECT_EQ(SetFilePointer(file, s.offset, nullptr, s.method), s.expect);
        EXPECT_EQ(SetFilePointer(file, 0, nullptr, FILE_CURRENT), s.positionAfter);
    }

    // The two-part form: the position must still fit 32 bits.
    LONG offsetHigh = 0;
    EXPECT_EQ(SetFilePointer(file, 10, &offsetHigh, FILE_BEGIN), 10u);
    offsetHigh = 1;
    EXPECT_EQ(SetFilePointer(file, 0, &offsetHigh, FILE_BEGIN), Fail);
    offsetHigh = -1;
    EXPECT_EQ(SetFilePointer(file, -4, &offsetHigh, FILE_CURRENT), 6u);
    EXPECT_EQ(offsetHigh, 0);

    // Reads: full, short at the end (still success), empty at the end.
    uint8_t buffer[64];
    DWORD got = 0;
    SetFilePointer(file, 10, nullptr, FILE_BEGIN);
    EXPECT_EQ(ReadFile(file, buffer, 20, &got, nullptr), 1);
    EXPECT_EQ(got, 20u);
    EXPECT_EQ(std::memcmp(buffer, content.data() + 10, 20), 0);
    SetFilePointer(file, 90, nullptr, FILE_BEGIN);
    EXPECT_EQ(ReadFile(file, buffer, 64, &got, nullptr), 1);
    EXPECT_EQ(got, 10u);
    EXPECT_EQ(buffer[9], 99);
    EXPECT_EQ(ReadFile(file, buffer, 64, &got, nullptr), 1);
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(CloseHandle(file), 1);
    EXPECT_TRUE(guard.Same());
}

TEST(Files, TwoReadersAndBadHandles) {
    test::LeakGuard guard;
    const std::string path = test::WriteTemp("two.bin", Counting(40));
    HANDLE a = OpenRead(path), b = OpenRead(path);
    ASSERT_NE(a, INVALID_HANDLE_VALUE);
    ASSERT_NE(b, INVALID_HANDLE_VALUE);
    EXPECT_EQ(platform::OpenFiles(), guard.files + 2);
    uint8_t x[4], y[4];
    DWORD got;
    SetFilePointer(a, 20, nullptr, FILE_BEGIN);
    ASSERT_EQ(ReadFile(a, x, 4, &got, nullptr), 1);
    ASSERT_EQ(ReadFile(b, y, 4, &got, nullptr), 1);  // b's position is its own
    EXPECT_EQ(x[0], 20);
    EXPECT_EQ(y[0], 0);
    EXPECT_EQ(CloseHandle(a), 1);
    ASSERT_EQ(ReadFile(b, y, 4, &got, nullptr), 1);
    EXPECT_EQ(y[0], 4);

    // Handles CreateFileA did not give (or already took back) are refused.
    HANDLE bad[] = {INVALID_HANDLE_VALUE, a, reinterpret_cast<HANDLE>(intptr_t(STDIN_FILENO)),
                    reinterpret_cast<HANDLE>(intptr_t(1) << 40)};
    const int stdinState = fcntl(STDIN_FILENO, F_GETFD);
    for (HANDLE h : bad) {
        SetLastError(0);
        EXPECT_EQ(ReadFile(h, x, 4, &got, nullptr), 0);
        EXPECT_EQ(GetLastError(), DWORD(EBADF));
        EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
        EXPECT_EQ(GetFileSize(h, nullptr), 0xFFFFFFFFu);
        EXPECT_EQ(CloseHandle(h), 0);
    }
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), stdinState);  // not closed by the refused CloseHandle
    EXPECT_EQ(CloseHandle(b), 1);
    EXPECT_TRUE(guard.Same());
}

// ---------------------------------------------------------------- failure display

TEST(ErrorText, LastErrorAndSystemText) {
    test::LeakGuard guard;
    for (int code : {ENOENT, EACCES, EISDIR}) {
        SCOPED_TRACE(code);
        char *text = nullptr;
        DWORD length = FormatMessageA(0x1100, nullptr, DWORD(code), 0x400, reinterpret_cast<char *>(&text), 0, nullptr);
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(std::string(text), std::string(strerror(code)));
        EXPECT_EQ(length, std::strlen(text));
        EXPECT_EQ(platform::LiveBlocks(), guard.blocks + 1);
        EXPECT_EQ(LocalFree(text), nullptr);  // freed by its address, as callers do
    }
    // No text: code 0, codes the system does not know.
    for (DWORD code : {0u, 9999u, 0x80000000u}) {
        char *text = reinterpret_cast<char *>(1);
        EXPECT_EQ(FormatMessageA(0x1100, nullptr, code, 0x400, reinterpret_cast<char *>(&text), 0, nullptr), 0u);
        EXPECT_EQ(text, reinterpret_cast<char *>(1));
    }
    // Into a caller's buffer: only when it fits.
    char small[8], large[256];
    EXPECT_EQ(FormatMessageA(0x1000, nullptr, ENOENT, 0x400, small, sizeof small, nullptr), 0u);
    DWORD length = FormatMessageA(0x1000, nullptr, ENOENT, 0x400, large, sizeof large, nullptr);
    EXPECT_EQ(std::string(large, length), std::string(strerror(ENOENT)));
    EXPECT_TRUE(guard.Same());

    // The last error belongs to the thread.
    SetLastError(42);
    DWORD seenElsewhere = 1;
    std::thread([&] {
        seenElsewhere = GetLastError();
        SetLastError(7);
    }).join();
    EXPECT_EQ(seenElsewhere, 0u);
    EXPECT_EQ(GetLastError(), 42u);
}

TEST(ErrorText, MessageBoxWritesOneLine) {
    struct Case { const char *title, *text, *line; } cases[] = {
        {"ReadTIF", "Cannot read strip 3", "ReadTIF: Cannot read strip 3\n"},
        {"TOPEN", "a.tif\nNo such file or directory", "TOPEN: a.tif\nNo such file or directory\n"},
        {"T", "", "T: \n"},
        {"T", "100% %s", "T: 100% %s\n"},  // the text is not a format
    };
    for (const Case &c : cases) {
        testing::internal::CaptureStderr();
        int answer = MessageBoxA(nullptr, c.text, c.title, MB_TASKMODAL | MB_SETFOREGROUND);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.line);
        EXPECT_EQ(answer, 1);
    }
}

// ---------------------------------------------------------------- message queue

void DrainQueue() {
    MSG msg;
    while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
    }
}

TEST(MessageQueue, OrderRangesWindowsAndInputState) {
    DrainQueue();
    MSG msg;
    EXPECT_EQ(PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE), 0);
    EXPECT_EQ(GetInputState(), 0);

    HWND window = reinterpret_cast<HWND>(intptr_t(0x55));
    PostQuitMessage(4);
    EXPECT_EQ(GetInputState(), 0);  // a quit message is no input
    EXPECT_EQ(PostMessageA(nullptr, WM_CHAR, 'a', 0), 1);
    EXPECT_EQ(PostMessageA(window, WM_KEYDOWN, VK_ESCAPE, 7), 1);
    EXPECT_EQ(PostMessageA(nullptr, WM_KEYDOWN, 'B', 0), 1);
    EXPECT_NE(GetInputState(), 0);

    // Not removed: the same message again.
    ASSERT_EQ(PeekMessageA(&msg, nullptr, WM_KEYDOWN, WM_KEYDOWN, PM_NOREMOVE), 1);
    EXPECT_EQ(msg.wParam, VK_ESCAPE);
    ASSERT_EQ(PeekMessageA(&msg, nullptr, WM_KEYDOWN, WM_KEYDOWN, PM_REMOVE), 1);
    EXPECT_EQ(msg.hwnd, window);
    EXPECT_EQ(msg.lParam, 7);
    ASSERT_EQ(PeekMessageA(&msg, nullptr, WM_KEYFIRST, WM_KEYLAST, PM_REMOVE), 1);
    EXPECT_EQ(msg.message, WM_CHAR);  // first in posting order within the range
    EXPECT_EQ(PeekMessageA(&msg, window, 0, 0, PM_REMOVE), 0);  // nothing left of that window
    ASSERT_EQ(PeekMessageA(&msg, nullptr, WM_QUIT, WM_ENDSESSION, PM_REMOVE), 1);
    EXPECT_EQ(msg.message, WM_QUIT);
    EXPECT_EQ(msg.wParam, 4u);
    EXPECT_EQ(msg.hwnd, nullptr);
    EXPECT_EQ(PeekMessageA(&msg, nullptr, WM_QUIT, WM_ENDSESSION, PM_REMOVE), 0);
    ASSERT_EQ(PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE), 1);
    EXPECT_EQ(msg.wParam, WPARAM('B'));
    EXPECT_EQ(GetInputState(), 0);

    // Mouse messages are input too; the queue is the thread's own.
    PostMessageA(nullptr, WM_MOUSELAST, 0, 0);
    EXPECT_NE(GetInputState(), 0);
    BOOL otherThreadSees = 1;
    std::thread([&] { otherThreadSees = GetInputState(); }).join();
    EXPECT_EQ(otherThreadSees, 0);
    DrainQueue();
}

// ---------------------------------------------------------------- text

template <typename... Args>
std::string Format(const char *format, Args... args) {
    char buffer[1100];
    int written = wsprintfA(buffer, format, args...);
    EXPECT_EQ(size_t(written), std::strlen(buffer)) << format;
    return buffer;
}

TEST(Text, WsprintfConversions) {
    struct Case { std::string got, expected; } cases[] = {
        {Format("%ld", int32_t(-123456)), "-123456"},
        {Format("%lu", uint32_t(0xFFFFFFFF)), "4294967295"},
        {Format("%d|%i|%u", int32_t(-1), int32_t(7), uint32_t(3000000000u)), "-1|7|3000000000"},
        {Format("%x %X %#x %08lX", 255u, 255u, 255u, uint32_t(0xABCD)), "ff FF 0xff 0000ABCD"},
        {Format("[%5d][%-5d][%05d][%+d][% d]", 42, 42, -42, 42, 42), "[   42][42   ][-0042][+42][ 42]"},
        {Format("[%s][%8s][%-8s][%.3s]", "ab", "ab", "ab", "abcdef"), "[ab][      ab][ab      ][abc]"},
        {Format("%c%c|%%|%s", 'o', 'k', static_cast<const char *>(nullptr)), "ok|%|(null)"},
        {Format("%hd %hu", 5, 6u), "5 6"},
        {Format("Strip %ld of %ld in %s", int32_t(3), int32_t(9), "a.tif"), "Strip 3 of 9 in a.tif"},
        {Format("no conversions"), "no conversions"},
        {Format("ends in %"), "ends in "},
    };
    for (const Case &c : cases) EXPECT_EQ(c.got, c.expected);
}

TEST(Text, WsprintfCutsAt1024) {
    const std::string longText(2000, 'a');
    char buffer[1100];
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(wsprintfA(buffer, "%s", longText.c_str()), 1024);
    EXPECT_EQ(buffer[1024], 0);
    EXPECT_EQ(buffer[1025], '#');
    // Cut inside a literal, and inside a padded field.
    std::string format = std::string(1020, 'x') + "%d";
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(wsprintfA(buffer, format.c_str(), 123456), 1024);
    EXPECT_EQ(std::string(buffer + 1020), "1234");
    EXPECT_EQ(buffer[1025], '#');
    EXPECT_EQ(wsprintfA(buffer, "%99999999999d|", 1), 1024);
    EXPECT_EQ(buffer[1023], ' ');  // the field is wider than the whole output
}

// ---------------------------------------------------------------- paths

TEST(Paths, FullpathAndAccess) {
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    const std::string here = cwd;
    struct Case { const char *name; std::string expected; } cases[] = {
        {"/a/b/c.tif", "/a/b/c.tif"},
        {"/a/./b//c/", "/a/b/c"},
        {"/a/b/../../c", "/c"},
        {"/../..", "/"},
        {"/", "/"},
        {"x.tif", here + "/x.tif"},
        {"./x/../y.tif", here + "/y.tif"},
        {".", here},
    };
    char buffer[260];
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(_fullpath(buffer, c.name, sizeof buffer), buffer);
        EXPECT_EQ(std::string(buffer), c.expected);
    }
    // Size counts the NUL; NULL buffer or name give NULL.
    EXPECT_EQ(_fullpath(buffer, "/abc", 5), buffer);
    EXPECT_EQ(_fullpath(buffer, "/abcd", 5), nullptr);
    EXPECT_EQ(_fullpath(buffer, (std::string(300, 'a')).c_str(), sizeof buffer), nullptr);
    EXPECT_EQ(_fullpath(nullptr, "/a", 260), nullptr);
    EXPECT_EQ(_fullpath(buffer, nullptr, 260), nullptr);

    const std::string existing = test::WriteTemp("exists.bin", {1});
    EXPECT_EQ(_access(existing.c_str(), 0), 0);
    EXPECT_EQ(_access(test::TempDir().c_str(), 0), 0);
    EXPECT_EQ(_access((existing + ".not").c_str(), 0), -1);
    EXPECT_EQ(_access(nullptr, 0), -1);
}

}  // namespace
