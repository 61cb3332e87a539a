#include "sandbox/http/endsignal.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <system_error>

namespace sandbox {

int pollTimeoutUntil(EndSignal::Clock::time_point moment) {
    constexpr std::int64_t kMaxMilliseconds = 3'600'000;
    if (moment == EndSignal::Clock::time_point::max()) {
        return -1;
    }
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(moment - EndSignal::Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, kMaxMilliseconds));
}

EndSignal::EndSignal() : m_Event(checkedDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "cannot make an event")) {}

void EndSignal::raise() const {
    ::eventfd_write(m_Event.get(), 1);
}

bool EndSignal::raised() const {
    pollfd event{m_Event.get(), POLLIN, 0};
    return ::poll(&event, 1, 0) > 0;
}

EndSignal::Wait EndSignal::await(std::array<pollfd, 2>& sockets, Clock::time_point deadline) const {
    for (;;) {
        std::array<pollfd, 3> waits = {sockets[0], sockets[1], pollfd{m_Event.get(), POLLIN, 0}};
        int const happened = ::poll(waits.data(), waits.size(), pollTimeoutUntil(deadline));
        if (happened < 0 && errno != EINTR) {
            throw std::runtime_error("cannot wait: " + std::generic_category().message(errno));
        }
        sockets = {waits[0], waits[1]};
        if (happened > 0) {
            bool const ready = sockets[0].revents != 0 || sockets[1].revents != 0;
            return ready ? Wait::kReady : Wait::kEnded;
        }
        if (happened == 0 && deadline <= Clock::now()) {
            return Wait::kTimedOut;
        }
    }
}

}  // namespace sandbox
