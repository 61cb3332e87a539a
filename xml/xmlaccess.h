/// The parts of elements, for the parser and the containers of this layer. Internal: not installed.
#ifndef TALLOWIN_XML_XMLACCESS_H
#define TALLOWIN_XML_XMLACCESS_H

#include "xml/xmlattributes.h"
#include "xml/xmlchildren.h"
#include "xml/xmldraft.h"
#include "xml/xmlelement.h"
#include "xml/xmltext.h"

class xmlAccess {
public:
    [[nodiscard]] static xmlSlice tagOf(xmlElement const& element) noexcept { return xmlText::sliceOf(element.m_Tag); }

    /// The element that `draft` describes, in one block of memory, with the list of its children when it `hasChildren`.
    /// Belongs to the caller. Raises KVX_E_OUT_OF_MEMORY (TBFC_Exception).
    [[nodiscard]] static xmlElement* create(xmlDraft const& draft, bool hasChildren);

    /// An element without attributes in one block of memory with places for `attributes` of them and `bytes` bytes that
    /// they may lie in, a multiple of `alignof(xmlAttribute)`. Belongs to the caller. Raises KVX_E_OUT_OF_MEMORY
    /// (TBFC_Exception).
    [[nodiscard]] static xmlElement* create(xmlSlice tag, std::uint32_t attributes, std::uint16_t bytes);

    /// As create() of a draft, inserted as the last child of `parent`. Borrowed.
    static xmlElement* insertNew(xmlElement& parent, xmlDraft const& draft, bool hasChildren);

    /// The children of `element`; the list is made when there is none yet.
    [[nodiscard]] static xmlChildren& childrenOf(xmlElement& element);

    /// Makes `children`, an embedded list, the one of `element`, which has none yet.
    static void setChildren(xmlElement& element, xmlChildren* children) noexcept { element.m_Children = children; }

    /// The place of `element` in the list of its first parent; null when that is not in its block. Borrowed.
    [[nodiscard]] static xmlChild* embeddedChildOf(xmlElement& element) noexcept {
        bool const isBlock = element.m_Tag != nullptr && element.m_Tag->m_IsEmbedded;
        return isBlock ? reinterpret_cast<xmlChild*>(&element + 1) : nullptr;
    }

    /// Requires: `text` is secret if the text before is.
    static void setText(xmlElement& element, xmlPart text);

    /// As setAttribute; `isEncoded` when `value` is to be stored as it stands.
    static void setAttribute(xmlElement& element, xmlPart name, xmlPart value, bool isEncoded);
};

#endif
