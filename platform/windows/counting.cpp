// counting.cpp - the test build's count of what the library holds.
//
// In the build the tests link, platform/win32.h leads the library's (and the
// tests') calls of GlobalAlloc, LocalAlloc, GlobalLock, LocalLock, their
// frees, CreateFileA and CloseHandle here.  Each calls the system, and
// remembers the blocks and files it handed out, so that a test can tell
// that a call left nothing behind, and can make the n-th allocation or lock
// fail to walk the callers' failure paths.  A block the system handed out
// elsewhere (FormatMessageA's text) is not counted, and neither is its free.
// The library that hosts load has none of this.
#if defined(TL_COUNT_CALLS)

#define TL_COUNTING_LAYER 1
#include <atomic>
#include <set>

#include "platform/win32.h"

namespace {

struct Held {
    CRITICAL_SECTION lock;
    std::set<void *> blocks;
    std::set<void *> files;
    Held() { InitializeCriticalSection(&lock); }
};

Held &H() {
    static Held *held = new Held;  // never destroyed: used until exit
    return *held;
}

struct Hold {
    Hold() { EnterCriticalSection(&H().lock); }
    ~Hold() { LeaveCriticalSection(&H().lock); }
};

std::atomic<int32_t> allocationsToFailure{0};
std::atomic<int32_t> locksToFailure{0};
std::atomic<uintptr_t> blockCeiling{0};  // LimitBlockBytes; 0 while off

// Counts a countdown down; true when this call is the one to fail.
bool FailsNow(std::atomic<int32_t> &countdown) {
    int32_t left = countdown.load();
    while (left > 0 && !countdown.compare_exchange_weak(left, left - 1)) {
    }
    return left == 1;
}

// True when an allocation of `bytes` is to fail now.
bool AllocationFails(SIZE_T bytes) {
    const uintptr_t ceiling = blockCeiling.load();
    return (ceiling != 0 && bytes > ceiling) || FailsNow(allocationsToFailure);
}

void *Remember(std::set<void *> &set, void *handle) {
    if (handle) {
        Hold hold;
        set.insert(handle);
    }
    return handle;
}

void Forget(std::set<void *> &set, void *handle) {
    Hold hold;
    set.erase(handle);
}

}  // namespace

extern "C" {

HGLOBAL WINAPI TlCountedGlobalAlloc(UINT flags, SIZE_T bytes) {
    if (AllocationFails(bytes)) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    return Remember(H().blocks, GlobalAlloc(flags, bytes));
}

LPVOID WINAPI TlCountedGlobalLock(HGLOBAL block) {
    if (FailsNow(locksToFailure)) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    return GlobalLock(block);
}

HGLOBAL WINAPI TlCountedGlobalFree(HGLOBAL block) {
    HGLOBAL result = GlobalFree(block);
    if (!result) Forget(H().blocks, block);
    return result;
}

HLOCAL WINAPI TlCountedLocalAlloc(UINT flags, SIZE_T bytes) {
    if (AllocationFails(bytes)) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    return Remember(H().blocks, LocalAlloc(flags, bytes));
}

LPVOID WINAPI TlCountedLocalLock(HLOCAL block) {
    if (FailsNow(locksToFailure)) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    return LocalLock(block);
}

HLOCAL WINAPI TlCountedLocalFree(HLOCAL block) {
    HLOCAL result = LocalFree(block);
    if (!result) Forget(H().blocks, block);
    return result;
}

HANDLE WINAPI TlCountedCreateFileA(LPCSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                                   DWORD disposition, DWORD attributes, HANDLE templateFile) {
    HANDLE file = CreateFileA(name, access, share, security, disposition, attributes, templateFile);
    if (file != INVALID_HANDLE_VALUE) Remember(H().files, file);
    return file;
}

BOOL WINAPI TlCountedCloseHandle(HANDLE file) {
    const BOOL closed = CloseHandle(file);
    if (closed) Forget(H().files, file);
    return closed;
}

}  // extern "C"

namespace platform {
int32_t LiveBlocks() {
    Hold hold;
    return int32_t(H().blocks.size());
}
int32_t OpenFiles() {
    Hold hold;
    return int32_t(H().files.size());
}
int32_t FailAllocation(int32_t n) { return allocationsToFailure.exchange(n); }
int32_t FailLock(int32_t n) { return locksToFailure.exchange(n); }
uintptr_t LimitBlockBytes(uintptr_t bytes) { return blockCeiling.exchange(bytes); }
}  // namespace platform

#endif  // TL_COUNT_CALLS
