#include "sandbox/connection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>

namespace sandbox {

namespace {

constexpr timeval kPatience{10, 0};
constexpr timeval kPatienceAtTheEnd{1, 0};
constexpr std::size_t kLargestRest = 1024 * 1024;

}  // namespace

Connection::Connection(int socket, SSL_CTX* tls) : m_Socket(socket) {
    int const yes = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
    ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
    // Head and body are written apart; they must not wait for each other's acknowledgement.
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    if (tls != nullptr) {
        m_Tls.reset(SSL_new(tls));
    }
    m_Open = tls == nullptr;
}

Connection::~Connection() {
    if (m_Reset) {
        return;
    }
    if (m_Tls && m_Open) {
        SSL_shutdown(m_Tls.get());
    }
    ERR_clear_error();
    ::shutdown(m_Socket, SHUT_WR);
    // Closing with unread bytes would reset the connection and could destroy the answer on its way.
    ::setsockopt(m_Socket, SOL_SOCKET, SO_RCVTIMEO, &kPatienceAtTheEnd, sizeof kPatienceAtTheEnd);
    char rest[4096];
    std::size_t left = kLargestRest;
    while (left > 0) {
        ssize_t const count = ::recv(m_Socket, rest, sizeof rest, 0);
        if (count <= 0) {
            break;
        }
        left -= std::min(left, static_cast<std::size_t>(count));
    }
}

bool Connection::open() {
    if (m_Open) {
        return true;
    }
    m_Open = m_Tls && SSL_set_fd(m_Tls.get(), m_Socket) == 1 && SSL_accept(m_Tls.get()) == 1;
    return m_Open;
}

ssize_t Connection::read(char* to, std::size_t size) {
    if (!m_Tls) {
        return ::recv(m_Socket, to, size, 0);
    }
    ERR_clear_error();
    int const count = SSL_read(m_Tls.get(), to, static_cast<int>(std::min<std::size_t>(size, INT_MAX)));
    if (count > 0) {
        return count;
    }
    return SSL_get_error(m_Tls.get(), count) == SSL_ERROR_ZERO_RETURN ? 0 : -1;
}

bool Connection::write(char const* from, std::size_t size) {
    while (size > 0) {
        ssize_t count = 0;
        if (m_Tls) {
            ERR_clear_error();
            count = SSL_write(m_Tls.get(), from, static_cast<int>(std::min<std::size_t>(size, INT_MAX)));
        } else {
            count = ::send(m_Socket, from, size, MSG_NOSIGNAL);
        }
        if (count <= 0) {
            return false;
        }
        from += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

void Connection::pause(double seconds) const {
    using Clock = std::chrono::steady_clock;
    auto const end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    for (;;) {
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd ending{m_Socket, POLLRDHUP, 0};
        int const result = left > 0 ? ::poll(&ending, 1, static_cast<int>(left)) : 0;
        if (result >= 0 || errno != EINTR) {
            return;
        }
    }
}

void Connection::reset() {
    linger const atOnce{1, 0};
    ::setsockopt(m_Socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    m_Reset = true;
}

}  // namespace sandbox
