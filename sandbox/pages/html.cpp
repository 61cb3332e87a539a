// HTML escaping.
//
// `escapeHtml` walks the text by well-formed UTF-8 sequences. A byte that starts no sequence is shown as its Latin-1
// character, a control character as its picture, so that the output is always valid UTF-8 and a reader still sees which
// byte was sent.

#include "sandbox/pages/html.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace sandbox {

namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

/// The length of the well-formed sequence at the beginning of `text`, whose character becomes `point`; 0 when there is
/// none (Unicode, section 3.9).
std::size_t decodeUtf8(std::string_view text, char32_t& point) {
    constexpr char32_t kLowest[] = {0, 0, 0x80, 0x800,
                                    0x10000};  // by length: a shorter form would do for what is below
    auto const first = static_cast<unsigned char>(text[0]);
    std::size_t const length = first < 0x80 ? 1 : first < 0xC0 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    point = length == 1 ? first : first & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if (i == text.size() || (static_cast<unsigned char>(text[i]) & 0xC0U) != 0x80) {
            return 0;
        }
        point = point << 6U | (static_cast<unsigned char>(text[i]) & 0x3FU);
    }
    bool const isSurrogate = point >= 0xD800 && point <= 0xDFFF;
    return point >= kLowest[length] && point <= 0x10FFFF && !isSurrogate ? length : 0;
}

/// U+00A0 to U+00FF in UTF-8.
std::string latin1Character(unsigned char byte) {
    return {static_cast<char>(0xC0 | byte >> 6), static_cast<char>(0x80 | (byte & 0x3F))};
}

/// The control picture of `byte`: U+2400 and up, U+2421 for DEL.
std::string controlPicture(unsigned char byte) {
    unsigned char const offset = byte == 0x7F ? 0x21 : byte;
    return {'\xE2', '\x90', static_cast<char>(0x80 | offset)};
}

std::string escapedAscii(char c) {
    unsigned char const byte = static_cast<unsigned char>(c);
    switch (c) {
        case '&':
            return "&amp;";
        case '<':
            return "&lt;";
        case '>':
            return "&gt;";
        case '"':
            return "&quot;";
        case '\'':
            return "&#39;";
        case '\n':
        case '\t':
            return {c};
        default:
            return byte < 0x20 || byte == 0x7F ? controlPicture(byte) : std::string{c};
    }
}

/// Whether a character beyond ASCII must not be in a page.
bool isUnusable(char32_t point) {
    return (point >= 0x80 && point < 0xA0) || point == 0xFFFE || point == 0xFFFF;
}

}  // namespace

std::string escapeHtml(std::string const& text) {
    std::string out;
    out.reserve(text.size());
    std::size_t length = 0;
    for (std::size_t at = 0; at < text.size(); at += std::max<std::size_t>(length, 1)) {
        char32_t point = 0;
        length = decodeUtf8(std::string_view(text).substr(at), point);
        auto const byte = static_cast<unsigned char>(text[at]);
        if (length == 1) {
            out += escapedAscii(text[at]);
        } else if (length == 0 && byte >= 0xA0) {
            out += latin1Character(byte);
        } else {
            out += length == 0 || isUnusable(point) ? kReplacement : text.substr(at, length);
        }
    }
    return out;
}

}  // namespace sandbox
