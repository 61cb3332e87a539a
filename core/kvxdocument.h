/// Documents as the component reads and makes them: a "KVX" element with attributes. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXDOCUMENT_H
#define TALLOWIN_CORE_KVXDOCUMENT_H

#include <cstddef>

#include "foundation/tblocalstring.h"
#include "xml/xmlholder.h"
#include "xml/xmllimits.h"

/// Parses `in` and returns its first top-level "KVX" element.
/// KVX_E_INVALID_FORMAT (KVX_Exception): no document, none with that element, or one beyond `limits`. The text of the
/// exception names `file`, the file of the directory that holds the document; empty for one from outside.
[[nodiscard]] xmlHolder kvxParseDocument(TbStringStream& in, xmlLimits const& limits = {},
                                         TbString const& file = TbUncountedString());

/// The same from a string.
[[nodiscard]] xmlHolder kvxParseDocument(TbString const& text, xmlLimits const& limits = {},
                                         TbString const& file = TbUncountedString());

/// Whether the attribute value `value` is `word`, as TbString compares two strings, without making a second one.
template <std::size_t kSize>
[[nodiscard]] bool kvxIsWord(TbString const& value, char const (&word)[kSize]) {
    return value.length() == kSize - 1 && value == word;
}

/// A new "KVX" element without attributes.
[[nodiscard]] xmlHolder kvxNewDocument();

#endif
