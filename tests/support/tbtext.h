/// TbString and std::string, one made of the other.
#ifndef TALLOWIN_TESTS_SUPPORT_TBTEXT_H
#define TALLOWIN_TESTS_SUPPORT_TBTEXT_H

#include <string>

#include "foundation/tbstring.h"

namespace kvxtest {

/// The bytes of `text`, embedded zero bytes included, and back.
std::string bytesOf(TbString const& text);
TbString stringOf(std::string const& bytes);

}  // namespace kvxtest

#endif
