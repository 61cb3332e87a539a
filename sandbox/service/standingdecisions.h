#ifndef TALLOWIN_SANDBOX_SERVICE_STANDINGDECISIONS_H
#define TALLOWIN_SANDBOX_SERVICE_STANDINGDECISIONS_H

#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "sandbox/faults/armedlist.h"
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

    [[nodiscard]] std::string const& account() const { return m_Account; }
    [[nodiscard]] std::int64_t times() const { return m_Times; }
};

/// Whether `text` fits `pattern`, in which "*" stands for any text and "?" for one byte.
bool fitsPattern(std::string const& pattern, std::string const& text);

/// The standing decisions.
class StandingDecisions : public ArmedList<StandingDecision> {
public:
    /// The oldest one that fits the payment, counted as having happened; nothing when none does. Those that let
    /// payments pass first count this one, whatever is decided.
    std::optional<StandingDecision> take(Payment const& payment);
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_STANDINGDECISIONS_H
