#include "fuzz/signmodel.h"

#include <openssl/core_names.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "fuzz/fuzzcheck.h"

namespace kvxfuzz {

namespace {

BignumHolder numberOf(EVP_PKEY const* key, char const* name) {
    BIGNUM* number = nullptr;
    EVP_PKEY_get_bn_param(key, name, &number);
    return BignumHolder(number);
}

unsigned char const* bytesOf(std::string const& text) {
    return reinterpret_cast<unsigned char const*>(text.data());
}

}  // namespace

ModelKey::ModelKey(PkeyHolder const& key) {
    if (key != nullptr) {
        m_Modulus = numberOf(key.get(), OSSL_PKEY_PARAM_RSA_N);
        m_PublicExponent = numberOf(key.get(), OSSL_PKEY_PARAM_RSA_E);
        m_PrivateExponent = numberOf(key.get(), OSSL_PKEY_PARAM_RSA_D);
    }
}

ModelKey ModelKey::fromPublic(std::string const& der) {
    unsigned char const* at = bytesOf(der);
    return ModelKey(PkeyHolder(d2i_PublicKey(EVP_PKEY_RSA, nullptr, &at, static_cast<long>(der.size()))));
}

ModelKey ModelKey::fromPrivate(std::string const& der) {
    unsigned char const* at = bytesOf(der);
    return ModelKey(PkeyHolder(d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &at, static_cast<long>(der.size()))));
}

std::string ModelKey::power(std::string const& number, BIGNUM const* exponent) const {
    BN_CTX* const context = BN_CTX_new();
    BignumHolder const base(BN_bin2bn(bytesOf(number), static_cast<int>(number.size()), nullptr));
    BignumHolder const result(BN_new());
    std::string bytes(size(), '\0');
    bool const isDone = BN_mod_exp(result.get(), base.get(), exponent, m_Modulus.get(), context) == 1;
    BN_CTX_free(context);
    if (!isDone || BN_bn2binpad(result.get(), reinterpret_cast<unsigned char*>(bytes.data()),
                                static_cast<int>(bytes.size())) < 0) {
        return "";
    }
    return bytes;
}

std::optional<std::string> ModelKey::opened(std::string const& signature) const {
    BignumHolder const number(BN_bin2bn(bytesOf(signature), static_cast<int>(signature.size()), nullptr));
    if (!isValid() || signature.size() > size() || BN_ucmp(number.get(), m_Modulus.get()) >= 0) {
        return std::nullopt;
    }
    std::string const block = power(signature, m_PublicExponent.get());
    std::size_t const end = block.find_first_not_of('\xff', 2);
    bool const isPadded =
        block.compare(0, 2, std::string("\0\1", 2)) == 0 && end != std::string::npos && end >= 10 && block[end] == '\0';
    return isPadded ? std::optional(block.substr(end + 1)) : std::nullopt;
}

std::string ModelKey::sealed(std::string const& payload) const {
    std::string const filling(size() - payload.size() - 3, '\xff');
    return power(std::string("\0\1", 2) + filling + std::string(1, '\0') + payload, m_PrivateExponent.get());
}

std::string modelSha1(std::string const& bytes) {
    std::string digest(20, '\0');
    require(EVP_Digest(bytes.data(), bytes.size(), reinterpret_cast<unsigned char*>(digest.data()), nullptr, EVP_sha1(),
                       nullptr) == 1,
            "a digest is made");
    return digest;
}

std::string modelWidened(std::string const& text, bool hasSign) {
    std::string result;
    for (char const character : text) {
        result += character;
        result += hasSign && static_cast<unsigned char>(character) > 127 ? '\xff' : '\0';
    }
    return result;
}

std::string hexText(std::string const& bytes) {
    std::string result;
    for (char const character : bytes) {
        auto const byte = static_cast<unsigned char>(character);
        result += "0123456789abcdef"[byte / 16];
        result += "0123456789abcdef"[byte % 16];
    }
    return result;
}

std::string percentText(std::string const& text) {
    std::string result;
    for (char const character : text) {
        bool const isPlain = (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
                             (character >= '0' && character <= '9');
        result += isPlain ? std::string(1, character) : "%" + hexText(std::string(1, character));
    }
    return result;
}

std::optional<std::string> bytesOfHexText(std::string const& digits) {
    static std::string const s_Digits = "0123456789abcdef0123456789ABCDEF";
    std::string result;
    std::size_t high = 0;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        std::size_t const value = s_Digits.find(digits[i]);
        if (value == std::string::npos) {
            return std::nullopt;
        }
        if (i % 2 == 0) {
            high = value % 16;
        } else {
            result += static_cast<char>(high * 16 + value % 16);
        }
    }
    return result;
}

std::string testKey(std::string const& name) {
    std::ifstream in(KVX_TEST_DATA_DIR "/" + name);
    std::string digits{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    digits.erase(std::remove(digits.begin(), digits.end(), '\n'), digits.end());
    std::optional<std::string> const bytes = bytesOfHexText(digits);
    require(bytes && !bytes->empty(), "a test key is there");
    return *bytes;
}

}  // namespace kvxfuzz
