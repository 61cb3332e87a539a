#ifndef TALLOWIN_CORE_ICCT_H
#define TALLOWIN_CORE_ICCT_H

/// RSA on keys that are plain DER bytes in the caller's buffers.
///
/// Nothing outside these five functions sees an OpenSSL object: each one builds its key from the bytes it is given, or
/// takes one that was built from the same bytes (icct_keptkey.h), and does one operation.
///
/// - A public key is a PKCS#1 `RSAPublicKey`, a private key a PKCS#1 `RSAPrivateKey` (RFC 8017, appendix A.1). PKCS#8,
///   `SubjectPublicKeyInfo` and PEM are refused.
///   Deliberate (key-with-surplus-bytes): bytes behind the DER structure are ignored.
/// - Padding is PKCS#1 v1.5 throughout.
/// - A signature is the private-key operation on the bare 20-byte SHA-1 digest.
///   Deliberate (bare-digest): no DigestInfo surrounds the digest, so these signatures and those of a standard SHA-1
///   with RSA routine do not verify as each other.
///
/// All functions return 0, or -1 for every failure; none throws. All lengths are bytes. All pointers are borrowed. A
/// null pointer is -1, save for data of length 0 and a seed of length 0. A negative length, or one above `INT_MAX`, is
/// -1. Unless a function says otherwise its outputs are written on success only. The calling thread's OpenSSL error
/// queue is left as it is: failures, and each key generation, leave entries behind, and none is ever cleared here.
/// Deliberate (error-queue-left): the entries belong to the caller, also those made here.
///
/// Any number of threads may call at once, each with its own buffers; only key generation must not run beside other
/// users of OpenSSL's random generator.

/// Generates a key pair: modulus of 512 bits, public exponent 65537.
///
/// Mixes `seedLen` bytes at `seed` into OpenSSL's random generator first; with `seedLen` 0 the seeding routine is not
/// called and `seed` may be null. `*pubLen` and `*privLen` are outputs alone and receive the lengths of the DER blobs;
/// the encoder's result is stored even when it is a failure, so after -1 either may hold a value or -1. Requires: room
/// for the blobs at `pubOut` (under 100 bytes) and `privOut` (under 400 bytes).
[[nodiscard]] int ICCT_GenerateKeys(unsigned char* pubOut, int* pubLen, unsigned char* privOut, int* privLen,
                                    unsigned char* seed, int seedLen) noexcept;

/// Signs `dataLen` bytes at `data` with a private key of up to 8192 bits.
///
/// `*sigLen` is an output alone: it receives the length of the signature, which is that of the modulus (64 bytes for a
/// generated key), or `ULONG_MAX` when the RSA operation itself failed. Earlier failures leave it alone.
/// Deliberate (failed-length-stored): the failed result, -1, is stored as the length.
/// Requires: room for the modulus at `sigOut`; 1024 bytes always suffice.
[[nodiscard]] int ICCT_Signature(unsigned char const* privKey, int privKeyLen, unsigned char* data,
                                 unsigned long dataLen, unsigned char* sigOut, unsigned long* sigLen) noexcept;

/// Returns 0 when `sig` is the signature of `dataLen` bytes at `data` under a public key of up to 1024 bits.
[[nodiscard]] int ICCT_Verify(unsigned char const* pubKey, int pubKeyLen, unsigned char* data, unsigned long dataLen,
                              unsigned char* sig, unsigned long sigLen) noexcept;

/// Encrypts `inLen` bytes (at most the modulus less 11) with a public key of up to 8192 bits.
///
/// `*outLen` holds the room at `out` on entry, any value, and the length of the result after success. When the room is
/// too small, and after every other failure, `out` and `*outLen` are untouched.
/// Deliberate (any-large-room): the room is the one length without an upper limit.
[[nodiscard]] int ICCT_CryptDigest(unsigned char* pubKey, int pubKeyLen, unsigned char* in, unsigned long inLen,
                                   unsigned char* out, unsigned long* outLen) noexcept;

/// Decrypts a result of ICCT_CryptDigest() with the private key.
///
/// `*outLen` is an output alone: it receives the length of the result, or `ULONG_MAX` when the RSA operation itself
/// failed; `out` may then have been written. Earlier failures leave both alone.
/// Deliberate (failed-length-stored): as for ICCT_Signature().
/// Requires: room for the modulus at `out`, however short the result.
[[nodiscard]] int ICCT_DecryptDigest(unsigned char* privKey, int privKeyLen, unsigned char* in, unsigned long inLen,
                                     unsigned char* out, unsigned long* outLen) noexcept;

#endif
