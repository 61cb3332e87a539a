/// Tags and texts of elements, without the slack and the object of a string. Internal: not installed.
#ifndef TALLOWIN_XML_XMLTEXT_H
#define TALLOWIN_XML_XMLTEXT_H

#include "xml/xmlslice.h"

/// A text in one block of memory that never changes. Null stands for an empty string without a buffer.
///
/// A secret one is wiped before it is released.
struct xmlText {
    std::uint32_t m_Length;
    bool m_IsSecret;
    bool m_HasBuffer;   ///< False for an empty string without a buffer that is secret all the same.
    bool m_IsEmbedded;  ///< Lies in the block of an element and is released with that.

    [[nodiscard]] char const* bytes() const noexcept { return reinterpret_cast<char const*>(this + 1); }

    /// A new text. Raises KVX_E_OUT_OF_MEMORY (TBFC_Exception).
    [[nodiscard]] static xmlText* create(xmlSlice text, bool isSecret);

    /// A new text in the block of an element, in the `sizeFor(text)` bytes at `place`.
    static xmlText* createAt(void* place, xmlSlice text, bool isSecret) noexcept {
        auto* const created = static_cast<xmlText*>(place);
        *created = {text.m_Length, isSecret, true, true};
        std::memcpy(created + 1, text.m_Bytes, text.m_Length);
        return created;
    }

    [[nodiscard]] static std::size_t sizeFor(xmlSlice text) noexcept { return sizeof(xmlText) + text.m_Length; }

    /// A copy of `text`, secret when that is or when `isSecret`.
    [[nodiscard]] static xmlText* copyOf(TbString const& text, bool isSecret);

    /// An embedded one is only wiped, when it is secret. Null is ignored.
    static void release(xmlText* text) noexcept;

    /// The bytes of `text`, none for null.
    [[nodiscard]] static xmlSlice sliceOf(xmlText const* text) noexcept {
        return text == nullptr ? xmlSlice() : xmlSlice{text->bytes(), text->m_Length};
    }

    /// `out` becomes a string equal to `text`, with or without a buffer as that was.
    static void assignTo(xmlText const* text, TbString& out);
};

#endif
