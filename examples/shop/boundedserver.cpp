// Limits each request in size and time by handing the HTTP library a stream of our own.
//
// Order: the socket's owner, the stream, the server. The stream counts the bytes of the request and stops at the
// limit or the deadline, whatever the library is reading. Writing has a timeout per piece, not a deadline: a large page
// may take longer.
#include "boundedserver.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <string>

namespace storefront {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kThreads = 64;
constexpr std::size_t kMaxRequestBytes = 32768;
constexpr std::chrono::seconds kRequestTimeout{5};

/// Owns a connected socket.
class OpenSocket {
public:
    explicit OpenSocket(int socket) : m_Socket(socket) {}
    ~OpenSocket() {
        ::shutdown(m_Socket, SHUT_RDWR);
        ::close(m_Socket);
    }
    OpenSocket(OpenSocket const&) = delete;
    OpenSocket& operator=(OpenSocket const&) = delete;

private:
    int m_Socket;
};

/// One request and its response on a connected socket; borrows the socket.
class BoundedStream : public httplib::Stream {
public:
    explicit BoundedStream(socket_t socket) : m_Socket(socket) {}

    [[nodiscard]] bool is_readable() const override { return m_Next < m_End || becomes(POLLIN, m_Deadline); }
    [[nodiscard]] bool is_writable() const override { return becomes(POLLOUT, Clock::now() + kRequestTimeout); }

    ssize_t read(char* to, std::size_t size) override;
    ssize_t write(char const* from, std::size_t size) override;
    using httplib::Stream::write;

    /// Left empty: the shop does not use addresses of clients.
    void get_remote_ip_and_port(std::string&, int&) const override {}
    void get_local_ip_and_port(std::string&, int&) const override {}
    [[nodiscard]] socket_t socket() const override { return m_Socket; }

private:
    [[nodiscard]] bool becomes(short event, Clock::time_point deadline) const;

    socket_t m_Socket;
    Clock::time_point m_Deadline = Clock::now() + kRequestTimeout;  ///< For the whole request.
    std::size_t m_Left = kMaxRequestBytes;                          ///< Bytes of the request that are still allowed.
    std::array<char, 4096> m_Buffer = {};
    std::size_t m_Next = 0;  ///< The buffer holds unread bytes from here up to m_End.
    std::size_t m_End = 0;
};

bool BoundedStream::becomes(short event, Clock::time_point deadline) const {
    auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd asked{m_Socket, event, 0};
    return left > 0 && ::poll(&asked, 1, static_cast<int>(left)) == 1;
}

ssize_t BoundedStream::read(char* to, std::size_t size) {
    if (m_Next == m_End) {
        if (m_Left == 0 || !becomes(POLLIN, m_Deadline)) {
            return -1;
        }
        ssize_t const came = ::recv(m_Socket, m_Buffer.data(), std::min(m_Buffer.size(), m_Left), 0);
        if (came <= 0) {
            return came;
        }
        m_Next = 0;
        m_End = static_cast<std::size_t>(came);
        m_Left -= m_End;
    }
    std::size_t const count = std::min(size, m_End - m_Next);
    std::copy_n(m_Buffer.data() + m_Next, count, to);
    m_Next += count;
    return static_cast<ssize_t>(count);
}

ssize_t BoundedStream::write(char const* from, std::size_t size) {
    std::size_t sent = 0;
    while (sent < size) {
        ssize_t const went = is_writable() ? ::send(m_Socket, from + sent, size - sent, MSG_NOSIGNAL) : -1;
        if (went < 0) {
            return -1;
        }
        sent += static_cast<std::size_t>(went);
    }
    return static_cast<ssize_t>(size);
}

}  // namespace

BoundedServer::BoundedServer() {
    new_task_queue = [] { return new httplib::ThreadPool(kThreads); };  // the HTTP library deletes it
}

bool BoundedServer::process_and_close_socket(socket_t socket) {
    OpenSocket const open(socket);
    BoundedStream stream(socket);
    bool closed = false;
    return process_request(stream, true, closed, nullptr);
}

}  // namespace storefront
