/// Public objects: their signature word, their memory, and the checks of their handles.
#ifndef TALLOWIN_API_KVXHANDLE_H
#define TALLOWIN_API_KVXHANDLE_H

#include <cstddef>
#include <cstdint>

#include "tallowin/export.h"

/// The kinds of public objects.
enum class KvxKind { kConfigurationSetup, kMessageFactory, kMessageObject };

/// The first member of every public object: 0xAFFEAFFE while it lives, 0 before and after.
class KVX_EXPORT KvxSignature {
public:
    /// Atomic, like every access to the word: another thread may be using a stale handle to this place.
    KvxSignature() noexcept { __atomic_store_n(&m_Word, 0U, __ATOMIC_RELAXED); }
    KvxSignature(KvxSignature const&) = delete;
    KvxSignature& operator=(KvxSignature const&) = delete;

    /// Marks the object of `kind` that begins here as living; the last thing its constructor does. An object outside
    /// the slots of its kind enters a registry, which needs memory when there are many of them: raises
    /// KVX_E_OUT_OF_MEMORY (TBFC_Exception), and the object is not living. Does nothing on a slot of another kind, so
    /// that no handle leads to that object. Parsed keys may live on between calls until the last object is dead.
    void set(KvxKind kind);

    /// Marks it as dead; the first thing its destructor does. A store that no optimiser removes.
    void clear(KvxKind kind) noexcept;

private:
    std::uint32_t m_Word;
};

/// Memory for one object of `kind`. Raises KVX_E_OUT_OF_MEMORY (TBFC_Exception).
///
/// Objects of a kind live in slots of their own, below 2 GiB, so that an address fits a Java int as a positive number.
/// The slots are never returned to the system and are reused late, so a stale handle is refused, not followed. Any
/// thread.
KVX_EXPORT void* kvxTakeSlot(KvxKind kind, std::size_t bytes);

/// Returns the slot to its pool. Null is ignored. Any thread.
KVX_EXPORT void kvxGiveSlot(KvxKind kind, void* slot) noexcept;

/// Whether `handle` is a living object of `kind`: in a slot of that kind with the signature word in place, or built by
/// a C++ caller elsewhere. Other memory is never read, so any number is accepted.
[[nodiscard]] bool kvxIsLiving(KvxKind kind, void const* handle) noexcept;

/// Whether `handle` is a living object of `kind` in a slot of that kind. Any number is accepted.
[[nodiscard]] bool kvxIsLivingInSlot(KvxKind kind, void const* handle) noexcept;

/// Whether the caller may destroy `handle`: a living object in a slot of `kind`. Clears the signature word, so that
/// only one of several callers gets true.
[[nodiscard]] bool kvxClaimForDestruction(KvxKind kind, void* handle) noexcept;

#endif
