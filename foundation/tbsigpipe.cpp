#include "foundation/tbsigpipe.h"

#include <cerrno>
#include <ctime>

#include "foundation/tbsystem.h"

namespace {

sigset_t onlySigPipe() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

}  // namespace

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
