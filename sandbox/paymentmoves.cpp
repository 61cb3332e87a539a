#include "sandbox/paymentmoves.h"

#include <ctime>

#include "sandbox/utctime.h"

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
        site.notificationAdded();
    }
    return moved;
}

bool isOverdue(Site const& site, Payment const& payment) {
    std::optional<std::time_t> const expiration = parseExpiration(payment.attribute("EXPIRATION").value_or(""));
    return !expiration || site.clock.now() > *expiration;
}

void expireWhenOverdue(Site const& site, Payment const& payment) {
    if (payment.state == PaymentState::Opened && isOverdue(site, payment)) {
        movePayment(site, payment, {PaymentState::Opened}, PaymentState::Expired, "not decided in time");
    }
}

std::vector<Payment> presentPayments(Site const& site) {
    for (Payment const& payment : site.store.payments()) {
        expireWhenOverdue(site, payment);
    }
    return site.store.payments();
}

}  // namespace sandbox
