// Keys and signatures.
//
// A signature covers the text widened to 16-bit units. Signing: read the private key's hexadecimal text, convert,
// widen, sign, return hexadecimal text. Verifying: the same with the public key and the signature's text. Private keys
// pass through wiped buffers only. Odd: signing widens bytes without sign and verifying with sign, so own signatures
// over bytes of 0x80 and above do not verify here.

#include "core/icct.h"
#include "core/kvxctx.h"
#include "core/kvxctx_checks.h"
#include "core/kvxctx_settings.h"
#include "core/kvxdirectory.h"
#include "core/kvxfile.h"
#include "core/kvxlines_core.h"
#include "core/kvxwipe.h"
#include "foundation/tbmemory.h"

namespace {

constexpr std::size_t kGeneratedKeyBytes = 4096;
constexpr std::size_t kKeyBytes = 1024;
constexpr std::size_t kOwnSignatureBytes = 1024;
constexpr std::size_t kSignatureBytes = 4096;

/// The signed form of a text: each byte as one 16-bit little-endian unit, without a terminating one.
class WidenedText {
public:
    /// Deliberate (widening-differs): signing widens without sign, verifying with sign. They agree on 7-bit text only.
    enum class Sign { kIgnored, kExtended };

    WidenedText(TbString const& text, Sign sign)
        : m_Length(2 * static_cast<unsigned long>(text.length())),
          m_Units(tbHoldMemory(static_cast<std::size_t>(m_Length) + 2)) {
        unsigned char* const units = bytes();
        for (std::uint32_t i = 0; i < text.length(); ++i) {
            auto const byte = static_cast<unsigned char>(text[i]);
            units[2 * std::size_t{i}] = byte;
            units[2 * std::size_t{i} + 1] = sign == Sign::kExtended && byte >= 0x80 ? 0xFF : 0;
        }
        units[m_Length] = 0;
        units[m_Length + 1] = 0;
    }

    [[nodiscard]] unsigned char* bytes() const { return reinterpret_cast<unsigned char*>(m_Units.get()); }
    [[nodiscard]] unsigned long length() const { return m_Length; }

private:
    unsigned long m_Length;  ///< Without the terminating unit.
    TbMemoryHolder m_Units;
};

}  // namespace

void KVX_Context::GenKey(TbString& keyId) {
    KvxWipedBuffer<kGeneratedKeyBytes> publicKey;
    KvxWipedBuffer<kGeneratedKeyBytes> privateKey;
    int publicLength = 0;
    int privateLength = 0;
    if (ICCT_GenerateKeys(publicKey.m_Bytes, &publicLength, privateKey.m_Bytes, &privateLength, nullptr, 0) != 0) {
        kvx::kSourceCtx.fail(KVX_E_CRYPTO, kvx::kLineGenKey);
    }
    TbString const publicHex = BufferToHex(publicKey.m_Bytes, static_cast<unsigned long>(publicLength));
    TbString privateHex = BufferToHex(privateKey.m_Bytes, static_cast<unsigned long>(privateLength));
    KvxTextWiper const wiper(privateHex);
    UpdateFile(kvx::publicKeyFile(keyId), publicHex);
    UpdateFile(kvx::privateKeyFile(keyId), privateHex);
}

void KVX_Context::SignData(TbString const& data, TbString const& keyId, TbString& signature) {
    TbStringStream keyText;
    KvxTextWiper const wiper(keyText);
    if (!readKeyFile(kvx::privateKeyFile(keyId), keyId, keyText)) {
        kvx::kSourceCtx.fail(KVX_E_NOT_FOUND, kvx::kLineSignNoKey);
    }
    WidenedText const widened(data, WidenedText::Sign::kIgnored);
    KvxWipedBuffer<kKeyBytes> key;
    unsigned long keyLength = sizeof key.m_Bytes;
    if (HexToBuffer(kvxWithoutPadding(keyText), key.m_Bytes, &keyLength) != KVX_OK) {
        kvx::kSourceCtx.fail(KVX_E_INVALID_KEY, kvx::kLineSignKeyBlob, kvx::privateKeyFile(keyId));
    }
    unsigned char bytes[kOwnSignatureBytes];
    unsigned long length = sizeof bytes;
    if (ICCT_Signature(key.m_Bytes, static_cast<int>(keyLength), widened.bytes(), widened.length(), bytes, &length) !=
        0) {
        kvx::kSourceCtx.fail(KVX_E_CRYPTO, kvx::kLineSignFailed);
    }
    signature = BufferToHex(bytes, length);
}

void KVX_Context::VerifyData(TbString const& data, TbString const& keyId, TbString const& signature) {
    requireVerified(settingsForVerification(), data, keyId, signature);
}

void KVX_Context::requireVerified(KVX_Settings const& settings, TbString const& data, TbString const& keyId,
                                  TbString const& signature) {
    TbStringStream keyText;
    if (!readKeyFile(kvx::publicKeyFile(keyId), keyId, keyText)) {
        kvx::kSourceCtx.fail(KVX_E_NOT_FOUND, kvx::kLineVerifyNoKey);
    }
    unsigned char key[kKeyBytes];
    unsigned long keyLength = sizeof key;
    if (HexToBuffer(kvxWithoutPadding(keyText), key, &keyLength) != KVX_OK) {
        kvx::kSourceCtx.fail(KVX_E_INVALID_KEY, kvx::kLineVerifyKeyBlob, kvx::publicKeyFile(keyId));
    }
    unsigned char bytes[kSignatureBytes];
    unsigned long length = sizeof bytes;
    // Deliberate (bad-signature-text): a signature that is no hexadecimal text has the code of a bad key.
    if (HexToBuffer(signature, bytes, &length) != KVX_OK) {
        kvx::kSourceCtx.fail(KVX_E_INVALID_KEY, kvx::kLineVerifySignatureText);
    }
    if (!kvxIsAcceptedKey(settings, {key, keyLength})) {
        kvx::kSourceCtx.fail(KVX_E_INVALID_SIGNATURE, kvx::kLineVerifyKeyRefused);
    }
    if (settings.m_HasStrictSignature && !kvxIsCanonicalSignature(signature, {key, keyLength})) {
        kvx::kSourceCtx.fail(KVX_E_INVALID_SIGNATURE, kvx::kLineVerifySpelling);
    }
    WidenedText const widened(data, WidenedText::Sign::kExtended);
    if (ICCT_Verify(key, static_cast<int>(keyLength), widened.bytes(), widened.length(), bytes, length) != 0) {
        kvx::kSourceCtx.fail(KVX_E_INVALID_SIGNATURE, kvx::kLineVerifyFailed);
    }
}

/// Refuses the text of a server's key that the settings exclude.
void KVX_Context::requireAcceptable(TbString const& keyBlob) {
    KVX_Settings const settings = settingsForVerification();
    unsigned char bytes[kKeyBytes];
    unsigned long length = sizeof bytes;
    if (HexToBuffer(keyBlob, bytes, &length) != KVX_OK) {
        length = 0;
    }
    bool const isUsable = !settings.m_HasStrictKeys || kvxIsUsableKey({bytes, length});
    if (!isUsable || !kvxIsAcceptedKey(settings, {bytes, length})) {
        kvx::kSourceCtx.fail(KVX_E_INVALID_KEY, kvx::kLineImportKeyRefused);
    }
}

/// Whether the key `keyId` is the merchant's own.
bool KVX_Context::hasPrivateKey(TbString const& keyId) {
    TbStringStream text;
    KvxTextWiper const wiper(text);
    return readKeyFile(kvx::privateKeyFile(keyId), keyId, text);
}
