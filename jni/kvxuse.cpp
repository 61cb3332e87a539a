#include "jni/kvxuse.h"

#include <pthread.h>

#include <mutex>

namespace {

// Constant-initialised and never destroyed: a virtual machine may end while its threads are in here.
std::mutex g_Mutex;  ///< Held for a few instructions.
pthread_cond_t g_UseEnded = PTHREAD_COND_INITIALIZER;
KvxUse* g_FirstUse = nullptr;

/// An address of 2 GiB and more is a negative number in Java.
KVX_HANDLE addressOf(std::int32_t handle) noexcept {
    return reinterpret_cast<KVX_HANDLE>(std::uintptr_t{static_cast<std::uint32_t>(handle)});
}

}  // namespace

KvxUse::KvxUse(KvxKind kind, std::int32_t handle) noexcept : m_Object(addressOf(handle)) {
    std::lock_guard<std::mutex> const lock(g_Mutex);
    join();
    while (kvxIsLivingInSlot(kind, m_Object)) {
        if (!isInUse(m_Object, false)) {
            m_HasTurn = true;
            return;
        }
        ::pthread_cond_wait(&g_UseEnded, g_Mutex.native_handle());
    }
    leave();
    m_Object = nullptr;
}

KvxUse::~KvxUse() {
    if (m_Object == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> const lock(g_Mutex);
    leave();
    ::pthread_cond_broadcast(&g_UseEnded);
}

void KvxUse::join() noexcept {
    m_Next = g_FirstUse;
    if (m_Next != nullptr) {
        m_Next->m_Previous = this;
    }
    g_FirstUse = this;
}

void KvxUse::leave() noexcept {
    (m_Previous == nullptr ? g_FirstUse : m_Previous->m_Next) = m_Next;
    if (m_Next != nullptr) {
        m_Next->m_Previous = m_Previous;
    }
}

bool KvxUse::isInUse(KVX_HANDLE object, bool orWaits) noexcept {
    for (KvxUse const* use = g_FirstUse; use != nullptr; use = use->m_Next) {
        if (use->m_Object == object && (use->m_HasTurn || orWaits)) {
            return true;
        }
    }
    return false;
}

bool kvxDestroyUnlessInUse(KvxKind kind, std::int32_t handle, void (*destroy)(KVX_HANDLE)) noexcept {
    KVX_HANDLE const object = addressOf(handle);
    {
        std::lock_guard<std::mutex> const lock(g_Mutex);
        if (kvxIsLivingInSlot(kind, object) && KvxUse::isInUse(object, true)) {
            return false;
        }
        if (!kvxClaimForDestruction(kind, object)) {
            return true;
        }
    }
    destroy(object);  // outside, because a large message takes its time
    return true;
}
