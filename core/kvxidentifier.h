/// Key identifiers that come from outside. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXIDENTIFIER_H
#define TALLOWIN_CORE_KVXIDENTIFIER_H

#include "foundation/tbstring.h"

/// Whether `keyId`, used as a file name, stays in its directory: no "/", no zero byte, not "." or "..".
///
/// A shopper's message or a server's answer names keys before any signature has been checked. No identifier that the
/// system makes fails this.
inline bool kvxNamesFileInDirectory(TbString const& keyId) {
    if (keyId == TbString(".") || keyId == TbString("..")) {
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
