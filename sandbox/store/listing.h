#ifndef TALLOWIN_SANDBOX_STORE_LISTING_H
#define TALLOWIN_SANDBOX_STORE_LISTING_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/faults/exchangekind.h"
#include "sandbox/store/storedpayment.h"

/// Parts of the lists that the store keeps.
namespace sandbox {

/// Which payments; an absent condition matches all.
struct PaymentFilter {
    std::optional<std::string> m_Account = {};
    std::optional<std::string> m_Order = {};  ///< ORDERID; empty matches payments without one.
    std::optional<std::string> m_Token = {};
    std::optional<std::string> m_Id = {};
    std::optional<PaymentState> m_State = {};
};

/// Which exchanges; an absent condition matches all.
struct ExchangeFilter {
    std::optional<std::string> m_Account = {};  ///< Empty matches those whose account is unknown.
    std::optional<std::string> m_Order = {};
    std::optional<std::string> m_Token = {};
    std::optional<std::string> m_Payment = {};  ///< Identifier.
    std::optional<ExchangeKind> m_Kind = {};
};

/// Some accounts: one alone, or all but some.
struct AccountScope {
    std::optional<std::string> m_Only = {};
    std::vector<std::string> m_Except = {};
};

/// Which part of a list: the first rows between two numbers, both excluded.
struct Page {
    static constexpr std::int64_t kNoLimit = std::numeric_limits<std::int64_t>::max();

    std::int64_t m_After = std::numeric_limits<std::int64_t>::min();
    std::int64_t m_Before = kNoLimit;
    bool m_NewestFirst = false;
    std::int64_t m_Limit = kNoLimit;                                   ///< Rows.
    std::size_t m_MaxBytes = std::numeric_limits<std::size_t>::max();  ///< Ends after the row that reaches it.
};

/// The rows of a page, and whether the list goes on after it.
template <class Row>
struct Listing {
    std::vector<Row> m_Rows = {};
    bool m_More = false;
};

/// How much of payments and exchanges is kept; the rest is removed while exchanges are added. Nothing means all.
struct Retention {
    std::optional<std::int64_t> m_Newest = {};   ///< So many of each.
    std::optional<std::int64_t> m_Seconds = {};  ///< Those stored within so many seconds of the system's clock.
};

/// How many rows there are.
struct Counts {
    std::int64_t m_Accounts = 0;
    std::int64_t m_Payments = 0;
    std::int64_t m_Notifications = 0;
    std::int64_t m_Exchanges = 0;
    std::int64_t m_MerchantKeys = 0;
    std::int64_t m_Warnings = 0;  ///< In the steps of all exchanges.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_STORE_LISTING_H
