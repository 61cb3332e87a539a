#ifndef TALLOWIN_SANDBOX_SERVICE_SERVICECLOCK_H
#define TALLOWIN_SANDBOX_SERVICE_SERVICECLOCK_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "sandbox/text/utctime.h"

namespace sandbox {

/// What the service takes for the present. An account can have a clock of its own, so that suites with accounts of
/// their own do not disturb each other; "" stands for all that have none. May be used by any thread.
class ServiceClock {
public:
    /// `source` is called by any thread; empty means the time of day of the system.
    explicit ServiceClock(std::function<std::time_t()> source)
        : m_Source(source ? std::move(source) : [] { return std::time(nullptr); }) {}

    [[nodiscard]] std::time_t now(std::string const& account = "") const {
        return m_Source() + static_cast<std::time_t>(ahead(account));
    }

    /// The present in the form of the history.
    [[nodiscard]] std::string text(std::string const& account = "") const { return utcText(now(account)); }

    /// By how many seconds the clock goes ahead of its source.
    [[nodiscard]] std::int64_t ahead(std::string const& account = "") const {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        auto const own = m_Ahead.find(account);
        return own != m_Ahead.end() ? own->second : m_Ahead.at("");
    }
    void setAhead(std::int64_t seconds, std::string const& account = "") {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        m_Ahead[account] = seconds;
    }

    /// Takes the account's own clock away.
    void follow(std::string const& account) {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        if (!account.empty()) {
            m_Ahead.erase(account);
        }
    }

    /// As the source goes, for all accounts.
    void reset() {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        m_Ahead = {{"", 0}};
    }

    /// The offsets of accounts that have a clock of their own.
    [[nodiscard]] std::map<std::string, std::int64_t> owners() const {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        std::map<std::string, std::int64_t> owners = m_Ahead;
        owners.erase("");
        return owners;
    }

private:
    std::function<std::time_t()> m_Source;
    mutable std::mutex m_Mutex;
    std::map<std::string, std::int64_t> m_Ahead{{"", 0}};  ///< By account. Guarded by m_Mutex.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_SERVICECLOCK_H
