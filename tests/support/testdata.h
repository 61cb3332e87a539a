/// Files of tests/data.
#ifndef TALLOWIN_TESTS_SUPPORT_TESTDATA_H
#define TALLOWIN_TESTS_SUPPORT_TESTDATA_H

#include <string>

#include "tests/support/encodings.h"

namespace kvxtest {

/// Content of the file `name` below tests/data. Throws std::runtime_error when there is none.
std::string dataText(std::string const& name);

/// The same without line ends: hexadecimal text as a key directory holds it.
std::string dataHex(std::string const& name);

/// The bytes that such a file spells.
Bytes dataBytes(std::string const& name);

}  // namespace kvxtest

#endif
