// Hexadecimal, percent-encoding, Base64 and query strings, in the order of the header.
// Odd on purpose: hexadecimal is read in lower case only, "+" is no blank, and Base64 is accepted in two forms, with
// "=" padding or filled up with zero bits. Base64 therefore loses zero bytes at the end; user names and passwords hold
// none.
#include "sandbox/text/wiretext.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdio>
#include <stdexcept>
#include <system_error>

#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

void appendHex(std::string& out, unsigned char byte) {
    out += kHexDigits[byte >> 4];
    out += kHexDigits[byte & 15];
}

/// Appends the byte that the two hexadecimal digits at `digits` stand for. False when they are none.
bool appendByte(std::string& out, char const* digits) {
    unsigned char byte = 0;
    bool const good = std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2;
    out += static_cast<char>(byte);
    return good;
}

}  // namespace

bool isLetterOrDigit(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

std::string lowerCase(std::string text) {
    for (char& c : text) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return text;
}

std::string joined(std::vector<std::string> const& texts, char const* separator) {
    std::string out;
    for (std::string const& text : texts) {
        out += (&text == &texts.front() ? "" : separator) + text;
    }
    return out;
}

std::string toHex(std::string const& bytes) {
    std::string out;
    out.reserve(bytes.size() * 2);
    for (char const c : bytes) {
        appendHex(out, static_cast<unsigned char>(c));
    }
    return out;
}

std::optional<std::string> fromHex(std::string const& text) {
    if (text.size() % 2 != 0 || text.find_first_not_of(kHexDigits) != std::string::npos) {
        return std::nullopt;
    }
    std::string out;
    out.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        appendByte(out, text.data() + i);
    }
    return out;
}

std::string percentEncode(std::string const& bytes) {
    std::string out;
    out.reserve(bytes.size() * 3);
    for (char const c : bytes) {
        if (isLetterOrDigit(c)) {
            out += c;
            continue;
        }
        out += '%';
        appendHex(out, static_cast<unsigned char>(c));
    }
    return out;
}

std::optional<std::string> percentDecode(std::string const& text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (text.size() - i < 3 || !appendByte(out, text.data() + i + 1)) {
            return std::nullopt;
        }
        i += 2;
    }
    return out;
}

std::string replaceAll(std::string const& text, std::string const& from, std::string const& to) {
    std::string out;
    std::size_t next = 0;
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, next)) {
        out.append(text, next, at - next);
        out += to;
        next = at + from.size();
    }
    return out.append(text, next, std::string::npos);
}

std::optional<std::string> decodeBase64(std::string const& text) {
    std::size_t const padding = std::min<std::size_t>(2, text.size() - (text.find_last_not_of('=') + 1));
    bool const isClean = std::all_of(text.begin(), text.end() - static_cast<std::ptrdiff_t>(padding),
                                     [](char c) { return isLetterOrDigit(c) || c == '+' || c == '/'; });
    if (text.size() % 4 != 0 || !isClean) {
        return std::nullopt;
    }
    std::string out(text.size() / 4 * 3, '\0');
    // The library reads padding as zero bits and would skip blanks.
    EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()), reinterpret_cast<unsigned char const*>(text.data()),
                    static_cast<int>(text.size()));
    out.erase(out.find_last_not_of('\0') + 1);
    return out;
}

Query::Query(std::string const& text) {
    std::size_t from = 0;
    while (from < text.size()) {
        std::size_t const to = std::min(text.find('&', from), text.size());
        std::string const piece = text.substr(from, to - from);
        std::size_t const equals = piece.find('=');
        if (equals == std::string::npos) {
            m_Pieces.emplace_back(piece, "");
        } else {
            m_Pieces.emplace_back(piece.substr(0, equals), piece.substr(equals + 1));
        }
        from = to + 1;
    }
}

std::vector<std::string> Query::names() const {
    std::vector<std::string> names;
    for (auto const& [name, value] : m_Pieces) {
        names.push_back(name);
    }
    return names;
}

std::optional<std::string> Query::value(std::string const& name) const {
    std::string const* found = nullptr;
    for (auto const& [pieceName, pieceValue] : m_Pieces) {
        if (pieceName != name) {
            continue;
        }
        if (found != nullptr) {
            throw HttpError(name + " stands in the query twice");
        }
        found = &pieceValue;
    }
    if (found == nullptr) {
        return std::nullopt;
    }
    std::optional<std::string> decoded = percentDecode(*found);
    if (!decoded) {
        throw HttpError(name + " is not well-formed percent-encoding");
    }
    return decoded;
}

std::string Query::rawValue(std::string const& name) const {
    auto const found =
        std::find_if(m_Pieces.begin(), m_Pieces.end(), [&name](auto const& piece) { return piece.first == name; });
    return found == m_Pieces.end() ? "" : found->second;
}

std::optional<std::int64_t> wholeNumber(std::string const& text) {
    std::int64_t number = 0;
    char const* const end = text.data() + text.size();
    std::from_chars_result const read = std::from_chars(text.data(), end, number);
    return read.ec == std::errc() && read.ptr == end ? std::optional<std::int64_t>(number) : std::nullopt;
}

std::string randomHex(int count) {
    std::string bytes(static_cast<std::size_t>(count), '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), count) != 1) {
        throw std::runtime_error("the random generator failed");
    }
    return toHex(bytes);
}

std::optional<std::time_t> parseExpiration(std::string const& text) {
    std::tm parts{};
    std::sscanf(text.c_str(), "%4d%2d%2d %2d:%2d:%2d", &parts.tm_year, &parts.tm_mon, &parts.tm_mday, &parts.tm_hour,
                &parts.tm_min, &parts.tm_sec);
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    // timegm() turns the 31st of February into a day of March. Whatever had another form, or was no date, is written in
    // another way than it was read.
    std::time_t const moment = timegm(&parts);
    char again[80] = "";
    std::snprintf(again, sizeof again, "%04d%02d%02d %02d:%02d:%02d", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
    return text == again ? std::optional<std::time_t>(moment) : std::nullopt;
}

std::string utcText(std::time_t moment) {
    std::tm parts{};
    gmtime_r(&moment, &parts);
    char text[32] = "";
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

std::string millisecondsText(std::int64_t microseconds) {
    return std::to_string(microseconds / 1000) + "." + std::to_string(microseconds % 1000 / 100) + " ms";
}

}  // namespace sandbox
