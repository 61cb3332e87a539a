/// Key ids from outside. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXIDENTIFIER_H
#define TALLOWIN_CORE_KVXIDENTIFIER_H

#include "foundation/tbstring.h"

/// Whether `keyId`, used as a file name, is a directory's own name: empty, "." or "..".
inline bool kvxNamesDirectory(TbString const& keyId) {
    std::uint32_t dots = 0;
    while (dots < keyId.length() && keyId[dots] == '.') {
        ++dots;
    }
    return dots == keyId.length() && dots <= 2;
}

/// Whether `keyId`, used as a file name, stays in its directory: no "/", no zero byte, not "." or "..".
///
/// A shopper's message or a server's response names keys before any signature has been checked. Every key id that the
/// component makes passes.
inline bool kvxNamesFileInDirectory(TbString const& keyId) {
    if (!keyId.isEmpty() && kvxNamesDirectory(keyId)) {
        return false;
    }
    for (std::uint32_t i = 0; i < keyId.length(); ++i) {
        if (keyId[i] == '/' || keyId[i] == '\0') {
            return false;
        }
    }
    return true;
}

#endif
