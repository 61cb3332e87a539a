/// Parsing under limits. Internal: not installed.
#ifndef TALLOWIN_XML_XMLLIMITS_H
#define TALLOWIN_XML_XMLLIMITS_H

#include <cstdint>

#include "xml/xmlparser.h"

/// How large a document may be; 0 is no limit.
struct xmlLimits {
    std::uint32_t m_Bytes = 0;   ///< Of its text.
    std::uint32_t m_Levels = 0;  ///< Of elements inside each other; a top-level element is on level 1.
};

/// As xmlParser::parseText, and 4 for a document beyond `limits`: too long a text is not looked at, and parsing ends at
/// the first element that is too deep.
[[nodiscard]] int xmlParseWithin(xmlLimits const& limits, TbStringStream& in, xmlElement** out);

/// The same with an element of the caller's, borrowed: the top-level elements become its children, on failure those
/// that were read.
[[nodiscard]] int xmlParseWithin(xmlLimits const& limits, TbStringStream& in, xmlElement& top);

#endif
