/// The same signatures for a digest that is made piece by piece. Internal: not installed.
#ifndef TALLOWIN_CORE_ICCT_DIGEST_H
#define TALLOWIN_CORE_ICCT_DIGEST_H

#include <openssl/sha.h>

#include <array>
#include <cstddef>

using KvxDigest = std::array<unsigned char, SHA_DIGEST_LENGTH>;

/// The SHA-1 digest of bytes that come in pieces. Needs no memory and cannot fail, unlike SHA1().
class KvxSha1 {
public:
    KvxSha1() noexcept;

    /// Takes the next `length` bytes.
    void add(void const* bytes, std::size_t length) noexcept;

    /// The digest of all pieces. Wipes the last bytes taken. Ends the work of this object.
    [[nodiscard]] KvxDigest digest() noexcept;

private:
    SHA_CTX m_Context;
};

/// As ICCT_Signature() for data with this digest.
[[nodiscard]] int ICCT_SignDigest(unsigned char const* privKey, int privKeyLen, KvxDigest const& digest,
                                  unsigned char* sigOut, unsigned long* sigLen) noexcept;

/// As ICCT_Verify() for data with this digest.
[[nodiscard]] int ICCT_VerifyDigest(unsigned char const* pubKey, int pubKeyLen, KvxDigest const& digest,
                                    unsigned char const* sig, unsigned long sigLen) noexcept;

#endif
