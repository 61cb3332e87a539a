/// Result codes and messages as texts for people.
#ifndef TALLOWIN_EXAMPLES_COMMON_PRINTABLE_H
#define TALLOWIN_EXAMPLES_COMMON_PRINTABLE_H

#include <cstdint>
#include <string>

namespace examples {

/// "0 ok" for success; otherwise the code in hexadecimal and its text, or "errno" and the system's number.
std::string resultText(std::int32_t code);

/// A message with a line break after each attribute.
std::string attributePerLine(std::string const& message);

}  // namespace examples

#endif
