#include "sandbox/crypto/credentials.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstddef>
#include <optional>
#include <stdexcept>

#include "sandbox/text/httperror.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr int kHashRounds = 10000;
constexpr int kHashBytes = 32;

}  // namespace

Credentials readBasicHeader(std::string const& header) {
    std::string const scheme = "Basic ";
    if (header.empty()) {
        throw HttpError("the request has no Authorization header");
    }
    if (header.compare(0, scheme.size(), scheme) != 0) {
        throw HttpError("the Authorization header is not of the scheme Basic");
    }
    std::optional<std::string> const text = decodeBase64(header.substr(scheme.size()));
    if (!text) {
        throw HttpError("the Authorization header is not Base64");
    }
    std::size_t const colon = text->find(':');
    if (colon == std::string::npos) {
        throw HttpError("the Authorization header holds no colon between user and password");
    }
    return {text->substr(0, colon), text->substr(colon + 1)};
}

std::string hashPassword(std::string const& salt, std::string const& password) {
    std::string hash(kHashBytes, '\0');
    int const result =
        PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()),
                          reinterpret_cast<unsigned char const*>(salt.data()), static_cast<int>(salt.size()),
                          kHashRounds, EVP_sha256(), kHashBytes, reinterpret_cast<unsigned char*>(hash.data()));
    if (result != 1) {
        throw std::runtime_error("OpenSSL could not hash a password");
    }
    return toHex(hash);
}

bool equalSecrets(std::string const& one, std::string const& other) {
    return one.size() == other.size() && CRYPTO_memcmp(one.data(), other.data(), one.size()) == 0;
}

}  // namespace sandbox
