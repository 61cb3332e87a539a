#include "sandbox/service/standingdecisions.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace sandbox {

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
    std::lock_guard<std::mutex> const lock(m_Mutex);
    auto const at =
        std::find_if(m_All.begin(), m_All.end(), [id](StandingDecision const& each) { return each.m_Id == id; });
    if (at == m_All.end()) {
        return false;
    }
    m_All.erase(at);
    return true;
}

void StandingDecisions::removeAll() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    m_All.clear();
}

std::vector<StandingDecision> StandingDecisions::all() const {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    return m_All;
}

std::optional<StandingDecision> StandingDecisions::find(Payment const& payment) const {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    for (StandingDecision const& each : m_All) {
        if ((each.m_Account.empty() || each.m_Account == payment.m_Account) &&
            (each.m_Order.empty() || fitsPattern(each.m_Order, payment.attribute("ORDERID").value_or(""))) &&
            (each.m_Amount.empty() || each.m_Amount == payment.attribute("AMOUNT").value_or(""))) {
            return each;
        }
    }
    return std::nullopt;
}

}  // namespace sandbox
