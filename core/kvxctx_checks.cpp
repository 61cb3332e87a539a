#include "core/kvxctx_checks.h"

#include <openssl/evp.h>

#include "core/icct_modulus.h"
#include "core/kvxctx.h"
#include "foundation/tbforkgate.h"
#include "xml/xmlparser.h"

namespace {

constexpr std::uint32_t kDigestBytes = 32;
constexpr std::uint32_t kBitsPerByte = 8;

bool isDigested(KvxPublicKey key, unsigned char* digest) {
    TbForkGate const gate;
    return EVP_Digest(key.m_Bytes, key.m_Length, digest, nullptr, EVP_sha256(), nullptr) == 1;
}

/// The digest is compared as text: it is as public as the key.
bool isPinned(TbString const& pin, KvxPublicKey key) {
    unsigned char digest[kDigestBytes];
    return isDigested(key, digest) && KVX_Context().BufferToHex(digest, sizeof digest) == pin;
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

KvxCause kvxNameCause(TbString const& name) noexcept {
    KvxCause cause;
    cause.put("the name \"").put(name).put("\" does not consist of A-Z a-z 0-9 . - _, as STRICTNAMES wants it");
    return cause;
}

KvxCause kvxKeyIdCause(TbString const& keyId) noexcept {
    KvxCause cause;
    cause.put("the key id \"").put(keyId.c_str()).put("\" is no name of a file");
    return cause;
}
