// memory.cpp - movable memory blocks (GlobalAlloc and LocalAlloc families).
//
// Every block is its own anonymous mapping in the low 2 GiB of the address
// space, so that its address fits the 32-bit fields of the host record.  The
// block ends at an inaccessible guard page: a block whose size is a multiple
// of 16 ends exactly at the guard page, so the first byte past it faults.
// The start is 16-aligned; the slack of up to 15 bytes between the end and
// the guard page is caught under AddressSanitizer, which also sees every
// access to a block while it is not locked.  A block of 0 bytes is valid;
// its address is that of its guard page, so that any access faults.  Larger
// than 1 GiB is refused (ENOMEM), as is a block for which no room is left
// below 2 GiB: like 32-bit Windows, a huge block needs one free range.
//
// The handle of a movable block (GMEM_MOVEABLE) is not an address but a slot
// of a table with a generation count, (generation << 17 | slot << 1 | 1):
// odd, never 0, always below 2^31, so that a stale or foreign handle is
// refused instead of freeing somebody else's block.  As on Win32, the handle
// of a fixed block (flag GMEM_MOVEABLE clear) is its address, which is even;
// such a block is always accessible, GlobalLock gives its address and
// GlobalUnlock gives 0, since it has no lock count.  FormatMessageA relies on
// this: its text is a fixed Local block that the caller frees by address.
//
// Global and Local blocks are one kind, as they are on Win32: either family
// may lock or free a block of the other.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/win32.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TL_HAS_ASAN 1
#endif
#endif
#if defined(TL_ASAN) || defined(__SANITIZE_ADDRESS__) || defined(TL_HAS_ASAN)
#include <sanitizer/asan_interface.h>
#define TL_POISON(address, bytes) ASAN_POISON_MEMORY_REGION(address, bytes)
#define TL_UNPOISON(address, bytes) ASAN_UNPOISON_MEMORY_REGION(address, bytes)
#else
#define TL_POISON(address, bytes) ((void)(address), (void)(bytes))
#define TL_UNPOISON(address, bytes) ((void)(address), (void)(bytes))
#endif

namespace {

constexpr uintptr_t MaxBlockSize = uintptr_t(1) << 30;  // larger requests fail as out of memory
constexpr uintptr_t LowLimit = uintptr_t(1) << 31;      // every byte of a block lies below this
constexpr uintptr_t LowStart = uintptr_t(1) << 20;      // lowest address a block may take
constexpr size_t LargeBlock = size_t(64) << 20;         // from here on: the lowest gap
constexpr uintptr_t SmallTop = 0x7FF00000u;             // small blocks below this (AddressSanitizer's shadow
                                                        // begins at 0x7FFF8000)
constexpr uintptr_t SmallFloor = 0x48000000u;           // and above this
constexpr uint32_t MaxSlots = 0xFFFF;                   // slot numbers 1..0xFFFF
constexpr uint32_t MaxGeneration = 0x3FFF;              // keeps every handle below 2^31
[[maybe_unused]] constexpr uint8_t UndefinedFill = 0xCD;             // content of a block without GMEM_ZEROINIT
[[maybe_unused]] constexpr size_t MaxFill = size_t(1) << 20;         // bytes that receive it at most

struct Block {
    uint8_t *mapping = nullptr;  // start of the mapping, guard page included
    size_t mappingBytes = 0;
    uint8_t *data = nullptr;     // what GlobalLock gives
    uintptr_t size = 0;          // bytes asked for
    int32_t locks = 0;
    uint32_t generation = 1;
    bool used = false;
    bool fixed = false;  // the handle is the address; no lock count
};

struct Spare {
    uint8_t *mapping;
    size_t bytes;
};

// Mappings of freed blocks, of any size, are kept for reuse: a reader
// allocates and frees the same working blocks strip after strip and the same
// bitmap block image after image, and a fresh mapping costs three system
// calls and a page fault for every page written, more than decoding a page
// of fax.  A kept mapping is poisoned under AddressSanitizer, so a use after
// free is still reported there; in a plain build it reads stale bytes
// instead of faulting.  What is kept is bounded in count and in bytes; the
// oldest spares are unmapped first.  A block takes a spare of at least its
// mapping's size but no more than SpareWaste times it, so that a small
// block does not take the room a large one would have reused; it is placed
// at the top, against the guard page, and the unused pages below it stay
// poisoned.
constexpr size_t MaxSpares = 32;
constexpr size_t MaxSpareBytes = size_t(64) << 20;
constexpr size_t SpareWaste = 2;

// All of it behind one lock.  Made on first use and never destroyed, so
// that a block may be allocated or freed from a static constructor or
// destructor of any other file.
struct State {
    std::mutex lock;
    std::vector<Block> table = std::vector<Block>(1);  // slot 0 is never used, so no handle is 0
    std::vector<uint32_t> freeSlots;
    std::unordered_map<uintptr_t, uint32_t> fixedSlots;  // address of a fixed block -> its slot
    std::vector<Spare> spares;                           // most recently freed last
    size_t spareBytes = 0;                               // their total size
    uintptr_t searchCursor = LowStart;                   // where the fallback search goes on
    uintptr_t smallCursor = SmallTop;                    // the next small block ends here
};

State &S() {
    static State *state = new State;
    return *state;
}

std::atomic<int32_t> liveBlocks{0};

// The smallest kept mapping of `bytes` to SpareWaste * `bytes` bytes,
// taken out of the cache, or null.  Its `bytes` field gets its size.
uint8_t *TakeSpare(size_t &bytes) {
    State &s = S();
    std::vector<Spare> &spares = s.spares;
    size_t best = spares.size();
    for (size_t i = spares.size(); i-- > 0;) {
        const size_t size = spares[i].bytes;
        if (size < bytes || size / SpareWaste > bytes) continue;
        if (best == spares.size() || size < spares[best].bytes) best = i;
        if (size == bytes) break;
    }
    if (best == spares.size()) return nullptr;
    uint8_t *mapping = spares[best].mapping;
    bytes = spares[best].bytes;
    s.spareBytes -= bytes;
    spares.erase(spares.begin() + std::ptrdiff_t(best));
    return mapping;
}

void Unmap(uint8_t *mapping, size_t bytes) {
    TL_UNPOISON(mapping, bytes);  // the shadow outlives the mapping
    munmap(mapping, bytes);
}

// Keeps a freed mapping for reuse, or unmaps it when it alone passes the
// byte bound; older spares are unmapped to make room.
void KeepSpare(uint8_t *mapping, size_t bytes) {
    State &s = S();
    if (bytes > MaxSpareBytes) {
        Unmap(mapping, bytes);
        return;
    }
    size_t drop = 0;
    while (s.spares.size() - drop >= MaxSpares || s.spareBytes + bytes > MaxSpareBytes) {
        Unmap(s.spares[drop].mapping, s.spares[drop].bytes);
        s.spareBytes -= s.spares[drop].bytes;
        ++drop;
    }
    s.spares.erase(s.spares.begin(), s.spares.begin() + std::ptrdiff_t(drop));
    TL_POISON(mapping, bytes);
    s.spares.push_back({mapping, bytes});
    s.spareBytes += bytes;
}

size_t PageSize() {
    static const size_t page = size_t(sysconf(_SC_PAGESIZE));
    return page;
}

bool InLowMemory(void *address, size_t bytes) {
    uintptr_t start = reinterpret_cast<uintptr_t>(address);
    return start != 0 && start < LowLimit && bytes <= LowLimit - start;
}

// The lowest free range of `bytes` in [LowStart, LowLimit) by the process's
// own map, or 0 when there is none or the map cannot be read.
uintptr_t FindLowGap(size_t bytes) {
    int fd = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    std::string text;
    char chunk[8192];
    for (;;) {
        ssize_t got = read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        text.append(chunk, size_t(got));
    }
    close(fd);
    uintptr_t free = LowStart;
    const char *line = text.c_str();
    while (*line) {
        char *rest;
        uintptr_t start = std::strtoull(line, &rest, 16);
        uintptr_t end = *rest == '-' ? std::strtoull(rest + 1, &rest, 16) : 0;
        uintptr_t gapEnd = start < LowLimit ? start : LowLimit;
        if (gapEnd > free && gapEnd - free >= bytes) return free;
        if (end > free) free = end;
        if (free >= LowLimit) return 0;
        const char *next = std::strchr(line, '\n');
        if (!next) break;
        line = next + 1;
    }
    return LowLimit - free >= bytes ? free : 0;
}

// A mapping of `bytes` inaccessible bytes below 2 GiB, or null.  Small
// blocks are packed downward from the top of the second GiB; large ones go
// into the lowest gap of the map, so that the two kinds do not crowd each
// other out and a block of nearly 1 GiB still finds room.  When its place is
// taken, a small block falls back to the kernel's own low search
// (MAP_32BIT, which on Linux scatters blocks over the second GiB).
void *MapLow(size_t bytes) {
    constexpr int prot = PROT_NONE;
    constexpr int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
    // Where the kernel lacks MAP_FIXED_NOREPLACE an address is only a hint;
    // every result is checked.
#ifdef MAP_FIXED_NOREPLACE
    constexpr int hintFlags = flags | MAP_FIXED_NOREPLACE;
#else
    constexpr int hintFlags = flags;
#endif
    if (bytes > LowLimit - LowStart) return nullptr;
    uintptr_t &smallCursor = S().smallCursor, &searchCursor = S().searchCursor;
    auto tryAt = [&](uintptr_t address, int how) -> void * {
        void *got = mmap(reinterpret_cast<void *>(address), bytes, prot, how, -1, 0);
        if (got == MAP_FAILED) return nullptr;
        if (InLowMemory(got, bytes)) return got;
        munmap(got, bytes);
        return nullptr;
    };
    if (bytes < LargeBlock) {
        if (smallCursor - SmallFloor < bytes) smallCursor = SmallTop;  // start again from the top
        smallCursor -= bytes;
        if (void *low = tryAt(smallCursor, hintFlags)) return low;
#ifdef MAP_32BIT
        if (void *low = tryAt(0, flags | MAP_32BIT)) return low;
#endif
    }
    for (int attempt = 0; attempt < 4; attempt++) {  // another thread may take the gap first
        uintptr_t gap = FindLowGap(bytes);
        if (!gap) break;
        if (void *low = tryAt(gap, hintFlags)) return low;
    }
    // No map to read: walk hinted addresses through the low 2 GiB.
    const uintptr_t step = bytes > (uintptr_t(1) << 24) ? bytes : (uintptr_t(1) << 24);
    for (int attempt = 0; attempt < 256; attempt++) {
        if (searchCursor < LowStart || searchCursor > LowLimit - bytes) searchCursor = LowStart;
        if (void *low = tryAt(searchCursor, hintFlags)) {
            searchCursor = reinterpret_cast<uintptr_t>(low) + bytes;
            return low;
        }
        searchCursor += step;
    }
    return nullptr;
}

// The block of a handle, or null for 0, a stale handle or a foreign value.
// Called with the lock held.
Block *Find(void *handle) {
    uintptr_t value = reinterpret_cast<uintptr_t>(handle);
    if (value == 0) return nullptr;
    const std::unordered_map<uintptr_t, uint32_t> &fixedSlots = S().fixedSlots;
    std::vector<Block> &table = S().table;
    if (!(value & 1)) {
        auto found = fixedSlots.find(value);
        return found == fixedSlots.end() ? nullptr : &table[found->second];
    }
    uint32_t slot = uint32_t((value >> 1) & 0xFFFF);
    uintptr_t generation = value >> 17;
    if (slot == 0 || slot >= table.size()) return nullptr;
    Block &block = table[slot];
    if (!block.used || block.fixed || block.generation != generation) return nullptr;
    return &block;
}

// Countdowns of FailAllocation and FailLock; 0 while off.
std::atomic<int32_t> allocationsToFailure{0};
std::atomic<int32_t> locksToFailure{0};
std::atomic<uintptr_t> blockCeiling{0};  // LimitBlockBytes; 0 while off

bool FailsNow(std::atomic<int32_t> &countdown) {
    int32_t n = countdown.load(std::memory_order_relaxed);
    while (n > 0 && !countdown.compare_exchange_weak(n, n - 1, std::memory_order_relaxed)) {
    }
    return n == 1;
}

void *Allocate(UINT flags, uintptr_t bytes) {
    const uintptr_t ceiling = blockCeiling.load(std::memory_order_relaxed);
    if (bytes > MaxBlockSize || (ceiling != 0 && bytes > ceiling) || FailsNow(allocationsToFailure)) {
        SetLastError(ENOMEM);
        return nullptr;
    }
    const size_t page = PageSize();
    const size_t rounded = (size_t(bytes) + 15) & ~size_t(15);
    const size_t dataPages = (rounded + page - 1) & ~(page - 1);
    size_t mappingBytes = dataPages + page;  // a spare may be larger

    State &s = S();
    std::lock_guard<std::mutex> hold(s.lock);
    uint32_t slot;
    if (!s.freeSlots.empty()) {
        slot = s.freeSlots.back();
    } else if (s.table.size() <= MaxSlots) {
        slot = uint32_t(s.table.size());
    } else {
        SetLastError(ENOMEM);
        return nullptr;
    }
    uint8_t *mapping = TakeSpare(mappingBytes);
    const bool reused = mapping != nullptr;
    if (!reused) {
        mapping = static_cast<uint8_t *>(MapLow(mappingBytes));
        if (!mapping) {
            SetLastError(ENOMEM);
            return nullptr;
        }
        if (dataPages && mprotect(mapping, dataPages, PROT_READ | PROT_WRITE) != 0) {
            int code = errno;
            munmap(mapping, mappingBytes);
            SetLastError(DWORD(code));
            return nullptr;
        }
    }
    uint8_t *guard = mapping + mappingBytes - page;
    uint8_t *data = guard - rounded;
    // A fresh mapping reads as zeros.  Without GMEM_ZEROINIT the content is
    // undefined: a reused mapping holds what its last block left.  Debug
    // builds (the sanitized tests among them) fill it with a pattern that
    // makes reliance on zeros show, only the first MaxFill bytes, so that a
    // huge block is not committed at once; optimised builds leave it, as
    // Win32 does, since a reader that writes every byte of its block would
    // otherwise pay for a second pass over it.
    TL_UNPOISON(data, bytes);
    if (!(flags & LMEM_ZEROINIT)) {
#ifndef NDEBUG
        std::memset(data, UndefinedFill, bytes < MaxFill ? bytes : MaxFill);
#endif
    } else if (reused) {
        std::memset(data, 0, bytes);
    }
    const bool fixed = !(flags & LMEM_MOVEABLE);
    TL_POISON(mapping, size_t(data - mapping));  // below the block, for underruns
    TL_POISON(guard, page);                       // so that the sanitizer names an overrun, not a bare fault
    if (fixed) {
        TL_POISON(data + bytes, rounded - bytes);  // only the slack
    } else {
        TL_POISON(data, rounded);  // unlocked: no access at all
    }

    if (slot == s.table.size()) {
        s.table.emplace_back();
    } else {
        s.freeSlots.pop_back();
    }
    Block &block = s.table[slot];
    block.mapping = mapping;
    block.mappingBytes = mappingBytes;
    block.data = data;
    block.size = bytes;
    block.locks = 0;
    block.used = true;
    block.fixed = fixed;
    liveBlocks.fetch_add(1, std::memory_order_relaxed);
    if (fixed) {
        s.fixedSlots.emplace(reinterpret_cast<uintptr_t>(data), slot);
        return data;
    }
    return reinterpret_cast<void *>((uintptr_t(block.generation) << 17) | (uintptr_t(slot) << 1) | 1);
}

void *Lock(void *handle) {
    State &s = S();
    std::lock_guard<std::mutex> hold(s.lock);
    Block *block = Find(handle);
    if (!block) {
        SetLastError(EINVAL);
        return nullptr;
    }
    if (block->fixed) return block->data;
    if (FailsNow(locksToFailure)) {
        SetLastError(ENOMEM);
        return nullptr;
    }
    if (block->locks == 0) TL_UNPOISON(block->data, block->size);
    if (block->locks < INT32_MAX) block->locks++;  // beyond, the block simply stays locked
    return block->data;
}

BOOL Unlock(void *handle) {
    State &s = S();
    std::lock_guard<std::mutex> hold(s.lock);
    Block *block = Find(handle);
    if (!block) {
        SetLastError(EINVAL);
        return 0;
    }
    if (block->fixed || block->locks == 0) {  // not locked: Win32's ERROR_NOT_LOCKED
        SetLastError(EPERM);
        return 0;
    }
    if (--block->locks > 0) return 1;
    TL_POISON(block->data, block->size);
    SetLastError(0);
    return 0;
}

// A locked block is freed too, as Win32 does.
void *Free(void *handle) {
    State &s = S();
    std::lock_guard<std::mutex> hold(s.lock);
    Block *block = Find(handle);
    if (!block) {
        SetLastError(EINVAL);
        return handle;
    }
    KeepSpare(block->mapping, block->mappingBytes);
    uint32_t slot = uint32_t(block - s.table.data());
    if (block->fixed) s.fixedSlots.erase(reinterpret_cast<uintptr_t>(block->data));
    uint32_t generation = block->generation == MaxGeneration ? 1 : block->generation + 1;
    *block = Block{};
    block->generation = generation;
    s.freeSlots.push_back(slot);
    liveBlocks.fetch_sub(1, std::memory_order_relaxed);
    return nullptr;
}

}  // namespace

extern "C" TL_HANDLE GlobalAlloc(uint32_t flags, uintptr_t bytes) { return Allocate(flags, bytes); }
extern "C" void *GlobalLock(TL_HANDLE block) { return Lock(block); }
extern "C" int32_t GlobalUnlock(TL_HANDLE block) { return Unlock(block); }
extern "C" TL_HANDLE GlobalFree(TL_HANDLE block) { return Free(block); }

uintptr_t GlobalSize(HGLOBAL handle) {
    State &s = S();
    std::lock_guard<std::mutex> hold(s.lock);
    Block *block = Find(handle);
    return block ? block->size : 0;
}

HLOCAL LocalAlloc(UINT flags, uintptr_t bytes) { return Allocate(flags, bytes); }
void *LocalLock(HLOCAL block) { return Lock(block); }
BOOL LocalUnlock(HLOCAL block) { return Unlock(block); }
HLOCAL LocalFree(HLOCAL block) { return Free(block); }

namespace platform {
int32_t LiveBlocks() { return liveBlocks.load(std::memory_order_relaxed); }
int32_t FailAllocation(int32_t n) { return allocationsToFailure.exchange(n, std::memory_order_relaxed); }
int32_t FailLock(int32_t n) { return locksToFailure.exchange(n, std::memory_order_relaxed); }
uintptr_t LimitBlockBytes(uintptr_t bytes) { return blockCeiling.exchange(bytes, std::memory_order_relaxed); }
}  // namespace platform
