#include "sandbox/store/conditions.h"

namespace sandbox {

std::string conditionsOf(ExchangeFilter const& filter) {
    return std::string(" WHERE number > ? AND number < ?") + (filter.m_Account ? " AND account = ?" : "") +
           (filter.m_Order ? " AND order_id = ?" : "") + (filter.m_Token ? " AND token = ?" : "") +
           (filter.m_Payment ? " AND payment = ?" : "") + (filter.m_Kind ? " AND kind = ?" : "");
}

void bind(Statement& row, ExchangeFilter const& filter, Page const& page) {
    bindCommon(row, filter, page);
    if (filter.m_Payment) {
        row.text(*filter.m_Payment);
    }
    if (filter.m_Kind) {
        row.text(exchangeName(*filter.m_Kind));
    }
}

std::string conditionsOf(AccountScope const& accounts) {
    std::string conditions = accounts.m_Only ? " AND account = ?" : "";
    for (std::size_t i = 0; i < accounts.m_Except.size(); ++i) {
        conditions += " AND account <> ?";
    }
    return conditions;
}

void bind(Statement& row, AccountScope const& accounts) {
    if (accounts.m_Only) {
        row.text(*accounts.m_Only);
    }
    for (std::string const& account : accounts.m_Except) {
        row.text(account);
    }
}

}  // namespace sandbox
