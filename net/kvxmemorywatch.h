/// Finding out that a TLS call failed for lack of memory. Internal: not installed.
#ifndef TALLOWIN_NET_KVXMEMORYWATCH_H
#define TALLOWIN_NET_KVXMEMORYWATCH_H

#include <cerrno>

/// Watches the calls of OpenSSL that a thread makes while one exists.
///
/// OpenSSL puts some failed allocations into the thread's error queue; others become an internal error, a key that
/// cannot be read or a signature that is bad, and only the allocator's `errno` shows them. Empties the queue and
/// `errno` first; a value of `errno` from before comes back at the end, unless a call has stored another one.
class KvxMemoryWatch {
public:
    KvxMemoryWatch() noexcept;
    KvxMemoryWatch(KvxMemoryWatch const&) = delete;
    KvxMemoryWatch& operator=(KvxMemoryWatch const&) = delete;
    ~KvxMemoryWatch();

    /// Looks at `errno`: for places that are followed by something that changes it.
    void sample() noexcept { m_HasFailure = m_HasFailure || errno == ENOMEM; }

    /// Whether an allocation has failed so far. Empties the error queue.
    [[nodiscard]] bool hasFailure() noexcept;

private:
    int m_Before;
    bool m_HasFailure = false;
};

/// Notes that OpenSSL has lacked memory. It initialises itself in steps, each of them once in a process: a step that
/// failed is never repeated.
void kvxNoteLackOfMemory() noexcept;

/// Whether that was noted in this process. From then on failures that missing steps can cause count as lack of memory.
[[nodiscard]] bool kvxHasLackedMemory() noexcept;

/// Whether the calling thread has an error queue, which OpenSSL makes for it at first use. Empties it.
[[nodiscard]] bool kvxHasErrorQueue() noexcept;

#endif
