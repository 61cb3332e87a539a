#include "sandbox/service/serviceclock.h"

#include <cstddef>
#include <utility>

namespace sandbox {

namespace {

/// Begins the names of settings; the account follows. The value is the offset, and behind a space the frozen second.
constexpr char kSetting[] = "clock ";

}  // namespace

ServiceClock::ServiceClock(std::function<std::time_t()> source, Store& store)
    : m_Source(source ? std::move(source) : [] { return std::time(nullptr); }), m_Store(store) {
    reload();
}

void ServiceClock::reload() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    std::string const start = kSetting;
    m_Settings = {{"", {}}};
    for (auto const& [name, value] : m_Store.settings()) {
        if (name.compare(0, start.size(), start) != 0) {
            continue;
        }
        std::size_t const space = value.find(' ');
        std::string const frozenAt = space == std::string::npos ? "" : value.substr(space + 1);
        m_Settings[name.substr(start.size())] = {wholeNumber(value.substr(0, space)).value_or(0),
                                                 wholeNumber(frozenAt)};
    }
}

std::time_t ServiceClock::now(std::string const& account) const {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    return present(settingOf(account));
}

std::int64_t ServiceClock::ahead(std::string const& account) const {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Setting const& setting = settingOf(account);
    return setting.m_FrozenAt ? *setting.m_FrozenAt - m_Source() : setting.m_Ahead;
}

bool ServiceClock::isFrozen(std::string const& account) const {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    return settingOf(account).m_FrozenAt.has_value();
}

void ServiceClock::setAhead(std::int64_t seconds, std::string const& account) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Setting setting{seconds, std::nullopt};
    if (settingOf(account).m_FrozenAt) {
        setting.m_FrozenAt = present(setting);
    }
    set(account, setting);
}

void ServiceClock::step(std::int64_t seconds, std::string const& account) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Setting setting = settingOf(account);
    setting.m_Ahead += seconds;
    if (setting.m_FrozenAt) {
        *setting.m_FrozenAt += seconds;
    }
    set(account, setting);
}

void ServiceClock::setFrozen(bool frozen, std::string const& account) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    std::time_t const moment = present(settingOf(account));
    set(account, {moment - m_Source(), frozen ? std::optional<std::time_t>(moment) : std::nullopt});
}

void ServiceClock::follow(std::string const& account) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    if (!account.empty() && m_Settings.erase(account) != 0) {
        m_Store.setSetting(kSetting + account, "");
    }
}

void ServiceClock::reset() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    for (auto const& [account, setting] : m_Settings) {
        m_Store.setSetting(kSetting + account, "");
    }
    m_Settings = {{"", {}}};
}

std::vector<std::string> ServiceClock::owners() const {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    std::vector<std::string> owners;
    for (auto const& [account, setting] : m_Settings) {
        if (!account.empty()) {
            owners.push_back(account);
        }
    }
    return owners;
}

ServiceClock::Setting const& ServiceClock::settingOf(std::string const& account) const {
    auto const own = m_Settings.find(account);
    return own != m_Settings.end() ? own->second : m_Settings.at("");
}

std::time_t ServiceClock::present(Setting const& setting) const {
    return setting.m_FrozenAt.value_or(m_Source() + static_cast<std::time_t>(setting.m_Ahead));
}

void ServiceClock::set(std::string const& account, Setting const& setting) {
    std::string const frozen = setting.m_FrozenAt ? " " + std::to_string(*setting.m_FrozenAt) : "";
    m_Settings[account] = setting;
    m_Store.setSetting(kSetting + account, std::to_string(setting.m_Ahead) + frozen);
}

}  // namespace sandbox
