// HTML of the shop: the page's frame, and escaping.
//
// Order: the frame's constants, reading of UTF-8, escaping, building blocks. Escaping checks UTF-8 itself, because
// visitors send any bytes and error pages quote them: overlong forms, surrogates and numbers above U+10FFFF count as
// broken.
#include "markup.h"

#include <cstddef>
#include <cstdint>

namespace storefront {

namespace {

constexpr char kUnreadable[] = "&#xFFFD;";

// Contrast: text on white 15 to 1, white on the buttons' green 9 to 1.
constexpr char kHead[] =
    "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
    "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
    "<style>:root{color-scheme:light}"
    "body{font:1rem/1.5 sans-serif;max-width:45rem;margin:0 auto;padding:1rem;color:#222;background:#fff}"
    "nav a{display:inline-block;padding:.5rem 1rem .5rem 0}a{color:#0b4f8a}"
    "button,input{font:inherit;padding:.5rem;margin:.25rem 0}input{width:5rem;border:1px solid #555}"
    "button{color:#fff;background:#14532d;border:0;border-radius:.25rem;padding:.5rem 1rem;cursor:pointer}"
    ":focus-visible{outline:3px solid #0b4f8a;outline-offset:2px}"
    "article{border-top:1px solid #555;padding-bottom:1rem}"
    "table{border-collapse:collapse;width:100%}"
    "th,td{border:1px solid #555;padding:.25rem .5rem;text-align:left}"
    "h1,p,.calls td{overflow-wrap:anywhere}"
    "pre{white-space:pre-wrap;overflow-wrap:anywhere;border:1px solid #555;padding:.5rem}</style>\n";

constexpr char kNavigation[] =
    "<header><nav aria-label=\"Shop\"><a href=\"/\">Catalogue</a> <a href=\"/basket\">Basket</a></nav></header>\n";

/// The length of a UTF-8 sequence, and the smallest number that needs this length.
struct Form {
    std::size_t m_Length;
    std::uint32_t m_Smallest;
};

Form formOf(unsigned char lead) {
    if (lead < 0x80) {
        return {1, 0};
    }
    if ((lead & 0xE0) == 0xC0) {
        return {2, 0x80};
    }
    if ((lead & 0xF0) == 0xE0) {
        return {3, 0x800};
    }
    return (lead & 0xF8) == 0xF0 ? Form{4, 0x10000} : Form{0, 0};
}

/// The length of the UTF-8 sequence (RFC 3629) at `at`; 0 when there is none.
std::size_t sequenceAt(std::string const& text, std::size_t at) {
    unsigned char const lead = static_cast<unsigned char>(text[at]);
    Form const form = formOf(lead);
    if (form.m_Length < 2 || text.size() - at < form.m_Length) {
        return form.m_Length == 1 ? 1 : 0;
    }
    std::uint32_t value = lead & (0x7FU >> form.m_Length);
    for (std::size_t next = at + 1; next < at + form.m_Length; ++next) {
        unsigned char const byte = static_cast<unsigned char>(text[next]);
        if ((byte & 0xC0) != 0x80) {
            return 0;
        }
        value = value << 6 | (byte & 0x3FU);
    }
    bool const surrogate = value >= 0xD800 && value <= 0xDFFF;
    return value < form.m_Smallest || value > 0x10FFFF || surrogate ? 0 : form.m_Length;
}

bool isControl(char c) {
    return (c >= 0 && c < ' ' && c != '\n' && c != '\t') || c == 0x7F;
}

std::string escapedCharacter(char c) {
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
        default:
            return isControl(c) ? kUnreadable : std::string(1, c);
    }
}

}  // namespace

std::string escaped(std::string const& text) {
    std::string out;
    out.reserve(text.size());
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t const length = sequenceAt(text, at);
        if (length == 0) {
            out += kUnreadable;
        } else {
            out += length == 1 ? escapedCharacter(text[at]) : text.substr(at, length);
        }
        at += length == 0 ? 1 : length;
    }
    return out;
}

std::string paragraph(std::string const& text) {
    return "<p>" + escaped(text) + "</p>\n";
}

std::string verbatim(std::string const& heading, std::string const& text) {
    return "<h3>" + escaped(heading) + "</h3>\n<pre>" + escaped(text) + "</pre>\n";
}

std::string buttonTo(std::string const& action, std::string const& label) {
    return "<form method=\"post\" action=\"" + escaped(action) + "\"><button>" + escaped(label) + "</button></form>\n";
}

std::string wholePage(std::string const& title, std::string const& content) {
    std::string const shown = escaped(title);
    return kHead + ("<title>" + shown + " - Candle shop</title>\n</head>\n<body>\n") + kNavigation + "<main>\n<h1>" +
           shown + "</h1>\n" + content + "</main>\n</body>\n</html>\n";
}

}  // namespace storefront
