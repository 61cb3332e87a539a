#include "sandbox/service/paymentmoves.h"

#include <limits>
#include <optional>

#include "sandbox/service/notifier.h"
#include "sandbox/text/utctime.h"

namespace sandbox {

bool movePayment(Services const& services, Payment const& payment, std::vector<PaymentState> const& from,
                 PaymentState to, std::string const& note) {
    std::optional<Notification> notification;
    std::string const address = payment.attribute("NOTIFYADDRESS").value_or("");
    if (!address.empty()) {
        notification.emplace();
        notification->m_Payment = payment.m_Id;
        notification->m_Address = address;
        notification->m_Result = stateName(to);
    }
    bool const moved = services.m_Store.advance(payment.m_Id, from, {services.m_Clock.text(), to, note}, notification);
    if (moved && notification) {
        services.m_Notifier.wake();
    }
    return moved;
}

std::time_t expirationOf(Payment const& payment) {
    return parseExpiration(payment.attribute("EXPIRATION").value_or(""))
        .value_or(std::numeric_limits<std::time_t>::min());
}

bool isOverdue(Services const& services, Payment const& payment) {
    return services.m_Clock.now() > expirationOf(payment);
}

bool expireWhenOverdue(Services const& services, Payment const& payment) {
    if (payment.m_State != PaymentState::kOpened) {
        return false;
    }
    if (!isOverdue(services, payment)) {
        return true;
    }
    movePayment(services, payment, {PaymentState::kOpened}, PaymentState::kExpired, "not decided in time");
    return false;
}

std::vector<Payment> presentPayments(Services const& services) {
    for (Payment const& payment : services.m_Store.payments()) {
        expireWhenOverdue(services, payment);
    }
    return services.m_Store.payments();
}

}  // namespace sandbox
