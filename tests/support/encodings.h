/// Hexadecimal and percent-encoding, written here apart from the code under test.
#ifndef TALLOWIN_TESTS_SUPPORT_ENCODINGS_H
#define TALLOWIN_TESTS_SUPPORT_ENCODINGS_H

#include <string>
#include <vector>

namespace kvxtest {

using Bytes = std::vector<unsigned char>;

/// Two lower-case digits a byte, and back. Throws std::invalid_argument for text of any other shape; digits of either
/// case are read.
std::string hexOf(Bytes const& bytes);
Bytes bytesOfHex(std::string const& digits);

/// Everything but ASCII letters and digits as "%" and two lower-case digits.
std::string percentEncoded(std::string const& text);

/// Undoes percent-encoding. Fails the test for an escape without two lower-case digits.
std::string percentDecoded(std::string const& text);

/// The value of `name` in the query of a URL or of a request line, still encoded; empty when there is none.
std::string queryValue(std::string const& text, std::string const& name);

}  // namespace kvxtest

#endif
