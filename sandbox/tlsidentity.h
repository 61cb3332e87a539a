#pragma once

#include "sandbox/datadirectory.h"
#include "sandbox/opensslholders.h"

namespace sandbox {

/// A TLS server context for 127.0.0.1 and localhost, from the files server-key.pem and server.pem. When they or ca.pem
/// are missing, all three are made afresh: an authority of their own (its private key is not kept) and a server
/// certificate under it. Clients trust ca.pem. Throws std::runtime_error.
TlsContextHolder makeTlsContext(DataDirectory const& directory);

}  // namespace sandbox
