#ifndef TALLOWIN_SANDBOX_PROXY_PROXYREQUEST_H
#define TALLOWIN_SANDBOX_PROXY_PROXYREQUEST_H

#include <string>

#include "sandbox/http/connection.h"

namespace sandbox {

/// The parts of a request to the proxy.
struct ProxyRequest {
    std::string m_Line;    ///< The first line, with its line end.
    std::string m_Method;  ///< In it.
    std::string m_Target;  ///< In it, as it came.
    std::string m_Fields;  ///< The header lines and the empty one, without the credentials for the proxy.
    std::string m_Ahead;   ///< What was read together with the head and follows it.
};

/// Reads the head of a request whose beginning, its first line if there is one, is `text`. Throws HttpError.
ProxyRequest readProxyRequest(Connection& connection, std::string text);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_PROXY_PROXYREQUEST_H
