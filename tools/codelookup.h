/// Finds the result codes that a person means, and what the catalogue says about them.
#ifndef TALLOWIN_TOOLS_CODELOOKUP_H
#define TALLOWIN_TOOLS_CODELOOKUP_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/errortable.h"

namespace tool {

/// The row of the catalogue for `code`: its own, that of its family, that of all errnos. Null for a number that is no
/// result code, also for a positive one that the system does not use.
errortable::Row const* rowOf(std::int32_t code);

/// What a number inside a family stands for, such as "Forbidden" or "HTTP status 418"; for TLS OpenSSL's words. Empty
/// for other codes.
std::string labelOf(std::int32_t code);

/// Whether `code` is the constant of a family and not a number inside it.
bool isFamily(std::int32_t code);

/// The codes that `text` names: a number (decimal, also negative, or hexadecimal), the name of a constant, the system's
/// name of an errno, or the label of a number inside a family; upper and lower case are the same. A name may stand for
/// several: ENOMEM is an errno and a socket error. Empty when there is none.
std::vector<std::int32_t> codesNamed(std::string const& text);

}  // namespace tool

#endif
