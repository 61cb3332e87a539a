// One thread accepts and waits for clients that are silent so far; a thread of the pool serves each of the others.
// The accepting thread waits in awaitEvent() for the event that wakes it, the listening socket, and m_Watch, which
// stands for all silent clients. A connection whose first bytes are there goes to the pool at once. One that stays
// silent is shut down for reading, which is what stopping does to all of them, and goes to the pool as well: its server
// finds the end.
//
// Odd: to refuse connections the listening socket is shut down. On Linux that ends listening but keeps the port bound,
// so no other program can take the port. Stopping first ends the incoming direction of every connection; connections
// still open after kGrace are closed.
#include "sandbox/http/listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace sandbox {

namespace {

constexpr std::chrono::seconds kGrace(5);
constexpr std::chrono::milliseconds kPause(50);  // before trying again to accept when the system has no room
constexpr std::size_t kMaxEvents = 64;           // taken from epoll at once

[[noreturn]] void fail(std::string const& what, int error) {
    throw std::runtime_error(what + ": " + std::generic_category().message(error));
}

/// A bound socket. With SO_REUSEADDR and not SO_REUSEPORT, with which two services would share a port unnoticed.
FileDescriptor boundSocket(std::uint16_t port, std::string const& name) {
    FileDescriptor socket =
        checkedDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "cannot make a socket");
    int const yes = 1;
    ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    if (::inet_pton(AF_INET, name.c_str(), &address.sin_addr) != 1) {
        fail("cannot listen on " + name, EINVAL);
    }
    address.sin_port = htons(port);
    if (::bind(socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
        fail("cannot listen on " + name + ":" + std::to_string(port) + " (is another program using the port?)", errno);
    }
    return socket;
}

std::uint16_t portOf(int socket) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

/// A socket that keeps its port when it is shut down. One that was bound to a port of the system's choice would lose
/// it, so that port is bound again by its number.
FileDescriptor lastingSocket(std::uint16_t port, std::string const& name) {
    FileDescriptor socket = boundSocket(port, name);
    return port == 0 ? boundSocket(portOf(socket.get()), name) : std::move(socket);
}

/// Whether there is something to read, which may be the end.
bool hasInput(int socket) {
    char first = '\0';
    return ::recv(socket, &first, 1, MSG_PEEK) >= 0 || errno != EAGAIN;
}

bool isShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
}

}  // namespace

Listener::Listener(std::uint16_t port, TlsIdentity const* tls, FaultRegistry* faults, std::chrono::milliseconds timeout,
                   ListenAddress const& address)
    : m_Socket(lastingSocket(port, address.m_Address)),
      m_Wake(checkedDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "cannot make an event")),
      m_Watch(checkedDescriptor(::epoll_create1(EPOLL_CLOEXEC), "cannot make an epoll instance")),
      m_Tls(tls),
      m_Faults(faults),
      m_RequestTimeout(timeout) {
    m_Address.m_Port = portOf(m_Socket.get());
    m_Address.m_Url =
        (tls != nullptr ? "https://" : "http://") + address.m_Name + ":" + std::to_string(m_Address.m_Port);
    listen();
}

Listener::~Listener() {
    stop();
}

ServedAddress Listener::address() const {
    return m_Address;
}

void Listener::listen() {
    // Another socket can have taken the port only by listening there while this one did not.
    m_IsListening = ::listen(m_Socket.get(), SOMAXCONN) == 0;
}

void Listener::start(Serve serve, Clock::duration silence) {
    m_Serve = std::move(serve);
    m_Silence = std::min<Clock::duration>(silence, m_RequestTimeout);
    SignalsBlocked const blocked;
    m_Thread = std::thread([this] { run(); });
}

void Listener::refuseUntil(Clock::time_point moment) {
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        m_RefusesUntil = moment;
        bool const refuse = moment > Clock::now();
        if (refuse && m_IsListening) {
            // Linux ends listening with this and keeps the port bound.
            ::shutdown(m_Socket.get(), SHUT_RDWR);
            m_IsListening = false;
        } else if (!refuse && !m_IsListening && !m_Stopping) {
            listen();
        }
    }
    wake();
}

void Listener::beginStop() {
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        if (m_Stopping) {
            return;
        }
        m_Stopping = true;
        m_CutAt = Clock::now() + kGrace;
        // Raised first: a thread that finds the incoming direction ended must be able to see that the client did not
        // end it.
        m_Ending.raise();
        shutDownAll(SHUT_RD);
    }
    wake();
}

void Listener::stop() {
    beginStop();
    if (m_Thread.joinable()) {
        m_Thread.join();
    }
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        if (m_IsListening) {
            ::shutdown(m_Socket.get(), SHUT_RDWR);
            m_IsListening = false;
        }
        if (!m_Ended.wait_until(lock, m_CutAt, [this] { return m_Open.empty(); })) {
            // A client reads slowly or not at all.
            shutDownAll(SHUT_RDWR);
        }
    }
    m_Servers.stop();
}

void Listener::shutDownAll(int direction) {
    for (int const socket : m_Open) {
        ::shutdown(socket, direction);
    }
}

void Listener::wake() const {
    ::eventfd_write(m_Wake.get(), 1);
}

void Listener::run() {
    bool connecting = false;
    bool sending = false;
    while (awaitEvent(connecting, sending)) {
        if (connecting) {
            acceptOne();
        }
        if (sending) {
            serveSpeaking();
        }
        serveSilent();
    }
    for (auto& [number, client] : m_Waiting) {
        serve(std::move(client));
    }
    m_Waiting.clear();
}

/// Returns when somebody may be connecting or a silent client sending, or it is time for what serveSilent() does. False
/// when it is stopping.
bool Listener::awaitEvent(bool& connecting, bool& sending) {
    bool const pauses = Clock::now() < m_PausesUntil;
    Clock::time_point until = pauses ? m_PausesUntil : Clock::time_point::max();
    if (!m_Waiting.empty()) {
        until = std::min(until, m_Waiting.begin()->second.m_Accepted + m_Silence);
    }
    bool accepts = false;
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        if (m_Stopping) {
            return false;
        }
        if (!m_IsListening && m_RefusesUntil <= Clock::now()) {
            listen();
        }
        until = m_IsListening ? until : std::min(until, m_RefusesUntil);
        accepts = m_IsListening && !pauses;
    }
    std::array<pollfd, 3> waits = {pollfd{m_Wake.get(), POLLIN, 0}, pollfd{accepts ? m_Socket.get() : -1, POLLIN, 0},
                                   pollfd{m_Waiting.empty() ? -1 : m_Watch.get(), POLLIN, 0}};
    ::poll(waits.data(), waits.size(), pollTimeoutUntil(until));
    eventfd_t wakes = 0;
    ::eventfd_read(m_Wake.get(), &wakes);
    connecting = waits[1].revents != 0;
    sending = waits[2].revents != 0;
    return true;
}

void Listener::acceptOne() {
    int const socket = ::accept4(m_Socket.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (socket < 0) {
        m_PausesUntil = isShortage(errno) ? Clock::now() + kPause : Clock::time_point();
        return;
    }
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        m_Open.insert(socket);
        if (m_Stopping) {
            ::shutdown(socket, SHUT_RD);
        }
    }
    auto fault = m_Faults != nullptr ? m_Faults->takeForConnection(m_Tls != nullptr) : std::nullopt;
    Client client{socket, std::move(fault), Clock::now()};
    std::uint64_t const number = ++m_Accepted;
    if (hasInput(socket) || !watch(socket, number)) {
        serve(std::move(client));
    } else {
        m_Waiting.emplace(number, std::move(client));
    }
}

/// False when the system has no room for it.
bool Listener::watch(int socket, std::uint64_t number) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = number;
    return ::epoll_ctl(m_Watch.get(), EPOLL_CTL_ADD, socket, &event) == 0;
}

void Listener::serveSpeaking() {
    std::array<epoll_event, kMaxEvents> events;
    int const count = ::epoll_wait(m_Watch.get(), events.data(), static_cast<int>(events.size()), 0);
    for (int i = 0; i < count; ++i) {
        auto const speaking = m_Waiting.find(events[static_cast<std::size_t>(i)].data.u64);
        ::epoll_ctl(m_Watch.get(), EPOLL_CTL_DEL, speaking->second.m_Socket, nullptr);
        serve(std::move(speaking->second));
        m_Waiting.erase(speaking);
    }
}

/// Ends the incoming direction of clients that were silent for too long; serveSpeaking() finds them then.
void Listener::serveSilent() {
    Clock::time_point const before = Clock::now() - m_Silence;
    for (auto each = m_Waiting.begin(); each != m_Waiting.end() && each->second.m_Accepted <= before; ++each) {
        ::shutdown(each->second.m_Socket, SHUT_RD);
    }
}

void Listener::serve(Client client) {
    int const socket = client.m_Socket;
    if (!m_Servers.run([this, client = std::move(client)] { serveOne(client); })) {
        // The system has no thread to give: this client is dropped, the next may be served.
        closeSocket(socket);
    }
}

void Listener::serveOne(Client const& client) {
    try {
        bool const aborts = client.m_Fault && client.m_Fault->m_Kind == FaultKind::kTlsAbort;
        SSL_CTX* const tls = m_Tls != nullptr && !aborts ? m_Tls->context(client.m_Fault) : nullptr;
        Connection connection(client.m_Socket, tls, m_Ending, m_RequestTimeout, client.m_Accepted);
        if (aborts) {
            char hello[1];
            connection.read(hello, sizeof hello);
        } else if (connection.open()) {
            m_Serve(connection);
        }
    } catch (std::exception const& failure) {
        std::cerr << "a connection to port " + std::to_string(m_Address.m_Port) + " was dropped: " + failure.what() +
                         "\n";
    }
    closeSocket(client.m_Socket);
}

void Listener::closeSocket(int socket) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    m_Open.erase(socket);
    ::close(socket);
    m_Ended.notify_all();
}

}  // namespace sandbox
