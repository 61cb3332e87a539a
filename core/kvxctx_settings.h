/// The settings of "settings.xml". Internal: not installed.
#ifndef TALLOWIN_CORE_KVXCTX_SETTINGS_H
#define TALLOWIN_CORE_KVXCTX_SETTINGS_H

#include <sys/types.h>

#include <cstdint>

#include "core/kvxlog.h"
#include "foundation/tblocalstring.h"
#include "net/kvxtransfer.h"
#include "xml/xmllimits.h"

/// The merchant's local settings. Every default is the plain behaviour.
struct KVX_Settings {
    TbUncountedString m_ProxyHost;      ///< Empty: no proxy.
    TbUncountedString m_ProxyPort;      ///< Decimal text; "8080" when the settings name a proxy without a port.
    TbUncountedString m_Trace;          ///< Free text; "rawhttp" in it prints the raw exchange. Empty when absent.
    KVX_Transfer m_Transfer;            ///< Of every exchange.
    xmlLimits m_Documents;              ///< Of every document but "settings.xml" itself.
    TbUncountedString m_KeyPin;         ///< SHA-256 of the one server key accepted, in lower-case digits; empty: any.
    std::uint32_t m_MinKeyBits = 0;     ///< Of the server's key; 0: any.
    bool m_HasStrictKeys = false;       ///< Refuse responses that would leave the account unusable.
    bool m_HasStrictConfirm = false;    ///< A confirmation is a "PayConfirm" under a key that is not the merchant's.
    bool m_HasStrictSignature = false;  ///< Signature text in one spelling only.
    bool m_HasStrictNames = false;      ///< Attribute names of name characters only.
    bool m_SyncsFiles = true;           ///< Writes reach the disk before they count.
    mode_t m_KeyMode = 0600;            ///< Of new private keys.
    bool m_IsDamaged = false;           ///< The file is no document; the strict values stand in.

    /// Whether a key that the server sends may be refused.
    [[nodiscard]] bool limitsKeys() const { return m_HasStrictKeys || !m_KeyPin.isEmpty() || m_MinKeyBits != 0; }
};

/// The log that settings ask for; not among them, because they are read more often than written.
struct KvxLogRequest {
    TbUncountedString m_File;              ///< Empty: no log.
    std::uint32_t m_Bytes = kKvxLogBytes;  ///< At which it is renamed; 0: never.
};

/// All protective settings with sound values.
[[nodiscard]] KVX_Settings kvxStrictSettings();

/// What the document `text` says. A malformed limit counts as absent, a malformed switch of a check as on.
/// KVX_E_INVALID_FORMAT (KVX_Exception).
[[nodiscard]] KVX_Settings kvxSettingsIn(TbString const& text);

/// The same, and in `log` the log that it asks for.
[[nodiscard]] KVX_Settings kvxSettingsIn(TbString const& text, KvxLogRequest& log);

#endif
