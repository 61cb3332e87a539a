#include "sandbox/service/paymentmoves.h"

#include <cmath>
#include <cstddef>

#include "sandbox/service/notifier.h"
#include "sandbox/text/utctime.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr std::int64_t kMaxAtOnce = 100;

/// Expires these. True when there were as many as are read at once, so that there may be more.
bool expireThose(Services const& services, std::vector<Payment> const& overdue) {
    bool inTime = false;  // the clock was set back meanwhile
    for (Payment const& payment : overdue) {
        inTime = expireWhenOverdue(services, payment) || inTime;
    }
    return static_cast<std::int64_t>(overdue.size()) == kMaxAtOnce && !inTime;
}

/// The accounts that go by one clock, and what it shows.
struct Present {
    AccountScope m_Accounts;
    std::time_t m_Now;
};

/// One for each account that has a clock of its own, and one for all others.
std::vector<Present> presents(Services const& services) {
    std::vector<Present> all;
    AccountScope others;
    for (auto const& [account, ahead] : services.m_Clock.owners()) {
        all.push_back({{account, {}}, services.m_Clock.now(account)});
        others.m_Except.push_back(account);
    }
    all.push_back({others, services.m_Clock.now()});
    return all;
}

/// The lapse of an authorisation that begins now.
std::optional<DueMove> lapseOf(Services const& services, Payment const& payment) {
    std::optional<std::int64_t> const validity = validityOf(payment);
    if (!validity) {
        return std::nullopt;
    }
    return DueMove{services.m_Clock.now(payment.m_Account) + *validity + 1, PaymentState::kLapsed,
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
    bool const moved = services.m_Store.advance(
        payment.m_Id, from, {services.m_Clock.text(payment.m_Account), to, note}, notification, next);
    if (moved && (notification || next)) {
        services.m_Store.whenCommitted([&services] { services.m_Notifier.wake(); });
    }
    return moved;
}

bool suspendPayment(Services const& services, Payment const& payment, PaymentState to, std::string const& note,
                    double seconds) {
    std::time_t const now = services.m_Clock.now(payment.m_Account);
    DueMove const outcome{now + static_cast<std::int64_t>(std::ceil(seconds)), to, note};
    bool const moved = services.m_Store.advance(
        payment.m_Id, {PaymentState::kOpened},
        {utcText(now), PaymentState::kPending, note + "; the outcome is pending"}, std::nullopt, outcome);
    if (moved) {
        services.m_Store.whenCommitted([&services] { services.m_Notifier.wake(); });
    }
    return moved;
}

bool makeDueMoves(Services const& services) {
    bool any = false;
    for (Present const& present : presents(services)) {
        for (auto const& [id, move] : services.m_Store.dueMoves(present.m_Now, present.m_Accounts)) {
            any = true;
            if (move.m_State == PaymentState::kLapsed) {
                services.m_Store.advance(id, {PaymentState::kAuthorised},
                                         {utcText(present.m_Now), move.m_State, move.m_Note});
            } else if (std::optional<StoredPayment> const stored = services.m_Store.paymentById(id)) {
                movePayment(services, stored->m_Payment, {PaymentState::kPending}, move.m_State, move.m_Note);
            }
        }
    }
    return any;
}

std::optional<std::int64_t> validityOf(Payment const& payment) {
    constexpr std::size_t kMaxDigits = 10;
    std::string const text = payment.attribute("DEFAULTVALIDITY").value_or("");
    bool const isNumber = text.size() <= kMaxDigits && text.find_first_not_of("0123456789") == std::string::npos;
    return isNumber ? wholeNumber(text) : std::nullopt;
}

std::time_t expirationOf(Payment const& payment) {
    return static_cast<std::time_t>(expirationIn(payment.m_Attributes));
}

bool isOverdue(Services const& services, Payment const& payment) {
    return services.m_Clock.now(payment.m_Account) > expirationOf(payment);
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
    bool more = false;
    for (Present const& present : presents(services)) {
        more =
            expireThose(services, services.m_Store.paymentsToExpire(present.m_Now, kMaxAtOnce, present.m_Accounts)) ||
            more;
    }
    return more;
}

void bringUpToDate(Services const& services) {
    makeDueMoves(services);
    while (expireSomeOverdue(services)) {
    }
}

}  // namespace sandbox
