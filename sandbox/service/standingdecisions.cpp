#include "sandbox/service/standingdecisions.h"

#include <cstddef>

namespace sandbox {

namespace {

bool fits(StandingDecision const& decision, Payment const& payment) {
    return (decision.m_Account.empty() || decision.m_Account == payment.m_Account) &&
           (decision.m_Order.empty() || fitsPattern(decision.m_Order, payment.attribute("ORDERID").value_or(""))) &&
           (decision.m_Amount.empty() || decision.m_Amount == payment.attribute("AMOUNT").value_or(""));
}

}  // namespace

bool fitsPattern(std::string const& pattern, std::string const& text) {
    std::size_t at = 0;
    std::size_t in = 0;
    std::size_t star = std::string::npos;
    std::size_t afterStar = 0;
    while (in < text.size()) {
        if (at < pattern.size() && pattern[at] == '*') {
            star = at++;
            afterStar = in;
        } else if (at < pattern.size() && (pattern[at] == '?' || pattern[at] == text[in])) {
            ++at;
            ++in;
        } else if (star != std::string::npos) {
            at = star + 1;  // the last star takes one byte more
            in = ++afterStar;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', at) == std::string::npos;
}

std::optional<StandingDecision> StandingDecisions::take(Payment const& payment) {
    auto const ready = [&payment](StandingDecision& decision) {
        bool const fitsFirst = fits(decision, payment) && decision.m_Passed.count(payment.m_Id) == 0;
        bool const passes = fitsFirst && static_cast<std::int64_t>(decision.m_Passed.size()) < decision.m_Skip;
        if (passes) {
            decision.m_Passed.insert(payment.m_Id);
        }
        return fitsFirst && !passes;
    };
    return ArmedList::take(ready, [](StandingDecision const&) { return true; });
}

}  // namespace sandbox
