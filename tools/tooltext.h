/// Texts for terminals and for JSON.
#ifndef TALLOWIN_TOOLS_TOOLTEXT_H
#define TALLOWIN_TOOLS_TOOLTEXT_H

#include <cstddef>
#include <string>

namespace tool {

/// `text` with everything that could steer a terminal as `\xNN`: control characters, C1 controls, marks that change the
/// direction of text, and bytes that are no UTF-8. A backslash stays as it is.
std::string printable(std::string const& text);

/// `text`, or its beginning and its end with "..." between them when it is longer than `length` bytes. Requires:
/// `length` is at least 3.
std::string shortened(std::string const& text, std::size_t length);

/// `text` and blanks behind it up to `width` bytes, at least one.
std::string padded(std::string text, std::size_t width);

/// Decodes `%XX`, and "+" to a blank. False, leaving `decoded` alone, when a "%" has no two digits behind it.
bool percentDecoded(std::string const& text, std::string& decoded);

/// `text` without blanks, tabs and line ends at both ends.
std::string trimmed(std::string const& text);

}  // namespace tool

#endif
