#include "jni/kvxhandlelock.h"

#include <pthread.h>

#include <mutex>

namespace {

// Constant-initialised and never destroyed: the process may exit while threads of the virtual machine are in here.
std::mutex g_Mutex;  ///< Guards the list. Held for a few instructions only.
pthread_cond_t g_LockReleased = PTHREAD_COND_INITIALIZER;
KvxHandleLock* g_FirstLock = nullptr;

/// An address of 2 GiB or more is a negative number in Java.
KVX_HANDLE addressOf(std::int32_t handle) noexcept {
    return reinterpret_cast<KVX_HANDLE>(std::uintptr_t{static_cast<std::uint32_t>(handle)});
}

}  // namespace

KvxHandleLock::KvxHandleLock(KvxKind kind, std::int32_t handle) noexcept : m_Object(addressOf(handle)) {
    std::lock_guard<std::mutex> const guard(g_Mutex);
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
    std::lock_guard<std::mutex> const guard(g_Mutex);
    removeFromList();
    ::pthread_cond_broadcast(&g_LockReleased);
}

void KvxHandleLock::addToList() noexcept {
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
        std::lock_guard<std::mutex> const guard(g_Mutex);
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
