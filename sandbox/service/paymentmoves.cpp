// Moves of payments. Of several that move a payment from one state exactly one succeeds, and the others get the outcome
// that holds. The confirmation of an outcome can be made any number of times.
#include "sandbox/service/paymentmoves.h"

#include <cmath>
#include <cstddef>

#include "sandbox/http/httptext.h"
#include "sandbox/service/notifier.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/rowwith.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr std::int64_t kMaxAtOnce = 100;

/// The accounts that go by one clock, and what it shows.
struct Present {
    AccountScope m_Accounts;
    std::time_t m_Now;
};

/// One for each account that has a clock of its own, and one for all others.
std::vector<Present> presents(Services const& services) {
    std::vector<Present> all;
    AccountScope others;
    for (std::string const& account : services.m_Clock.owners()) {
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

/// The decision on a payment that is not decided in time.
constexpr Decision kTooLate = {"nothing", PaymentState::kExpired, "FAILLINK"};

/// Whether the time to decide on the payment has passed.
bool isOverdue(Services const& services, Payment const& payment) {
    return services.m_Clock.now(payment.m_Account) > expirationIn(payment.m_Attributes);
}

/// Moves the payment from one of the states `from` to `to`, and notifies its merchant when a NOTIFYADDRESS was given.
/// An authorised payment lapses after DEFAULTVALIDITY, in seconds. False, with nothing changed, when it is in none of
/// them.
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

/// Moves the opened payment as `decision` says. With the fault `pending` it is pending at first, and the merchant is
/// notified at the end of that. False, with nothing changed, when it is not opened.
bool moveAsDecided(Services const& services, FaultEffect const& effect, Payment const& payment,
                   Decision const& decision, std::string const& note) {
    if (!effect.is(FaultKind::kPending)) {
        return movePayment(services, payment, {PaymentState::kOpened}, decision.m_State, note);
    }
    std::time_t const now = services.m_Clock.now(payment.m_Account);
    auto const seconds = static_cast<std::int64_t>(std::ceil(secondsOf(*effect.m_Fault)));
    bool const moved =
        services.m_Store.advance(payment.m_Id, {PaymentState::kOpened},
                                 {utcText(now), PaymentState::kPending, note + "; the outcome is pending"},
                                 std::nullopt, DueMove{now + seconds, decision.m_State, note});
    if (moved) {
        services.m_Store.whenCommitted([&services] { services.m_Notifier.wake(); });
    }
    return moved;
}

}  // namespace

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
        std::vector<Payment> const overdue =
            services.m_Store.paymentsToExpire(present.m_Now, kMaxAtOnce, present.m_Accounts);
        bool inTime = false;  // the clock was set back meanwhile
        for (Payment const& payment : overdue) {
            inTime = expireWhenOverdue(services, payment) || inTime;
        }
        more = more || (static_cast<std::int64_t>(overdue.size()) == kMaxAtOnce && !inTime);
    }
    return more;
}

void bringUpToDate(Services const& services) {
    makeDueMoves(services);
    while (expireSomeOverdue(services)) {
    }
}

std::vector<Decision> const& allDecisions() {
    // clang-format off
    static std::vector<Decision> const decisions = {
        {"pay",     PaymentState::kAuthorised, "SUCCESSLINK"},
        {"decline", PaymentState::kDeclined,   "FAILLINK"},
        {"cancel",  PaymentState::kCancelled,  "BACKLINK"},
    };
    // clang-format on
    return decisions;
}

Decision const& namedDecision(std::string const& name) {
    Decision const* const decision = rowWith(allDecisions(), &Decision::m_Name, name);
    if (decision == nullptr) {
        throw HttpError("the decision is none of pay, decline and cancel");
    }
    return *decision;
}

Outcome outcomeOf(Services const& services, Payment const& payment) {
    bool const isPending = payment.m_State == PaymentState::kPending;
    std::optional<DueMove> const due = isPending ? services.m_Store.dueMove(payment.m_Id) : std::nullopt;
    PaymentState const decided = due ? due->m_State : decidedState(payment);
    Decision const* const decision = rowWith(allDecisions(), &Decision::m_State, decided);
    return decision != nullptr ? Outcome{decision, isPending ? payment.m_State : decided}
                               : Outcome{&kTooLate, kTooLate.m_State};
}

PaymentState presentState(Services const& services, Payment const& payment) {
    makeDueMoves(services);
    expireWhenOverdue(services, payment);
    return services.m_Store.paymentById(payment.m_Id, Store::History::kLeft)->m_Payment.m_State;
}

std::optional<Outcome> decide(Services const& services, FaultEffect const& effect, Payment& payment,
                              Decision const& decision, std::string const& by) {
    if (payment.m_State == PaymentState::kOpened && !isOverdue(services, payment) &&
        moveAsDecided(services, effect, payment, decision, by + " " + decision.m_Name)) {
        payment.m_State = effect.is(FaultKind::kPending) ? PaymentState::kPending : decision.m_State;
        return Outcome{&decision, payment.m_State};
    }
    payment.m_State = presentState(services, payment);
    if (payment.m_State == PaymentState::kOpened) {
        return std::nullopt;  // the clock was set back meanwhile
    }
    Outcome const made = outcomeOf(services, payment);
    bool const holds = made.m_Decision == &decision || made.m_Decision == &kTooLate;
    return holds ? std::optional<Outcome>(made) : std::nullopt;
}

ReturnedConfirmation returnedConfirmation(Services const& services, FaultEffect const& effect, Payment const& payment,
                                          Outcome const& outcome) {
    std::string const query = signedConfirmation(services, payment, stateName(outcome.m_Result), effect);
    std::string const link = payment.attribute(outcome.m_Decision->m_Link).value_or("");
    return {link.empty() ? "" : extendLink(link, query), query};
}

FaultEffect takeDecisionFault(Services const& services, Payment const& payment, std::vector<CheckStep>& steps) {
    return takeFault(services, ExchangeKind::kDecision, payment.attribute("ORDERID").value_or(""), payment.m_Account,
                     &payment, steps, [](Fault const& fault) {
                         // Whatever can happen to a page as well happens to responses of HTTP.
                         return !happensTo(faultRow(fault.m_Kind), ExchangeKind::kPage);
                     });
}

}  // namespace sandbox
