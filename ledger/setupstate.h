/// What a set-up gives a configuration directory, and its sealed form for other servers.
#ifndef TALLOWIN_LEDGER_SETUPSTATE_H
#define TALLOWIN_LEDGER_SETUPSTATE_H

#include <cstdint>
#include <optional>
#include <string>

#include "ledger/setupfiles.h"

namespace ledger {

/// The files of one set-up.
struct SetupState {
    std::string m_Config;                   ///< "config.xml".
    std::optional<std::string> m_Defaults;  ///< "default.xml"; nothing: it stays as it is.
    std::string m_ServiceKeyId;
    std::string m_ServiceKey;  ///< "keys/public/" and that id.
    std::string m_KeyId;       ///< "keys/current".
    std::string m_PublicKey;
    WipedText m_PrivateKey;

    /// SHA-256 of the own public key's DER form, lower-case hexadecimal.
    [[nodiscard]] std::string fingerprint() const;
};

/// The state without its defaults, encrypted and authenticated under a key made from `secret`, as text. It can be
/// opened for the same `generation` only. Throws Failure (KVX_E_CRYPTO).
std::string sealed(SetupState const& state, std::string const& secret, std::int64_t generation);

/// Throws Failure (KVX_E_CRYPTO) when `text` was sealed under another secret or for another generation, or changed.
SetupState unsealed(std::string const& text, std::string const& secret, std::int64_t generation);

}  // namespace ledger

#endif
