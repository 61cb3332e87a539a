// The allocation gate and the raw memory functions of the foundation.
//
// Tests count and fail allocations through the gate. Odd: sizes that do not fit the address space count as failed
// allocations.

#include "foundation/tbmemory.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "tests/support/allocations.h"

using namespace kvxtest;

namespace {

TEST(TbBlock, HoldsAtLeastWhatWasAskedForAndKeepsItsContents) {
    void* block = nullptr;
    std::size_t filled = 0;
    for (std::size_t const bytes : {std::size_t{1}, std::size_t{66}, std::size_t{131}, std::size_t{100000}}) {
        block = tbResizeBlock(block, bytes);
        ASSERT_NE(block, nullptr);
        ASSERT_GE(tbBlockSize(block), bytes);
        auto* const characters = static_cast<unsigned char*>(block);
        for (std::size_t i = 0; i < filled; ++i) {
            ASSERT_EQ(characters[i], i % 251);
        }
        for (filled = 0; filled < bytes; ++filled) {
            characters[filled] = static_cast<unsigned char>(filled % 251);
        }
    }
    tbReleaseBlock(block);
}

TEST(TbBlock, IsAlignedForEveryType) {
    void* const block = tbResizeBlock(nullptr, 1);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0U);
    tbReleaseBlock(block);
}

TEST(TbBlock, IsNotMovedWhileItHasRoom) {
    void* const block = tbResizeBlock(nullptr, 100);
    FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
    EXPECT_EQ(tbResizeBlock(block, 100), block);
    EXPECT_EQ(tbResizeBlock(block, 1), block);
    EXPECT_EQ(tbResizeBlock(block, 99), block);
    EXPECT_EQ(FailingAllocation::requested(), 0);
    tbReleaseBlock(block);
}

TEST(TbBlock, StaysUntouchedWhenItCannotBeMadeLarger) {
    void* const block = tbResizeBlock(nullptr, 4);
    std::memcpy(block, "abc", 4);
    {
        FailingAllocation const failing(0, FailingAllocation::Mode::kOnlyThat);
        EXPECT_EQ(tbResizeBlock(block, 5000), nullptr);
    }
    EXPECT_EQ(tbBlockSize(block), 4U);
    EXPECT_STREQ(static_cast<char const*>(block), "abc");
    tbReleaseBlock(block);
}

TEST(TbBlock, RefusesASizeThatItsHeaderWouldOverflow) {
    EXPECT_EQ(tbResizeBlock(nullptr, SIZE_MAX), nullptr);
    EXPECT_EQ(tbResizeBlock(nullptr, SIZE_MAX - 1), nullptr);
    EXPECT_EQ(tbResizeBlock(nullptr, UINT64_MAX), nullptr);
    EXPECT_EQ(tbResizeBlock(nullptr, UINT64_MAX), nullptr);
    void* const block = tbResizeBlock(nullptr, 4);
    std::memcpy(block, "abc", 4);
    for (std::uint64_t const bytes : {std::uint64_t{SIZE_MAX}, std::uint64_t{SIZE_MAX} - 1, UINT64_MAX}) {
        EXPECT_EQ(tbResizeBlock(block, bytes), nullptr);
        EXPECT_EQ(tbReallocateSecret(block, 4, bytes), nullptr);
    }
    EXPECT_EQ(tbBlockSize(block), 4U);
    EXPECT_STREQ(static_cast<char const*>(block), "abc");
    tbReleaseBlock(block);
}

TEST(TbBlock, OfNothingHasNoSizeAndIsReleasedQuietly) {
    EXPECT_EQ(tbBlockSize(nullptr), 0U);
    tbReleaseBlock(nullptr);
    void* const block = tbResizeBlock(nullptr, 0);
    EXPECT_NE(block, nullptr);
    tbReleaseBlock(block);
}

TEST(TbAllocate, GivesMemoryForZeroBytesAndNullWhenRefused) {
    void* memory = tbAllocate(0);
    EXPECT_NE(memory, nullptr);
    memory = tbReallocate(memory, 0);
    EXPECT_NE(memory, nullptr);
    {
        FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
        EXPECT_EQ(tbAllocate(1), nullptr);
        EXPECT_EQ(tbReallocate(memory, 10), nullptr);
        EXPECT_EQ(FailingAllocation::requested(), 2);
    }
    tbRelease(memory);
}

/// Observes what is released while it lives.
class Observed {
public:
    Observed() {
        s_Blocks = 0;
        tbSetReleaseObserver([](void const* memory, std::size_t bytes) {
            ++s_Blocks;
            EXPECT_NE(memory, nullptr);
            s_Bytes = bytes;
        });
    }
    Observed(Observed const&) = delete;
    Observed& operator=(Observed const&) = delete;
    ~Observed() { tbSetReleaseObserver(nullptr); }

    static inline int s_Blocks = 0;
    static inline std::size_t s_Bytes = 0;
};

TEST(TbReleaseObserver, SeesEveryBlockThatIsReleasedAndNoNull) {
    Observed const observed;
    tbRelease(nullptr);
    EXPECT_EQ(Observed::s_Blocks, 0);
    void* memory = tbAllocate(100);
    memory = tbReallocate(memory, 5000);
    EXPECT_EQ(Observed::s_Blocks, 1);
    EXPECT_GE(Observed::s_Bytes, 100U);
    tbRelease(memory);
    EXPECT_EQ(Observed::s_Blocks, 2);
    EXPECT_GE(Observed::s_Bytes, 5000U);
}

TEST(TbReleaseObserver, LeavesTheContentsOfABlockThatGrowsOrStays) {
    Observed const observed;
    void* memory = tbAllocate(100);
    std::size_t const room = ::malloc_usable_size(memory);
    std::memset(memory, 'x', room);
    memory = tbReallocate(memory, room);
    EXPECT_EQ(std::string(static_cast<char*>(memory), room), std::string(room, 'x'));
    memory = tbReallocate(memory, 2 * room);
    EXPECT_EQ(std::string(static_cast<char*>(memory), 2 * room), std::string(room, 'x') + std::string(room, '\0'));
    tbRelease(memory);
}

TEST(TbBlock, KeepsItsContentsWhenItsFrontIsDroppedAndWhenItGrowsAfterwards) {
    constexpr std::size_t kStep = sizeof(void*);
    for (std::size_t dropped = 0; dropped <= 8; ++dropped) {
        for (std::size_t grown = 1; grown <= 40; ++grown) {
            auto* block = static_cast<unsigned char*>(tbResizeBlock(nullptr, 8 * kStep));
            ASSERT_NE(block, nullptr);
            for (std::size_t i = 0; i < 8 * kStep; ++i) {
                block[i] = static_cast<unsigned char>(i);
            }
            for (std::size_t i = 0; i < dropped; ++i) {
                block = static_cast<unsigned char*>(tbDropFront(block, kStep));
            }
            std::size_t const left = (8 - dropped) * kStep;
            EXPECT_EQ(tbBlockSize(block), left);
            block = static_cast<unsigned char*>(tbResizeBlock(block, grown * kStep));
            ASSERT_NE(block, nullptr);
            EXPECT_GE(tbBlockSize(block), grown * kStep);
            for (std::size_t i = 0; i < left; ++i) {
                ASSERT_EQ(block[i], dropped * kStep + i) << dropped << " dropped, grown to " << grown;
            }
            std::memset(block, 0xFF, tbBlockSize(block));
            tbReleaseBlock(block);
        }
    }
}

}  // namespace
