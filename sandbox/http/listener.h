#ifndef TALLOWIN_SANDBOX_HTTP_LISTENER_H
#define TALLOWIN_SANDBOX_HTTP_LISTENER_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "sandbox/faults/faultregistry.h"
#include "sandbox/http/acceptor.h"
#include "sandbox/http/connection.h"
#include "sandbox/http/httptext.h"
#include "sandbox/http/tlsidentity.h"

namespace sandbox {

/// A server on one port, plain or under TLS. Every connection carries one exchange and is closed after it.
class Listener {
public:
    /// Serves a connection whose handshake is done. Called by several threads at once.
    using Serve = std::function<void(Connection& connection)>;

    /// Takes the port (0 picks one) of `address`; connections wait until start(). `tls` is null for a plain port,
    /// `faults` for one whose connections never fail; both are borrowed. A request that is not complete after
    /// `timeout` is dropped. Throws std::runtime_error.
    Listener(std::uint16_t port, TlsIdentity const* tls, FaultRegistry* faults, std::chrono::milliseconds timeout,
             ListenAddress const& address);

    [[nodiscard]] std::uint16_t port() const { return m_Acceptor.port(); }

    /// Without a slash at the end.
    [[nodiscard]] std::string baseUrl() const;

    /// Serves connections with `serve` until stop(). A client that sends nothing is waited for `silence` at most.
    /// Throws std::runtime_error.
    void start(Serve serve, Acceptor::Clock::duration silence = Connection::kIoTimeout);

    /// See Acceptor.
    void refuseUntil(Acceptor::Clock::time_point moment) { m_Acceptor.refuseUntil(moment); }
    void beginStop() { m_Acceptor.beginStop(); }

private:
    Acceptor::Serve admit();
    void serve(int socket, Acceptor::Clock::time_point accepted, std::optional<Fault> const& fault);

    std::string m_Name;        ///< Of the host, in the base URL.
    TlsIdentity const* m_Tls;  ///< Borrowed; null for a plain port.
    FaultRegistry* m_Faults;   ///< Borrowed; null without faults.
    std::chrono::milliseconds m_RequestTimeout;
    Serve m_Serve;
    Acceptor m_Acceptor;  ///< Last, so that no connection is served any more when the rest goes.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_LISTENER_H
