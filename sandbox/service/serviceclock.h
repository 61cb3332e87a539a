#ifndef TALLOWIN_SANDBOX_SERVICE_SERVICECLOCK_H
#define TALLOWIN_SANDBOX_SERVICE_SERVICECLOCK_H

#include <atomic>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <utility>

#include "sandbox/text/utctime.h"

namespace sandbox {

/// What the service takes for the present. May be used by any thread.
class ServiceClock {
public:
    /// `source` is called by any thread; empty means the time of day of the system.
    explicit ServiceClock(std::function<std::time_t()> source)
        : m_Source(source ? std::move(source) : [] { return std::time(nullptr); }) {}

    [[nodiscard]] std::time_t now() const { return m_Source() + static_cast<std::time_t>(m_Ahead.load()); }

    /// The present in the form of the history.
    [[nodiscard]] std::string text() const { return utcText(now()); }

    /// By how many seconds the clock goes ahead of its source.
    [[nodiscard]] std::int64_t ahead() const { return m_Ahead; }
    void setAhead(std::int64_t seconds) { m_Ahead = seconds; }

private:
    std::function<std::time_t()> m_Source;
    std::atomic<std::int64_t> m_Ahead{0};
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_SERVICECLOCK_H
