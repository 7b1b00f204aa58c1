// Working memory blocks: the life of a descriptor, its empty and null
// forms, and sizes that cannot be had.
#include <gtest/gtest.h>

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
    EXPECT_NE(b.handle, 0u);
    EXPECT_EQ(b.offset, 0u);
    EXPECT_EQ(b.pointer, nullptr);                  // allocated, not locked
    EXPECT_EQ(GlobalSize(HandleOf(b)), 7u * 13u);  // exactly count x size, nothing rounded

    auto *bytes = static_cast<uint8_t *>(BlockLock(&b));
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(b.pointer, bytes);
    for (size_t i = 0; i < 7 * 13; ++i) ASSERT_EQ(bytes[i], 0) << "flags 0 means zero-filled, byte " << i;
    memset(bytes, 0x5A, 7 * 13);
    EXPECT_EQ(BlockLock(&b), bytes);  // a second lock gives the same address...
    BlockUnlock(&b);                  // ...and one unlock ends the lock
    EXPECT_EQ(b.pointer, nullptr);
    EXPECT_NE(b.handle, 0u);
    EXPECT_EQ(GlobalUnlock(HandleOf(b)), 0);  // no lock left on the platform's block

    bytes = static_cast<uint8_t *>(BlockLock(&b));  // the bytes stayed
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(bytes[7 * 13 - 1], 0x5A);
    BlockFree(&b);  // locked: unlocked, then freed (then empty: see below)
    EXPECT_TRUE(IsEmpty(b));
    EXPECT_TRUE(guard.Same());
}

TEST(Blocks, EmptyAndNullDescriptors) {
    test::LeakGuard guard;
    EXPECT_EQ(BlockAlloc(nullptr, 0, 1, 1, "null"), 0);
    EXPECT_EQ(BlockLock(nullptr), nullptr);
    BlockUnlock(nullptr);
    BlockFree(nullptr);

    MemoryBlock b{};
    EXPECT_EQ(BlockLock(&b), nullptr);
    BlockUnlock(&b);
    BlockFree(&b);
    EXPECT_TRUE(IsEmpty(b));

    // An unlock or free of a descriptor without a block clears what else it holds.
    int scratch = 0;
    for (void (*op)(MemoryBlock *) : {BlockUnlock, BlockFree}) {
        b = MemoryBlock{0, 9, &scratch};
        op(&b);
        EXPECT_TRUE(IsEmpty(b));
    }
    EXPECT_TRUE(guard.Same());
}

TEST(Blocks, SizesThatCannotBeHad) {
    test::LeakGuard guard;
    int scratch = 0;
    struct Case { uint32_t count, size; const char *why; } cases[] = {
        {0, 16, "count 0"},
        {16, 0, "element size 0"},
        {0x10000, 0x10000, "product past 32 bits"},
        {0xFFFFFFFFu, 2, "product past 32 bits"},
        {0x4000, 0x10001, "past the library's ceiling"},
    };
    for (const Case &c : cases) {
        // A failed allocation leaves the descriptor empty, whatever it held,
        // since callers test only `handle` afterwards.
        MemoryBlock b{0x1234, 7, &scratch};
        EXPECT_EQ(BlockAlloc(&b, 0, c.count, c.size, "too big"), 0) << c.why;
        EXPECT_TRUE(IsEmpty(b)) << c.why;
    }
    EXPECT_TRUE(guard.Same());
}

TEST(Blocks, AllocOverAHeldBlockForgetsIt) {
    test::LeakGuard guard;
    MemoryBlock b{};
    ASSERT_EQ(BlockAlloc(&b, 0, 1, 64, "first"), 1);
    HGLOBAL first = HandleOf(b);
    ASSERT_EQ(BlockAlloc(&b, 0, 1, 32, "second"), 1);
    EXPECT_NE(HandleOf(b), first);
    EXPECT_EQ(GlobalSize(first), 64u);  // not freed: still the caller's to free
    EXPECT_EQ(GlobalFree(first), nullptr);
    BlockFree(&b);
    EXPECT_TRUE(guard.Same());
}

// A lock that fails leaves nothing to go on with: the block is given back
// and the descriptor emptied, so a caller that tests `handle` sees no memory.
TEST(Blocks, FailedLockEmptiesTheDescriptor) {
    test::LeakGuard guard;
    MemoryBlock b{0x7FFF0001u, 0, nullptr};  // no block of the platform has this handle
    EXPECT_EQ(BlockLock(&b), nullptr);
    EXPECT_TRUE(IsEmpty(b));

    ASSERT_EQ(BlockAlloc(&b, 0, 1, 8, "freed behind our back"), 1);
    EXPECT_EQ(GlobalFree(HandleOf(b)), nullptr);
    EXPECT_EQ(BlockLock(&b), nullptr);
    EXPECT_TRUE(IsEmpty(b));
    EXPECT_TRUE(guard.Same());
}

}  // namespace
