// Reading, encoding and signing with std::string and OpenSSL, as docs/formats.md describes them.
//
// Order: digest and keys, files, encodings, signatures. Nothing is cached: each call reads the file or decodes the key
// again, as the library must do too. The signature needs OpenSSL's deprecated RSA functions.
#include "bench/plain.h"

#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <cctype>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>

#include "bench/require.h"

// Only OpenSSL's low-level functions sign a digest without DigestInfo.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace kvxbench::plain {

namespace {

constexpr char kDigits[] = "0123456789abcdef";

struct FreeRsa {
    void operator()(RSA* key) const { RSA_free(key); }
};
using RsaHolder = std::unique_ptr<RSA, FreeRsa>;

/// The SHA-1 of the text's characters as 16-bit little-endian units.
Bytes digestOf(std::string const& text) {
    Bytes units;
    units.reserve(2 * text.size());
    for (char const character : text) {
        units.push_back(static_cast<unsigned char>(character));
        units.push_back(0);
    }
    Bytes digest(SHA_DIGEST_LENGTH);
    SHA1(units.data(), units.size(), digest.data());
    return digest;
}

RsaHolder decodeKey(decltype(d2i_RSAPublicKey)* decode, std::string const& keyHex) {
    Bytes const blob = fromHex(keyHex);
    unsigned char const* at = blob.data();
    RsaHolder key(decode(nullptr, &at, static_cast<long>(blob.size())));
    require(key != nullptr, "no key");
    return key;
}

unsigned valueOf(char digit) {
    if (digit >= '0' && digit <= '9') {
        return static_cast<unsigned>(digit - '0');
    }
    auto const letter = static_cast<char>(digit | 0x20);
    require(letter >= 'a' && letter <= 'f', "no hexadecimal digit");
    return static_cast<unsigned>(letter - 'a') + 10;
}

}  // namespace

std::string readFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    require(in.is_open(), "cannot read a file of the configuration directory");
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string percentEncode(std::string const& text) {
    std::string encoded;
    for (char const character : text) {
        auto const byte = static_cast<unsigned char>(character);
        if (std::isalnum(byte) != 0) {
            encoded += character;
        } else {
            encoded += '%';
            encoded += kDigits[byte >> 4];
            encoded += kDigits[byte & 0x0F];
        }
    }
    return encoded;
}

std::string toHex(Bytes const& bytes) {
    std::string hex;
    for (unsigned char const byte : bytes) {
        hex += kDigits[byte >> 4];
        hex += kDigits[byte & 0x0F];
    }
    return hex;
}

Bytes fromHex(std::string const& hex) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(valueOf(hex[i]) * 16 + valueOf(hex[i + 1])));
    }
    return bytes;
}

std::string toBase64(std::string const& text) {
    Bytes encoded(4 * ((text.size() + 2) / 3) + 1);
    int const length = EVP_EncodeBlock(encoded.data(), reinterpret_cast<unsigned char const*>(text.data()),
                                       static_cast<int>(text.size()));
    return {encoded.begin(), encoded.begin() + length};
}

std::string sign(std::string const& text, std::string const& keyHex) {
    RsaHolder const key = decodeKey(d2i_RSAPrivateKey, keyHex);
    Bytes const digest = digestOf(text);
    Bytes signature(static_cast<std::size_t>(RSA_size(key.get())));
    int const length = RSA_private_encrypt(static_cast<int>(digest.size()), digest.data(), signature.data(), key.get(),
                                           RSA_PKCS1_PADDING);
    require(length == RSA_size(key.get()), "cannot sign");
    return toHex(signature);
}

bool verify(std::string const& text, std::string const& signatureHex, std::string const& keyHex) {
    RsaHolder const key = decodeKey(d2i_RSAPublicKey, keyHex);
    Bytes const signature = fromHex(signatureHex);
    Bytes recovered(static_cast<std::size_t>(RSA_size(key.get())));
    int const length = RSA_public_decrypt(static_cast<int>(signature.size()), signature.data(), recovered.data(),
                                          key.get(), RSA_PKCS1_PADDING);
    Bytes const digest = digestOf(text);
    return length == SHA_DIGEST_LENGTH && std::memcmp(recovered.data(), digest.data(), digest.size()) == 0;
}

}  // namespace kvxbench::plain

#pragma GCC diagnostic pop
