// What stands in messages and files comes from servers and shoppers, so nothing of it reaches a terminal unread: every
// sequence of UTF-8 is decoded, and what is not plain text becomes an escape.

#include "tools/tooltext.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

namespace tool {

namespace {

/// The length of the UTF-8 sequence at `at`, and its character; 0 when there is none.
std::size_t sequenceAt(std::string const& text, std::size_t at, std::uint32_t& character) {
    auto const first = static_cast<unsigned char>(text[at]);
    std::size_t const length = first < 0x80   ? 1
                               : first < 0xC2 ? 0
                               : first < 0xE0 ? 2
                               : first < 0xF0 ? 3
                               : first < 0xF5 ? 4
                                              : 0;
    if (length == 0 || text.size() - at < length) {
        return 0;
    }
    character = length == 1 ? first : first & (0x7FU >> length);
    for (std::size_t index = 1; index < length; ++index) {
        auto const next = static_cast<unsigned char>(text[at + index]);
        if ((next & 0xC0U) != 0x80) {
            return 0;
        }
        character = (character << 6U) | (next & 0x3FU);
    }
    bool const isOverlong = (length == 3 && character < 0x800) || (length == 4 && character < 0x10000);
    bool const isSurrogate = character >= 0xD800 && character <= 0xDFFF;
    return isOverlong || isSurrogate || character > 0x10FFFF ? 0 : length;
}

bool isPlain(std::uint32_t character) {
    bool const isControl = character < 0x20 || (character >= 0x7F && character <= 0x9F);
    bool const isSeparator = character == 0x2028 || character == 0x2029;
    bool const isDirection = character == 0x061C || (character >= 0x200B && character <= 0x200F) ||
                             (character >= 0x202A && character <= 0x202E) ||
                             (character >= 0x2066 && character <= 0x2069) || character == 0xFEFF;
    return !isControl && !isSeparator && !isDirection;
}

int digitValue(char character) {
    if (character >= '0' && character <= '9') {
        return character - '0';
    }
    char const lower = static_cast<char>(character | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

}  // namespace

std::string printable(std::string const& text) {
    std::string out;
    for (std::size_t at = 0; at < text.size();) {
        std::uint32_t character = 0;
        std::size_t const length = sequenceAt(text, at, character);
        if (length > 0 && isPlain(character)) {
            out.append(text, at, length);
            at += length;
            continue;
        }
        char escape[8];
        std::snprintf(escape, sizeof escape, "\\x%02X", static_cast<unsigned>(static_cast<unsigned char>(text[at])));
        out += escape;
        ++at;
    }
    return out;
}

std::string shortened(std::string const& text, std::size_t length) {
    if (text.size() <= length) {
        return text;
    }
    std::size_t const end = (length - 3) / 2;
    return text.substr(0, length - 3 - end) + "..." + text.substr(text.size() - end);
}

std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(width, text.size() + 1), ' ');
    return text;
}

bool percentDecoded(std::string const& text, std::string& decoded) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '%') {
            out += text[at] == '+' ? ' ' : text[at];
            continue;
        }
        int const high = at + 2 < text.size() ? digitValue(text[at + 1]) : -1;
        int const low = at + 2 < text.size() ? digitValue(text[at + 2]) : -1;
        if (high < 0 || low < 0) {
            return false;
        }
        out += static_cast<char>(high * 16 + low);
        at += 2;
    }
    decoded = out;
    return true;
}

std::string trimmed(std::string const& text) {
    constexpr char const* kBlanks = " \t\r\n";
    std::size_t const begin = text.find_first_not_of(kBlanks);
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

}  // namespace tool
