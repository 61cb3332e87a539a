#include "net/kvxsocket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <cerrno>
#include <cstring>

#include "foundation/tbsystem.h"
#include "net/kvxwait.h"

namespace {

/// Waits for the end of a connect that goes on by itself, and returns its result.
int finishConnect(int socket, KvxDeadline const& end) {
    if (!kvxWaitFor(socket, POLLOUT, end)) {
        return -1;
    }
    int failure = 0;
    socklen_t length = sizeof failure;
    if (tbSystem().getsockopt(socket, SOL_SOCKET, SO_ERROR, &failure, &length) == -1) {
        return -1;
    }
    if (failure != 0) {
        errno = failure;
        return -1;
    }
    return 0;
}

/// What finds out that the host of a silent peer is gone: two minutes after its last sign of life at the latest.
struct KeepAliveRow {
    int m_Level;
    int m_Option;
    int m_Value;
};

// clang-format off
constexpr KeepAliveRow kKeepAlive[] = {
    {SOL_SOCKET,  SO_KEEPALIVE,  1},
    {IPPROTO_TCP, TCP_KEEPIDLE,  60},  // seconds of silence before the first probe
    {IPPROTO_TCP, TCP_KEEPINTVL, 10},  // seconds between probes
    {IPPROTO_TCP, TCP_KEEPCNT,   6},   // probes without a reply
};
// clang-format on

/// A socket without keep-alive still works, so failures do not count. Leaves `errno` alone.
void keepAlive(int socket) noexcept {
    int const failure = errno;
    for (KeepAliveRow const& row : kKeepAlive) {
        tbSystem().setsockopt(socket, row.m_Level, row.m_Option, &row.m_Value, sizeof row.m_Value);
    }
    errno = failure;
}

}  // namespace

KvxBytesToSend::KvxBytesToSend(TbString const& text) : m_Size(text.length()), m_Bytes(text.c_str()) {
    std::size_t const used = TCSLEN(text.buffer());
    if (used != m_Size) {
        m_Copy = tbHoldMemory(m_Size);
        std::memcpy(m_Copy.get(), text.c_str(), used);
        std::memset(m_Copy.get() + used, 0, m_Size - used);
        m_Bytes = m_Copy.get();
    }
}

KvxBytesToSend::~KvxBytesToSend() {
    if (m_Copy != nullptr) {
        int const failure = errno;
        ::explicit_bzero(m_Copy.get(), m_Size);
        m_Copy.reset();
        errno = failure;
    }
}

int ConnectSocket(int socket, sockaddr const* address, KVX_ConnectionLimits const& limits) {
    if (limits.hasEnd() && tbSystem().setNonBlocking(socket) == -1) {
        return -1;
    }
    KvxDeadline const end(limits.connectTimeout, limits.deadline);
    if (end.hasPassed()) {
        errno = ETIMEDOUT;
        return -1;
    }
    int const result = tbSystem().connect(socket, address, sizeof(sockaddr_in));
    bool const goesOn = result == -1 && (errno == EINTR || (limits.hasEnd() && errno == EINPROGRESS));
    return goesOn ? finishConnect(socket, end) : result;
}

int MakeSocket() noexcept {
    int const socket = tbAwayFromStandardStreams(tbSystem().socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket != -1) {
        keepAlive(socket);
    }
    return socket;
}
