#ifndef TALLOWIN_SANDBOX_STORE_NOTIFICATION_H
#define TALLOWIN_SANDBOX_STORE_NOTIFICATION_H

#include <cstdint>
#include <string>

namespace sandbox {

/// The confirmation of a decided payment on its way to the merchant's NOTIFYADDRESS.
struct Notification {
    std::int64_t number = 0;  ///< Counts up from 1.
    std::string payment;      ///< Identifier of the payment.
    std::string address;      ///< NOTIFYADDRESS.
    std::string result;       ///< RESULT of the confirmation.
    std::int64_t attempts = 0;
    bool pending = true;  ///< Still to be sent.
    std::string time;     ///< Of the last attempt, UTC; empty before the first.
    std::string outcome;  ///< Of the last attempt, for people.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_STORE_NOTIFICATION_H
