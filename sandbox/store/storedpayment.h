#ifndef TALLOWIN_SANDBOX_STORE_STOREDPAYMENT_H
#define TALLOWIN_SANDBOX_STORE_STOREDPAYMENT_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/text/paymessage.h"

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

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_STORE_STOREDPAYMENT_H
