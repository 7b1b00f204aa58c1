// blocks.cpp - working memory blocks over the platform's movable memory.
//
// The descriptor keeps the platform handle in 32 bits (every handle of the
// platform fits there), the offset (always 0) and the address while locked.
// Every routine accepts a null reference and an empty descriptor.
#include "services/blocks.h"

#include "core/checked.h"
#include "platform/win32.h"

namespace {

constexpr uint16_t DefaultBlockFlags = GMEM_MOVEABLE | GMEM_ZEROINIT;  // 0x42

HGLOBAL PlatformHandle(const MemoryBlock &block) {
    return reinterpret_cast<HGLOBAL>(uintptr_t(block.handle));
}

void Empty(MemoryBlock &block) {
    block.handle = 0;
    block.offset = 0;
    block.pointer = nullptr;
}

}  // namespace

int16_t BlockAlloc(MemoryBlock *block, uint16_t flags, uint32_t count, uint32_t elementSize, const char *label) {
    (void)label;  // names the call site for a reader of the code; nothing reads it
    if (!block) return 0;
    // A descriptor that still holds a block forgets it here: the caller frees
    // first when it means to replace a block.
    Empty(*block);
    if (count == 0 || elementSize == 0) return 0;
    // A size that leaves 32 bits or passes the library's ceiling is treated
    // like a platform without memory: the descriptor stays empty, result 0.
    uint32_t bytes = 0;
    if (!checked::Mul(count, elementSize, &bytes) || bytes > checked::MaxBlockBytes) return 0;
    HGLOBAL handle = GlobalAlloc(flags ? flags : DefaultBlockFlags, bytes);
    if (!handle) return 0;
    uintptr_t value = reinterpret_cast<uintptr_t>(handle);
    if (value > 0xFFFFFFFFu) {  // cannot be held in the descriptor: give it back
        GlobalFree(handle);
        return 0;
    }
    block->handle = uint32_t(value);
    return 1;
}

void *BlockLock(MemoryBlock *block) {
    if (!block || block->handle == 0) return nullptr;
    if (block->pointer) return block->pointer;  // locked already: no second lock
    block->pointer = GlobalLock(PlatformHandle(*block));
    if (!block->pointer) {
        // A block that cannot be locked is of no use, and the callers test
        // only `handle` after allocating and locking.  So the block is given
        // back and the descriptor emptied: the caller then sees "no memory"
        // and never goes on with a null address.
        GlobalFree(PlatformHandle(*block));
        Empty(*block);
    }
    return block->pointer;
}

void BlockUnlock(MemoryBlock *block) {
    if (!block) return;
    if (block->handle == 0) {
        block->offset = 0;
        block->pointer = nullptr;
        return;
    }
    block->pointer = nullptr;
    GlobalUnlock(PlatformHandle(*block));
}

void BlockFree(MemoryBlock *block) {
    if (!block) return;
    if (block->handle != 0) {
        if (block->pointer) BlockUnlock(block);
        GlobalFree(PlatformHandle(*block));
        block->handle = 0;
    }
    block->offset = 0;
    block->pointer = nullptr;
}
