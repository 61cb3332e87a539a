/// What a shop would write itself, with std::string and OpenSSL: the other side of the pairs.
///
/// Straightforward code, neither tuned nor wasteful. Failures are std::runtime_error.
#ifndef TALLOWIN_BENCH_PLAIN_H
#define TALLOWIN_BENCH_PLAIN_H

#include <string>
#include <vector>

namespace kvxbench::plain {

using Bytes = std::vector<unsigned char>;

/// The whole file.
std::string readFile(std::string const& path);

/// Letters and digits pass, all else becomes "%" and two lower-case digits.
std::string percentEncode(std::string const& text);

/// Two lower-case hexadecimal digits a byte.
std::string toHex(Bytes const& bytes);

/// The inverse.
Bytes fromHex(std::string const& hex);

/// Base64 with OpenSSL.
std::string toBase64(std::string const& text);

/// Signs 7-bit `text` with a private key as it lies in a key file: RSA over the bare SHA-1 of 16-bit units.
/// The result is hexadecimal.
std::string sign(std::string const& text, std::string const& keyHex);

/// Whether `signatureHex` is the signature of `text`, of bytes up to 0x7F, under a public key as it lies in a key file.
bool verify(std::string const& text, std::string const& signatureHex, std::string const& keyHex);

}  // namespace kvxbench::plain

#endif
