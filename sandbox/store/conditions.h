#ifndef TALLOWIN_SANDBOX_STORE_CONDITIONS_H
#define TALLOWIN_SANDBOX_STORE_CONDITIONS_H

#include <string>

#include "sandbox/store/database.h"
#include "sandbox/store/listing.h"

/// The SQL that picks rows. Each text has a space before it and parameters for bind().
namespace sandbox {

/// Binds the bounds of the page, then account, order and token where the filter names them.
template <class Filter>
void bindCommon(Statement& row, Filter const& filter, Page const& page) {
    row.number(page.m_After).number(page.m_Before);
    if (filter.m_Account) {
        row.text(*filter.m_Account);
    }
    if (filter.m_Order) {
        row.bytes(*filter.m_Order);
    }
    if (filter.m_Token) {
        row.text(*filter.m_Token);
    }
}

/// The WHERE of a filter and the bounds of a page.
std::string conditionsOf(ExchangeFilter const& filter);
void bind(Statement& row, ExchangeFilter const& filter, Page const& page);

/// What follows other conditions on the column `account`.
std::string conditionsOf(AccountScope const& accounts);
void bind(Statement& row, AccountScope const& accounts);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_STORE_CONDITIONS_H
