/// Host addresses with a deadline. Internal: not installed.
#ifndef TALLOWIN_NET_KVXHTTP_ADDRESS_H
#define TALLOWIN_NET_KVXHTTP_ADDRESS_H

#include <cstdint>

#include "foundation/tbstring.h"

struct sockaddr;

/// As MakeHostAddr, but not after `latest`, a time of kvxNow(); 0 is no limit. Then it returns KVX_E_SOCKET_TIMEOUT.
[[nodiscard]] std::int32_t kvxMakeHostAddr(TbString const& host, TbString const& port, std::int64_t latest,
                                           sockaddr* address);

#endif
