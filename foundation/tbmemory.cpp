// The allocation seam and growing blocks.
//
// A block has a header right before its first usable byte, with the usable size and the number of bytes that were
// dropped from its front. A block grows in this order: use the room it has, move the contents back over the dropped
// front, reallocate with half the size on top. Memory with a secret is never reallocated: its contents are copied to
// new memory and wiped. Every allocation asks the gate first in test builds.

#include "foundation/tbmemory.h"

#include <malloc.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "foundation/tbexception.h"

namespace {

/// Lies right before the usable bytes of a block, also after the front of the block has moved.
struct BlockHeader {
    std::size_t m_Size;     ///< Usable bytes.
    std::size_t m_Dropped;  ///< Bytes that the front has moved from where it began.
};

/// Bytes before the usable ones of a fresh block; keeps their alignment.
constexpr std::size_t kPrefix = alignof(std::max_align_t);
static_assert(sizeof(BlockHeader) <= kPrefix);

BlockHeader* headerOf(void* block) {
    return static_cast<BlockHeader*>(block) - 1;
}

BlockHeader const* headerOf(void const* block) {
    return static_cast<BlockHeader const*>(block) - 1;
}

/// The address that the allocator returned for `block`.
void* memoryOf(void* block) {
    return static_cast<char*>(block) - headerOf(block)->m_Dropped - kPrefix;
}

/// The block in `memory` with `size` usable bytes, none of them dropped.
void* blockIn(void* memory, std::size_t size) {
    void* const block = static_cast<char*>(memory) + kPrefix;
    *headerOf(block) = {size, 0};
    return block;
}

/// Moves the contents back to where they began.
void* withoutGap(void* block) {
    BlockHeader const header = *headerOf(block);
    if (header.m_Dropped == 0) {
        return block;
    }
    void* const memory = memoryOf(block);
    std::memmove(static_cast<char*>(memory) + kPrefix, block, header.m_Size);
    return blockIn(memory, header.m_Size + header.m_Dropped);
}

#ifdef KVX_TEST_SEAMS
TbAllocationGate g_Gate = nullptr;

bool isPermitted(std::size_t bytes) {
    TbAllocationGate const gate = __atomic_load_n(&g_Gate, __ATOMIC_RELAXED);
    return gate == nullptr || gate(bytes);
}

TbReleaseObserver g_Observer = nullptr;

TbReleaseObserver observer() {
    return __atomic_load_n(&g_Observer, __ATOMIC_RELAXED);
}

/// 0 for null.
std::size_t usableSize(void* memory) {
    return ::malloc_usable_size(memory);
}

void observe(void* memory) {
    if (observer() != nullptr && memory != nullptr) {
        observer()(memory, usableSize(memory));
    }
}

/// Zeroes what an observer would mistake for the library's own bytes.
void* withoutOldBytes(void* memory, std::size_t from) {
    if (observer() != nullptr && usableSize(memory) > from) {
        std::memset(static_cast<char*>(memory) + from, 0, usableSize(memory) - from);
    }
    return memory;
}
#else
constexpr bool isPermitted(std::size_t) {
    return true;
}
constexpr std::size_t usableSize(void*) {
    return 0;
}
constexpr void observe(void*) {}
constexpr void* withoutOldBytes(void* memory, std::size_t) {
    return memory;
}
#endif

}  // namespace

#ifdef KVX_TEST_SEAMS
void tbSetReleaseObserver(TbReleaseObserver observer) noexcept {
    __atomic_store_n(&g_Observer, observer, __ATOMIC_RELAXED);
}

void tbSetAllocationGate(TbAllocationGate gate) noexcept {
    __atomic_store_n(&g_Gate, gate, __ATOMIC_RELAXED);
}
#endif

void* tbAllocate(std::size_t bytes) noexcept {
    return isPermitted(bytes) ? withoutOldBytes(std::malloc(bytes == 0 ? 1 : bytes), 0) : nullptr;
}

void* tbReallocate(void* memory, std::size_t bytes) noexcept {
    if (!isPermitted(bytes)) {
        return nullptr;
    }
    observe(memory);
    std::size_t const present = usableSize(memory);
    return withoutOldBytes(std::realloc(memory, bytes == 0 ? 1 : bytes), present);
}

void tbRelease(void* memory) noexcept {
    observe(memory);
    std::free(memory);
}

TbMemoryHolder tbHoldMemory(std::size_t bytes) {
    TbMemoryHolder memory(static_cast<char*>(tbAllocate(bytes)));
    if (memory == nullptr) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    return memory;
}

void* tbReallocateSecret(void* memory, std::size_t present, std::uint64_t bytes) noexcept {
    if (bytes > PTRDIFF_MAX) {
        return nullptr;  // no object is larger
    }
    void* const larger = tbAllocate(static_cast<std::size_t>(bytes));
    if (larger != nullptr) {
        std::memcpy(larger, memory, present);
        tbReleaseSecret(memory, present);
    }
    return larger;
}

void tbReleaseSecret(void* memory, std::size_t bytes) noexcept {
    ::explicit_bzero(memory, bytes);
    tbRelease(memory);
}

std::uint64_t tbRoomFor(std::size_t present, std::uint64_t bytes) noexcept {
    std::uint64_t const generous = std::uint64_t{present} + present / 2;
    return generous > bytes ? generous : bytes;
}

void* tbResizeBlock(void* block, std::uint64_t bytes) noexcept {
    if (block == nullptr) {
        if (bytes > SIZE_MAX - kPrefix) {
            return nullptr;
        }
        auto const size = static_cast<std::size_t>(bytes);
        void* const memory = tbAllocate(size + kPrefix);
        return memory == nullptr ? nullptr : blockIn(memory, size);
    }
    std::size_t const present = tbBlockSize(block);
    if (bytes <= present) {
        return block;
    }
    // Moving the contents over a small gap is not worth it; reallocating makes as much room.
    std::size_t const dropped = headerOf(block)->m_Dropped;
    if (dropped >= present / 2 && bytes <= present + dropped) {
        return withoutGap(block);
    }
    std::uint64_t const wanted = tbRoomFor(present, bytes);
    if (wanted > SIZE_MAX - kPrefix - dropped) {
        return nullptr;
    }
    auto const size = static_cast<std::size_t>(wanted);
    void* const memory = tbReallocate(memoryOf(block), size + dropped + kPrefix);
    if (memory == nullptr) {
        return nullptr;
    }
    void* const front = static_cast<char*>(memory) + kPrefix + dropped;
    headerOf(front)->m_Size = size;
    return withoutGap(front);
}

std::size_t tbBlockSize(void const* block) noexcept {
    return block == nullptr ? 0 : headerOf(block)->m_Size;
}

void* tbDropFront(void* block, std::size_t bytes) noexcept {
    BlockHeader const header = *headerOf(block);
    void* const front = static_cast<char*>(block) + bytes;
    *headerOf(front) = {header.m_Size - bytes, header.m_Dropped + bytes};
    return front;
}

void tbReleaseBlock(void* block) noexcept {
    if (block != nullptr) {
        tbRelease(memoryOf(block));
    }
}
