/// The parts of elements, for the parser and the containers of this layer. Internal: not installed.
#ifndef TALLOWIN_XML_XMLACCESS_H
#define TALLOWIN_XML_XMLACCESS_H

#include "xml/xmlattributes.h"
#include "xml/xmlelement.h"
#include "xml/xmltext.h"

class xmlAccess {
public:
    [[nodiscard]] static xmlSlice tagOf(xmlElement const& element) noexcept { return xmlText::sliceOf(element.m_Tag); }

    /// A new element, inserted as the last child of `parent`. Borrowed.
    static xmlElement* insertNew(xmlElement& parent, xmlPart tag);

    static void setText(xmlElement& element, xmlPart text);

    /// As setAttribute; `isEncoded` when `value` is to be stored as it stands.
    static void setAttribute(xmlElement& element, xmlPart name, xmlPart value, bool isEncoded);
};

#endif
