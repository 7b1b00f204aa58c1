// Working memory blocks: the life of a descriptor, its empty and null forms, and sizes or handles that cannot be had.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "platform/win32.h"
#include "services/blocks.h"
#include "support/support.h"

namespace {

bool IsEmpty(const MemoryBlock &b) { return b.handle == 0 && b.offset == 0 && b.pointer == nullptr; }
HGLOBAL HandleOf(const MemoryBlock &b) { return reinterpret_cast<HGLOBAL>(uintptr_t(b.handle)); }

TEST(Blocks, LifeOfADescriptor) {
    test::LeakGuard guard;
    MemoryBlock b{};
    ASSERT_EQ(BlockAlloc(&b, 0, 7, 13, "test block"), 1);
    EXPECT_TRUE(b.handle != 0 && b.offset == 0 && b.pointer == nullptr);  // allocated, not locked
    EXPECT_EQ(GlobalSize(HandleOf(b)), 7u * 13u);                         // nothing rounded
    auto *bytes = static_cast<uint8_t *>(BlockLock(&b));
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(b.pointer, bytes);
    EXPECT_EQ(std::count(bytes, bytes + 7 * 13, 0), 7 * 13) << "flags 0 means zero-filled";
    memset(bytes, 0x5A, 7 * 13);
    EXPECT_EQ(BlockLock(&b), bytes);  // a second lock: same address, and one unlock ends both
    BlockUnlock(&b);
    EXPECT_TRUE(b.pointer == nullptr && b.handle != 0);
    GlobalLock(HandleOf(b));
    EXPECT_EQ(GlobalUnlock(HandleOf(b)), 0);  // no lock was left on the platform's block
    bytes = static_cast<uint8_t *>(BlockLock(&b));
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(bytes[7 * 13 - 1], 0x5A);  // the bytes stayed
    BlockFree(&b);                       // locked: unlocked, then freed
    EXPECT_TRUE(IsEmpty(b));

    // Alloc over a held block forgets it: still the caller's to free.
    ASSERT_EQ(BlockAlloc(&b, 0, 1, 64, "first"), 1);
    HGLOBAL first = HandleOf(b);
    ASSERT_EQ(BlockAlloc(&b, 0, 1, 32, "second"), 1);
    EXPECT_NE(HandleOf(b), first);
    EXPECT_EQ(GlobalSize(first), 64u);
    EXPECT_EQ(GlobalFree(first), nullptr);
    BlockFree(&b);
    EXPECT_TRUE(guard.Same());
}

TEST(Blocks, NullEmptyAndFailingDescriptors) {
    test::LeakGuard guard;
    MemoryBlock b{};
    EXPECT_TRUE(BlockAlloc(nullptr, 0, 1, 1, "null") == 0 && BlockLock(nullptr) == nullptr && BlockLock(&b) == nullptr);
    BlockUnlock(nullptr), BlockFree(nullptr);
    // Unlock or free of a descriptor without a block clears what else it holds.
    int scratch = 0;
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
    // A lock that fails (foreign handle, block freed behind our back) gives the block back and empties the descriptor.
    b = MemoryBlock{0x7FFF0001u, 0, nullptr};
    EXPECT_EQ(BlockLock(&b), nullptr);
    EXPECT_TRUE(IsEmpty(b));
    ASSERT_EQ(BlockAlloc(&b, 0, 1, 8, "freed"), 1);
    EXPECT_EQ(GlobalFree(HandleOf(b)), nullptr);
    EXPECT_EQ(BlockLock(&b), nullptr);
    EXPECT_TRUE(IsEmpty(b));
    EXPECT_TRUE(guard.Same());
}

}  // namespace
