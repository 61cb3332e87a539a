#ifndef TALLOWIN_SANDBOX_SERVICE_STANDINGDECISIONS_H
#define TALLOWIN_SANDBOX_SERVICE_STANDINGDECISIONS_H

#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sandbox/store/rows.h"

namespace sandbox {

/// A decision that is made on every payment it fits, as soon as its page is opened. An empty condition fits all.
struct StandingDecision {
    std::int64_t m_Id = 0;                ///< Counts up from 1.
    std::string m_Decision;               ///< "pay", "decline" or "cancel".
    std::string m_Account;                ///< User name of the merchant's account.
    std::string m_Order;                  ///< Pattern for ORDERID: "*" stands for any text, "?" for one character.
    std::string m_Amount;                 ///< AMOUNT as the PayInit writes it.
    std::int64_t m_Times = 0;             ///< On how many payments; 0: on all until it is removed.
    std::int64_t m_Skip = 0;              ///< How many payments that fit pass first.
    std::int64_t m_Happened = 0;          ///< On how many so far.
    std::set<std::string> m_Passed = {};  ///< The identifiers of payments that have passed, at most m_Skip.
};

/// Whether `text` fits `pattern`, in which "*" stands for any text and "?" for one byte.
bool fitsPattern(std::string const& pattern, std::string const& text);

/// The standing decisions, in memory only: a new service has none. Every member may be called by any thread.
class StandingDecisions {
public:
    /// Adds `decision` and returns its identifier.
    std::int64_t add(StandingDecision decision);

    /// False when none has this identifier.
    bool remove(std::int64_t id);

    /// Removes all; with `account` those that are limited to it.
    void removeAll(std::optional<std::string> const& account = {});

    /// Oldest first; with `account` those that are limited to it.
    [[nodiscard]] std::vector<StandingDecision> all(std::optional<std::string> const& account = {}) const;

    /// The oldest one that fits the payment, counted as having happened; nothing when none does. It is removed after
    /// its last time. Those that let payments pass first count this one, whatever is decided.
    std::optional<StandingDecision> take(Payment const& payment);

private:
    template <class Matches>
    bool removeIf(Matches matches);

    mutable std::mutex m_Mutex;  ///< Guards all below.
    std::vector<StandingDecision> m_All;
    std::int64_t m_LastId = 0;
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_STANDINGDECISIONS_H
