#ifndef TALLOWIN_SANDBOX_HTTP_TLSIDENTITY_H
#define TALLOWIN_SANDBOX_HTTP_TLSIDENTITY_H

#include <optional>

#include "sandbox/crypto/opensslholders.h"
#include "sandbox/faults/fault.h"
#include "sandbox/store/datadirectory.h"

namespace sandbox {

/// What a TLS server can show of itself: a sound certificate for 127.0.0.1, localhost and its own name, and some that
/// clients should not trust.
struct TlsIdentity {
    TlsContextHolder m_Sound;
    TlsContextHolder m_Expired;
    TlsContextHolder m_WrongHost;
    TlsContextHolder m_UnknownAuthority;

    /// The context for a connection that `fault` happens to.
    [[nodiscard]] SSL_CTX* context(std::optional<Fault> const& fault) const;
};

/// Server contexts from the files server-key.pem and server*.pem. When one of them or ca.pem is missing, or the sound
/// certificate is not for `name`, all are made afresh: an authority of their own (its private key is not kept) and
/// certificates under it. Clients trust ca.pem. Throws std::runtime_error.
TlsIdentity makeTlsIdentity(DataDirectory const& directory, std::string const& name);

/// The context of a client that accepts a certificate for `host` only, from an authority in `authorityFile`. Throws
/// HttpError when no certificates can be read from that.
TlsContextHolder makeClientContext(std::string const& authorityFile, std::string const& host);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_TLSIDENTITY_H
