/// Waiting for sockets no longer than permitted. Internal: not installed.
#ifndef TALLOWIN_NET_KVXWAIT_H
#define TALLOWIN_NET_KVXWAIT_H

#include <cerrno>
#include <cstdint>

#include "foundation/tbsystem.h"

/// Milliseconds of the monotonic clock.
[[nodiscard]] std::int64_t kvxNow() noexcept;

/// When an operation must be over. The clock is only asked where there is an end.
class KvxDeadline {
public:
    /// `duration` milliseconds from now, but not after `latest`, a time of kvxNow(); 0 is no limit.
    KvxDeadline(std::int64_t duration, std::int64_t latest) noexcept;

    /// Never.
    KvxDeadline() noexcept = default;

    /// For `poll`: milliseconds until then, 0 when it has passed, -1 when there is no end.
    [[nodiscard]] int remaining() const noexcept;

    [[nodiscard]] bool hasPassed() const noexcept { return remaining() == 0; }

private:
    std::int64_t m_End = 0;  ///< A time of kvxNow(); 0: never.
};

/// Waits until `socket` is ready for `events`, of `poll`. False and `errno` on failure; ETIMEDOUT at the deadline.
/// Continues after a signal. A place where a thread may be cancelled.
[[nodiscard]] bool kvxWaitFor(int socket, short events, KvxDeadline const& end);

/// The result of `call` on a socket that does not block, repeated when the socket is ready for `events` again. -1 and
/// ETIMEDOUT at the deadline, which counts before the first call too: a peer that never lets us wait gets no more time.
template <class Call>
ssize_t kvxCallWhenReady(int socket, short events, KvxDeadline const& end, Call call) {
    if (end.hasPassed()) {
        errno = ETIMEDOUT;
        return -1;
    }
    for (;;) {
        ssize_t const result = tbRetryInterrupted(call);
        if (result != -1 || errno != EAGAIN || !kvxWaitFor(socket, events, end)) {
            return result;
        }
    }
}

#endif
