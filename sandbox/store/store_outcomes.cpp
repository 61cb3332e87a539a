// What faults of content search for.
#include <algorithm>

#include "sandbox/store/store.h"

namespace sandbox {

std::optional<std::string> Store::otherPayment(Payment const& payment, Search search,
                                               std::vector<PaymentState> const& states) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Statement row = m_Database.prepare(
        "SELECT id, state FROM payments WHERE account = ? AND id <> ? AND (? OR number < (SELECT number FROM payments "
        "WHERE id = ?)) ORDER BY number DESC");
    row.text(payment.m_Account).text(payment.m_Id).number(search == Search::kAll ? 1 : 0).text(payment.m_Id);
    while (row.step()) {
        if (std::find(states.begin(), states.end(), stateFromName(row.column(1))) != states.end()) {
            return row.column(0);
        }
    }
    return std::nullopt;
}

}  // namespace sandbox
