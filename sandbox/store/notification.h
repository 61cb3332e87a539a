#ifndef TALLOWIN_SANDBOX_STORE_NOTIFICATION_H
#define TALLOWIN_SANDBOX_STORE_NOTIFICATION_H

#include <cstdint>
#include <string>

namespace sandbox {

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

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_STORE_NOTIFICATION_H
