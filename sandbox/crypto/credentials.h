#ifndef TALLOWIN_SANDBOX_CRYPTO_CREDENTIALS_H
#define TALLOWIN_SANDBOX_CRYPTO_CREDENTIALS_H

#include <string>

namespace sandbox {

struct Credentials {
    std::string m_User;
    std::string m_Password;
};

/// The credentials of an Authorization header ("Basic " and Base64 of user:password). Throws HttpError with what is
/// wrong with the header; `header` empty means there was none.
Credentials readBasicHeader(std::string const& header);

/// A slow salted hash of `password`. Throws std::runtime_error.
std::string hashPassword(std::string const& salt, std::string const& password);

/// Whether both are equal, in a time that does not depend on where they differ.
bool equalSecrets(std::string const& one, std::string const& other);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CRYPTO_CREDENTIALS_H
