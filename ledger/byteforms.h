/// Text forms of bytes, and digests.
#ifndef TALLOWIN_LEDGER_BYTEFORMS_H
#define TALLOWIN_LEDGER_BYTEFORMS_H

#include <cstddef>
#include <string>

namespace ledger {

/// Lower-case hexadecimal.
std::string hexOf(std::string const& bytes);

/// The bytes of hexadecimal text of either case, up to the first pair that is none.
std::string bytesOf(std::string const& hex);

std::string base64Of(std::string const& bytes);

/// Digests, as bytes. Throw std::bad_alloc.
std::string sha1Of(std::string const& bytes);
std::string sha256Of(std::string const& bytes);

/// Bytes that nobody can guess. Throws Failure (KVX_E_CRYPTO).
std::string randomBytes(std::size_t count);

/// The text over which a signature of the service is made: two bytes for each byte, itself and the extension of its
/// sign.
std::string widened(std::string const& text);

/// The DER RSAPublicKey `der` as PEM of a SubjectPublicKeyInfo ("BEGIN PUBLIC KEY").
std::string publicKeyPem(std::string const& der);

/// `text` for a sentence: at most 100 bytes, all others than " " to "~" as "?".
std::string printable(std::string const& text);

}  // namespace ledger

#endif
