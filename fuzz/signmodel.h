/// Signatures by plain arithmetic: numbers to powers, and the padding byte by byte. The encodings around them.
#ifndef TALLOWIN_FUZZ_SIGNMODEL_H
#define TALLOWIN_FUZZ_SIGNMODEL_H

#include <openssl/bn.h>
#include <openssl/evp.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace kvxfuzz {

struct BignumFree {
    void operator()(BIGNUM* number) const { BN_free(number); }
};
struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using BignumHolder = std::unique_ptr<BIGNUM, BignumFree>;
using PkeyHolder = std::unique_ptr<EVP_PKEY, PkeyFree>;

/// A public key, or both halves of a key.
class ModelKey {
public:
    /// From a PKCS#1 structure. Invalid when the bytes are none.
    static ModelKey fromPublic(std::string const& der);
    static ModelKey fromPrivate(std::string const& der);

    [[nodiscard]] bool isValid() const { return m_Modulus != nullptr; }
    [[nodiscard]] int bits() const { return BN_num_bits(m_Modulus.get()); }

    /// What was signed; nothing when `signature` is not made with this key, or its padding is wrong.
    [[nodiscard]] std::optional<std::string> opened(std::string const& signature) const;

    /// The signature of `payload`. Requires: a private key, and room for the padding.
    [[nodiscard]] std::string sealed(std::string const& payload) const;

private:
    explicit ModelKey(PkeyHolder const& key);
    [[nodiscard]] std::string power(std::string const& number, BIGNUM const* exponent) const;
    [[nodiscard]] std::size_t size() const { return static_cast<std::size_t>(BN_num_bytes(m_Modulus.get())); }

    BignumHolder m_Modulus;  ///< Null in an invalid key.
    BignumHolder m_PublicExponent;
    BignumHolder m_PrivateExponent;  ///< Null in a public key.
};

std::string modelSha1(std::string const& bytes);

/// Each byte as a little-endian unit of 16 bits, bytes of 0x80 and above with their sign or without.
std::string modelWidened(std::string const& text, bool hasSign);

/// Two lower-case digits a byte.
std::string hexText(std::string const& bytes);

/// The bytes of digits in either case, a last odd one ignored; nothing when another character is among them.
std::optional<std::string> bytesOfHexText(std::string const& digits);

/// All but ASCII letters and digits as "%" and two digits.
std::string percentText(std::string const& text);

/// The bytes of a file of hexadecimal text in tests/data, line ends ignored.
std::string testKey(std::string const& name);

}  // namespace kvxfuzz

#endif
