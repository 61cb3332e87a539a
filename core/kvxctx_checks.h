/// Checks beyond the protocol's own, switched on by settings. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXCTX_CHECKS_H
#define TALLOWIN_CORE_KVXCTX_CHECKS_H

#include <cstdint>

#include "core/kvxcause.h"
#include "core/kvxctx_settings.h"
#include "foundation/tbstring.h"

/// The DER bytes of a public key, borrowed.
struct KvxPublicKey {
    unsigned char const* m_Bytes;
    unsigned long m_Length;
};

/// Whether `key` is the pinned one, where one is pinned, and large enough.
[[nodiscard]] bool kvxIsAcceptedKey(KVX_Settings const& settings, KvxPublicKey key);

/// Whether a signature under `key` could ever be verified here.
[[nodiscard]] bool kvxIsUsableKey(KvxPublicKey key);

/// Whether `signature` is spelled as the signer writes it: lower-case digits, as many as the modulus of `key` has.
[[nodiscard]] bool kvxIsCanonicalSignature(TbString const& signature, KvxPublicKey key);

/// Whether `name` is an attribute name that a reader finds again: name characters only, and not empty.
[[nodiscard]] bool kvxIsReadableName(TbString const& name);

/// Why any other name is refused.
[[nodiscard]] KvxCause kvxNameCause(TbString const& name) noexcept;

/// Why a key id is refused that is no plain name of a file.
[[nodiscard]] KvxCause kvxKeyIdCause(TbString const& keyId) noexcept;

#endif
