#ifndef TALLOWIN_SANDBOX_FAULTS_ARMEDLIST_H
#define TALLOWIN_SANDBOX_FAULTS_ARMEDLIST_H

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sandbox {

/// Faults or standing decisions that wait for a request or payment they match. In memory only: a new service has none.
/// An Entry has the members m_Id, m_Happened, account() and times(); an entry with 0 times stays until it is removed.
/// Every member may be called by any thread.
template <class Entry>
class ArmedList {
public:
    /// Adds `entry` and returns its identifier. Identifiers count up from 1.
    std::int64_t add(Entry entry) {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        entry.m_Id = ++m_LastId;
        m_All.push_back(std::move(entry));
        return m_LastId;
    }

    /// False when none has this identifier.
    bool remove(std::int64_t id) {
        return removeIf([id](Entry const& each) { return each.m_Id == id; });
    }

    /// Removes all; with `account` those that are limited to it.
    void removeAll(std::optional<std::string> const& account = {}) {
        removeIf([&account](Entry const& each) { return !account || each.account() == *account; });
    }

    /// Removes those that match. False when none does.
    template <class Matches>
    bool removeIf(Matches matches) {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        auto const kept = std::remove_if(m_All.begin(), m_All.end(), matches);
        bool const any = kept != m_All.end();
        m_All.erase(kept, m_All.end());
        return any;
    }

    /// Oldest first; with `account` those that are limited to it.
    [[nodiscard]] std::vector<Entry> all(std::optional<std::string> const& account = {}) const {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        std::vector<Entry> found;
        std::copy_if(m_All.begin(), m_All.end(), std::back_inserter(found),
                     [&account](Entry const& each) { return !account || each.account() == *account; });
        return found;
    }

    /// The oldest entry that is `ready` and `canHappen`, counted as having happened; nothing when there is none. It is
    /// removed after its last time. Each entry is asked whether it is ready, so that it can count what it lets pass.
    template <class Ready, class CanHappen>
    std::optional<Entry> take(Ready ready, CanHappen canHappen) {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        std::optional<Entry> taken;
        auto spent = m_All.end();
        for (auto each = m_All.begin(); each != m_All.end(); ++each) {
            if (ready(*each) && !taken && canHappen(*each)) {
                spent = ++each->m_Happened == each->times() ? each : spent;
                taken = *each;
            }
        }
        if (spent != m_All.end()) {
            m_All.erase(spent);
        }
        return taken;
    }

private:
    mutable std::mutex m_Mutex;  ///< Guards all below.
    std::vector<Entry> m_All;
    std::int64_t m_LastId = 0;
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_FAULTS_ARMEDLIST_H
