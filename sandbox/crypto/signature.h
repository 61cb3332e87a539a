#ifndef TALLOWIN_SANDBOX_CRYPTO_SIGNATURE_H
#define TALLOWIN_SANDBOX_CRYPTO_SIGNATURE_H

#include <optional>
#include <string>

#include "sandbox/crypto/opensslholders.h"

/// RSA signatures of messages: PKCS#1 v1.5 padding of type 1 around the bare SHA-1 digest (20 bytes, no DigestInfo).
/// What is digested is not the text but its bytes widened to 16-bit little-endian units.
namespace sandbox {

/// How a byte of 0x80 or above becomes a unit: 0xE9 as 0x00E9 or as 0xFFE9.
///
/// Deliberate (widening-differs): the two directions differ. A merchant signs zero-extended units and verifies
/// sign-extended ones, so this service verifies with `Zero` and signs with `Sign`.
enum class Widening { kZero, kSign };

/// The units of `text`, two bytes a character, no terminator.
std::string widen(std::string const& text, Widening widening);

/// A fresh RSA key of `bits` bits with the exponent 65537. Throws std::runtime_error.
KeyHolder makeSigningKey(unsigned bits);

/// DER of the private key, and back. Both throw std::runtime_error.
std::string privateKeyDer(EVP_PKEY* key);
KeyHolder readPrivateKeyDer(std::string const& der);

/// The public half as it is published: lower-case hexadecimal of DER PKCS#1 RSAPublicKey. Throws std::runtime_error.
std::string publicKeyBlob(EVP_PKEY* key);

/// Reads such a blob. Throws HttpError with the reason: no lower-case hexadecimal, no RSAPublicKey, bytes after it,
/// another encoding than DER, a size outside 512..4096 bits.
KeyHolder readPublicKeyBlob(std::string const& blob);

/// The signature of `text` in lower-case hexadecimal. Throws std::runtime_error.
std::string signText(EVP_PKEY* key, std::string const& text, Widening widening);

/// The SHA-1 digest of the units of `text`.
std::string digestOf(std::string const& text, Widening widening);

/// The digest that `signature` (bytes, exactly as long as the modulus) holds under `key`, whatever was signed; nothing
/// when it holds none.
std::optional<std::string> signedDigest(EVP_PKEY* key, std::string const& signature);

/// Whether `signature` (bytes, exactly as long as the modulus) is one of `text` under `key`.
bool verifyText(EVP_PKEY* key, std::string const& text, Widening widening, std::string const& signature);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CRYPTO_SIGNATURE_H
