#ifndef TALLOWIN_SANDBOX_TEXT_WIRETEXT_H
#define TALLOWIN_SANDBOX_TEXT_WIRETEXT_H

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The text forms in which bytes travel: hexadecimal, percent-encoding, Base64 of the Basic header, query strings,
/// times. All functions are pure; strings are bytes.
namespace sandbox {

/// Two lower-case hexadecimal digits for each byte.
std::string toHex(std::string const& bytes);

/// The bytes behind `text`; nothing when the length is odd or a character is not "0".."9" or "a".."f".
/// Deliberate (upper-case-hex-refused): upper case is refused, because merchants only write lower case and a change of
/// that should show.
std::optional<std::string> fromHex(std::string const& text);

/// Every byte that is not an ASCII letter or digit becomes "%" and two lower-case hexadecimal digits.
std::string percentEncode(std::string const& bytes);

/// Undoes percent-encoding with digits of either case; nothing when a "%" is not followed by two digits.
/// Deliberate (plus-stays-plus): a "+" is no space.
std::optional<std::string> percentDecode(std::string const& text);

/// `text` with `to` in the place of every `from`, which must not be empty.
std::string replaceAll(std::string const& text, std::string const& from, std::string const& to);

/// The texts with a separator between each two.
std::string joined(std::vector<std::string> const& texts, char const* separator = ", ");

/// With the letters of ASCII in lower case, whatever the locale of the process.
std::string lowerCase(std::string text);

/// Whether `c` is a letter or a digit of ASCII.
bool isLetterOrDigit(char c);

/// The bytes behind Base64 `text` of either form: with "=" padding, or filled up with zero bits ("A"), which includes a
/// whole group "AAAA" after an input whose length is a multiple of three. Zero bytes at the end are fill and dropped.
/// Nothing when the length is not a multiple of four or a character is foreign.
std::optional<std::string> decodeBase64(std::string const& text);

/// A query string in its order, names and values still percent-encoded. A piece without "=" has an empty value.
class Query {
public:
    explicit Query(std::string const& text = "");

    /// The decoded value under `name`; nothing when it is absent. Throws HttpError when it stands there twice or is not
    /// well-formed percent-encoding.
    [[nodiscard]] std::optional<std::string> value(std::string const& name) const;

    /// The first value under `name` as it stands in the query; empty when it is absent.
    [[nodiscard]] std::string rawValue(std::string const& name) const;

    /// The names in their order, percent-encoded still.
    [[nodiscard]] std::vector<std::string> names() const;

private:
    std::vector<std::pair<std::string, std::string>> m_Pieces;
};

/// The whole number that `text` is; nothing for anything else.
std::optional<std::int64_t> wholeNumber(std::string const& text);

/// `count` bytes of a cryptographic generator in hexadecimal. Throws std::runtime_error when the generator fails.
std::string randomHex(int count);

/// The moment that an EXPIRATION like "20240131 23:59:07" (UTC) names; nothing when the text has another form or names
/// no real date.
std::optional<std::time_t> parseExpiration(std::string const& text);

/// A moment like "2024-01-31T23:59:07Z", for the history and the exchanges.
std::string utcText(std::time_t moment);

/// A span of time for people, "12.3 ms".
std::string millisecondsText(std::int64_t microseconds);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_TEXT_WIRETEXT_H
