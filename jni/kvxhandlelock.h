/// Locks on the objects that Java calls work on.
#ifndef TALLOWIN_JNI_KVXHANDLELOCK_H
#define TALLOWIN_JNI_KVXHANDLELOCK_H

#include <cstdint>

#include "api/kvxhandle.h"
#include "tallowin/tallowin.h"

/// A lock on the object behind a Java handle, held for the duration of one call.
///
/// A mistake in Java code must not crash the virtual machine. So calls from several threads on one object run one after
/// the other, and an object cannot be destroyed while a call runs on it or waits for its lock. Do not call into Java
/// while a lock exists. In a child of fork() nothing is locked, because the threads that held the locks do not exist.
class KvxHandleLock {
public:
    /// Waits until no other thread holds a lock on the object. `handle` may be any number.
    KvxHandleLock(KvxKind kind, std::int32_t handle) noexcept;
    KvxHandleLock(KvxHandleLock const&) = delete;
    KvxHandleLock& operator=(KvxHandleLock const&) = delete;
    ~KvxHandleLock();

    /// The locked object. Null when the handle is not a living object of the kind; nothing is locked then.
    [[nodiscard]] KVX_HANDLE object() const noexcept { return m_Object; }

private:
    friend bool kvxDestroyUnlessLocked(KvxKind kind, std::int32_t handle, void (*destroy)(KVX_HANDLE)) noexcept;

    /// Whether a lock on the object is held or, with `orWaitedFor`, waited for.
    [[nodiscard]] static bool isLocked(KVX_HANDLE object, bool orWaitedFor) noexcept;

    void addToList() noexcept;
    void removeFromList() noexcept;

    KVX_HANDLE m_Object;
    std::uint32_t m_Forks = 0;        ///< Forks before this was added; a child drops the list of its parent.
    bool m_IsHeld = false;            ///< False while the constructor waits.
    KvxHandleLock* m_Next = nullptr;  ///< All locks form a list, so that locking allocates no memory.
    KvxHandleLock* m_Previous = nullptr;
};

/// Claims a living object of `kind` that is neither locked nor waited for, and calls `destroy` with it. Ignores any
/// other number. Returns false, leaving the object alone, when it is locked or waited for.
[[nodiscard]] bool kvxDestroyUnlessLocked(KvxKind kind, std::int32_t handle, void (*destroy)(KVX_HANDLE)) noexcept;

#endif
