// Keys and signatures.
//
// A signature covers the text widened to 16-bit units. Signing: read the private key's hexadecimal text, convert,
// widen and digest block by block, sign, return hexadecimal text. Verifying: the same with the public key and the
// signature's text. Private keys pass through wiped buffers only. Odd: signing widens bytes without sign and verifying
// with sign, so own signatures over bytes of 0x80 and above do not verify here. A failure of OpenSSL counts only when
// OpenSSL still works: without memory it calls good keys and signatures bad.

#include <endian.h>
#include <openssl/err.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

#include "core/icct.h"
#include "core/icct_digest.h"
#include "core/kvxctx.h"
#include "core/kvxctx_checks.h"
#include "core/kvxctx_conversions.h"
#include "core/kvxctx_settings.h"
#include "core/kvxdirectory.h"
#include "core/kvxfile.h"
#include "core/kvxlines_core.h"
#include "core/kvxwipe.h"
#include "foundation/tbexception.h"
#include "foundation/tbforkgate.h"
#include "net/kvxmemorywatch.h"

namespace {

constexpr std::size_t kGeneratedKeyBytes = 4096;
constexpr std::size_t kKeyBytes = 1024;
constexpr std::size_t kOwnSignatureBytes = 1024;
constexpr std::size_t kSignatureBytes = 4096;

constexpr char kKeyRefused[] = ": KEYPIN or MINKEYBITS refuses this key";
constexpr char kSignatureDoesNotFit[] = ": the signature was not made over this text with this key";

/// Deliberate (widening-differs): signing widens without sign, verifying with sign. They agree on 7-bit text only.
enum class Sign { kIgnored, kExtended };

/// `character` as a 16-bit little-endian unit.
std::uint16_t widened(char character, Sign sign) {
    int const value = sign == Sign::kExtended ? static_cast<signed char>(character)
                                              : static_cast<int>(static_cast<unsigned char>(character));
    return htole16(static_cast<std::uint16_t>(value));
}

/// Texts whose signed form has more bytes than an `int` counts are neither signed nor verified.
bool isSignable(TbString const& text) {
    return text.length() <= INT_MAX / sizeof(std::uint16_t);
}

/// The digest of a text's signed form: each byte as one unit, without a terminating one. The units pass through a
/// wiped buffer.
KvxDigest digestOfWidened(TbString const& text, Sign sign) {
    constexpr std::size_t kBlock = 256;
    std::uint16_t units[kBlock];
    std::size_t const length = text.length();
    KvxSha1 digest;
    for (std::size_t begin = 0; begin < length; begin += kBlock) {
        std::size_t const count = std::min(kBlock, length - begin);
        char const* const block = text.c_str() + begin;
        std::transform(block, block + count, units, [sign](char character) { return widened(character, sign); });
        digest.add(units, count * sizeof *units);
    }
    OPENSSL_cleanse(units, std::min(kBlock, length) * sizeof *units);
    return digest.digest();
}

/// The bytes of a key in the `content` of its file; `size` as for kvxHexToBytes().
std::int32_t readKeyText(TbString const& content, unsigned char* bytes, unsigned long& size) {
    return kvxHexToBytes(content.c_str(), kvxLengthWithoutPadding(content), bytes, &size);
}

// A public key and its signature over no bytes, made by another program.
unsigned char const kKnownKey[] = {
    0x30, 0x48, 0x02, 0x41, 0x00, 0xe8, 0x40, 0xfc, 0xc0, 0xcb, 0xad, 0x07, 0x29, 0xdf, 0xfa, 0xf2, 0xeb, 0x39, 0x07,
    0xba, 0x32, 0x0e, 0x12, 0x45, 0xca, 0x0a, 0x37, 0x3f, 0x05, 0xdb, 0xc0, 0xa3, 0x86, 0x87, 0xdf, 0x05, 0xee, 0xb2,
    0xcf, 0x7d, 0xa6, 0x06, 0x52, 0xc3, 0xae, 0x59, 0x92, 0xf0, 0xa3, 0x01, 0x08, 0xf4, 0x20, 0x14, 0x5f, 0xab, 0x05,
    0x2f, 0xb5, 0xf1, 0x37, 0x4b, 0xc0, 0xf8, 0x23, 0x76, 0xf1, 0x7c, 0x99, 0x02, 0x03, 0x01, 0x00, 0x01};
unsigned char const kKnownSignature[] = {0x1f, 0x5b, 0x88, 0xe8, 0x17, 0x7b, 0xf7, 0xd2, 0x65, 0x96, 0x81, 0x47, 0xa9,
                                         0x4d, 0x22, 0x07, 0x38, 0x94, 0xbd, 0xa5, 0x58, 0xe2, 0x74, 0xad, 0x7b, 0xec,
                                         0x7c, 0x9b, 0x6d, 0x64, 0x2b, 0xdb, 0xcc, 0x64, 0x38, 0x81, 0x77, 0x44, 0x49,
                                         0x60, 0x83, 0x3a, 0x64, 0x6a, 0x93, 0xfe, 0xed, 0x4f, 0xaf, 0xb7, 0x6a, 0x19,
                                         0xba, 0x02, 0x03, 0x9d, 0x58, 0x50, 0xdf, 0xcc, 0xcc, 0xdb, 0xba, 0xb1};

/// Whether OpenSSL works in this process: it verifies a signature that is known to be right. Without memory it does
/// not, and after an initialisation that ran out of memory it never does again.
bool isWorking() {
    unsigned char key[sizeof kKnownKey];
    unsigned char signature[sizeof kKnownSignature];
    std::memcpy(key, kKnownKey, sizeof key);
    std::memcpy(signature, kKnownSignature, sizeof signature);
    return ICCT_Verify(key, sizeof key, nullptr, 0, signature, sizeof signature) == 0;
}

/// The same for OpenSSL's generator of secret random numbers, which private keys are made and used with. It may have
/// no source of randomness, so its failure means lack of memory only in a process that has lacked some.
bool isWorkingWithSecrets() {
    TbForkGate const gate;
    unsigned char number = 0;
    return RAND_priv_bytes(&number, sizeof number) == 1;
}

/// Which parts of OpenSSL an operation needs.
enum class Needs { kPublicKeys, kSecrets };

/// Whether one of the RSA functions succeeds, tried again once: a single allocation may have failed. Raises
/// KVX_E_OUT_OF_MEMORY (TBFC_Exception) when memory is lacking; a shop must not take that for a forged confirmation.
/// The error queue keeps the entries of the first attempt alone.
template <class Operation>
bool succeeds(Needs needs, Operation operation) {
    errno = 0;
    if (operation() == 0) {
        return true;
    }
    if (errno == ENOMEM) {
        kvxNoteLackOfMemory();
    }
    ERR_set_mark();
    bool const succeeded = operation() == 0;
    bool const needsSecrets = needs == Needs::kSecrets && kvxHasLackedMemory();
    bool const isLacking = !succeeded && !(isWorking() && (!needsSecrets || isWorkingWithSecrets()));
    ERR_pop_to_mark();
    if (succeeded || isLacking) {
        kvxNoteLackOfMemory();
    }
    if (isLacking) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    return succeeded;
}

/// Whether a check that asks OpenSSL holds, in the same way.
template <class Check>
bool holds(Check check) {
    return succeeds(Needs::kPublicKeys, [&] { return check() ? 0 : -1; });
}

}  // namespace

void KVX_Context::GenKey(TbString& keyId) {
    KvxWipedBuffer<kGeneratedKeyBytes> publicKey;
    KvxWipedBuffer<kGeneratedKeyBytes> privateKey;
    int publicLength = 0;
    int privateLength = 0;
    if (!succeeds(Needs::kSecrets, [&] {
            return ICCT_GenerateKeys(publicKey.m_Bytes, &publicLength, privateKey.m_Bytes, &privateLength, nullptr, 0);
        })) {
        kvx::kSourceCtx.fail(KVX_E_CRYPTO, kvx::kLineGenKey);
    }
    TbString const publicHex = BufferToHex(publicKey.m_Bytes, static_cast<unsigned long>(publicLength));
    TbString privateHex = BufferToHex(privateKey.m_Bytes, static_cast<unsigned long>(privateLength));
    privateHex.keepSecret();
    UpdateFile(kvx::publicKeyFile(keyId), publicHex);
    UpdateFile(kvx::privateKeyFile(keyId), privateHex);
}

void KVX_Context::SignData(TbString const& data, TbString const& keyId, TbString& signature) {
    KvxFileText keyText;
    if (!readKeyFile(kvx::privateKeyFile(keyId), keyId, keyText)) {
        kvx::kSourceCtx.failBecause(kvxFileCause(m_Path, kvx::privateKeyFile(keyId), ": there is no such key"),
                                    KVX_E_NOT_FOUND, kvx::kLineSignNoKey);
    }
    KvxWipedBuffer<kKeyBytes> key;
    unsigned long keyLength = sizeof key.m_Bytes;
    if (readKeyText(keyText, key.m_Bytes, keyLength) != KVX_OK) {
        TbString const file = kvx::privateKeyFile(keyId);
        kvx::kSourceCtx.failBecause(kvxFileCause(m_Path, file, ": is no hexadecimal text"), KVX_E_INVALID_KEY,
                                    kvx::kLineSignKeyBlob, file);
    }
    if (!isSignable(data)) {
        kvx::kSourceCtx.fail(KVX_E_CRYPTO, kvx::kLineSignFailed);
    }
    KvxDigest const digest = digestOfWidened(data, Sign::kIgnored);
    unsigned char bytes[kOwnSignatureBytes];
    unsigned long length = sizeof bytes;
    if (!succeeds(Needs::kSecrets,
                  [&] { return ICCT_SignDigest(key.m_Bytes, static_cast<int>(keyLength), digest, bytes, &length); })) {
        kvx::kSourceCtx.fail(KVX_E_CRYPTO, kvx::kLineSignFailed);
    }
    KvxSignatureText text;
    kvxHexInto(text, bytes, length);
    signature = text;
}

void KVX_Context::VerifyData(TbString const& data, TbString const& keyId, TbString const& signature) {
    requireVerified(settingsForVerification(), data, keyId, signature);
}

void KVX_Context::requireVerified(KVX_Settings const& settings, TbString const& data, TbString const& keyId,
                                  TbString const& signature) {
    KvxFileText keyText;
    if (!readKeyFile(kvx::publicKeyFile(keyId), keyId, keyText)) {
        kvx::kSourceCtx.failBecause(kvxFileCause(m_Path, kvx::publicKeyFile(keyId), ": there is no such key"),
                                    KVX_E_NOT_FOUND, kvx::kLineVerifyNoKey);
    }
    unsigned char key[kKeyBytes];
    unsigned long keyLength = sizeof key;
    if (readKeyText(keyText, key, keyLength) != KVX_OK) {
        TbString const file = kvx::publicKeyFile(keyId);
        kvx::kSourceCtx.failBecause(kvxFileCause(m_Path, file, ": is no hexadecimal text"), KVX_E_INVALID_KEY,
                                    kvx::kLineVerifyKeyBlob, file);
    }
    unsigned char bytes[kSignatureBytes];
    unsigned long length = sizeof bytes;
    // Deliberate (bad-signature-text): a signature that is no hexadecimal text has the code of a bad key.
    if (kvxHexToBytes(signature.c_str(), signature.length(), bytes, &length) != KVX_OK) {
        kvx::kSourceCtx.failBecause("the signature is no hexadecimal text", KVX_E_INVALID_KEY,
                                    kvx::kLineVerifySignatureText);
    }
    if (!holds([&] { return kvxIsAcceptedKey(settings, {key, keyLength}); })) {
        kvx::kSourceCtx.failBecause(kvxFileCause(m_Path, kvx::publicKeyFile(keyId), kKeyRefused),
                                    KVX_E_INVALID_SIGNATURE, kvx::kLineVerifyKeyRefused);
    }
    if (settings.m_HasStrictSignature && !holds([&] { return kvxIsCanonicalSignature(signature, {key, keyLength}); })) {
        kvx::kSourceCtx.failBecause("STRICTSIG wants lower-case digits, as many as the key has",
                                    KVX_E_INVALID_SIGNATURE, kvx::kLineVerifySpelling);
    }
    if (!isSignable(data)) {
        kvx::kSourceCtx.fail(KVX_E_INVALID_SIGNATURE, kvx::kLineVerifyFailed);
    }
    KvxDigest const digest = digestOfWidened(data, Sign::kExtended);
    if (!succeeds(Needs::kPublicKeys,
                  [&] { return ICCT_VerifyDigest(key, static_cast<int>(keyLength), digest, bytes, length); })) {
        kvx::kSourceCtx.failBecause(kvxFileCause(m_Path, kvx::publicKeyFile(keyId), kSignatureDoesNotFit),
                                    KVX_E_INVALID_SIGNATURE, kvx::kLineVerifyFailed);
    }
}

/// Refuses the text of a server's key that the settings exclude.
void KVX_Context::requireAcceptable(TbString const& keyBlob) {
    KVX_Settings const settings = settingsForVerification();
    unsigned char bytes[kKeyBytes];
    unsigned long length = sizeof bytes;
    if (kvxHexToBytes(keyBlob.c_str(), keyBlob.length(), bytes, &length) != KVX_OK) {
        length = 0;
    }
    bool const isAccepted = holds([&] {
        bool const isUsable = !settings.m_HasStrictKeys || kvxIsUsableKey({bytes, length});
        return isUsable && kvxIsAcceptedKey(settings, {bytes, length});
    });
    if (!isAccepted) {
        kvx::kSourceCtx.failBecause("KEYPIN, MINKEYBITS or STRICTKEYS refuses the key that the service sent",
                                    KVX_E_INVALID_KEY, kvx::kLineImportKeyRefused);
    }
}

/// Whether the private half of `keyId` is here.
bool KVX_Context::hasPrivateKey(TbString const& keyId) {
    kvx::JoinedPath const file = kvx::privateKeyFile(keyId);
    KvxFileText text;
    try {
        return readKeyFile(file, keyId, text);
    } catch (KVX_Exception const& failure) {
        if (failure.code() != KVX_E_FILE_IO) {
            throw;
        }
        // A missing file is harmless here, so one that cannot be read has the code of all such files.
        kvx::kSourceCtx.failBecause(kvxNotedCause(), KVX_E_CANNOT_OPEN, kvx::kLineReadFile, file);
    }
}
