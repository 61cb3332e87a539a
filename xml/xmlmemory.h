/// Memory of the parts of elements. Internal: not installed.
#ifndef TALLOWIN_XML_XMLMEMORY_H
#define TALLOWIN_XML_XMLMEMORY_H

#include <cstddef>
#include <cstring>

#include "foundation/tbexception.h"
#include "foundation/tbmemory.h"

/// `bytes` bytes. Raises KVX_E_OUT_OF_MEMORY (TBFC_Exception).
[[nodiscard]] inline void* xmlAllocate(std::size_t bytes) {
    void* const memory = tbAllocate(bytes);
    if (memory == nullptr) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    return memory;
}

/// Releases the `bytes` bytes at `memory`, wiped before if they are secret. Embedded memory is released by others.
inline void xmlRelease(void* memory, std::size_t bytes, bool isSecret, bool isEmbedded) noexcept {
    if (isSecret) {
        ::explicit_bzero(memory, bytes);
    }
    if (!isEmbedded) {
        tbRelease(memory);
    }
}

/// The memory of standard containers.
template <class T>
struct xmlAllocator {
    using value_type = T;

    xmlAllocator() = default;
    template <class U>
    xmlAllocator(xmlAllocator<U> const&) noexcept {}  // NOLINT(google-explicit-constructor): containers convert

    [[nodiscard]] T* allocate(std::size_t count) { return static_cast<T*>(xmlAllocate(count * sizeof(T))); }
    void deallocate(T* memory, std::size_t) noexcept { tbRelease(memory); }

    template <class U>
    bool operator==(xmlAllocator<U> const&) const noexcept {
        return true;
    }
    template <class U>
    bool operator!=(xmlAllocator<U> const&) const noexcept {
        return false;
    }
};

/// Makes room for `places` pointers at `block`, a block of foundation/tbmemory.h or null; returns where it lies then.
/// Raises KVX_E_OUT_OF_MEMORY (TBFC_Exception).
[[nodiscard]] inline void* xmlResizePointers(void* block, std::uint64_t places) {
    void* const resized = places > UINT32_MAX ? nullptr : tbResizeBlock(block, places * sizeof(void*));
    if (resized == nullptr) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    return resized;
}

/// An array of pointers that grows. Owns the array, not the targets.
template <class T>
class xmlPointers {
public:
    xmlPointers() = default;
    xmlPointers(xmlPointers const&) = delete;
    xmlPointers& operator=(xmlPointers const&) = delete;
    ~xmlPointers() { tbReleaseBlock(m_Items); }

    [[nodiscard]] std::uint32_t count() const noexcept { return m_Count; }
    [[nodiscard]] T* operator[](std::uint32_t index) const noexcept { return m_Items[index]; }
    [[nodiscard]] T*& operator[](std::uint32_t index) noexcept { return m_Items[index]; }

    /// Makes room for one more, at first for `first` of them. Raises KVX_E_OUT_OF_MEMORY (TBFC_Exception).
    void makeRoom(std::uint32_t first = 1) {
        m_Items = static_cast<T**>(xmlResizePointers(m_Items, m_Items == nullptr ? first : std::uint64_t{m_Count} + 1));
    }

    /// Requires: room for one more.
    void push(T* item) noexcept { m_Items[m_Count++] = item; }

    void pop() noexcept { --m_Count; }

    /// Later ones move down; removing the first moves none.
    void remove(std::uint32_t index) noexcept {
        --m_Count;
        if (index == 0) {
            m_Items = static_cast<T**>(tbDropFront(m_Items, sizeof(T*)));
        } else {
            std::memmove(m_Items + index, m_Items + index + 1, std::size_t{m_Count - index} * sizeof(T*));
        }
    }

private:
    T** m_Items = nullptr;  ///< A block of foundation/tbmemory.h.
    std::uint32_t m_Count = 0;
};

#endif
