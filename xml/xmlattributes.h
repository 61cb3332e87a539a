/// The attributes of one element. Internal: not installed.
#ifndef TALLOWIN_XML_XMLATTRIBUTES_H
#define TALLOWIN_XML_XMLATTRIBUTES_H

#include "xml/xmlmemory.h"
#include "xml/xmlslice.h"

/// One attribute, in one block and in the form in which it is written: a space, the name, the value in double quotes.
/// Never changed.
struct xmlAttribute {
    std::uint32_t m_NameLength;
    std::uint32_t m_ValueLength;
    bool m_IsNameSecret;
    bool m_IsValueSecret;

    [[nodiscard]] char const* bytes() const noexcept { return reinterpret_cast<char const*>(this + 1); }
    [[nodiscard]] xmlSlice name() const noexcept { return {bytes() + 1, m_NameLength}; }
    [[nodiscard]] xmlSlice value() const noexcept { return {bytes() + m_NameLength + 3, m_ValueLength}; }

    /// All of it, as it is written.
    [[nodiscard]] xmlSlice text() const noexcept { return {bytes(), m_NameLength + m_ValueLength + 4}; }

    /// A new attribute; `value` is encoded, or taken to be encoded already. Raises KVX_E_OUT_OF_MEMORY
    /// (TBFC_Exception).
    [[nodiscard]] static xmlAttribute* create(xmlPart name, xmlPart value, bool isEncoded);
    static void release(xmlAttribute* attribute) noexcept;
};

/// Attributes with different names in the order in which the names were first set. Names are equal as strings are.
///
/// Few attributes are searched one after the other; from the ninth on there is a tree.
class xmlAttributes {
public:
    xmlAttributes() = default;
    xmlAttributes(xmlAttributes const&) = delete;
    xmlAttributes& operator=(xmlAttributes const&) = delete;
    ~xmlAttributes();

    [[nodiscard]] std::uint32_t count() const noexcept { return m_Items.count(); }
    [[nodiscard]] xmlAttribute const& at(std::uint32_t index) const noexcept { return *m_Items[index]; }

    /// Null when there is none. Borrowed until the next change.
    [[nodiscard]] xmlAttribute const* find(xmlSlice name) const noexcept;

    /// Takes `attribute` over, at the place of the one with its name or at the end. On failure nothing has changed, and
    /// it is released.
    void put(xmlAttribute* attribute);

    static void* operator new(std::size_t bytes) { return xmlAllocate(bytes); }
    static void operator delete(void* memory) noexcept { tbRelease(memory); }

private:
    struct Index;

    static constexpr std::uint32_t kNone = UINT32_MAX;

    [[nodiscard]] std::uint32_t positionOf(xmlSlice name) const noexcept;
    void append(xmlAttribute* attribute);

    xmlPointers<xmlAttribute> m_Items;  ///< The targets are owned.
    Index* m_Index = nullptr;           ///< Owned; positions by name. Null while there are few.
};

#endif
