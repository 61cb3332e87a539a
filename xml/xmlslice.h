/// A part of a text. Internal: not installed.
#ifndef TALLOWIN_XML_XMLSLICE_H
#define TALLOWIN_XML_XMLSLICE_H

#include <cstdint>
#include <cstring>

#include "tallowin/tbstring.h"

/// Bytes, borrowed, without a terminator.
struct xmlSlice {
    char const* m_Bytes = "";
    std::uint32_t m_Length = 0;
};

/// The part of `text` from `position` on.
inline xmlSlice xmlPartFrom(xmlSlice text, std::uint32_t position) noexcept {
    return {text.m_Bytes + position, text.m_Length - position};
}

/// Bytes to be stored, and whether they are secret.
struct xmlPart {
    xmlSlice m_Text;
    bool m_IsSecret = false;
};

inline xmlSlice xmlSliceOf(TbString const& text) noexcept {
    return {text.c_str(), text.length()};
}

inline xmlPart xmlPartOf(TbString const& text) noexcept {
    return {xmlSliceOf(text), text.isSecret()};
}

/// As TbString::compare: length first, and up to the first zero byte.
inline std::int32_t xmlCompare(xmlSlice left, xmlSlice right) noexcept {
    if (left.m_Length != right.m_Length) {
        return static_cast<std::int32_t>(left.m_Length - right.m_Length);
    }
    return std::memcmp(left.m_Bytes, right.m_Bytes, left.m_Length) == 0
               ? 0
               : TCSNCMP(left.m_Bytes, right.m_Bytes, left.m_Length);
}

#endif
