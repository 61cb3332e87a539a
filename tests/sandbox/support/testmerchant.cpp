// A merchant for tests: a key of 512 bits, messages, signatures of both widenings, and verification of the server's. It
// shares no signature or encoding code with the service, so an error in one shows in the other.
#include "tests/sandbox/support/testmerchant.h"

#include <openssl/crypto.h>
#include <openssl/rsa.h>

#include <cstddef>
#include <stdexcept>
#include <utility>
#include <vector>

namespace sandboxtest {

namespace {

using kvxtest::Bytes;
using kvxtest::bytesOfHex;
using kvxtest::hexOf;

Bytes digest(std::string const& text, bool signExtended) {
    Bytes units;
    for (char const c : text) {
        int const value = signExtended ? static_cast<signed char>(c) : static_cast<unsigned char>(c);
        units.push_back(static_cast<unsigned char>(value & 0xFF));
        units.push_back(static_cast<unsigned char>(value >> 8 & 0xFF));
    }
    Bytes out(20);
    unsigned length = 0;
    EVP_Digest(units.data(), units.size(), out.data(), &length, EVP_sha1(), nullptr);
    return out;
}

}  // namespace

std::string attributeOf(std::string const& text, std::string const& name) {
    std::string const start = " " + name + "=\"";
    std::size_t const at = text.find(start);
    if (at == std::string::npos) {
        return "";
    }
    std::size_t const from = at + start.size();
    std::string value = text.substr(from, text.find('"', from) - from);
    std::vector<std::pair<std::string, std::string>> const entities = {
        {"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&apos;", "'"}, {"&amp;", "&"}};
    for (auto const& [entity, character] : entities) {
        for (std::size_t i = value.find(entity); i != std::string::npos; i = value.find(entity, i + 1)) {
            value.replace(i, entity.size(), character);
        }
    }
    return value;
}

TestMerchant::TestMerchant(std::string keyId)
    : m_KeyId(std::move(keyId)), m_Key(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", std::size_t{512})) {
    if (!m_Key) {
        throw std::runtime_error("no key");
    }
}

std::string TestMerchant::blob() const {
    unsigned char* der = nullptr;
    int const length = i2d_PublicKey(m_Key.get(), &der);
    std::string const text = hexOf(Bytes(der, der + length));
    OPENSSL_free(der);
    return text;
}

std::string TestMerchant::sign(std::string const& text, bool signExtended) const {
    Bytes const toSign = digest(text, signExtended);
    Bytes signature(64);
    std::size_t length = signature.size();
    sandbox::KeyContextHolder const context(EVP_PKEY_CTX_new(m_Key.get(), nullptr));
    if (EVP_PKEY_sign_init(context.get()) != 1 || EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_sign(context.get(), signature.data(), &length, toSign.data(), toSign.size()) != 1) {
        throw std::runtime_error("no signature");
    }
    return hexOf(signature);
}

std::string TestMerchant::signedQuery(std::string const& text) const {
    return "?DATA=" + percentEncoded(text) + "&SIGNATURE=" + sign(text);
}

std::string TestMerchant::message(std::string const& type, std::string const& attributes) const {
    return "<KVX MSGTYPE=\"" + type + "\" KEYID=\"" + m_KeyId + "\"" + attributes + "/>";
}

std::string TestMerchant::payInit(std::string const& token, std::string const& more) const {
    return message("PayInit",
                   " TOKEN=\"" + token +
                       "\" SUCCESSLINK=\"http://shop.example/ok\" BACKLINK=\"http://shop.example/back?cart=7\""
                       " FAILLINK=\"http://shop.example/failed#top\" EXPIRATION=\"20991231 23:59:59\""
                       " ORDERID=\"A-17\" AMOUNT=\"12.50\" CURRENCY=\"EUR\"" +
                       more);
}

std::string TestMerchant::bareInit(std::string const& attributes) const {
    return message("PayInit", attributes + " AMOUNT=\"1.00\" CURRENCY=\"EUR\"");
}

bool verifies(std::string const& blob, std::string const& text, std::string const& signature) {
    Bytes const der = bytesOfHex(blob);
    unsigned char const* from = der.data();
    sandbox::KeyHolder const key(d2i_PublicKey(EVP_PKEY_RSA, nullptr, &from, static_cast<long>(der.size())));
    Bytes const expected = digest(text, true);
    Bytes const bytes = bytesOfHex(signature);
    sandbox::KeyContextHolder const context(EVP_PKEY_CTX_new(key.get(), nullptr));
    return EVP_PKEY_verify_init(context.get()) == 1 &&
           EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1 &&
           EVP_PKEY_verify(context.get(), bytes.data(), bytes.size(), expected.data(), expected.size()) == 1;
}

}  // namespace sandboxtest
