// malloc and its relatives, over the C library's own entry points.
//
// Each allocation asks `isPermitted`; releases are only watched. Odd: the watch keeps its records in a fixed table,
// because it must not allocate; a stack is captured for a failed allocation and for each watched one, as addresses
// only, and turned into names when a report asks for them.

#include "tests/faults/failingheap.h"

#include <execinfo.h>
#include <malloc.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "tests/support/clibraryheap.h"

namespace kvxtest {

namespace {

constexpr int kDepth = 24;

struct Stack {
    void* m_Frames[kDepth];
    int m_Depth;
};

/// A power of two, well above what a call of the library holds at once.
constexpr std::size_t kMaxWatched = 1U << 15;

thread_local bool t_IsArmed = false;
thread_local bool t_IsWatching = false;
thread_local bool t_IsInside = false;  ///< Inside the test's own code: nothing fails, nothing is counted.

HeapFault g_Fault;
long g_Requested = 0;
bool g_HasFailed = false;
Stack g_Failed;

/// One slot an allocation: its address, its number, the calls that led to it.
void* g_Watched[kMaxWatched];
long g_WatchedOrder[kMaxWatched];
Stack g_WatchedStack[kMaxWatched];
long g_WatchedCount = 0;
long g_WatchedNext = 0;
bool g_HasStacks = false;

/// The newest allocations with what led to them; used with stacks only.
struct Made {
    char const* m_Memory;
    std::size_t m_Bytes;
    Stack m_Stack;
};
constexpr std::size_t kMaxMade = 1U << 16;
Made g_Made[kMaxMade];
std::size_t g_MadeCount = 0;

/// The test's own allocations, to be wiped.
thread_local bool t_IsWiping = false;
constexpr std::size_t kMaxWiped = 1U << 14;
void* g_Wiped[kMaxWiped];
std::size_t g_WipedCount = 0;

ReleaseWatch::IsWanted g_IsWanted = nullptr;
void const* g_WantedContext = nullptr;
long g_WantedCount = 0;
Stack g_FirstWanted;

void capture(Stack& stack) {
    t_IsInside = true;
    stack.m_Depth = ::backtrace(stack.m_Frames, kDepth);
    t_IsInside = false;
}

std::string textOf(Stack const& stack) {
    std::string text;
    char** const names = ::backtrace_symbols(stack.m_Frames, stack.m_Depth);
    for (int i = 0; names != nullptr && i < stack.m_Depth; ++i) {
        text += names[i];
        text += '\n';
    }
    std::free(names);
    return text;
}

bool isPermitted() {
    if (!t_IsArmed || t_IsInside) {
        return true;
    }
    long const number = g_Requested++;
    bool const fails = g_Fault.m_Number >= 0 && (g_Fault.m_Mode == HeapFault::Mode::kOnce ? number == g_Fault.m_Number
                                                                                          : number >= g_Fault.m_Number);
    if (fails) {
        if (!g_HasFailed) {
            g_HasFailed = true;
            capture(g_Failed);
        }
        errno = ENOMEM;
    }
    return !fails;
}

std::size_t slotOf(void const* memory) {
    return (reinterpret_cast<std::uintptr_t>(memory) >> 4) * 0x9E3779B97F4A7C15U >> 48 & (kMaxWatched - 1);
}

/// A slot that held a released allocation; lookups pass over it.
char g_Tombstone;

void remember(void* memory, Stack const& stack) {
    g_Made[g_MadeCount++ % kMaxMade] = {static_cast<char const*>(memory), ::malloc_usable_size(memory), stack};
}

void* watched(void* memory) {
    if (memory != nullptr && t_IsWiping && g_WipedCount < kMaxWiped) {
        g_Wiped[g_WipedCount++] = memory;
    }
    if (memory == nullptr || !t_IsWatching || t_IsInside) {
        return memory;
    }
    for (std::size_t i = slotOf(memory), tried = 0; tried < kMaxWatched; i = (i + 1) & (kMaxWatched - 1), ++tried) {
        if (g_Watched[i] == nullptr || g_Watched[i] == &g_Tombstone) {
            g_Watched[i] = memory;
            g_WatchedOrder[i] = g_WatchedNext++;
            if (g_HasStacks) {
                capture(g_WatchedStack[i]);
                remember(memory, g_WatchedStack[i]);
            }
            ++g_WatchedCount;
            return memory;
        }
    }
    std::abort();  // the table is too small
}

void wipeIfOwn(void* memory) {
    for (std::size_t i = 0; memory != nullptr && i < g_WipedCount; ++i) {
        if (g_Wiped[i] == memory) {
            explicit_bzero(memory, ::malloc_usable_size(memory));
            g_Wiped[i] = g_Wiped[--g_WipedCount];
            return;
        }
    }
}

/// Before `memory` is released or moved. The library's own blocks only: not those of the test.
void lookAt(void* memory) {
    if (g_IsWanted == nullptr || memory == nullptr || t_IsInside) {
        return;
    }
    if (g_IsWanted(g_WantedContext, memory, ::malloc_usable_size(memory)) && g_WantedCount++ == 0) {
        capture(g_FirstWanted);
    }
}

void unwatch(void const* memory) {
    if (memory == nullptr || g_WatchedCount == 0 || !t_IsWatching) {
        return;
    }
    for (std::size_t i = slotOf(memory), tried = 0; tried < kMaxWatched && g_Watched[i] != nullptr;
         i = (i + 1) & (kMaxWatched - 1), ++tried) {
        if (g_Watched[i] == memory) {
            bool const isLast = g_Watched[(i + 1) & (kMaxWatched - 1)] == nullptr;
            g_Watched[i] = isLast ? nullptr : &g_Tombstone;
            --g_WatchedCount;
            return;
        }
    }
}

}  // namespace

FailingHeap::FailingHeap(HeapFault const& fault) {
    Stack warm;
    capture(warm);  // the first capture loads a library
    g_Fault = fault;
    g_Requested = 0;
    g_HasFailed = false;
    t_IsArmed = true;
}

FailingHeap::~FailingHeap() {
    t_IsArmed = false;
}

long FailingHeap::requested() {
    return g_Requested;
}

bool FailingHeap::hasFailed() {
    return g_HasFailed;
}

std::string FailingHeap::failedStack() {
    return g_HasFailed ? textOf(g_Failed) : "";
}

HeapPause::HeapPause() : m_WasInside(t_IsInside) {
    t_IsInside = true;
}

HeapPause::~HeapPause() {
    t_IsInside = m_WasInside;
}

HeapWatch::HeapWatch() {
    Stack warm;
    capture(warm);
    std::memset(g_Watched, 0, sizeof g_Watched);
    g_WatchedNext = 0;
    g_WatchedCount = 0;
    g_HasStacks = std::getenv("KVX_FAULTS_STACKS") != nullptr;
    t_IsWatching = true;
}

HeapWatch::~HeapWatch() {
    t_IsWatching = false;
}

long HeapWatch::outstanding() {
    return g_WatchedCount;
}

std::string HeapWatch::newestStack() {
    if (!g_HasStacks) {
        return "";
    }
    std::size_t newest = kMaxWatched;
    for (std::size_t i = 0; i < kMaxWatched; ++i) {
        bool const isLiving = g_Watched[i] != nullptr && g_Watched[i] != &g_Tombstone;
        if (isLiving && (newest == kMaxWatched || g_WatchedOrder[i] > g_WatchedOrder[newest])) {
            newest = i;
        }
    }
    return newest == kMaxWatched ? "" : textOf(g_WatchedStack[newest]);
}

std::string HeapWatch::lastStackOf(void const* address) {
    for (std::size_t i = 0; i < std::min(g_MadeCount, kMaxMade); ++i) {
        Made const& made = g_Made[(g_MadeCount - 1 - i) % kMaxMade];
        if (address >= made.m_Memory && address < made.m_Memory + made.m_Bytes) {
            return textOf(made.m_Stack);
        }
    }
    return "";
}

ReleaseWatch::ReleaseWatch(IsWanted isWanted, void const* context) {
    Stack warm;
    capture(warm);
    g_WantedCount = 0;
    g_WantedContext = context;
    g_IsWanted = isWanted;
}

ReleaseWatch::~ReleaseWatch() {
    g_IsWanted = nullptr;
}

std::string ReleaseWatch::report() {
    return g_WantedCount == 0 ? "" : std::to_string(g_WantedCount) + " blocks, the first by\n" + textOf(g_FirstWanted);
}

WipedOnRelease::WipedOnRelease() : m_WasActive(t_IsWiping) {
    t_IsWiping = true;
}

WipedOnRelease::~WipedOnRelease() {
    t_IsWiping = m_WasActive;
}

}  // namespace kvxtest

using kvxtest::isPermitted;
using kvxtest::lookAt;
using kvxtest::unwatch;
using kvxtest::watched;
using kvxtest::wipeIfOwn;

extern "C" {

void* malloc(std::size_t bytes) {
    return isPermitted() ? watched(__libc_malloc(bytes)) : nullptr;
}

void* calloc(std::size_t count, std::size_t bytes) {
    return isPermitted() ? watched(__libc_calloc(count, bytes)) : nullptr;
}

void* realloc(void* memory, std::size_t bytes) {
    if (!isPermitted()) {
        return nullptr;
    }
    if (bytes == 0 && memory != nullptr) {
        std::free(memory);
        return nullptr;
    }
    unwatch(memory);
    lookAt(memory);
    void* const moved = __libc_realloc(memory, bytes);
    return watched(moved == nullptr ? memory : moved) == nullptr ? nullptr : moved;
}

void* memalign(std::size_t alignment, std::size_t bytes) {
    return isPermitted() ? watched(__libc_memalign(alignment, bytes)) : nullptr;
}

void* aligned_alloc(std::size_t alignment, std::size_t bytes) {
    return memalign(alignment, bytes);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t bytes) {
    void* const made = memalign(alignment, bytes);
    if (made == nullptr) {
        return ENOMEM;
    }
    *memory = made;
    return 0;
}

void free(void* memory) {
    unwatch(memory);
    wipeIfOwn(memory);
    lookAt(memory);
    int const failure = errno;
    __libc_free(memory);
    errno = failure;
}

}  // extern "C"
