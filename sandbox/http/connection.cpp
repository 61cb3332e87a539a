// Reads and writes on a socket that does not block, plain or under TLS, and connects to programs on this machine.
// persist() repeats one call until it succeeds or fails for good, and waits in await() for the event that the socket or
// TLS needs. Each wait has a timeout; reads also end with the timeout of the whole request.
// Odd: the destructor reads and drops the rest of what the client sends. Closing with unread bytes would reset the
// connection and could destroy the response on its way.
#include "sandbox/http/connection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <system_error>

#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

constexpr std::chrono::seconds kClosingTimeout(1);
constexpr std::size_t kMaxRest = std::size_t{1024} * 1024;

Connection::Clock::time_point momentIn(double seconds) {
    std::chrono::duration<double> const time(seconds);
    return Connection::Clock::now() + std::chrono::duration_cast<Connection::Clock::duration>(time);
}

int sizeForTls(std::size_t size) {
    return static_cast<int>(std::min<std::size_t>(size, INT_MAX));
}

/// The event to wait for after a call that got nowhere; 0 when it never will. `tls` is null for a plain connection,
/// whose calls can only want `event`.
short wantedEvent(SSL const* tls, int result, short event) {
    if (tls == nullptr) {
        return result < 0 && (errno == EAGAIN || errno == EINTR) ? event : short{0};
    }
    switch (SSL_get_error(tls, result)) {
        case SSL_ERROR_WANT_READ:
            return POLLIN;
        case SSL_ERROR_WANT_WRITE:
            return POLLOUT;
        default:
            return 0;
    }
}

/// 0, or the error with which connecting ended. Throws HttpError when it did not end.
int awaitConnected(int socket, HostPort const& hostPort, EndSignal::Clock::time_point deadline,
                   EndSignal const& ending) {
    std::array<pollfd, 2> waits = {pollfd{socket, POLLOUT, 0}, pollfd{-1, 0, 0}};
    switch (ending.await(waits, deadline)) {
        case EndSignal::Wait::kReady:
            break;
        case EndSignal::Wait::kTimedOut:
            throw HttpError(hostPort.text() + " does not take the connection", httpstatus::kGatewayTimeout);
        case EndSignal::Wait::kEnded:
            throw HttpError("the sandbox is stopping", httpstatus::kServiceUnavailable);
    }
    int error = 0;
    socklen_t length = sizeof error;
    ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length);
    return error;
}

}  // namespace

Connection::Connection(int socket, SSL_CTX* tls, EndSignal const& ending, Clock::duration timeout,
                       Clock::time_point accepted)
    : m_Socket(socket), m_Ending(ending), m_RequestTimeout(timeout), m_RequestBy(accepted + timeout) {
    int const yes = 1;
    // Head and body are written apart; they must not wait for each other's acknowledgement.
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    if (tls != nullptr) {
        m_Tls.reset(SSL_new(tls));
        SSL_set_mode(m_Tls.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
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
    if (m_LeavesRest) {
        return;
    }
    // Closing with unread bytes would reset the connection and could destroy the response on its way.
    m_RequestBy = Clock::now() + kClosingTimeout;
    char rest[4096];
    std::size_t left = kMaxRest;
    while (left > 0) {
        ssize_t const count = ::recv(m_Socket, rest, sizeof rest, 0);
        if (count == 0 || (count < 0 && (wantedEvent(nullptr, -1, POLLIN) == 0 || !await(POLLIN)))) {
            break;
        }
        left -= std::min(left, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
}

bool Connection::open() {
    if (m_Open) {
        return true;
    }
    char first = '\0';
    // To a client that was silent to its end, which may be the work of the listener, TLS would send an alert.
    bool const silent = ::recv(m_Socket, &first, 1, MSG_PEEK) == 0;
    m_Open = !silent && m_Tls && SSL_set_fd(m_Tls.get(), m_Socket) == 1 &&
             persist(POLLIN, [this] {
                 return SSL_is_server(m_Tls.get()) == 1 ? SSL_accept(m_Tls.get()) : SSL_connect(m_Tls.get());
             }) == 1;
    return m_Open;
}

std::string Connection::certificateProblem() const {
    long const verdict = SSL_get_verify_result(m_Tls.get());
    return verdict == X509_V_OK ? "" : X509_verify_cert_error_string(verdict);
}

ssize_t Connection::read(char* to, std::size_t size) {
    ssize_t const count = persist(POLLIN, [this, to, size]() -> ssize_t {
        return m_Tls ? SSL_read(m_Tls.get(), to, sizeForTls(size)) : ::recv(m_Socket, to, size, 0);
    });
    bool const ended = m_Tls && count < 0 && (SSL_get_shutdown(m_Tls.get()) & SSL_RECEIVED_SHUTDOWN) != 0;
    return ended ? 0 : count;
}

bool Connection::write(char const* from, std::size_t size, Next next) {
    // One packet less, and the client wakes once instead of twice.
    int const flags = MSG_NOSIGNAL | (next == Next::kEnd ? MSG_MORE : 0);
    while (size > 0) {
        ssize_t const count = persist(POLLOUT, [this, from, size, flags]() -> ssize_t {
            return m_Tls ? SSL_write(m_Tls.get(), from, sizeForTls(size)) : ::send(m_Socket, from, size, flags);
        });
        if (count <= 0) {
            return false;
        }
        from += count;
        size -= static_cast<std::size_t>(count);
        m_Written += static_cast<std::size_t>(count);
    }
    return true;
}

/// Repeats `step`, which returns what recv() and SSL_read() do, until it gets somewhere or the time is over.
template <class Step>
ssize_t Connection::persist(short event, Step step) {
    for (;;) {
        ERR_clear_error();
        auto const result = step();
        if (result > 0) {
            return result;
        }
        short const wanted = wantedEvent(m_Tls.get(), static_cast<int>(result), event);
        if (wanted == 0 || !await(wanted)) {
            return m_Tls || result != 0 ? -1 : 0;
        }
    }
}

/// False when the time is over.
bool Connection::await(short event) const {
    Clock::time_point const now = Clock::now();
    Clock::time_point const deadline = event == POLLIN ? std::min(now + kIoTimeout, m_RequestBy) : now + kIoTimeout;
    for (;;) {
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd socket{m_Socket, event, 0};
        int const happened = left > 0 ? ::poll(&socket, 1, static_cast<int>(left)) : 0;
        if (happened >= 0 || errno != EINTR) {
            return happened > 0;
        }
    }
}

void Connection::pause(double seconds) const {
    Clock::time_point const end = momentIn(seconds);
    if (wait(end, POLLRDHUP)) {
        wait(std::min(end, Clock::now() + m_RequestTimeout), 0);
    }
}

void Connection::pauseWhileConnected(double seconds) const {
    wait(momentIn(seconds), POLLRDHUP);
}

/// Whether the event, or a failure of the connection, came before `until` and before the end of the service.
bool Connection::wait(Clock::time_point until, short event) const {
    std::array<pollfd, 2> waits = {pollfd{m_Socket, event, 0}, pollfd{-1, 0, 0}};
    return m_Ending.await(waits, until) == EndSignal::Wait::kReady && !m_Ending.raised();
}

bool Connection::isEnded() const {
    pollfd socket{m_Socket, POLLRDHUP, 0};
    return ::poll(&socket, 1, 0) > 0;
}

void Connection::reset() {
    linger const atOnce{1, 0};
    ::setsockopt(m_Socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    m_Reset = true;
}

std::string readFirstLine(Connection& connection) {
    std::string text;
    char piece[16 * 1024];
    std::size_t searched = 0;
    while (text.size() <= kMaxRequestLine && text.find('\n', searched) == std::string::npos) {
        searched = text.size();
        ssize_t const count = connection.read(piece, sizeof piece);
        if (count <= 0) {
            break;
        }
        text.append(piece, static_cast<std::size_t>(count));
    }
    return text;
}

FileDescriptor connectLocally(HostPort const& hostPort, EndSignal::Clock::time_point deadline,
                              EndSignal const& ending) {
    FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (socket.get() < 0) {
        throw HttpError("no socket: " + std::generic_category().message(errno), httpstatus::kServiceUnavailable);
    }
    int const yes = 1;
    ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr = localAddress(hostPort.m_Host);
    address.sin_port = htons(hostPort.m_Port);
    int error = 0;
    if (::connect(socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
        error = errno == EINPROGRESS ? awaitConnected(socket.get(), hostPort, deadline, ending) : errno;
    }
    if (error != 0) {
        throw HttpError("no connection to " + hostPort.text() + ": " + std::generic_category().message(error),
                        httpstatus::kBadGateway);
    }
    return socket;
}

}  // namespace sandbox
