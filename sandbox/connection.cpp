#include "sandbox/connection.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

namespace sandbox {

namespace {

constexpr timeval kPatience{10, 0};
constexpr timeval kPatienceAtTheEnd{1, 0};
constexpr std::size_t kLargestRest = 1024 * 1024;

}  // namespace

Connection::Connection(int socket, SSL_CTX* tls) : m_Socket(socket) {
    int const yes = 1;
    ::fcntl(socket, F_SETFD, FD_CLOEXEC);
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
    ::close(m_Socket);
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

}  // namespace sandbox
