/// Between holders of elements and the outputs of functions that hand elements out. Internal: not installed.
#ifndef TALLOWIN_XML_XMLHOLDER_H
#define TALLOWIN_XML_XMLHOLDER_H

#include "xml/xmlelement.h"

/// A holder that takes over the one reference to `element` that the caller has. Null gives an empty holder.
[[nodiscard]] inline xmlElementPtr xmlAdopt(xmlElement* element) {
    xmlElementPtr holder;
    holder.adopt(element);
    return holder;
}

/// Stores the element of `holder` in `*out`, with one reference for the caller. Requires: `holder` is not empty.
inline void xmlHandOut(xmlElementPtr const& holder, xmlElement** out) noexcept {
    holder->addRef();
    *out = holder.get();
}

#endif
