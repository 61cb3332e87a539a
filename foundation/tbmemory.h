/// The seam for allocation, and blocks that know their size. Internal: not installed.
#ifndef TALLOWIN_FOUNDATION_TBMEMORY_H
#define TALLOWIN_FOUNDATION_TBMEMORY_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "foundation/tbreleaser.h"

/// All allocations of the library use these three. Null when memory is exhausted or a test makes the allocation fail.
[[nodiscard]] void* tbAllocate(std::size_t bytes) noexcept;
[[nodiscard]] void* tbReallocate(void* memory, std::size_t bytes) noexcept;
void tbRelease(void* memory) noexcept;

/// Owns memory from tbAllocate.
using TbMemoryHolder = std::unique_ptr<char, TbReleaser<tbRelease>>;

/// `bytes` bytes in a holder. Raises KVX_E_OUT_OF_MEMORY (TBFC_Exception).
[[nodiscard]] TbMemoryHolder tbHoldMemory(std::size_t bytes);

/// Moves the `present` bytes at `memory` to new memory of `bytes` bytes, not fewer, and wipes them where they lay. Null
/// on failure, also where no address space holds so much: then `memory` is untouched.
[[nodiscard]] void* tbReallocateSecret(void* memory, std::size_t present, std::uint64_t bytes) noexcept;

/// Wipes the `bytes` bytes at `memory`, all that were used of it, then releases it.
void tbReleaseSecret(void* memory, std::size_t bytes) noexcept;

/// The size that a buffer of `present` bytes grows to when it must hold `bytes` bytes.
///
/// A growing container publishes a capacity that rises by a fixed slack. Moving the memory at every such step would
/// take quadratic time, so a buffer that grows gets at least half its size on top.
[[nodiscard]] std::uint64_t tbRoomFor(std::size_t present, std::uint64_t bytes) noexcept;

#ifdef KVX_TEST_SEAMS
/// Test builds only: called before every allocation; false makes it fail. A null gate lets all succeed.
using TbAllocationGate = bool (*)(std::size_t bytes);
void tbSetAllocationGate(TbAllocationGate gate) noexcept;

/// Test builds only: called before a block of `bytes` bytes is released, and before it is reallocated, which may leave
/// its contents behind. While there is an observer new memory is zeroed, so that it sees the library's own bytes alone.
using TbReleaseObserver = void (*)(void const* memory, std::size_t bytes);
void tbSetReleaseObserver(TbReleaseObserver observer) noexcept;
#endif

/// Blocks that know their size, for vectors.

/// Makes room for `bytes` bytes at `block` (null for a new one). Keeps the contents; the result may lie elsewhere.
/// Null on failure, also where no address space holds so much: then `block` is untouched.
[[nodiscard]] void* tbResizeBlock(void* block, std::uint64_t bytes) noexcept;

/// The bytes that may be used at `block`; 0 for null.
[[nodiscard]] std::size_t tbBlockSize(void const* block) noexcept;

/// Drops the first `bytes` bytes of the contents without moving the others and returns where those begin. A later
/// growth reuses the room. Requires: a multiple of a pointer's size, not more than the block holds.
[[nodiscard]] void* tbDropFront(void* block, std::size_t bytes) noexcept;

/// Releases the block. Null is ignored.
void tbReleaseBlock(void* block) noexcept;

#endif
