#ifndef TALLOWIN_SANDBOX_HTTP_LISTENER_H
#define TALLOWIN_SANDBOX_HTTP_LISTENER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "sandbox/faults/faultregistry.h"
#include "sandbox/http/acceptor.h"
#include "sandbox/http/hostport.h"
#include "sandbox/http/httpmessages.h"
#include "sandbox/http/tlsidentity.h"

namespace sandbox {

class RequestServer;

/// An HTTP server on one port. Every connection carries one exchange and is closed after it. Paths and
/// queries reach the handler as they came, up to four megabytes.
class Listener {
public:
    /// Called by several threads at once; must not throw.
    using Handler = std::function<HttpResponse(HttpRequest const& request)>;

    /// Takes the port (0 picks one) of `address`; connections wait until start(). `tls` is null for plain HTTP,
    /// `faults` for a port whose connections never fail; both are borrowed. A request that is not complete after
    /// `timeout` is dropped. Throws std::runtime_error.
    Listener(std::uint16_t port, TlsIdentity const* tls, FaultRegistry* faults, std::chrono::milliseconds timeout,
             ListenAddress const& address);

    /// Stops.
    ~Listener();

    [[nodiscard]] std::uint16_t port() const;

    /// Without a slash at the end.
    [[nodiscard]] std::string baseUrl() const;

    /// Serves requests with `handler` until stop(). Throws std::runtime_error.
    void start(Handler handler);

    /// See Acceptor::refuseUntil().
    void refuseUntil(Acceptor::Clock::time_point moment);

    /// Stops accepting requests.
    void beginStop();

    /// Finishes requests that have arrived, closes everything and returns when no thread is left.
    void stop();

private:
    Acceptor::Serve admit();
    void serve(int socket, Acceptor::Clock::time_point accepted, std::optional<Fault> const& fault);

    std::string m_Name;        ///< Of the host, in the base URL.
    TlsIdentity const* m_Tls;  ///< Borrowed; null for plain HTTP.
    FaultRegistry* m_Faults;   ///< Borrowed; null without faults.
    std::chrono::milliseconds m_RequestTimeout;
    std::unique_ptr<RequestServer> m_Server;
    Acceptor m_Acceptor;  ///< Last, so that no connection is served any more when the rest goes.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_LISTENER_H
