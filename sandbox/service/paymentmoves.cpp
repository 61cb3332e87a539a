#include "sandbox/service/paymentmoves.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>

#include "sandbox/service/notifier.h"
#include "sandbox/text/utctime.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr std::int64_t kMaxAtOnce = 100;

/// The lapse of an authorisation that begins now.
std::optional<DueMove> lapseOf(Services const& services, Payment const& payment) {
    std::optional<std::int64_t> const validity = validityOf(payment);
    if (!validity) {
        return std::nullopt;
    }
    return DueMove{services.m_Clock.now() + *validity + 1, PaymentState::kLapsed,
                   "not captured within " + std::to_string(*validity) + " seconds"};
}

}  // namespace

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
    std::optional<DueMove> const next = to == PaymentState::kAuthorised ? lapseOf(services, payment) : std::nullopt;
    bool const moved =
        services.m_Store.advance(payment.m_Id, from, {services.m_Clock.text(), to, note}, notification, next);
    if (moved && (notification || next)) {
        services.m_Notifier.wake();
    }
    return moved;
}

bool suspendPayment(Services const& services, Payment const& payment, PaymentState to, std::string const& note,
                    double seconds) {
    DueMove const outcome{services.m_Clock.now() + static_cast<std::int64_t>(std::ceil(seconds)), to, note};
    bool const moved = services.m_Store.advance(
        payment.m_Id, {PaymentState::kOpened},
        {services.m_Clock.text(), PaymentState::kPending, note + "; the outcome is pending"}, std::nullopt, outcome);
    if (moved) {
        services.m_Notifier.wake();
    }
    return moved;
}

bool makeDueMoves(Services const& services) {
    auto const due = services.m_Store.dueMoves(services.m_Clock.now());
    for (auto const& [id, move] : due) {
        if (move.m_State == PaymentState::kLapsed) {
            services.m_Store.advance(id, {PaymentState::kAuthorised},
                                     {services.m_Clock.text(), move.m_State, move.m_Note});
            continue;
        }
        movePayment(services, services.m_Store.paymentById(id).value().m_Payment, {PaymentState::kPending},
                    move.m_State, move.m_Note);
    }
    return !due.empty();
}

std::optional<std::int64_t> validityOf(Payment const& payment) {
    constexpr std::size_t kMaxDigits = 10;
    std::string const text = payment.attribute("DEFAULTVALIDITY").value_or("");
    bool const isNumber = text.size() <= kMaxDigits && text.find_first_not_of("0123456789") == std::string::npos;
    return isNumber ? wholeNumber(text) : std::nullopt;
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

bool expireSomeOverdue(Services const& services) {
    std::vector<Payment> const overdue = services.m_Store.paymentsToExpire(services.m_Clock.now(), kMaxAtOnce);
    bool inTime = false;  // the clock was set back meanwhile
    for (Payment const& payment : overdue) {
        inTime = expireWhenOverdue(services, payment) || inTime;
    }
    return static_cast<std::int64_t>(overdue.size()) == kMaxAtOnce && !inTime;
}

void bringUpToDate(Services const& services) {
    makeDueMoves(services);
    while (expireSomeOverdue(services)) {
    }
}

}  // namespace sandbox
