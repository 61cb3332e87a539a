/// The fingerprint of a key.
#ifndef TALLOWIN_TOOLS_FINGERPRINT_H
#define TALLOWIN_TOOLS_FINGERPRINT_H

#include <string>

namespace tool {

/// The SHA-256 of the key in the file `path`, as 64 hexadecimal digits: the value of the setting KEYPIN for this key.
/// Empty when the file is absent, cannot be read or holds no hexadecimal text.
std::string fingerprintOf(std::string const& path);

}  // namespace tool

#endif
