#ifndef TALLOWIN_SANDBOX_PROXY_PROXY_H
#define TALLOWIN_SANDBOX_PROXY_PROXY_H

#include <chrono>

#include "sandbox/http/connection.h"
#include "sandbox/service/services.h"

namespace sandbox {

/// Serves one request to an HTTP/1.0 proxy, for merchants that use one. It reaches programs on this machine only: plain
/// requests with an absolute address, and tunnels (CONNECT). The request is stored as an exchange, and the faults of
/// the exchange "proxy" apply to its response. The target must begin to respond before `timeout`.
void serveProxyRequest(Services const& services, Connection& connection, std::chrono::milliseconds timeout);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_PROXY_PROXY_H
