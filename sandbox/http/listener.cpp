#include "sandbox/http/listener.h"

#include <algorithm>
#include <utility>

#include "sandbox/http/connection.h"
#include "sandbox/http/delivery.h"
#include "sandbox/http/httptext.h"
#include "sandbox/http/requestserver.h"
#include "sandbox/http/requeststream.h"
#include "sandbox/http/signalguards.h"
#include "sandbox/text/httpstatus.h"

namespace sandbox {

Listener::Listener(std::uint16_t port, TlsIdentity const* tls, FaultRegistry* faults, std::chrono::milliseconds timeout,
                   ListenAddress const& address)
    : m_Name(address.m_Name),
      m_Tls(tls),
      m_Faults(faults),
      m_RequestTimeout(timeout),
      m_Acceptor(port, address.m_Address) {}

Listener::~Listener() = default;

std::uint16_t Listener::port() const {
    return m_Acceptor.port();
}

std::string Listener::baseUrl() const {
    return (m_Tls != nullptr ? "https://" : "http://") + m_Name + ":" + std::to_string(port());
}

void Listener::start(Handler handler) {
    SigpipeDispositionKept const kept;
    // Without TLS the HTTP library waits once more for a first line that did not come.
    auto const silence = Connection::kIoTimeout * (m_Tls != nullptr ? 1 : 2);
    m_Server = std::make_unique<RequestServer>(std::move(handler), baseUrl());
    m_Acceptor.start([this] { return admit(); }, std::min<Acceptor::Clock::duration>(silence, m_RequestTimeout));
}

void Listener::refuseUntil(Acceptor::Clock::time_point moment) {
    m_Acceptor.refuseUntil(moment);
}

void Listener::beginStop() {
    m_Acceptor.beginStop();
}

void Listener::stop() {
    m_Acceptor.stop();
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
        return;
    }
    if (!connection.open()) {
        return;
    }
    std::string text = readFirstLine(connection);
    if (text.size() > kMaxRequestLine && text.find('\n') == std::string::npos) {
        deliver(connection, textResponse(httpstatus::kUriTooLong, "The request line is too long."), std::nullopt);
        return;
    }
    m_Server->serve(connection, std::move(text));
}

}  // namespace sandbox
