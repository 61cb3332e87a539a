// The five RSA functions over OpenSSL.
//
// Each function checks its arguments, decodes the DER key or takes a kept one, and performs one operation. The
// limits differ on purpose: verifying accepts keys up to 1024 bits, signing and encrypting up to 8192, decrypting any.
// Lengths are cast to int after IsUsable has bounded them. Odd: a failed signing or decrypting stores -1 as the
// length, and key generation adds the result of a refused padding call, which is 0. A gate keeps forks out meanwhile.

#include "core/icct.h"

#include <openssl/bn.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <array>
#include <climits>
#include <cstring>
#include <memory>

#include "core/icct_digest.h"
#include "core/icct_keptkey.h"
#include "core/icct_modulus.h"
#include "foundation/tbforkgate.h"
#include "foundation/tbreleaser.h"

// The low-level RSA interface is deprecated since OpenSSL 3.0, but it alone does exactly what is wanted: PKCS#1 blobs
// and nothing else, and the RSA operation on a digest without a DigestInfo. This file and icct_keptkey.cpp alone use
// it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

constexpr int kModulusBits = 512;
constexpr BN_ULONG kPublicExponent = 65537;

/// Bytes of the largest modulus a signature is checked with: keys up to 1024 bits.
constexpr int kMaxVerifyModulus = 128;

/// Bytes that the padding takes at least.
constexpr int kPaddingBytes = 11;

/// Bytes of the largest modulus for signing and encrypting, the room that callers keep for a result.
constexpr int kMaxModulus = 1024;

/// Stands for RSA_free, which is deprecated wherever it is named.
void freeRsa(RSA* key) noexcept {
    RSA_free(key);
}
using RsaHolder = std::unique_ptr<RSA, TbReleaser<freeRsa>>;
using BignumHolder = std::unique_ptr<BIGNUM, TbReleaser<BN_free>>;

/// Cleans up the random generator at the end of a key generation. An empty statement in OpenSSL 3, which manages its
/// generators itself; tearing the whole library down instead would break the host process.
struct RandCleaner {
    ~RandCleaner() { RAND_cleanup(); }
};

/// True when `length` bytes at `data` can be handed to OpenSSL. Null is fine for no bytes.
[[nodiscard]] bool IsUsable(unsigned char const* data, unsigned long length) noexcept {
    return length <= INT_MAX && (data != nullptr || length == 0);
}

/// Decodes a key blob with `d2i_RSAPublicKey` or `d2i_RSAPrivateKey`; null when it is none.
/// The decoder allocates the object: one that was handed in would already be freed after a failure.
[[nodiscard]] RsaHolder DecodeKey(decltype(d2i_RSAPublicKey)* decode, unsigned char const* blob, int length) noexcept {
    if (blob == nullptr || length <= 0) {
        return nullptr;
    }
    return RsaHolder(decode(nullptr, &blob, length));
}

bool canSign(KvxKeptKey const& key) noexcept {
    return key.get() != nullptr && RSA_size(key.get()) <= kMaxModulus;
}

int signWith(KvxKeptKey& key, KvxDigest const& digest, unsigned char* sigOut, unsigned long* sigLen) noexcept {
    if (int const length = key.copySignature(digest, sigOut); length != 0) {
        *sigLen = static_cast<unsigned long>(length);
        key.keep();
        return 0;
    }
    // Deliberate (bare-digest): the bare digest, see the head of icct.h. RSA_sign would wrap it.
    int const length = RSA_private_encrypt(SHA_DIGEST_LENGTH, digest.data(), sigOut, key.get(), RSA_PKCS1_PADDING);
    *sigLen = static_cast<unsigned long>(length);
    if (length == -1) {
        return -1;
    }
    key.rememberSignature(digest, sigOut, length);
    key.keep();
    return 0;
}

/// A larger key could recover more bytes than verifyWith() has room for. Keys may come from the network.
bool canVerify(KvxKeptKey const& key) noexcept {
    return key.get() != nullptr && RSA_size(key.get()) <= kMaxVerifyModulus;
}

int verifyWith(KvxKeptKey& key, KvxDigest const& digest, unsigned char const* sig, unsigned long sigLen) noexcept {
    std::array<unsigned char, kMaxVerifyModulus> recovered;
    int const length =
        RSA_public_decrypt(static_cast<int>(sigLen), sig, recovered.data(), key.get(), RSA_PKCS1_PADDING);
    key.keep();  // an operation with a public key leaves it as it was, also when it fails
    if (length != SHA_DIGEST_LENGTH || std::memcmp(recovered.data(), digest.data(), digest.size()) != 0) {
        return -1;
    }
    return 0;
}

}  // namespace

// The block functions of SHA-1 return success always.

KvxSha1::KvxSha1() noexcept {
    SHA1_Init(&m_Context);
}

void KvxSha1::add(void const* bytes, std::size_t length) noexcept {
    SHA1_Update(&m_Context, bytes, length);
}

KvxDigest KvxSha1::digest() noexcept {
    KvxDigest digest;
    SHA1_Final(digest.data(), &m_Context);
    return digest;
}

int ICCT_GenerateKeys(unsigned char* pubOut, int* pubLen, unsigned char* privOut, int* privLen, unsigned char* seed,
                      int seedLen) noexcept {
    if (pubOut == nullptr || pubLen == nullptr || privOut == nullptr || privLen == nullptr) {
        return -1;
    }
    if (seedLen < 0 || (seed == nullptr && seedLen != 0)) {
        return -1;
    }
    TbForkGate const gate;
    RandCleaner const cleaner;
    // Deliberate (unused-rsa-object): one object is made and dropped ahead of the key. Nothing uses it; only running
    // out of memory shows.
    if (RsaHolder(RSA_new_method(nullptr)) == nullptr) {
        return -1;
    }
    if (seedLen != 0) {
        RAND_seed(seed, seedLen);
    }
    BignumHolder const exponent(BN_new());
    RsaHolder const key(RSA_new());
    if (exponent == nullptr || key == nullptr || BN_set_word(exponent.get(), kPublicExponent) != 1 ||
        RSA_generate_key_ex(key.get(), kModulusBits, exponent.get(), nullptr) != 1) {
        return -1;
    }
    unsigned char* pubEnd = pubOut;
    *pubLen = i2d_RSAPublicKey(key.get(), &pubEnd);
    if (*pubLen <= 0) {
        return -1;
    }
    unsigned char* privEnd = privOut;
    *privLen = i2d_RSAPrivateKey(key.get(), &privEnd);
    if (*privLen <= 0) {
        return -1;
    }
    // Deliberate (padding-result-added): adds 0, because an input shorter than its target is refused. The refusal stays
    // in the error queue.
    *privLen += RSA_padding_add_none(privEnd, 1, nullptr, 0);
    return 0;
}

int ICCT_Signature(unsigned char const* privKey, int privKeyLen, unsigned char* data, unsigned long dataLen,
                   unsigned char* sigOut, unsigned long* sigLen) noexcept {
    if (!IsUsable(data, dataLen) || sigOut == nullptr || sigLen == nullptr) {
        return -1;
    }
    TbForkGate const gate;
    KvxKeptKey key(KvxKeptKey::Kind::kPrivate, privKey, privKeyLen);
    KvxDigest digest;
    if (!canSign(key) || SHA1(data, dataLen, digest.data()) == nullptr) {
        return -1;
    }
    return signWith(key, digest, sigOut, sigLen);
}

int ICCT_SignDigest(unsigned char const* privKey, int privKeyLen, KvxDigest const& digest, unsigned char* sigOut,
                    unsigned long* sigLen) noexcept {
    TbForkGate const gate;
    KvxKeptKey key(KvxKeptKey::Kind::kPrivate, privKey, privKeyLen);
    return canSign(key) ? signWith(key, digest, sigOut, sigLen) : -1;
}

int ICCT_Verify(unsigned char const* pubKey, int pubKeyLen, unsigned char* data, unsigned long dataLen,
                unsigned char* sig, unsigned long sigLen) noexcept {
    if (!IsUsable(data, dataLen) || !IsUsable(sig, sigLen)) {
        return -1;
    }
    TbForkGate const gate;
    KvxKeptKey key(KvxKeptKey::Kind::kPublic, pubKey, pubKeyLen);
    KvxDigest digest;
    if (!canVerify(key) || SHA1(data, dataLen, digest.data()) == nullptr) {
        return -1;
    }
    return verifyWith(key, digest, sig, sigLen);
}

int ICCT_VerifyDigest(unsigned char const* pubKey, int pubKeyLen, KvxDigest const& digest, unsigned char const* sig,
                      unsigned long sigLen) noexcept {
    if (!IsUsable(sig, sigLen)) {
        return -1;
    }
    TbForkGate const gate;
    KvxKeptKey key(KvxKeptKey::Kind::kPublic, pubKey, pubKeyLen);
    return canVerify(key) ? verifyWith(key, digest, sig, sigLen) : -1;
}

int ICCT_CryptDigest(unsigned char* pubKey, int pubKeyLen, unsigned char* in, unsigned long inLen, unsigned char* out,
                     unsigned long* outLen) noexcept {
    if (!IsUsable(in, inLen) || out == nullptr || outLen == nullptr) {
        return -1;
    }
    TbForkGate const gate;
    RsaHolder const key = DecodeKey(d2i_RSAPublicKey, pubKey, pubKeyLen);
    if (key == nullptr || RSA_size(key.get()) > kMaxModulus) {
        return -1;
    }
    std::array<unsigned char, kMaxModulus> encrypted;
    int const length = RSA_public_encrypt(static_cast<int>(inLen), in, encrypted.data(), key.get(), RSA_PKCS1_PADDING);
    if (length < 0 || static_cast<unsigned long>(length) > *outLen) {
        return -1;
    }
    *outLen = static_cast<unsigned long>(length);
    std::memcpy(out, encrypted.data(), *outLen);
    return 0;
}

int ICCT_DecryptDigest(unsigned char* privKey, int privKeyLen, unsigned char* in, unsigned long inLen,
                       unsigned char* out, unsigned long* outLen) noexcept {
    if (!IsUsable(in, inLen) || out == nullptr || outLen == nullptr) {
        return -1;
    }
    TbForkGate const gate;
    RsaHolder const key = DecodeKey(d2i_RSAPrivateKey, privKey, privKeyLen);
    if (key == nullptr) {
        return -1;
    }
    int const length = RSA_private_decrypt(static_cast<int>(inLen), in, out, key.get(), RSA_PKCS1_PADDING);
    *outLen = static_cast<unsigned long>(length);
    return length != -1 ? 0 : -1;
}

std::uint32_t ICCT_UsableModulusBits(unsigned char const* pubKey, unsigned long pubKeyLen) noexcept {
    TbForkGate const gate;
    KvxKeptKey key(KvxKeptKey::Kind::kPublic, pubKey, pubKeyLen <= INT_MAX ? static_cast<int>(pubKeyLen) : 0);
    if (key.get() == nullptr) {
        return 0;
    }
    BIGNUM const* const modulus = RSA_get0_n(key.get());
    BIGNUM const* const exponent = RSA_get0_e(key.get());
    int const bytes = RSA_size(key.get());
    bool const fits = bytes >= SHA_DIGEST_LENGTH + kPaddingBytes && bytes <= kMaxVerifyModulus;
    // No number is negative: OpenSSL reads those of a key without their signs.
    bool const isSound = BN_is_odd(modulus) == 1 && BN_is_odd(exponent) == 1 && BN_is_one(exponent) == 0 &&
                         BN_ucmp(exponent, modulus) < 0;
    auto const bits = static_cast<std::uint32_t>(BN_num_bits(modulus));
    key.keep();
    return fits && isSound ? bits : 0;
}

#pragma GCC diagnostic pop
