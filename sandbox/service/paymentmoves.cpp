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
        notification->payment = payment.id;
        notification->address = address;
        notification->result = stateName(to);
    }
    bool const moved = site.store.advance(payment.id, from, {site.clock.text(), to, note}, notification);
    if (moved && notification) {
        site.notifier.wake();
    }
    return moved;
}

std::time_t expirationOf(Payment const& payment) {
    return parseExpiration(payment.attribute("EXPIRATION").value_or(""))
        .value_or(std::numeric_limits<std::time_t>::min());
}

bool isOverdue(Site const& site, Payment const& payment) {
    return site.clock.now() > expirationOf(payment);
}

bool expireWhenOverdue(Site const& site, Payment const& payment) {
    if (payment.state != PaymentState::Opened) {
        return false;
    }
    if (!isOverdue(site, payment)) {
        return true;
    }
    movePayment(site, payment, {PaymentState::Opened}, PaymentState::Expired, "not decided in time");
    return false;
}

std::vector<Payment> presentPayments(Site const& site) {
    for (Payment const& payment : site.store.payments()) {
        expireWhenOverdue(site, payment);
    }
    return site.store.payments();
}

}  // namespace sandbox
