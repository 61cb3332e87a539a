#include "sandbox/service/standingdecisions.h"

#include <fnmatch.h>

#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

bool fits(StandingDecision const& decision, Payment const& payment) {
    return (decision.m_Account.empty() || decision.m_Account == payment.m_Account) &&
           (decision.m_Order.empty() || fitsPattern(decision.m_Order, payment.attribute("ORDERID").value_or(""))) &&
           (decision.m_Amount.empty() || decision.m_Amount == payment.attribute("AMOUNT").value_or(""));
}

}  // namespace

bool fitsPattern(std::string const& pattern, std::string const& text) {
    // A bracket stands for itself.
    return ::fnmatch(replaceAll(pattern, "[", "[[]").c_str(), text.c_str(), FNM_NOESCAPE) == 0;
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
