/// The configuration directory: the names of its files. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXDIRECTORY_H
#define TALLOWIN_CORE_KVXDIRECTORY_H

#include <cstddef>

#include "foundation/tbstring.h"

namespace kvx {

// Relative to the directory. On disk: do not change.
inline constexpr char kConfigFile[] = "config.xml";              ///< The account, as the server sent it.
inline constexpr char kDefaultsFile[] = "default.xml";           ///< Defaults of new payments, as the server sent them.
inline constexpr char kSettingsFile[] = "settings.xml";          ///< Connection settings, written by the merchant.
inline constexpr char kKeysDirectory[] = "keys";                 ///< Holds all keys.
inline constexpr char kPrivateKeysDirectory[] = "keys/private";  ///< Own keys, one file per key id.
inline constexpr char kPublicKeysDirectory[] = "keys/public";    ///< Own and server keys, one file per key id.
inline constexpr char kCurrentKeyFile[] = "keys/current";        ///< The id of the key that signs.

/// `directory`, of `length` bytes, and `file` with a "/" between them, allocated once.
inline TbString joinedPath(char const* directory, std::size_t length, TbString const& file) {
    TbString path;
    path.grow(static_cast<std::uint32_t>(length) + 1 + file.length());
    path.append(directory, static_cast<std::uint32_t>(length));
    path.append('/');
    path.append(file);
    return path;
}

inline TbString privateKeyFile(TbString const& keyId) {
    return joinedPath(kPrivateKeysDirectory, sizeof kPrivateKeysDirectory - 1, keyId);
}

inline TbString publicKeyFile(TbString const& keyId) {
    return joinedPath(kPublicKeysDirectory, sizeof kPublicKeysDirectory - 1, keyId);
}

/// Whether `file` is the file of a private key.
inline bool isPrivateKeyFile(TbString const& file) {
    return file.find(privateKeyFile("").c_str()) == 0;
}

}  // namespace kvx

#endif
