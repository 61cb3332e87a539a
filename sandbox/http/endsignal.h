#ifndef TALLOWIN_SANDBOX_HTTP_ENDSIGNAL_H
#define TALLOWIN_SANDBOX_HTTP_ENDSIGNAL_H

#include <poll.h>

#include <array>
#include <chrono>

#include "sandbox/crypto/filedescriptor.h"

namespace sandbox {

/// The time up to `moment` for poll(), rounded up to milliseconds and at most an hour; -1 when `moment` is max().
int pollTimeoutUntil(std::chrono::steady_clock::time_point moment);

/// Ends the waits of other threads on their sockets, once and for good. May be used by any thread.
class EndSignal {
public:
    using Clock = std::chrono::steady_clock;

    enum class Wait { kReady, kTimedOut, kEnded };

    /// Throws std::runtime_error.
    EndSignal();

    void raise() const;
    [[nodiscard]] bool raised() const;

    /// Waits for an event on `sockets` (reported in `revents`), for `deadline` (max(): none), or for the signal. An
    /// event that is there already wins over the other two.
    Wait await(std::array<pollfd, 2>& sockets, Clock::time_point deadline) const;

private:
    FileDescriptor m_Event;  ///< Readable once the signal is raised.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_ENDSIGNAL_H
