/// The heap of a whole test program, with allocations that fail on request.
///
/// The program that links this replaces malloc and its relatives, so that every allocation of the process goes through
/// here: those of the library, of OpenSSL, libuuid and the C and C++ run-time libraries. Nothing fails and nothing is
/// counted unless the calling thread asks for it. For processes with one thread, such as the children in
/// tests/faults/isolation.h.
#ifndef TALLOWIN_TESTS_FAULTS_FAILINGHEAP_H
#define TALLOWIN_TESTS_FAULTS_FAILINGHEAP_H

#include <cstddef>
#include <string>

namespace kvxtest {

/// Which allocations fail: number `m_Number` (from 0), alone or with all that follow.
struct HeapFault {
    enum class Mode { kOnce, kFromThere };
    long m_Number = -1;  ///< Negative: none.
    Mode m_Mode = Mode::kOnce;
};

/// Counts this thread's allocations and fails some of them while it lives. One at a time.
class FailingHeap {
public:
    explicit FailingHeap(HeapFault const& fault);
    FailingHeap(FailingHeap const&) = delete;
    FailingHeap& operator=(FailingHeap const&) = delete;
    ~FailingHeap();

    /// Allocations requested since construction of the newest one.
    static long requested();

    /// Whether an allocation has failed.
    static bool hasFailed();

    /// The calls that led to the first failed allocation, a line each; for reports.
    static std::string failedStack();
};

/// Suspends counting and failing while it lives: for the code of a test inside a call of the library.
class HeapPause {
public:
    HeapPause();
    HeapPause(HeapPause const&) = delete;
    HeapPause& operator=(HeapPause const&) = delete;
    ~HeapPause();

private:
    bool m_WasInside;
};

/// Wipes what this thread allocates while it lives, when it is released: for copies of secrets that the test makes.
class WipedOnRelease {
public:
    WipedOnRelease();
    WipedOnRelease(WipedOnRelease const&) = delete;
    WipedOnRelease& operator=(WipedOnRelease const&) = delete;
    ~WipedOnRelease();

private:
    bool m_WasActive;
};

/// Follows this thread's allocations from construction on, to find those that are never released.
class HeapWatch {
public:
    HeapWatch();
    HeapWatch(HeapWatch const&) = delete;
    HeapWatch& operator=(HeapWatch const&) = delete;
    ~HeapWatch();

    /// Allocations made since construction and not released.
    static long outstanding();

    /// The calls that led to the newest of them, a line each; empty unless KVX_FAULTS_STACKS is set.
    static std::string newestStack();

    /// The calls that led to the newest allocation over `address`, released or not, in the same way.
    static std::string lastStackOf(void const* address);
};

/// Looks at every block that is released while it lives, before it is. One at a time.
class ReleaseWatch {
public:
    /// Whether a block of `bytes` bytes is one to be reported. Must not allocate.
    using IsWanted = bool (*)(void const* context, void const* memory, std::size_t bytes);

    /// `context` is handed to `isWanted` and outlives this object.
    ReleaseWatch(IsWanted isWanted, void const* context);
    ReleaseWatch(ReleaseWatch const&) = delete;
    ReleaseWatch& operator=(ReleaseWatch const&) = delete;
    ~ReleaseWatch();

    /// Blocks that `isWanted` was true for, and the calls that released the first of them, a line each; empty for none.
    static std::string report();
};

}  // namespace kvxtest

#endif
