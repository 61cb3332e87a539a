#ifndef TALLOWIN_SANDBOX_PROXY_PROXY_H
#define TALLOWIN_SANDBOX_PROXY_PROXY_H

#include <chrono>
#include <cstdint>
#include <string>

#include "sandbox/http/acceptor.h"
#include "sandbox/http/endsignal.h"
#include "sandbox/service/services.h"

namespace sandbox {

/// An HTTP/1.0 proxy on one port of 127.0.0.1, for merchants that use one. It reaches programs on this machine only:
/// plain requests with an absolute address, and tunnels (CONNECT). Every connection carries one request; each is
/// stored as an exchange, and the faults of the exchange "proxy" apply to its response.
class Proxy {
public:
    struct Timeouts {
        std::chrono::milliseconds m_Request;   ///< Until the head of the request is complete.
        std::chrono::milliseconds m_Response;  ///< Until the target begins to respond.
    };

    /// Takes the port (0 picks one); connections wait until start(). Borrows `services`. Throws std::runtime_error.
    Proxy(std::uint16_t port, Services const& services, Timeouts timeouts);

    /// Stops.
    ~Proxy();

    [[nodiscard]] std::uint16_t port() const { return m_Acceptor.port(); }

    /// Without a slash at the end.
    [[nodiscard]] std::string baseUrl() const;

    /// Serves requests until stop(). Throws std::runtime_error.
    void start();

    /// See Acceptor::refuseUntil().
    void refuseUntil(Acceptor::Clock::time_point moment);

    /// Carries what has arrived to where it goes, cuts everything else and returns when no thread is left.
    void stop();

private:
    void serve(int socket, Acceptor::Clock::time_point accepted);

    Services const& m_Services;  ///< Borrowed.
    Timeouts m_Timeouts;
    Acceptor m_Acceptor;  ///< Last, so that no connection is served any more when the rest goes.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_PROXY_PROXY_H
