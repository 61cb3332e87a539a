#include "sandbox/service/standingdecisions.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <utility>

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

std::int64_t StandingDecisions::add(StandingDecision decision) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    decision.m_Id = ++m_LastId;
    m_All.push_back(std::move(decision));
    return m_LastId;
}

bool StandingDecisions::remove(std::int64_t id) {
    return removeIf([id](StandingDecision const& each) { return each.m_Id == id; });
}

void StandingDecisions::removeAll(std::optional<std::string> const& account) {
    removeIf([&account](StandingDecision const& each) { return !account || each.m_Account == *account; });
}

/// False when none matches.
template <class Matches>
bool StandingDecisions::removeIf(Matches matches) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    auto const kept = std::remove_if(m_All.begin(), m_All.end(), matches);
    bool const any = kept != m_All.end();
    m_All.erase(kept, m_All.end());
    return any;
}

std::vector<StandingDecision> StandingDecisions::all(std::optional<std::string> const& account) const {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    std::vector<StandingDecision> found;
    std::copy_if(m_All.begin(), m_All.end(), std::back_inserter(found),
                 [&account](StandingDecision const& each) { return !account || each.m_Account == *account; });
    return found;
}

std::optional<StandingDecision> StandingDecisions::take(Payment const& payment) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    std::optional<StandingDecision> taken;
    auto spent = m_All.end();
    for (auto each = m_All.begin(); each != m_All.end(); ++each) {
        if (!fits(*each, payment) || each->m_Passed.count(payment.m_Id) != 0) {
            continue;
        }
        if (static_cast<std::int64_t>(each->m_Passed.size()) < each->m_Skip) {
            each->m_Passed.insert(payment.m_Id);
        } else if (!taken) {
            spent = ++each->m_Happened == each->m_Times ? each : spent;
            taken = *each;
        }
    }
    if (spent != m_All.end()) {
        m_All.erase(spent);
    }
    return taken;
}

}  // namespace sandbox
