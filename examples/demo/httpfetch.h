/// The HTTP client of the demonstration: what its shopper's browser sends and receives.
#ifndef TALLOWIN_EXAMPLES_DEMO_HTTPFETCH_H
#define TALLOWIN_EXAMPLES_DEMO_HTTPFETCH_H

#include <string>

namespace demo {

/// A URL, split for a client.
struct HttpUrl {
    std::string m_Host;    ///< "127.0.0.1"
    std::string m_Port;    ///< "8080"; "80" when the URL has no port.
    std::string m_Target;  ///< Path and query, "/pay?DATA=..."; at least "/".
};

/// Splits an absolute URL; drops its fragment. Throws std::runtime_error when it is not "http://HOST...".
HttpUrl parseUrl(std::string const& url);

/// An HTTP response.
struct Response {
    int m_Status = 0;
    std::string m_Location;  ///< The Location header, byte for byte; empty when absent.
    std::string m_Body;
};

/// Sends a GET request for `url`, or a POST request when `form` (URL-encoded) is not empty. Does not follow redirects.
/// Each socket operation has a timeout of ten seconds. Throws std::runtime_error when no complete response arrives.
Response fetch(std::string const& url, std::string const& form = "");

}  // namespace demo

#endif
