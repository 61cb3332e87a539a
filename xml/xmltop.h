/// The element around a document, for readers that take the document out of it. Internal: not installed.
#ifndef TALLOWIN_XML_XMLTOP_H
#define TALLOWIN_XML_XMLTOP_H

#include "xml/xmlaccess.h"

/// Memory for a list of children that outlives the element whose list it is.
struct xmlTopMemory {
    alignas(xmlChildren) char m_Children[sizeof(xmlChildren)];
};

/// A nameless element without a parent that lies in a function, with the list of its children: no allocation, and not
/// counted as living. Its children, which have no parent once it dies, may be kept. Nobody refers to it.
class xmlTop final : private xmlTopMemory, public xmlElement {
public:
    xmlTop() noexcept : xmlElement(TbUncounted{}) {
        xmlAccess::setChildren(*this, new (xmlTopMemory::m_Children) xmlChildren(true));
    }
    xmlTop(xmlTop const&) = delete;
    xmlTop& operator=(xmlTop const&) = delete;
    using xmlElement::operator=;
};

#endif
