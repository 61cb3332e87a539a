/// Which objects are inside a call from Java.
#ifndef TALLOWIN_JNI_KVXUSE_H
#define TALLOWIN_JNI_KVXUSE_H

#include <cstdint>

#include "api/kvxhandle.h"
#include "tallowin/tallowin.h"

/// The object behind a handle that Java holds, for the time of one call.
///
/// A mistake in Java code must not bring the virtual machine down, so calls on one object from several threads wait for
/// each other, and an object cannot be destroyed while a call is inside it or waits for its turn. Nothing of Java may
/// run while a use lives.
class KvxUse {
public:
    /// Waits until no other use of the object is left. `handle` may be any number.
    KvxUse(KvxKind kind, std::int32_t handle) noexcept;
    KvxUse(KvxUse const&) = delete;
    KvxUse& operator=(KvxUse const&) = delete;
    ~KvxUse();

    /// Null when the handle is no living object of the kind.
    [[nodiscard]] KVX_HANDLE object() const noexcept { return m_Object; }

private:
    friend bool kvxDestroyUnlessInUse(KvxKind kind, std::int32_t handle, void (*destroy)(KVX_HANDLE)) noexcept;

    /// Whether another use has the object, or, with `orWaits`, waits for it.
    [[nodiscard]] static bool isInUse(KVX_HANDLE object, bool orWaits) noexcept;

    void join() noexcept;
    void leave() noexcept;

    KVX_HANDLE m_Object;
    bool m_HasTurn = false;
    KvxUse* m_Next = nullptr;  ///< The uses form a list, which needs no memory of its own.
    KvxUse* m_Previous = nullptr;
};

/// Claims a living object of `kind` that is not in use and has `destroy` delete it; any other number is ignored. False
/// when it is in use.
[[nodiscard]] bool kvxDestroyUnlessInUse(KvxKind kind, std::int32_t handle, void (*destroy)(KVX_HANDLE)) noexcept;

#endif
