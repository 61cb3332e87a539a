/// The configuration directory: the names of its files. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXDIRECTORY_H
#define TALLOWIN_CORE_KVXDIRECTORY_H

#include "foundation/tblocalstring.h"

namespace kvx {

// Relative to the directory. On disk: do not change.
inline constexpr char kConfigFile[] = "config.xml";              ///< The account, as the server sent it.
inline constexpr char kDefaultsFile[] = "default.xml";           ///< Defaults of new payments, as the server sent them.
inline constexpr char kSettingsFile[] = "settings.xml";          ///< Connection settings, written by the merchant.
inline constexpr char kKeysDirectory[] = "keys";                 ///< Holds all keys.
inline constexpr char kPrivateKeysDirectory[] = "keys/private";  ///< Own keys, one file per key id.
inline constexpr char kPublicKeysDirectory[] = "keys/public";    ///< Own and server keys, one file per key id.
inline constexpr char kCurrentKeyFile[] = "keys/current";        ///< The id of the key that signs.

/// `directory` and `file` with a "/" between them; secret when one of them is.
class JoinedPath : public TbLongString {
public:
    JoinedPath(TbString const& directory, TbString const& file) {
        joinSecrecyOf(directory);
        joinSecrecyOf(file);
        grow(directory.length() + 1 + file.length());
        append(directory);
        append('/');
        append(file);
    }
    using TbString::operator=;
};

inline JoinedPath privateKeyFile(TbString const& keyId) {
    return JoinedPath(TbBorrowed(kPrivateKeysDirectory), keyId);
}

inline JoinedPath publicKeyFile(TbString const& keyId) {
    return JoinedPath(TbBorrowed(kPublicKeysDirectory), keyId);
}

/// Whether `file` is the file of a private key.
inline bool isPrivateKeyFile(TbString const& file) {
    return file.find(privateKeyFile(TbBorrowed("")).c_str()) == 0;
}

}  // namespace kvx

#endif
