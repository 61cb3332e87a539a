#include "sandbox/http/localsocket.h"

#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <system_error>

#include "sandbox/text/httperror.h"
#include "sandbox/text/httpstatus.h"

namespace sandbox {

namespace {

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

LocalSocket::LocalSocket(HostPort const& hostPort, EndSignal::Clock::time_point deadline, EndSignal const& ending)
    : m_Socket(-1) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr = localAddress(hostPort.m_Host);
    address.sin_port = htons(hostPort.m_Port);
    m_Socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_Socket < 0) {
        throw HttpError("no socket: " + std::generic_category().message(errno), httpstatus::kServiceUnavailable);
    }
    int const yes = 1;
    ::setsockopt(m_Socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    try {
        int error = 0;
        if (::connect(m_Socket, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
            error = errno == EINPROGRESS ? awaitConnected(m_Socket, hostPort, deadline, ending) : errno;
        }
        if (error != 0) {
            throw HttpError("no connection to " + hostPort.text() + ": " + std::generic_category().message(error),
                            httpstatus::kBadGateway);
        }
    } catch (...) {
        ::close(m_Socket);
        throw;
    }
}

LocalSocket::~LocalSocket() {
    ::close(m_Socket);
}

}  // namespace sandbox
