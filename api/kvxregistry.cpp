// The hash table of objects outside the slots.
//
// An entry stands at its home, which its address gives, or behind it without an unused entry between. Removing an entry
// moves later ones forward, so that this stays true and no marks of removed entries pile up.

#include "api/kvxregistry.h"

#include <cstdint>
#include <cstring>

#include "foundation/tbexception.h"
#include "foundation/tbmemory.h"

void KvxRegistry::add(void const* object, KvxKind kind) {
    std::size_t index = find(object);
    if (m_Entries[index].m_Object == nullptr) {
        if (2 * (m_Used + 1) > m_Size) {
            grow();
            index = find(object);
        }
        ++m_Used;
    }
    m_Entries[index] = {object, kind};
}

void KvxRegistry::remove(void const* object) noexcept {
    std::size_t hole = find(object);
    if (m_Entries[hole].m_Object == nullptr) {
        return;
    }
    std::size_t const mask = m_Size - 1;
    for (std::size_t index = next(hole); m_Entries[index].m_Object != nullptr; index = next(index)) {
        std::size_t const fromHome = (index - homeOf(m_Entries[index].m_Object)) & mask;
        if (fromHome >= ((index - hole) & mask)) {
            m_Entries[hole] = m_Entries[index];
            hole = index;
        }
    }
    m_Entries[hole] = {};
    --m_Used;
}

bool KvxRegistry::contains(void const* object, KvxKind kind) const noexcept {
    Entry const& entry = m_Entries[find(object)];
    return object != nullptr && entry.m_Object == object && entry.m_Kind == kind;
}

std::size_t KvxRegistry::homeOf(void const* object) const noexcept {
    // The golden ratio's bits spread neighbouring addresses; the upper half of the product is mixed best.
    std::uint64_t const product = std::uint64_t{reinterpret_cast<std::uintptr_t>(object)} * 0x9E3779B97F4A7C15U;
    return static_cast<std::size_t>(product >> 32) & (m_Size - 1);
}

std::size_t KvxRegistry::find(void const* object) const noexcept {
    std::size_t index = homeOf(object);
    while (m_Entries[index].m_Object != nullptr && m_Entries[index].m_Object != object) {
        index = next(index);
    }
    return index;
}

void KvxRegistry::grow() {
    std::size_t const size = 2 * m_Size;
    auto* const entries = static_cast<Entry*>(tbAllocate(size * sizeof(Entry)));
    if (entries == nullptr) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    std::memset(entries, 0, size * sizeof(Entry));
    Entry* const old = m_Entries;
    std::size_t const oldSize = m_Size;
    m_Entries = entries;
    m_Size = size;
    for (std::size_t i = 0; i < oldSize; ++i) {
        if (old[i].m_Object != nullptr) {
            m_Entries[find(old[i].m_Object)] = old[i];
        }
    }
    if (old != m_First) {
        tbRelease(old);
    }
}
