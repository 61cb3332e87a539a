/// Trust and versions of TLS. Internal: not installed.
#ifndef TALLOWIN_NET_KVXTLS_H
#define TALLOWIN_NET_KVXTLS_H

#include <openssl/ssl.h>

#include <cstdint>

#include "foundation/tbstringstream.h"
#include "net/kvxtransfer.h"

/// Appends the text of the trusted authorities that `transfer` names by a file. False when it cannot be read. May run
/// out of memory (TBFC_Exception).
[[nodiscard]] bool kvxReadTrust(KVX_Transfer const& transfer, TbStringStream& trust);

/// Lets `context` refuse what `transfer` does not accept: versions of TLS, and with `verifyPeer` every certificate that
/// does not lead to one of the authorities in `trust`, or of the system where no file is named. Returns KVX_OK;
/// KVX_E_TLS_FAMILY | kKvxTlsTrust when these cannot be had: there are none, or they are damaged; KVX_E_OUT_OF_MEMORY,
/// also when lack of memory may have hidden some of them.
[[nodiscard]] std::int32_t kvxProtect(SSL_CTX* context, KVX_Transfer const& transfer, TbString const& trust);

#endif
