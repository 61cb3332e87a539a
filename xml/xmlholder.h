/// Between holders of elements and the outputs of functions that hand elements out. Internal: not installed.
#ifndef TALLOWIN_XML_XMLHOLDER_H
#define TALLOWIN_XML_XMLHOLDER_H

#include <memory>

#include "xml/xmlelement.h"

/// Drops one reference.
struct xmlReferenceDropper {
    void operator()(xmlElement* element) const { element->release(); }
};

/// One reference to an element. As xmlElementPtr, for the library's own use: no object that is counted as living.
using xmlHolder = std::unique_ptr<xmlElement, xmlReferenceDropper>;

/// One more reference to `element`, which is not null.
[[nodiscard]] inline xmlHolder xmlHold(xmlElement* element) noexcept {
    element->addRef();
    return xmlHolder(element);
}

/// A holder that takes over the one reference to `element` that the caller has. Null gives an empty holder.
[[nodiscard]] inline xmlElementPtr xmlAdopt(xmlElement* element) {
    xmlElementPtr holder;
    holder.adopt(element);
    return holder;
}

/// Stores the element of `holder` in `*out`, with one reference for the caller. Requires: `holder` is not empty.
inline void xmlHandOut(xmlHolder holder, xmlElement** out) noexcept {
    *out = holder.release();
}

#endif
