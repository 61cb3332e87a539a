#include "sandbox/http/listener.h"

#include <algorithm>
#include <utility>

namespace sandbox {

Listener::Listener(std::uint16_t port, TlsIdentity const* tls, FaultRegistry* faults, std::chrono::milliseconds timeout,
                   ListenAddress const& address)
    : m_Name(address.m_Name),
      m_Tls(tls),
      m_Faults(faults),
      m_RequestTimeout(timeout),
      m_Acceptor(port, address.m_Address) {}

std::string Listener::baseUrl() const {
    return (m_Tls != nullptr ? "https://" : "http://") + m_Name + ":" + std::to_string(port());
}

void Listener::start(Serve serve, Acceptor::Clock::duration silence) {
    m_Serve = std::move(serve);
    m_Acceptor.start([this] { return admit(); }, std::min<Acceptor::Clock::duration>(silence, m_RequestTimeout));
}

/// Takes the fault of the connection, which happens to the next one that is accepted, also when its client stays
/// silent.
Acceptor::Serve Listener::admit() {
    auto fault = m_Faults != nullptr ? m_Faults->takeForConnection(m_Tls != nullptr) : std::nullopt;
    return [this, accepted = Acceptor::Clock::now(), fault = std::move(fault)](int socket) {
        serve(socket, accepted, fault);
    };
}

void Listener::serve(int socket, Acceptor::Clock::time_point accepted, std::optional<Fault> const& fault) {
    bool const aborts = fault && fault->m_Kind == FaultKind::kTlsAbort;
    SSL_CTX* const tls = m_Tls != nullptr && !aborts ? m_Tls->context(fault) : nullptr;
    Connection connection(socket, tls, m_Acceptor.ending(), m_RequestTimeout, accepted);
    if (aborts) {
        char hello[1];
        connection.read(hello, sizeof hello);
    } else if (connection.open()) {
        m_Serve(connection);
    }
}

}  // namespace sandbox
