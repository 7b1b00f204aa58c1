// blocks.h - working memory blocks of the TIFF reader and its decoders.
//
// A MemoryBlock describes one movable platform block.  All four operations
// are safe on an empty descriptor and on a null reference, and a free
// leaves the descriptor empty.
#pragma once

#include <cstdint>

struct MemoryBlock {
    uint32_t handle;  // the platform's block; 0: none
    uint32_t offset;  // always 0
    void *pointer;    // the bytes while locked, else null
};

// Allocate count x elementSize bytes (flags 0: movable, zero-filled).
// 1 on success; on failure the descriptor is empty.
int16_t BlockAlloc(MemoryBlock *block, uint16_t flags, uint32_t count, uint32_t elementSize, const char *label);
void *BlockLock(MemoryBlock *block);
void BlockUnlock(MemoryBlock *block);
void BlockFree(MemoryBlock *block);
