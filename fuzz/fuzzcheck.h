/// What must hold in a run, and texts in both directions.
#ifndef TALLOWIN_FUZZ_FUZZCHECK_H
#define TALLOWIN_FUZZ_FUZZCHECK_H

#include <cstdint>
#include <functional>
#include <string>

#include "foundation/tbstring.h"

namespace kvxfuzz {

/// Prints `rule` and ends the process unless `holds`. A fuzzer reports the input then, a test fails.
void require(bool holds, char const* rule);

/// The same for the library's result and the model's; prints both.
void requireEqual(std::string const& library, std::string const& model, char const* rule);
void requireEqual(std::int64_t library, std::int64_t model, char const* rule);

/// All bytes, zero bytes included.
std::string textOf(TbString const& text);
TbString tbText(std::string const& text);

/// What precedes the first zero byte: what a C caller passes.
std::string upToZero(std::string const& text);

/// The result code of `call`: 0, or that of the KVX_Exception or TBFC_Exception it throws.
std::int32_t codeOf(std::function<void()> const& call);

/// Whether the library may return `code`: success, a code with a name, one of a family, an error number of the system.
bool isPublishedCode(std::int32_t code);

}  // namespace kvxfuzz

#endif
