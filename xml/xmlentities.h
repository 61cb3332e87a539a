/// Encoding and decoding of parts of texts. Internal: not installed.
#ifndef TALLOWIN_XML_XMLENTITIES_H
#define TALLOWIN_XML_XMLENTITIES_H

#include <cstdint>

#include "xml/xmlslice.h"

/// How many bytes stand before the first of " & ' < >; all when there is none.
std::uint32_t xmlPlainLength(xmlSlice text) noexcept;

/// Whether decoding and then encoding `text` gives `text` again, so that it may be kept as it stands.
bool xmlIsEncoded(xmlSlice text) noexcept;

/// Bytes of the encoded `text`.
std::uint64_t xmlEncodedLength(xmlSlice text) noexcept;

/// Writes the encoded `text` to `target` and returns the end. Requires: room for `xmlEncodedLength` bytes.
char* xmlEncodeTo(xmlSlice text, char* target) noexcept;

/// Appends the decoded `part` to `out`, which becomes secret when `part` is.
void xmlDecodeInto(xmlPart part, TbString& out);

#endif
