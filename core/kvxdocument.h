/// Documents as the component reads and makes them: a "KVX" element with attributes. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXDOCUMENT_H
#define TALLOWIN_CORE_KVXDOCUMENT_H

#include "xml/xmlelement.h"
#include "xml/xmllimits.h"

/// Parses `in` and returns its first top-level "KVX" element.
/// KVX_E_INVALID_FORMAT (KVX_Exception): no document, none with that element, or one beyond `limits`.
[[nodiscard]] xmlElementPtr kvxParseDocument(TbStringStream& in, xmlLimits const& limits = {});

/// The same from a string.
[[nodiscard]] xmlElementPtr kvxParseDocument(TbString const& text, xmlLimits const& limits = {});

/// A new "KVX" element without attributes.
[[nodiscard]] xmlElementPtr kvxNewDocument();

#endif
