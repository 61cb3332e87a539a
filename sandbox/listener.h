#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "sandbox/opensslholders.h"
#include "sandbox/site.h"

namespace sandbox {

/// An address that is answered.
struct Route {
    char const* method;  ///< "GET" or "POST".
    char const* path;
};

/// One port of 127.0.0.1. Every connection carries one exchange and is closed after it. Paths and queries are handed on
/// as they came, up to four megabytes.
class Listener {
public:
    /// Called by several threads at once; must not throw.
    using Handler = std::function<HttpReply(HttpRequest const& request)>;

    /// Takes the port (0 picks one); connections wait until start(). Null `tls` means plain HTTP. Throws
    /// std::runtime_error.
    Listener(std::uint16_t port, TlsContextHolder tls);

    /// Stops.
    ~Listener();

    [[nodiscard]] std::uint16_t port() const;

    /// Without a slash at the end.
    [[nodiscard]] std::string baseUrl() const;

    /// Answers the routes with `handler` until stop(). Throws std::runtime_error.
    void start(std::vector<Route> const& routes, Handler handler);

    /// Lets requests that have arrived finish, closes everything and returns when no thread is left.
    void stop();

private:
    class Server;
    std::unique_ptr<Server> m_Server;
};

}  // namespace sandbox
