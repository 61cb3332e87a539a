/// Why an exchange failed, in words. Internal: not installed.
#ifndef TALLOWIN_NET_KVXHTTP_CAUSE_H
#define TALLOWIN_NET_KVXHTTP_CAUSE_H

#include <cstdint>

#include "core/kvxcause.h"
#include "net/kvxhttp.h"

/// Whether scheme, host and port of a split URL may be shown. Credentials that cut the URL in the wrong place leave an
/// "@" in one of its parts; host or port may then be a piece of the password.
[[nodiscard]] bool kvxShowsAddress(URL_INFO const& url) noexcept;

/// "http://host:80", or why the address is not shown.
[[nodiscard]] KvxCause kvxAddressCause(URL_INFO const& url) noexcept;

/// The address, the proxy if there is one, and what `code` means: a socket error, a reason of TLS, a failed lookup.
[[nodiscard]] KvxCause kvxExchangeCause(KVX_RequestInfo const& request, std::int32_t code) noexcept;

/// The same for a response that is not the one required, with its status line.
[[nodiscard]] KvxCause kvxReplyCause(KVX_RequestInfo const& request, TbString const& reply) noexcept;

#endif
