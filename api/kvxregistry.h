/// The registry of public objects outside the slots. Internal: not installed.
#ifndef TALLOWIN_API_KVXREGISTRY_H
#define TALLOWIN_API_KVXREGISTRY_H

#include <cstddef>

#include "api/kvxhandle.h"

/// Addresses and kinds of objects, in a hash table with open addressing.
///
/// Constant-initialised and never destroyed: objects may die in exit handlers. The table doubles when half of it is in
/// use and never shrinks. The first one is part of the registry, so that few objects need no memory. Not synchronised.
class KvxRegistry {
public:
    constexpr KvxRegistry() = default;
    KvxRegistry(KvxRegistry const&) = delete;
    KvxRegistry& operator=(KvxRegistry const&) = delete;

    /// Adds an object. One at the same address that was never removed is replaced. Raises KVX_E_OUT_OF_MEMORY
    /// (TBFC_Exception) and changes nothing when the table cannot grow.
    void add(void const* object, KvxKind kind);

    /// Removes the object at this address; ignores any other address.
    void remove(void const* object) noexcept;

    [[nodiscard]] bool contains(void const* object, KvxKind kind) const noexcept;

private:
    struct Entry {
        void const* m_Object;  ///< Null in an unused entry.
        KvxKind m_Kind;
    };

    static constexpr std::size_t kFirstSize = 64;

    [[nodiscard]] std::size_t homeOf(void const* object) const noexcept;
    [[nodiscard]] std::size_t next(std::size_t index) const noexcept { return (index + 1) & (m_Size - 1); }

    /// The entry of this address, or the unused one where it would stand.
    [[nodiscard]] std::size_t find(void const* object) const noexcept;

    void grow();

    Entry m_First[kFirstSize] = {};
    Entry* m_Entries = m_First;
    std::size_t m_Size = kFirstSize;  ///< A power of two.
    std::size_t m_Used = 0;           ///< At most half of m_Size, so that every search ends.
};

#endif
