// Signatures over widened text, and the two forms in which RSA keys travel.
// The digest is SHA-1 over 16-bit units. It is signed and verified with the bare RSA operation: OpenSSL is given no
// digest name, so it neither adds nor expects a DigestInfo.
// Public keys are checked in this order: hexadecimal, RSAPublicKey, nothing behind it, size, and DER, by encoding the
// key again and comparing. Errors left in OpenSSL's queue are cleared before returning.
#include "sandbox/crypto/signature.h"

#include <openssl/err.h>
#include <openssl/rsa.h>

#include <cstddef>
#include <stdexcept>

#include "sandbox/text/httperror.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr int kMinKeyBits = 512;
constexpr int kMaxKeyBits = 4096;

unsigned char const* bytesOf(std::string const& text) {
    return reinterpret_cast<unsigned char const*>(text.data());
}

unsigned char* bytesOf(std::string& text) {
    return reinterpret_cast<unsigned char*>(text.data());
}

[[noreturn]] void failCrypto(char const* what) {
    ERR_clear_error();
    throw std::runtime_error(std::string("OpenSSL could not ") + what);
}

/// Runs one of the i2d functions into a string.
template <class Encode>
std::string encodeDer(EVP_PKEY* key, Encode encode) {
    int const length = encode(key, nullptr);
    if (length <= 0) {
        failCrypto("encode a key");
    }
    std::string der(static_cast<std::size_t>(length), '\0');
    unsigned char* to = bytesOf(der);
    if (encode(key, &to) != length) {
        failCrypto("encode a key");
    }
    return der;
}

/// A context for the bare RSA operation: PKCS#1 padding, and no digest named, so no DigestInfo is put in or taken out.
KeyContextHolder bareOperation(EVP_PKEY* key, int (*initialise)(EVP_PKEY_CTX*)) {
    KeyContextHolder context(EVP_PKEY_CTX_new(key, nullptr));
    if (!context || initialise(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) != 1) {
        failCrypto("prepare an RSA operation");
    }
    return context;
}

}  // namespace

std::string widen(std::string const& text, Widening widening) {
    std::string units;
    units.reserve(text.size() * 2);
    for (char const c : text) {
        bool const high = static_cast<unsigned char>(c) >= 0x80;
        units += c;
        units += high && widening == Widening::kSign ? '\xFF' : '\0';
    }
    return units;
}

std::string digestOf(std::string const& text, Widening widening) {
    std::string const units = widen(text, widening);
    std::string digest(EVP_MAX_MD_SIZE, '\0');
    unsigned length = 0;
    if (EVP_Digest(units.data(), units.size(), bytesOf(digest), &length, EVP_sha1(), nullptr) != 1) {
        failCrypto("make a digest");
    }
    digest.resize(length);
    return digest;
}

KeyHolder makeSigningKey(unsigned bits) {
    KeyHolder key(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<std::size_t>(bits)));
    if (!key) {
        failCrypto("make an RSA key");
    }
    return key;
}

std::string privateKeyDer(EVP_PKEY* key) {
    return encodeDer(key, i2d_PrivateKey);
}

KeyHolder readPrivateKeyDer(std::string const& der) {
    unsigned char const* from = bytesOf(der);
    KeyHolder key(d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &from, static_cast<long>(der.size())));
    if (!key) {
        failCrypto("read the stored private key");
    }
    return key;
}

std::string publicKeyBlob(EVP_PKEY* key) {
    return toHex(encodeDer(key, i2d_PublicKey));
}

KeyHolder readPublicKeyBlob(std::string const& blob) {
    std::optional<std::string> const der = fromHex(blob);
    if (!der || der->empty()) {
        throw HttpError("the key blob is not lower-case hexadecimal");
    }
    unsigned char const* from = bytesOf(*der);
    KeyHolder key(d2i_PublicKey(EVP_PKEY_RSA, nullptr, &from, static_cast<long>(der->size())));
    ERR_clear_error();
    if (!key) {
        throw HttpError("the key blob is not an RSAPublicKey");
    }
    if (from != bytesOf(*der) + der->size()) {
        throw HttpError("the key blob has bytes after the RSAPublicKey");
    }
    int const bits = EVP_PKEY_get_bits(key.get());
    if (bits < kMinKeyBits || bits > kMaxKeyBits) {
        throw HttpError("the key blob holds a key of " + std::to_string(bits) + " bits, outside 512 to 4096");
    }
    if (publicKeyBlob(key.get()) != blob) {
        throw HttpError("the key blob is not in DER");
    }
    return key;
}

std::string signText(EVP_PKEY* key, std::string const& text, Widening widening) {
    std::string const digest = digestOf(text, widening);
    KeyContextHolder const context = bareOperation(key, EVP_PKEY_sign_init);
    std::size_t length = static_cast<std::size_t>(EVP_PKEY_get_size(key));
    std::string signature(length, '\0');
    if (EVP_PKEY_sign(context.get(), bytesOf(signature), &length, bytesOf(digest), digest.size()) != 1) {
        failCrypto("sign");
    }
    signature.resize(length);
    return toHex(signature);
}

std::optional<std::string> signedDigest(EVP_PKEY* key, std::string const& signature) {
    std::size_t length = static_cast<std::size_t>(EVP_PKEY_get_size(key));
    if (signature.size() != length) {
        return std::nullopt;
    }
    KeyContextHolder const context = bareOperation(key, EVP_PKEY_verify_recover_init);
    std::string recovered(length, '\0');
    int const result =
        EVP_PKEY_verify_recover(context.get(), bytesOf(recovered), &length, bytesOf(signature), signature.size());
    ERR_clear_error();
    if (result != 1) {
        return std::nullopt;
    }
    recovered.resize(length);
    return recovered;
}

bool verifyText(EVP_PKEY* key, std::string const& text, Widening widening, std::string const& signature) {
    return signedDigest(key, signature) == digestOf(text, widening);
}

}  // namespace sandbox
