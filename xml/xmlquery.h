/// Values in an element tree, addressed by one text key.
///
/// Its free functions are in the static archive only; libtallowin.so shows classes.
#ifndef TALLOWIN_XML_XMLQUERY_H
#define TALLOWIN_XML_XMLQUERY_H

#include <cstdint>

#include "tallowin/tbstring.h"
#include "tallowin/xmlelement.h"

/// Walks from `start` down the part of `path` that names child elements; the rest names an attribute.
///
/// 0: `*found` is the element reached, one reference for the caller, and `path` is the rest, possibly empty. Otherwise
/// both are untouched: 1 for a bad index, 3 for a missing closing parenthesis.
/// Deliberate (path-step-refused): a step is written "TAG(.INDEX)", and an index that begins with the full stop of its
/// own separator is never a number. So every key with "(." fails, and every other key, dots and all, names an attribute
/// of `start`: the walk ends where it starts, and no child is ever looked for.
std::int32_t xmlQuerySubElement(xmlElement* start, TbString& path, xmlElement** found);

/// `value` becomes the unescaped value that `key` names below `start`. False, and `value` untouched, when there is none
/// or the walk fails.
bool xmlGetAttributeEx(xmlElement* start, TbString const& key, TbString& value);

/// Sets the attribute that `key` names below `start`. False, and nothing changed, when the walk fails: no element is
/// ever created.
bool xmlSetAttributeEx(xmlElement* start, TbString const& key, TbString const& value);

/// Reads decimal digits into `value`, from 0 on. False at the first other character: `value` holds the number read so
/// far. An empty text is 0. Deliberate (index-wraps): no sign, and too large numbers wrap around without notice.
bool xmlAtoi(TbString const& text, int& value);

#endif
