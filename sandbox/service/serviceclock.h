#ifndef TALLOWIN_SANDBOX_SERVICE_SERVICECLOCK_H
#define TALLOWIN_SANDBOX_SERVICE_SERVICECLOCK_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/store/store.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

/// What the service takes for the present: its source, ahead by some seconds, or one frozen second. An account can have
/// a clock of its own, so that suites with accounts of their own do not disturb each other; "" stands for all that have
/// none. Settings are kept in the store. May be used by any thread.
class ServiceClock {
public:
    /// `source` is called by any thread; empty means the time of day of the system. Borrows `store` and goes on as it
    /// was set there. Throws std::runtime_error.
    ServiceClock(std::function<std::time_t()> source, Store& store);

    /// Reads the settings again after the content of the store was replaced. Throws std::runtime_error.
    void reload();

    [[nodiscard]] std::time_t now(std::string const& account = "") const;

    /// The present in the form of the history.
    [[nodiscard]] std::string text(std::string const& account = "") const { return utcText(now(account)); }

    /// By how many seconds the clock goes ahead of its source.
    [[nodiscard]] std::int64_t ahead(std::string const& account = "") const;
    [[nodiscard]] bool isFrozen(std::string const& account = "") const;

    /// These give the account a clock of its own. They throw std::runtime_error when it cannot be stored. A frozen
    /// clock stays frozen at the new time.
    void setAhead(std::int64_t seconds, std::string const& account = "");
    void step(std::int64_t seconds, std::string const& account = "");
    void setFrozen(bool frozen, std::string const& account = "");

    /// Takes the account's own clock away.
    void follow(std::string const& account);

    /// As the source goes, for all accounts.
    void reset();

    /// The accounts that have a clock of their own.
    [[nodiscard]] std::vector<std::string> owners() const;

private:
    struct Setting {
        std::int64_t m_Ahead = 0;
        std::optional<std::time_t> m_FrozenAt = {};
    };

    [[nodiscard]] Setting const& settingOf(std::string const& account) const;
    [[nodiscard]] std::time_t present(Setting const& setting) const;
    void set(std::string const& account, Setting const& setting);

    std::function<std::time_t()> m_Source;
    Store& m_Store;  ///< Borrowed.
    mutable std::mutex m_Mutex;
    std::map<std::string, Setting> m_Settings{{"", {}}};  ///< By account. Guarded by m_Mutex.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_SERVICECLOCK_H
