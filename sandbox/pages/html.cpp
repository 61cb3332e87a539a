// HTML escaping.
//
// `escapeHtml` walks the text by well-formed UTF-8 sequences, found with the table of Unicode's legal byte ranges. A
// byte that starts no sequence is shown as its Latin-1 character, a control character as its picture, so that the
// output is always valid UTF-8 and a reader still sees which byte was sent.

#include "sandbox/pages/html.h"

#include <algorithm>
#include <cstddef>

namespace sandbox {

namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

/// One form of a well-formed UTF-8 sequence (Unicode, table 3-7). The range of the second byte depends on the first;
/// all further bytes are 0x80 to 0xBF.
struct SequenceForm {
    unsigned char m_FirstFrom, m_FirstTo;
    unsigned char m_SecondFrom, m_SecondTo;
    std::size_t m_Length;
};

// clang-format off
constexpr SequenceForm kForms[] = {
    {0x00, 0x7F, 0x00, 0x00, 1},
    {0xC2, 0xDF, 0x80, 0xBF, 2},  // from C2: C0 and C1 would be overlong
    {0xE0, 0xE0, 0xA0, 0xBF, 3},  // shorter forms end at 7FF
    {0xE1, 0xEC, 0x80, 0xBF, 3},
    {0xED, 0xED, 0x80, 0x9F, 3},  // no surrogates
    {0xEE, 0xEF, 0x80, 0xBF, 3},
    {0xF0, 0xF0, 0x90, 0xBF, 4},  // shorter forms end at FFFF
    {0xF1, 0xF3, 0x80, 0xBF, 4},
    {0xF4, 0xF4, 0x80, 0x8F, 4},  // Unicode ends at 10FFFF
};
// clang-format on

bool within(unsigned char byte, unsigned char from, unsigned char to) {
    return from <= byte && byte <= to;
}

/// The length of the well-formed sequence at the beginning of `bytes`; 0 when there is none.
std::size_t sequenceLength(unsigned char const* bytes, std::size_t available) {
    for (SequenceForm const& form : kForms) {
        if (!within(bytes[0], form.m_FirstFrom, form.m_FirstTo)) {
            continue;
        }
        bool formed =
            form.m_Length <= available && (form.m_Length == 1 || within(bytes[1], form.m_SecondFrom, form.m_SecondTo));
        for (std::size_t i = 2; formed && i < form.m_Length; ++i) {
            formed = within(bytes[i], 0x80, 0xBF);
        }
        return formed ? form.m_Length : 0;
    }
    return 0;
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

/// Whether a sequence of several bytes must not be in a page: the controls U+0080 to U+009F, U+FFFE and U+FFFF.
bool isUnusable(std::string const& sequence) {
    return (sequence[0] == '\xC2' && within(static_cast<unsigned char>(sequence[1]), 0x80, 0x9F)) ||
           sequence == "\xEF\xBF\xBE" || sequence == "\xEF\xBF\xBF";
}

std::string escapedSequence(std::string const& sequence) {
    if (sequence.size() == 1) {
        return escapedAscii(sequence[0]);
    }
    return isUnusable(sequence) ? kReplacement : sequence;
}

}  // namespace

std::string escapeHtml(std::string const& text) {
    std::string out;
    out.reserve(text.size());
    std::size_t at = 0;
    while (at < text.size()) {
        auto const* bytes = reinterpret_cast<unsigned char const*>(text.data()) + at;
        std::size_t const length = sequenceLength(bytes, text.size() - at);
        if (length > 0) {
            out += escapedSequence(text.substr(at, length));
        } else {
            out += *bytes < 0xA0 ? kReplacement : latin1Character(*bytes);
        }
        at += std::max<std::size_t>(length, 1);
    }
    return out;
}

}  // namespace sandbox
