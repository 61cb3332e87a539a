// Repairs: undoing the damage that a message commonly suffers between two programs.
//
// Each row of the table is one repair with its description and the damage that it undoes: white space and line ends,
// "+" and spaces, percent-encoding done or undone twice, HTML escapes, character encodings. Repairs are tried one at a
// time, never combined; a repair that does not change the message is left out.

#include <cstddef>
#include <utility>

#include "diagnosis/diagnosis.h"
#include "sandbox/text/wiretext.h"

namespace diagnosis {

namespace {

using sandbox::percentDecode;
using sandbox::percentEncode;
using sandbox::replaceAll;

constexpr char kBlanks[] = " \t\r\n";

bool isHigh(char c) {
    return static_cast<unsigned char>(c) >= 0x80;
}

std::string withoutEnd(std::string const& text) {
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

std::string withoutEnds(std::string const& text) {
    std::size_t const from = text.find_first_not_of(kBlanks);
    return from == std::string::npos ? "" : withoutEnd(text.substr(from));
}

std::string withLineFeed(std::string const& text) {
    return text + "\n";
}

std::string withLineEnd(std::string const& text) {
    return text + "\r\n";
}

std::string plusToBlank(std::string const& text) {
    return replaceAll(text, "+", " ");
}

/// `text` with `change` applied to each byte between quotation marks.
template <class Change>
std::string changeValues(std::string const& text, Change change) {
    std::string out;
    bool inValue = false;
    for (char const c : text) {
        inValue = inValue != (c == '"');
        if (inValue && c != '"') {
            out += change(c);
        } else {
            out += c;
        }
    }
    return out;
}

std::string blankToPlus(std::string const& text) {
    return changeValues(text, [](char c) { return std::string(1, c == ' ' ? '+' : c); });
}

std::string decodeAgain(std::string const& text) {
    return percentDecode(text).value_or(text);
}

/// Whether a character is percent-encoded in URLs inside a message: all but printable ASCII, and the percent sign.
bool isEncodedInAddresses(char c) {
    return c <= ' ' || c > '~' || c == '%';
}

std::string encodeAgain(std::string const& text) {
    return changeValues(text, [](char c) {
        std::string const one(1, c);
        return isEncodedInAddresses(c) ? percentEncode(one) : one;
    });
}

std::string encodeAgainInUpperCase(std::string const& text) {
    return changeValues(text, [](char c) {
        std::string const one(1, c);
        if (!isEncodedInAddresses(c)) {
            return one;
        }
        std::string encoded = percentEncode(one);
        for (char& digit : encoded) {
            digit = digit >= 'a' ? static_cast<char>(digit - 'a' + 'A') : digit;
        }
        return encoded;
    });
}

std::string lineFeedsOnly(std::string const& text) {
    return replaceAll(text, "\r\n", "\n");
}

std::string fullLineEnds(std::string const& text) {
    return replaceAll(lineFeedsOnly(text), "\n", "\r\n");
}

std::string returnsToLineFeeds(std::string const& text) {
    return replaceAll(text, "\r", "\n");
}

struct Entity {
    char const* m_Name;
    char const* m_Character;
};

constexpr Entity kEntities[] = {
    {"&amp;", "&"}, {"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&apos;", "'"}, {"&#39;", "'"}, {"&#34;", "\""},
};

/// The entity at position `at`; null when there is none.
Entity const* entityAt(std::string const& text, std::size_t at) {
    for (Entity const& entity : kEntities) {
        if (text.compare(at, std::char_traits<char>::length(entity.m_Name), entity.m_Name) == 0) {
            return &entity;
        }
    }
    return nullptr;
}

std::string unescapeHtml(std::string const& text) {
    std::string out;
    std::size_t at = 0;
    while (at < text.size()) {
        Entity const* const entity = entityAt(text, at);
        out += entity != nullptr ? std::string(entity->m_Character) : text.substr(at, 1);
        at += entity != nullptr ? std::char_traits<char>::length(entity->m_Name) : 1;
    }
    return out;
}

std::string escapeAmpersands(std::string const& text) {
    std::string out;
    for (std::size_t at = 0; at < text.size(); ++at) {
        out += text[at] == '&' && entityAt(text, at) == nullptr ? "&amp;" : text.substr(at, 1);
    }
    return out;
}

std::string latin1ToUtf8(std::string const& text) {
    std::string out;
    for (char const c : text) {
        if (!isHigh(c)) {
            out += c;
            continue;
        }
        auto const byte = static_cast<unsigned char>(c);
        out += static_cast<char>(0xC0 | byte >> 6);
        out += static_cast<char>(0x80 | (byte & 0x3F));
    }
    return out;
}

/// Returns `text` unchanged when it is not UTF-8 or has characters outside Latin-1.
std::string utf8ToLatin1(std::string const& text) {
    std::string out;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (!isHigh(text[at])) {
            out += text[at];
            continue;
        }
        bool const hasTwo = text[at] == '\xC2' || text[at] == '\xC3';
        if (!hasTwo || at + 1 == text.size() || (static_cast<unsigned char>(text[at + 1]) & 0xC0) != 0x80) {
            return text;
        }
        out += static_cast<char>((text[at] & 0x03) << 6 | (text[at + 1] & 0x3F));
        ++at;
    }
    return out;
}

struct RepairRow {
    std::string (*m_Repair)(std::string const& text);
    char const* m_Description;
    char const* m_Damage;
};

// clang-format off
constexpr RepairRow kRepairs[] = {
    {withoutEnd,             "white space at the end removed",                                    "white space was added at its end"},
    {withoutEnds,            "white space at both ends removed",                                  "white space was added around it"},
    {withLineFeed,           "a line feed appended",                                              "the line feed at its end was lost"},
    {withLineEnd,            "CR LF appended",                                                    "CR LF at its end was lost"},
    {lineFeedsOnly,          "line ends changed to LF",                                           "its line ends became CR LF"},
    {fullLineEnds,           "line ends changed to CR LF",                                        "its line ends became LF"},
    {returnsToLineFeeds,     "CR changed to LF",                                                  "its line feeds became CR"},
    {plusToBlank,            "each + changed to a space",                                         "each space became +"},
    {blankToPlus,            "each space in values changed to +",                                 "each + became a space"},
    {decodeAgain,            "percent-decoded once more (it was encoded twice)",                  "it was percent-encoded twice, or not decoded"},
    {encodeAgain,            "values percent-encoded again in lower case (it was decoded twice)", "it was percent-decoded twice"},
    {encodeAgainInUpperCase, "values percent-encoded again in upper case (it was decoded twice)", "it was percent-decoded twice"},
    {unescapeHtml,           "HTML escapes decoded",                                              "it was escaped for HTML"},
    {escapeAmpersands,       "unescaped & changed to &amp;",                                      "its &amp; became &"},
    {latin1ToUtf8,           "converted from Latin-1 to UTF-8",                                   "it was converted from UTF-8 to Latin-1"},
    {utf8ToLatin1,           "converted from UTF-8 to Latin-1",                                   "it was converted from Latin-1 to UTF-8"},
};
// clang-format on

}  // namespace

std::vector<Repair> repairs(std::string const& data) {
    std::vector<Repair> found;
    for (RepairRow const& row : kRepairs) {
        std::string text = row.m_Repair(data);
        if (text != data) {
            found.push_back({std::move(text), row.m_Description, row.m_Damage});
        }
    }
    return found;
}

}  // namespace diagnosis
