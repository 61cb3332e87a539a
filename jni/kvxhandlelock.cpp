#include "jni/kvxhandlelock.h"

#include <pthread.h>

#include <mutex>

#include "foundation/tbfork.h"

namespace {

// Constant-initialised and never destroyed: the process may exit while threads of the virtual machine are in here.
std::mutex g_Mutex;  ///< Guards all below. Held for a few instructions only.
pthread_cond_t g_LockReleased = PTHREAD_COND_INITIALIZER;
KvxHandleLock* g_FirstLock = nullptr;
std::uint32_t g_Forks = 0;  ///< Forks between the process that loaded the library and this one.

void beforeFork() {
    g_Mutex.lock();
}

void afterForkInParent() {
    g_Mutex.unlock();
}

/// The list's members lie on stacks of threads that the child does not have.
void afterForkInChild() {
    g_LockReleased = PTHREAD_COND_INITIALIZER;
    g_FirstLock = nullptr;
    ++g_Forks;
    g_Mutex.unlock();
}

/// Holds g_Mutex, which no thread holds during a fork.
class ListLock {
public:
    ListLock() noexcept {
        TbForkHandlers<beforeFork, afterForkInParent, afterForkInChild>::ensure();
        g_Mutex.lock();
    }
    ListLock(ListLock const&) = delete;
    ListLock& operator=(ListLock const&) = delete;
    ~ListLock() { g_Mutex.unlock(); }
};

/// An address of 2 GiB or more is a negative number in Java.
KVX_HANDLE addressOf(std::int32_t handle) noexcept {
    return reinterpret_cast<KVX_HANDLE>(std::uintptr_t{static_cast<std::uint32_t>(handle)});
}

}  // namespace

KvxHandleLock::KvxHandleLock(KvxKind kind, std::int32_t handle) noexcept : m_Object(addressOf(handle)) {
    ListLock const guard;
    addToList();
    while (kvxIsLivingInSlot(kind, m_Object)) {
        if (!isLocked(m_Object, false)) {
            m_IsHeld = true;
            return;
        }
        ::pthread_cond_wait(&g_LockReleased, g_Mutex.native_handle());
    }
    removeFromList();
    m_Object = nullptr;
}

KvxHandleLock::~KvxHandleLock() {
    if (m_Object == nullptr) {
        return;
    }
    ListLock const guard;
    if (m_Forks != g_Forks) {
        return;
    }
    removeFromList();
    ::pthread_cond_broadcast(&g_LockReleased);
}

void KvxHandleLock::addToList() noexcept {
    m_Forks = g_Forks;
    m_Next = g_FirstLock;
    if (m_Next != nullptr) {
        m_Next->m_Previous = this;
    }
    g_FirstLock = this;
}

void KvxHandleLock::removeFromList() noexcept {
    (m_Previous == nullptr ? g_FirstLock : m_Previous->m_Next) = m_Next;
    if (m_Next != nullptr) {
        m_Next->m_Previous = m_Previous;
    }
}

bool KvxHandleLock::isLocked(KVX_HANDLE object, bool orWaitedFor) noexcept {
    for (KvxHandleLock const* lock = g_FirstLock; lock != nullptr; lock = lock->m_Next) {
        if (lock->m_Object == object && (lock->m_IsHeld || orWaitedFor)) {
            return true;
        }
    }
    return false;
}

bool kvxDestroyUnlessLocked(KvxKind kind, std::int32_t handle, void (*destroy)(KVX_HANDLE)) noexcept {
    KVX_HANDLE const object = addressOf(handle);
    {
        ListLock const guard;
        if (kvxIsLivingInSlot(kind, object) && KvxHandleLock::isLocked(object, true)) {
            return false;
        }
        if (!kvxClaimForDestruction(kind, object)) {
            return true;
        }
    }
    destroy(object);  // without the mutex, because destroying a large message takes time
    return true;
}
