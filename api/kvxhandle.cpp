// Pools of slots for public objects, and the checks of handles.
//
// Each kind has a pool of chunks, mapped below 2 GiB where the system can, never unmapped. A handle is looked up by its
// address alone: chunk, slot boundary, then the signature word. Free slots form a queue, so a slot is reused late and a
// stale handle meets a zero word; the queue stands in a table behind the slots. Finding a slot takes no lock; taking
// and giving one back holds the pool's mutex for a few instructions. Objects that C++ callers built elsewhere stand in
// a registry. A fork() waits until no thread holds one of these mutexes, so a child finds them free.

#include "api/kvxhandle.h"

#include <algorithm>
#include <atomic>
#include <iterator>
#include <mutex>

#include "api/kvxregistry.h"
#include "core/icct_keyusers.h"
#include "foundation/tbexception.h"
#include "foundation/tbfork.h"
#include "foundation/tbmemory.h"
#include "foundation/tbsystem.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace {

constexpr std::uint32_t kLivingWord = 0xAFFEAFFE;

/// Slots of the first chunk; every further chunk has twice as many as the one before.
constexpr std::uint32_t kFirstChunkSlots = 256;
constexpr std::uint32_t kMaxChunks = 15;

/// Free slots that are kept unused, so that a stale handle finds a zero word and not another object.
constexpr std::uint32_t kQuarantine = 1024;

constexpr std::uint32_t kNoSlot = 0xFFFFFFFFU;

/// Room for the largest public object; a power of two, so that a slot's number follows from its address.
constexpr std::size_t kSlotBytes = 512;

/// A slot and its place in the table of free ones.
constexpr std::size_t kBytesPerSlot = kSlotBytes + sizeof(std::uint32_t);

constexpr std::uintptr_t kTwoGiB = std::uintptr_t{1} << 31;
constexpr std::uintptr_t kFourGiBLess = kTwoGiB - 1 + kTwoGiB;

std::uint32_t readWord(void const* object) noexcept {
    return __atomic_load_n(static_cast<std::uint32_t const*>(object), __ATOMIC_ACQUIRE);
}

/// The bytes behind the signature word must not be touched while a slot is free.
void forbidUse([[maybe_unused]] void* slot) noexcept {
#if defined(__SANITIZE_ADDRESS__)
    __asan_poison_memory_region(static_cast<char*>(slot) + 8, kSlotBytes - 8);
#endif
}

void allowUse([[maybe_unused]] void* slot) noexcept {
#if defined(__SANITIZE_ADDRESS__)
    __asan_unpoison_memory_region(slot, kSlotBytes);
#endif
}

void* mapAt(void* where, std::size_t bytes, int flags) noexcept {
    void* const memory =
        tbSystem().mmap(where, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | flags, -1, 0);
    return memory == MAP_FAILED ? nullptr : memory;
}

/// Fresh zeroed memory whose addresses fit 31 bits, or else 32. Null when there is none.
void* mapLow(std::size_t bytes) noexcept {
    void* const probe = tbAllocate(1);  // takes part in failing-allocation tests like any other allocation
    if (probe == nullptr) {
        return nullptr;
    }
    tbRelease(probe);
#if defined(__x86_64__)
    if (void* const memory = mapAt(nullptr, bytes, MAP_32BIT)) {
        return memory;
    }
#endif
    constexpr std::uintptr_t kStart = std::uintptr_t{1} << 24;
    constexpr std::uintptr_t kStep = std::uintptr_t{1} << 22;
    for (std::uintptr_t address = kStart; address <= kFourGiBLess - bytes; address += kStep) {
        void* const memory = mapAt(reinterpret_cast<void*>(address), bytes, MAP_FIXED_NOREPLACE);
        if (memory == reinterpret_cast<void*>(address)) {
            return memory;
        }
        if (memory != nullptr) {
            tbSystem().munmap(memory, bytes);  // a kernel that takes the address as a hint only
        }
    }
    return nullptr;
}

void lockAll();
void unlockAll();

using ForkHandlers = TbForkHandlers<lockAll, unlockAll, unlockAll>;

/// Holds one of the mutexes that no thread holds during a fork(). A thread holds one at a time.
class Lock {
public:
    explicit Lock(std::mutex& mutex) noexcept : m_Mutex(mutex) {
        ForkHandlers::ensure();
        m_Mutex.lock();
    }
    Lock(Lock const&) = delete;
    Lock& operator=(Lock const&) = delete;
    ~Lock() { m_Mutex.unlock(); }

private:
    std::mutex& m_Mutex;
};

/// The slots of one kind. Constant-initialised and never destroyed: objects may die in exit handlers.
///
/// Chunks are only ever added; finding a slot by its address takes no lock. A table behind each chunk's slots links the
/// free ones; the slots themselves stay untouched, their first word 0.
class Pool {
public:
    constexpr Pool() = default;

    void* take() {
        Lock const lock(m_Mutex);
        std::uint32_t number = kNoSlot;
        if (m_FreeCount <= kQuarantine) {
            number = takeFresh();
        }
        if (number == kNoSlot) {
            number = takeFreed();
        }
        if (number == kNoSlot) {
            throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
        }
        void* const slot = addressOf(number);
        allowUse(slot);
        return slot;
    }

    void give(void* slot) noexcept {
        Lock const lock(m_Mutex);
        std::uint32_t const number = numberOf(slot);
        forbidUse(slot);
        nextOf(number) = kNoSlot;
        if (m_FreeCount++ == 0) {
            m_FirstFree = number;
        } else {
            nextOf(m_LastFree) = number;
        }
        m_LastFree = number;
    }

    /// The number of the slot that begins at `address`; kNoSlot when none does.
    [[nodiscard]] std::uint32_t numberOf(void const* address) const noexcept {
        std::uintptr_t const offset = offsetOf(address);
        return offset % kSlotBytes == 0 ? static_cast<std::uint32_t>(offset / kSlotBytes) : kNoSlot;
    }

    /// Held for a few instructions, inside the allocator only.
    std::mutex& mutex() noexcept { return m_Mutex; }

private:
    static constexpr std::uintptr_t kOutside = ~std::uintptr_t{0};
    static_assert(kOutside % kSlotBytes != 0, "outside is no slot's beginning");

    static constexpr std::uint32_t slotsOf(std::uint32_t chunk) { return kFirstChunkSlots << chunk; }
    static constexpr std::uint32_t slotsBefore(std::uint32_t chunk) { return kFirstChunkSlots * ((1U << chunk) - 1); }

    /// Bytes from the first slot of all to `address`, as if the chunks lay one behind the other.
    [[nodiscard]] std::uintptr_t offsetOf(void const* address) const noexcept {
        auto const wanted = reinterpret_cast<std::uintptr_t>(address);
        std::uint32_t const chunks = m_ChunkCount.load(std::memory_order_acquire);
        for (std::uint32_t chunk = 0; chunk < chunks; ++chunk) {
            auto const begin = reinterpret_cast<std::uintptr_t>(m_Chunks[chunk]);
            if (wanted >= begin && wanted - begin < std::uintptr_t{slotsOf(chunk)} * kSlotBytes) {
                return std::uintptr_t{slotsBefore(chunk)} * kSlotBytes + (wanted - begin);
            }
        }
        return kOutside;
    }

    [[nodiscard]] static std::uint32_t chunkOf(std::uint32_t number) noexcept {
        std::uint32_t chunk = 0;
        while (number >= slotsBefore(chunk + 1)) {
            ++chunk;
        }
        return chunk;
    }

    [[nodiscard]] void* addressOf(std::uint32_t number) const noexcept {
        std::uint32_t const chunk = chunkOf(number);
        return m_Chunks[chunk] + std::size_t{number - slotsBefore(chunk)} * kSlotBytes;
    }

    /// The free slot after `number`, in the table behind its chunk's slots.
    [[nodiscard]] std::uint32_t& nextOf(std::uint32_t number) noexcept {
        std::uint32_t const chunk = chunkOf(number);
        void* const table = m_Chunks[chunk] + std::size_t{slotsOf(chunk)} * kSlotBytes;
        return static_cast<std::uint32_t*>(table)[number - slotsBefore(chunk)];
    }

    std::uint32_t takeFresh() noexcept {
        std::uint32_t const chunks = m_ChunkCount.load(std::memory_order_relaxed);
        if (m_FreshUsed < slotsBefore(chunks)) {
            return m_FreshUsed++;
        }
        // All chunks lie below 4 GiB, where the last one has no room beside the others: a next one can always be tried.
        static_assert(std::uint64_t{slotsBefore(kMaxChunks)} * kBytesPerSlot > kFourGiBLess);
        m_Chunks[chunks] = static_cast<char*>(mapLow(slotsOf(chunks) * kBytesPerSlot));
        if (m_Chunks[chunks] == nullptr) {
            return kNoSlot;
        }
        m_ChunkCount.store(chunks + 1, std::memory_order_release);
        return m_FreshUsed++;
    }

    std::uint32_t takeFreed() noexcept {
        if (m_FreeCount == 0) {
            return kNoSlot;
        }
        std::uint32_t const number = m_FirstFree;
        m_FirstFree = nextOf(number);
        --m_FreeCount;
        return number;
    }

    std::mutex m_Mutex;
    char* m_Chunks[kMaxChunks] = {};  ///< Written before m_ChunkCount says so.
    std::atomic<std::uint32_t> m_ChunkCount{0};
    std::uint32_t m_FreshUsed = 0;        ///< Slots ever handed out, from number 0 up.
    std::uint32_t m_FirstFree = kNoSlot;  ///< First in, first out.
    std::uint32_t m_LastFree = kNoSlot;
    std::uint32_t m_FreeCount = 0;
};

Pool g_Pools[3];

Pool& poolOf(KvxKind kind) noexcept {
    return g_Pools[static_cast<std::size_t>(kind)];
}

bool beginsAnySlot(void const* address) noexcept {
    return std::any_of(std::begin(g_Pools), std::end(g_Pools),
                       [&](Pool const& pool) { return pool.numberOf(address) != kNoSlot; });
}

std::mutex g_RegistryMutex;  ///< Held for one call of the registry.
KvxRegistry g_Registry;      ///< Objects that do not lie on a slot of their own kind.

void lockAll() {
    for (Pool& pool : g_Pools) {
        pool.mutex().lock();
    }
    g_RegistryMutex.lock();
}

void unlockAll() {
    g_RegistryMutex.unlock();
    for (Pool& pool : g_Pools) {
        pool.mutex().unlock();
    }
}

bool isRegistered(KvxKind kind, void const* object) noexcept {
    Lock const lock(g_RegistryMutex);
    return g_Registry.contains(object, kind);
}

}  // namespace

void KvxSignature::set(KvxKind kind) {
    bool const isOutside = poolOf(kind).numberOf(this) == kNoSlot;
    bool const isMisplaced = isOutside && beginsAnySlot(this);
    if (isOutside && !isMisplaced) {
        Lock const lock(g_RegistryMutex);
        g_Registry.add(this, kind);
    }
    kvxAddKeyUser();
    if (isMisplaced) {
        return;  // the word would make it an object of the slot's kind
    }
    __atomic_store_n(&m_Word, kLivingWord, __ATOMIC_RELEASE);
}

void KvxSignature::clear(KvxKind kind) noexcept {
    __atomic_store_n(const_cast<std::uint32_t volatile*>(&m_Word), 0, __ATOMIC_RELEASE);
    if (poolOf(kind).numberOf(this) == kNoSlot) {
        Lock const lock(g_RegistryMutex);
        g_Registry.remove(this);
    }
    kvxRemoveKeyUser();
}

void* kvxTakeSlot(KvxKind kind, std::size_t bytes) {
    if (bytes > kSlotBytes) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    return poolOf(kind).take();
}

void kvxGiveSlot(KvxKind kind, void* slot) noexcept {
    if (slot != nullptr) {
        poolOf(kind).give(slot);
    }
}

bool kvxIsLiving(KvxKind kind, void const* handle) noexcept {
    bool const isReadable = poolOf(kind).numberOf(handle) != kNoSlot || isRegistered(kind, handle);
    return isReadable && readWord(handle) == kLivingWord;
}

bool kvxIsLivingInSlot(KvxKind kind, void const* handle) noexcept {
    return poolOf(kind).numberOf(handle) != kNoSlot && readWord(handle) == kLivingWord;
}

bool kvxClaimForDestruction(KvxKind kind, void* handle) noexcept {
    if (handle == nullptr || poolOf(kind).numberOf(handle) == kNoSlot) {
        return false;
    }
    std::uint32_t expected = kLivingWord;
    return __atomic_compare_exchange_n(static_cast<std::uint32_t*>(handle), &expected, 0, false, __ATOMIC_ACQ_REL,
                                       __ATOMIC_ACQUIRE);
}
