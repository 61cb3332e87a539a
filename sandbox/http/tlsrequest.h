#ifndef TALLOWIN_SANDBOX_HTTP_TLSREQUEST_H
#define TALLOWIN_SANDBOX_HTTP_TLSREQUEST_H

#include <chrono>
#include <string>

#include "sandbox/http/hostport.h"

namespace sandbox {

/// Sends `request` under TLS to a program on this machine, whose certificate must be for that host and from an
/// authority in `authorityFile`, and returns the response. Every step ends after `timeout`. Throws HttpError when there
/// is no connection; without a complete response, what has come is returned.
std::string requestOverTls(HostPort const& hostPort, std::string const& request, std::string const& authorityFile,
                           std::chrono::milliseconds timeout);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_TLSREQUEST_H
