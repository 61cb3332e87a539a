// One thread accepts, one thread per connection serves.
// The accepting thread waits in awaitClient() for a client or for the pipe that wakes it, and pauses while the limit of
// connections is reached. A connection's thread closes its socket and moves itself to m_Finished, where the accepting
// thread or stop() joins it.
// Odd: to refuse connections the listening socket is shut down. On Linux that ends listening but keeps the port bound,
// so no other program can take the port. Stopping first ends the incoming direction of every connection; connections
// still open after kGrace are closed.
#include "sandbox/http/acceptor.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "sandbox/http/signalguards.h"

namespace sandbox {

namespace {

constexpr int kBacklog = 128;
constexpr std::size_t kMaxConnections = 256;
constexpr std::chrono::seconds kGrace(5);
constexpr int kPauseMilliseconds = 50;  // before trying again to accept when the system has no room

[[noreturn]] void fail(std::string const& what, int error) {
    throw std::runtime_error(what + ": " + std::generic_category().message(error));
}

/// A bound socket. With SO_REUSEADDR and not SO_REUSEPORT, with which two services would share a port unnoticed.
int boundSocket(std::uint16_t port, std::string const& name) {
    int const socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (socket < 0) {
        fail("cannot make a socket", errno);
    }
    int const yes = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    if (::inet_pton(AF_INET, name.c_str(), &address.sin_addr) != 1) {
        ::close(socket);
        fail("cannot listen on " + name, EINVAL);
    }
    address.sin_port = htons(port);
    if (::bind(socket, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
        int const error = errno;
        ::close(socket);
        fail("cannot listen on " + name + ":" + std::to_string(port) + " (is another program using the port?)", error);
    }
    return socket;
}

std::uint16_t portOf(int socket) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

}  // namespace

Acceptor::Acceptor(std::uint16_t port, std::string const& address) {
    m_Listener = boundSocket(port, address);
    m_Port = portOf(m_Listener);
    if (port == 0) {
        // A port that the system picked is lost when the socket is shut down; a port that was bound by its number
        // stays.
        int const picked = m_Listener;
        m_Listener = boundSocket(m_Port, address);
        ::close(picked);
    }
    if (::pipe2(m_Wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        int const error = errno;
        ::close(m_Listener);
        fail("cannot make a pipe", error);
    }
    listen();
}

Acceptor::~Acceptor() {
    stop();
    ::close(m_Listener);
    ::close(m_Wake[0]);
    ::close(m_Wake[1]);
}

void Acceptor::listen() {
    // Another socket can have taken the port only by listening there while this one did not.
    m_Listening = ::listen(m_Listener, kBacklog) == 0;
}

void Acceptor::start(Serve serve) {
    m_Serve = std::move(serve);
    SignalsBlocked const blocked;
    m_Thread = std::thread([this] { run(); });
}

void Acceptor::refuseUntil(Clock::time_point moment) {
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        m_RefusesUntil = moment;
        bool const refuse = moment > Clock::now();
        if (refuse && m_Listening) {
            // Linux ends listening with this and keeps the port bound.
            ::shutdown(m_Listener, SHUT_RDWR);
            m_Listening = false;
        } else if (!refuse && !m_Listening && !m_Stopping) {
            listen();
        }
    }
    wake();
}

void Acceptor::beginStop() {
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
        shutDownServing(SHUT_RD);
        m_Ended.notify_all();
    }
    wake();
}

void Acceptor::stop() {
    beginStop();
    if (m_Thread.joinable()) {
        m_Thread.join();
    }
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        if (m_Listening) {
            ::shutdown(m_Listener, SHUT_RDWR);
            m_Listening = false;
        }
        auto const allServed = [this] { return m_Serving.empty(); };
        if (!m_Ended.wait_until(lock, m_CutAt, allServed)) {
            // A client reads slowly or not at all.
            shutDownServing(SHUT_RDWR);
            m_Ended.wait(lock, allServed);
        }
    }
    joinFinished();
}

void Acceptor::shutDownServing(int direction) {
    for (auto const& [socket, thread] : m_Serving) {
        ::shutdown(socket, direction);
    }
}

void Acceptor::wake() const {
    // A full pipe wakes as well.
    [[maybe_unused]] ssize_t const written = ::write(m_Wake[1], "", 1);
}

bool Acceptor::awaitClient() {
    pollfd waits[2] = {{m_Wake[0], POLLIN, 0}, {m_Listener, POLLIN, 0}};
    int timeout = -1;
    nfds_t count = 2;
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Ended.wait(lock, [this] { return m_Stopping || m_Serving.size() < kMaxConnections; });
        if (m_Stopping) {
            return false;
        }
        if (!m_Listening) {
            if (m_RefusesUntil <= Clock::now()) {
                listen();
            }
            timeout = pollTimeoutUntil(m_RefusesUntil);
            count = m_Listening ? 2 : 1;
        }
    }
    ::poll(waits, count, timeout);
    char drained[64];
    while (::read(m_Wake[0], drained, sizeof drained) > 0) {
    }
    return true;
}

void Acceptor::run() {
    while (awaitClient()) {
        joinFinished();
        int const socket = ::accept4(m_Listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (socket < 0) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
                pollfd wait{m_Wake[0], POLLIN, 0};
                ::poll(&wait, 1, kPauseMilliseconds);
            }
            continue;
        }
        std::lock_guard<std::mutex> const lock(m_Mutex);
        if (m_Stopping) {
            ::shutdown(socket, SHUT_RD);
        }
        try {
            m_Serving[socket] = std::thread([this, socket] { serveOne(socket); });
        } catch (std::system_error const&) {
            // The system has no thread to give: this client is dropped, the next may be served.
            m_Serving.erase(socket);
            ::close(socket);
        }
    }
}

void Acceptor::serveOne(int socket) {
    try {
        m_Serve(socket);
    } catch (std::exception const& failure) {
        std::cerr << "a connection to port " + std::to_string(m_Port) + " was dropped: " + failure.what() + "\n";
    }
    std::lock_guard<std::mutex> const lock(m_Mutex);
    auto const self = m_Serving.find(socket);
    m_Finished.push_back(std::move(self->second));
    m_Serving.erase(self);
    ::close(socket);
    m_Ended.notify_all();
}

void Acceptor::joinFinished() {
    std::vector<std::thread> finished;
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        finished.swap(m_Finished);
    }
    for (std::thread& thread : finished) {
        thread.join();
    }
}

}  // namespace sandbox
