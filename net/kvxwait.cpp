#include "net/kvxwait.h"

#include <algorithm>
#include <climits>

namespace {

constexpr std::int64_t kMillisecondsPerSecond = 1000;
constexpr std::int64_t kNanosecondsPerMillisecond = 1000000;

}  // namespace

std::int64_t kvxNow() noexcept {
    timespec now = {};
    tbSystem().clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * kMillisecondsPerSecond + now.tv_nsec / kNanosecondsPerMillisecond;
}

KvxDeadline::KvxDeadline(std::int64_t duration, std::int64_t latest) noexcept : m_End(latest) {
    if (duration != 0) {
        std::int64_t const end = kvxNow() + duration;
        m_End = latest == 0 ? end : std::min(end, latest);
    }
}

int KvxDeadline::remaining() const noexcept {
    if (m_End == 0) {
        return -1;
    }
    std::int64_t const milliseconds = m_End - kvxNow();
    return static_cast<int>(std::clamp<std::int64_t>(milliseconds, 0, INT_MAX));
}

bool kvxWaitFor(int socket, short events, KvxDeadline const& end) {
    for (;;) {
        pollfd waiting = {socket, events, 0};
        int const timeout = end.remaining();
        int const ready = tbSystem().poll(&waiting, 1, timeout);
        if (ready > 0) {
            return true;
        }
        if (ready == 0 && timeout < INT_MAX) {
            errno = ETIMEDOUT;
            return false;
        }
        if (ready == -1 && errno != EINTR) {
            return false;
        }
    }
}
