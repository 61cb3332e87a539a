/// Encoding and decoding of parts of texts. Internal: not installed.
#ifndef TALLOWIN_XML_XMLENTITIES_H
#define TALLOWIN_XML_XMLENTITIES_H

#include <cstdint>

#include "xml/xmlslice.h"

/// Whether `character` is one of " & ' < > and has an entity.
bool xmlHasEntity(char character) noexcept;

/// Bytes of the entity with which `text` begins, with ampersand and semicolon; 0 when it begins with none of the five.
std::uint32_t xmlEntityLength(xmlSlice text) noexcept;

/// Bytes of the encoded `text`.
std::uint64_t xmlEncodedLength(xmlSlice text) noexcept;

/// Writes the encoded `text` to `target` and returns the end. Requires: room for `xmlEncodedLength` bytes.
char* xmlEncodeTo(xmlSlice text, char* target) noexcept;

/// Appends the decoded `part` to `out`, which becomes secret when `part` is.
void xmlDecodeInto(xmlPart part, TbString& out);

#endif
