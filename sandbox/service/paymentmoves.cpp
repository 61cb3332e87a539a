#include "sandbox/service/paymentmoves.h"

#include <limits>
#include <optional>

#include "sandbox/service/notifier.h"
#include "sandbox/text/utctime.h"

namespace sandbox {

bool movePayment(Site const& site, Payment const& payment, std::vector<PaymentState> const& from, PaymentState to,
                 std::string const& note) {
    std::optional<Notification> notification;
    std::string const address = payment.attribute("NOTIFYADDRESS").value_or("");
    if (!address.empty()) {
        notification.emplace();
        notification->m_Payment = payment.m_Id;
        notification->m_Address = address;
        notification->m_Result = stateName(to);
    }
    bool const moved = site.m_Store.advance(payment.m_Id, from, {site.m_Clock.text(), to, note}, notification);
    if (moved && notification) {
        site.m_Notifier.wake();
    }
    return moved;
}

std::time_t expirationOf(Payment const& payment) {
    return parseExpiration(payment.attribute("EXPIRATION").value_or(""))
        .value_or(std::numeric_limits<std::time_t>::min());
}

bool isOverdue(Site const& site, Payment const& payment) {
    return site.m_Clock.now() > expirationOf(payment);
}

bool expireWhenOverdue(Site const& site, Payment const& payment) {
    if (payment.m_State != PaymentState::kOpened) {
        return false;
    }
    if (!isOverdue(site, payment)) {
        return true;
    }
    movePayment(site, payment, {PaymentState::kOpened}, PaymentState::kExpired, "not decided in time");
    return false;
}

std::vector<Payment> presentPayments(Site const& site) {
    for (Payment const& payment : site.m_Store.payments()) {
        expireWhenOverdue(site, payment);
    }
    return site.m_Store.payments();
}

}  // namespace sandbox
