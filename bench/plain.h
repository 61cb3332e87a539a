/// The other side of the comparisons: the same work with std::string and OpenSSL.
///
/// Straightforward code, neither tuned nor wasteful. Failures throw std::runtime_error.
#ifndef TALLOWIN_BENCH_PLAIN_H
#define TALLOWIN_BENCH_PLAIN_H

#include <string>
#include <vector>

namespace kvxbench::plain {

using Bytes = std::vector<unsigned char>;

/// The content of a file.
std::string readFile(std::string const& path);

/// Letters and digits stay; any other byte becomes "%" and two lower-case digits.
std::string percentEncode(std::string const& text);

/// Two lower-case hexadecimal digits per byte.
std::string toHex(Bytes const& bytes);

/// The inverse of toHex().
Bytes fromHex(std::string const& hex);

/// Base64 with OpenSSL.
std::string toBase64(std::string const& text);

/// Signs 7-bit `text` with a private key in the format of a key file: RSA over the bare SHA-1 of 16-bit units. Returns
/// hexadecimal text.
std::string sign(std::string const& text, std::string const& keyHex);

/// Whether `signatureHex` is a signature of 7-bit `text`. `keyHex` is a public key in the format of a key file.
bool verify(std::string const& text, std::string const& signatureHex, std::string const& keyHex);

}  // namespace kvxbench::plain

#endif
