#ifndef TALLOWIN_SANDBOX_STORE_ROWS_H
#define TALLOWIN_SANDBOX_STORE_ROWS_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/faults/fault.h"
#include "sandbox/text/paymessage.h"

/// What the store keeps of payments, notifications and exchanges, and the parts of its lists.
namespace sandbox {

/// Where a payment stands. A shopper's decision leads from `Opened` to `Authorised`, `Declined` or `Cancelled`, on
/// request with `Pending` before it, and time to `Expired`; the merchant leads an authorised payment on to `Captured`
/// and `Completed`, or time to `Lapsed`. The names are kept in the database: do not change them.
enum class PaymentState {
    kOpened,
    kPending,
    kAuthorised,
    kDeclined,
    kCancelled,
    kExpired,
    kLapsed,
    kCaptured,
    kCompleted
};

/// The lower-case name of `state`: "opened", "pending", "authorised", "declined", "cancelled", "expired", "lapsed",
/// "captured", "completed".
char const* stateName(PaymentState state);

/// The state of that name. Throws std::runtime_error for any other text.
PaymentState stateFromName(std::string const& name);

/// One step in the life of a payment.
struct HistoryEntry {
    std::string m_Time;  ///< UTC, "2024-01-31T23:59:07Z".
    PaymentState m_State = PaymentState::kOpened;
    std::string m_Note;
};

/// One payment as the service keeps it.
struct Payment {
    std::int64_t m_Number = 0;  ///< Counts up from 1; 0 before it is stored.
    std::string m_Id;
    std::string m_Account;  ///< User name of the merchant's account.
    std::string m_Token;
    PaymentState m_State = PaymentState::kOpened;
    Attributes m_Attributes;              ///< Of the PayInit message, in its order, unescaped.
    std::vector<HistoryEntry> m_History;  ///< Oldest first.

    /// The value of the attribute `name`, nothing when the PayInit had none.
    [[nodiscard]] std::optional<std::string> attribute(std::string const& name) const;
};

/// EXPIRATION among `attributes`, in seconds since 1970; long past when it is missing or cannot be read.
std::int64_t expirationIn(Attributes const& attributes);

/// The confirmation of a decided payment on its way to the merchant's NOTIFYADDRESS.
struct Notification {
    std::int64_t m_Number = 0;  ///< Counts up from 1.
    std::string m_Payment;      ///< Identifier of the payment.
    std::string m_Address;      ///< NOTIFYADDRESS.
    std::string m_Result;       ///< RESULT of the confirmation.
    std::int64_t m_Attempts = 0;
    bool m_Pending = true;  ///< Still to be sent.
    std::string m_Time;     ///< Of the last attempt, UTC; empty before the first.
    std::string m_Outcome;  ///< Of the last attempt, for people.
};

/// One step of looking at a request: what was looked at, what was found, and whether that is as it should be.
struct CheckStep {
    std::string m_What;
    std::string m_Found;
    bool m_Good = true;
    bool m_Warning = false;  ///< The request is odd and was accepted all the same.
};

/// One request to the protocol's addresses, or to the proxy, and the verdict of the service, without the long parts.
/// The texts are bytes without an encoding.
struct ExchangeSummary {
    std::int64_t m_Number = 0;  ///< Counts up from 1.
    std::string m_Time;         ///< UTC, "2024-01-31T23:59:07Z".
    ExchangeKind m_Kind = ExchangeKind::kOther;
    std::string m_Account;            ///< Account of the merchant it is about, when that is known.
    std::string m_Order;              ///< ORDERID of the payment it is about, when that is known.
    std::string m_Token;              ///< TOKEN of the message, or of the payment that a form decides on.
    std::string m_Payment;            ///< Identifier of the payment it is about, when that is known.
    std::string m_Path;               ///< Without the query.
    std::string m_Verdict;            ///< "ok", or the reason of the error.
    std::string m_Fault;              ///< The fault that happened to it, as faultText() writes it; empty without.
    std::int64_t m_Microseconds = 0;  ///< From the complete request to the complete response.
};

/// All of it.
struct Exchange : ExchangeSummary {
    std::string m_Data;              ///< DATA, decoded; empty when it was missing or could not be decoded.
    std::string m_Signature;         ///< SIGNATURE as it came.
    std::vector<CheckStep> m_Steps;  ///< How the verdict came about.
    std::string m_Request;           ///< As it came, head and body, the password covered; cut when it is very long.
    std::string m_Response;          ///< As it was made, before any fault; cut when it is very long.
    std::string m_Delivery;          ///< What was sent of the response when a fault applied; empty without.
};

/// Which payments or exchanges; an absent condition matches all.
struct Filter {
    std::optional<std::string> m_Account = {};  ///< Empty matches exchanges whose account is unknown.
    std::optional<std::string> m_Order = {};    ///< ORDERID; empty matches those without one.
    std::optional<std::string> m_Token = {};
    std::optional<std::string> m_Payment = {};  ///< Identifier.
    std::optional<PaymentState> m_State = {};   ///< Of payments alone.
    std::optional<ExchangeKind> m_Kind = {};    ///< Of exchanges alone.
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

    /// The newest `limit` rows, newest first.
    static Page newest(std::int64_t limit);
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

#endif  // TALLOWIN_SANDBOX_STORE_ROWS_H
