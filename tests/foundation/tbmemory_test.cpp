// The allocation gate and the raw memory functions of the foundation.
//
// Tests count and fail allocations through the gate. Odd: sizes that do not fit 32 bits count as failed allocations.

#include "foundation/tbmemory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

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
}

TEST(TbBlock, OfNothingHasNoSizeAndIsReleasedQuietly) {
    EXPECT_EQ(tbBlockSize(nullptr), 0U);
    tbReleaseBlock(nullptr);
    void* const block = tbResizeBlock(nullptr, 0);
    EXPECT_NE(block, nullptr);
    tbReleaseBlock(block);
}

TEST(TbAllocate, GivesMemoryForZeroBytesAndNullWhenRefused) {
    void* const memory = tbAllocate(0);
    EXPECT_NE(memory, nullptr);
    {
        FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
        EXPECT_EQ(tbAllocate(1), nullptr);
        EXPECT_EQ(tbReallocate(memory, 10), nullptr);
        EXPECT_EQ(FailingAllocation::requested(), 2);
    }
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
