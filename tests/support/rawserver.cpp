// A scripted server: one thread, one client after the other, a pipe that wakes the thread to stop.
//
// Odd: a stop serves the clients that have connected already, so that a test may read its records right after the call
// that produced them. Every read and write of a script ends at kTimeout.

#include "tests/support/rawserver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "tests/support/waiting.h"

namespace kvxtest {

namespace {

/// A socket that is bound to a free port of 127.0.0.1.
int boundSocket(std::uint16_t& port) {
    int const socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (socket == -1 || ::bind(socket, generic, length) != 0 || ::getsockname(socket, generic, &length) != 0) {
        throw std::runtime_error(std::string("no socket to listen on: ") + std::strerror(errno));
    }
    port = ntohs(address.sin_port);
    return socket;
}

void limitWaits(int socket) {
    timeval const timeout = {kTimeout.count(), 0};
    ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    int const immediately = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &immediately, sizeof immediately);
}

/// A client that goes away must not end the test program.
void blockSigPipe() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

}  // namespace

Peer::Peer(int socket) : m_Socket(socket) {}

Peer::~Peer() {
    close();
}

std::string Peer::receive() {
    char buffer[65536];
    ssize_t const count = ::recv(m_Socket, buffer, sizeof buffer, 0);
    return count > 0 ? std::string(buffer, static_cast<std::size_t>(count)) : std::string();
}

bool Peer::send(std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t const count = ::send(m_Socket, bytes.data(), bytes.size(), 0);
        if (count <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

std::string Peer::receiveRequest() {
    std::string request;
    while (request.find("\r\n\r\n") == std::string::npos) {
        std::string const more = receive();
        if (more.empty()) {
            break;
        }
        request += more;
    }
    return request;
}

std::string Peer::receiveToEnd() {
    std::string all;
    for (std::string more = receive(); !more.empty(); more = receive()) {
        all += more;
    }
    return all;
}

void Peer::finish() {
    ::shutdown(m_Socket, SHUT_WR);
    char buffer[4096];
    while (::recv(m_Socket, buffer, sizeof buffer, 0) > 0) {
    }
}

void Peer::reset() {
    linger const drop = {1, 0};
    ::setsockopt(m_Socket, SOL_SOCKET, SO_LINGER, &drop, sizeof drop);
    close();
}

void Peer::close() {
    if (m_Socket != -1) {
        ::close(m_Socket);
        m_Socket = -1;
    }
}

RawServer::RawServer(Script script) : m_Script(std::move(script)) {
    m_Listener = boundSocket(m_Port);
    if (::listen(m_Listener, 16) != 0 || ::pipe2(m_Wake, O_CLOEXEC) != 0) {
        throw std::runtime_error(std::string("cannot listen: ") + std::strerror(errno));
    }
    m_Thread = std::thread(&RawServer::serve, this);
}

RawServer::RawServer(std::string response)
    : RawServer([this, text = std::move(response)](Peer& peer) {
          record(peer.receiveRequest());
          peer.send(text);
      }) {}

RawServer::~RawServer() {
    stop();
    ::close(m_Listener);
    ::close(m_Wake[0]);
}

void RawServer::record(std::string bytes) {
    m_Records.push_back(std::move(bytes));
}

std::vector<std::string> const& RawServer::records() {
    stop();
    return m_Records;
}

void RawServer::serve() {
    blockSigPipe();
    for (;;) {
        pollfd events[] = {{m_Listener, POLLIN, 0}, {m_Wake[0], POLLIN, 0}};
        if (::poll(events, 2, -1) == -1) {
            continue;
        }
        // Clients that connected before the request to stop are served.
        if (events[0].revents == 0) {
            return;
        }
        int const client = ::accept4(m_Listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client != -1) {
            limitWaits(client);
            Peer peer(client);
            m_Script(peer);
        }
    }
}

void RawServer::stop() {
    if (m_Thread.joinable()) {
        ::close(m_Wake[1]);
        m_Thread.join();
    }
}

ClosedPort::ClosedPort() : m_Socket(-1) {
    std::uint16_t port = 0;
    m_Socket = boundSocket(port);
    m_Text = std::to_string(port);
}

ClosedPort::~ClosedPort() {
    ::close(m_Socket);
}

std::string httpResponse(std::string const& body) {
    return "HTTP/1.0 200 OK\r\nContent-Type: text/xml\r\n\r\n" + body;
}

}  // namespace kvxtest
