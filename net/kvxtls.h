/// Trust and versions of TLS. Internal: not installed.
#ifndef TALLOWIN_NET_KVXTLS_H
#define TALLOWIN_NET_KVXTLS_H

#include <openssl/ssl.h>

#include "net/kvxtransfer.h"

/// Lets `context` refuse what `transfer` does not accept: versions of TLS, and with `verifyPeer` every certificate that
/// does not lead to one of the trusted authorities. False when these cannot be had: the file cannot be read, holds none
/// or is damaged. May run out of memory (TBFC_Exception).
[[nodiscard]] bool kvxProtect(SSL_CTX* context, KVX_Transfer const& transfer);

#endif
