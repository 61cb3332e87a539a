#include "foundation/tbforkgate.h"

#include "foundation/tbfork.h"

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace {

/// Threads inside a gate read-lock it; a fork write-locks it. Waiting forks come first, or busy threads would keep them
/// out for ever.
constexpr pthread_rwlock_t kUnlocked = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
pthread_rwlock_t g_Lock = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;

void beforeFork() {
    ::pthread_rwlock_wrlock(&g_Lock);
}

void afterForkInParent() {
    ::pthread_rwlock_unlock(&g_Lock);
}

/// The lock counts threads that the child does not have, and its owner has another number there.
void afterForkInChild() {
#if defined(__SANITIZE_THREAD__)
    // The sanitizer sees no unlocking in the assignment below.
    __tsan_mutex_pre_unlock(&g_Lock, 0);
    __tsan_mutex_post_unlock(&g_Lock, 0);
#endif
    g_Lock = kUnlocked;
}

using ForkHandlers = TbForkHandlers<beforeFork, afterForkInParent, afterForkInChild>;

}  // namespace

void TbForkGate::open() noexcept {
    if (m_IsClosed) {
        m_IsClosed = false;
        ::pthread_rwlock_unlock(&g_Lock);
    }
}

void TbForkGate::close() noexcept {
    if (!m_IsClosed) {
        ForkHandlers::ensure();
        ::pthread_rwlock_rdlock(&g_Lock);
        m_IsClosed = true;
    }
}
