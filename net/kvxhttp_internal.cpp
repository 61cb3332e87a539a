#include "net/kvxhttp_internal.h"

#include <netinet/in.h>
#include <poll.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>

#include "foundation/tbexception.h"
#include "foundation/tbsystem.h"

namespace {

bool isSpace(char character) {
    return character == ' ' || (character >= '\t' && character <= '\r');
}

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

sigset_t onlySigPipe() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

/// Waits until a connect that a signal interrupted is over, and returns how it ended.
int finishConnect(int socket) {
    pollfd waiting = {socket, POLLOUT, 0};
    if (tbRetryInterrupted([&waiting] { return ::poll(&waiting, 1, -1); }) == -1) {
        return -1;
    }
    int failure = 0;
    socklen_t length = sizeof failure;
    if (::getsockopt(socket, SOL_SOCKET, SO_ERROR, &failure, &length) == -1) {
        return -1;
    }
    if (failure != 0) {
        errno = failure;
        return -1;
    }
    return 0;
}

}  // namespace

std::int32_t DecimalNumber(char const* text) noexcept {
    using Limits = std::numeric_limits<std::int32_t>;
    while (isSpace(*text)) {
        ++text;
    }
    bool const negative = *text == '-';
    if (*text == '-' || *text == '+') {
        ++text;
    }
    std::int64_t number = 0;
    for (; isDigit(*text); ++text) {
        number = number * 10 + (*text - '0');
        if (number > Limits::max()) {
            return negative ? Limits::min() : Limits::max();
        }
    }
    return static_cast<std::int32_t>(negative ? -number : number);
}

SigPipeGuard::SigPipeGuard() noexcept {
    int const failure = errno;
    sigset_t const pipe = onlySigPipe();
    sigset_t pending;
    sigpending(&pending);
    m_WasPending = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipe, &m_Before);
    errno = failure;
}

SigPipeGuard::~SigPipeGuard() {
    int const failure = errno;
    if (!m_WasPending) {
        sigset_t const pipe = onlySigPipe();
        timespec const now = {};
        tbRetryInterrupted([&] { return sigtimedwait(&pipe, nullptr, &now); });
    }
    pthread_sigmask(SIG_SETMASK, &m_Before, nullptr);
    errno = failure;
}

TbMemoryHolder HoldMemory(std::size_t bytes) {
    TbMemoryHolder memory(static_cast<char*>(tbAllocate(bytes)));
    if (memory == nullptr) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    return memory;
}

TbMemoryHolder CopyForSending(TbString const& text) {
    std::size_t const size = std::size_t{text.length()} + 1;
    TbMemoryHolder copy = HoldMemory(size);
    std::size_t const used = TCSLEN(text.buffer());
    std::memcpy(copy.get(), text.c_str(), used);
    std::memset(copy.get() + used, 0, size - used);
    return copy;
}

int ConnectSocket(int socket, sockaddr const* address) noexcept {
    int const result = tbSystem().connect(socket, address, sizeof(sockaddr_in));
    return result == -1 && errno == EINTR ? finishConnect(socket) : result;
}

int MakeSocket() noexcept {
    return tbAwayFromStandardStreams(tbSystem().socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
}
