#ifndef TALLOWIN_TESTS_SANDBOX_SUPPORT_TESTMERCHANT_H
#define TALLOWIN_TESTS_SANDBOX_SUPPORT_TESTMERCHANT_H

#include <string>

#include "sandbox/crypto/opensslholders.h"
#include "tests/support/encodings.h"

/// A merchant for tests. It shares no signature or encoding code with the service.
namespace sandboxtest {

using kvxtest::percentDecoded;
using kvxtest::percentEncoded;
using kvxtest::queryValue;

/// The attribute of a message or a page's form field: what stands between `name="` and the next `"`, the five entities
/// undone. Empty when it is not there.
std::string attributeOf(std::string const& text, std::string const& name);

/// A key of 512 bits and a merchant's operations with it.
class TestMerchant {
public:
    explicit TestMerchant(std::string keyId);

    [[nodiscard]] std::string const& keyId() const { return m_KeyId; }

    /// Lower-case hexadecimal of DER RSAPublicKey.
    [[nodiscard]] std::string blob() const;

    /// The signature of `text` over zero-extended units, or over sign-extended ones.
    [[nodiscard]] std::string sign(std::string const& text, bool signExtended = false) const;

    /// "?DATA=...&SIGNATURE=..." for `text`.
    [[nodiscard]] std::string signedQuery(std::string const& text) const;

    /// A PayInit with the token, an order and links to http://shop.example/; `more` is written behind them.
    [[nodiscard]] std::string payInit(std::string const& token, std::string const& more = "") const;

    /// A PayInit over 1.00 EUR with `attributes`, which begin with a space, and no more.
    [[nodiscard]] std::string bareInit(std::string const& attributes) const;

    /// Any message with this merchant's KEYID; `attributes` begins with a space.
    [[nodiscard]] std::string message(std::string const& type, std::string const& attributes) const;

private:
    std::string m_KeyId;
    sandbox::KeyHolder m_Key;
};

/// Whether `signature` (hexadecimal) is one of `text` over sign-extended units under the public key `blob`.
bool verifies(std::string const& blob, std::string const& text, std::string const& signature);

}  // namespace sandboxtest

#endif  // TALLOWIN_TESTS_SANDBOX_SUPPORT_TESTMERCHANT_H
