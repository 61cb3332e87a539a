#include "core/kvxctx_checks.h"

#include <openssl/evp.h>

#include "core/icct_modulus.h"
#include "foundation/tbforkgate.h"
#include "xml/xmlparser.h"

namespace {

constexpr std::uint32_t kDigestBytes = 32;
constexpr std::uint32_t kBitsPerByte = 8;

/// The digest is compared as text: it is as public as the key.
bool isPinned(TbString const& pin, KvxPublicKey key) {
    unsigned char digest[kDigestBytes];
    TbForkGate const gate;
    if (EVP_Digest(key.m_Bytes, key.m_Length, digest, nullptr, EVP_sha256(), nullptr) != 1) {
        return false;
    }
    TbString text("");
    constexpr char kDigits[] = "0123456789abcdef";
    for (unsigned char const byte : digest) {
        text.append(kDigits[byte >> 4]);
        text.append(kDigits[byte & 0x0F]);
    }
    return text == pin;
}

}  // namespace

bool kvxIsAcceptedKey(KVX_Settings const& settings, KvxPublicKey key) {
    if (!settings.m_KeyPin.isEmpty() && !isPinned(settings.m_KeyPin, key)) {
        return false;
    }
    return settings.m_MinKeyBits == 0 || ICCT_UsableModulusBits(key.m_Bytes, key.m_Length) >= settings.m_MinKeyBits;
}

bool kvxIsUsableKey(KvxPublicKey key) {
    return ICCT_UsableModulusBits(key.m_Bytes, key.m_Length) != 0;
}

bool kvxIsCanonicalSignature(TbString const& signature, KvxPublicKey key) {
    std::uint32_t const bits = ICCT_UsableModulusBits(key.m_Bytes, key.m_Length);
    if (signature.length() != 2 * ((bits + kBitsPerByte - 1) / kBitsPerByte)) {
        return false;
    }
    for (std::uint32_t i = 0; i < signature.length(); ++i) {
        if (signature[i] >= 'A' && signature[i] <= 'F') {
            return false;
        }
    }
    return true;
}

bool kvxIsReadableName(TbString const& name) {
    for (std::uint32_t i = 0; i < name.length(); ++i) {
        if (isAlnum(name[i]) == 0) {
            return false;
        }
    }
    return !name.isEmpty();
}
