// Decisions. decide() moves a payment at most once: of several deciders one succeeds, and the others get the outcome
// that holds. The confirmation of an outcome can be made any number of times.
#include "sandbox/service/decisions.h"

#include "sandbox/http/hostport.h"
#include "sandbox/service/confirmation.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

/// The decision on a payment that is not decided in time.
constexpr Decision kTooLate = {"nothing", PaymentState::kExpired, "FAILLINK"};

/// Moves the opened payment as `decision` says, with a fault at first to "pending". False when it is not opened.
bool moveAsDecided(Services const& services, FaultEffect const& effect, Payment const& payment,
                   Decision const& decision, std::string const& note) {
    if (effect.is(FaultKind::kPending)) {
        return suspendPayment(services, payment, decision.m_State, note, secondsOf(*effect.m_Fault));
    }
    return movePayment(services, payment, {PaymentState::kOpened}, decision.m_State, note);
}

}  // namespace

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
    for (Decision const& decision : allDecisions()) {
        if (name == decision.m_Name) {
            return decision;
        }
    }
    throw HttpError("the decision is none of pay, decline and cancel");
}

Outcome outcomeOf(Services const& services, Payment const& payment) {
    bool const isPending = payment.m_State == PaymentState::kPending;
    std::optional<DueMove> const due = isPending ? services.m_Store.dueMove(payment.m_Id) : std::nullopt;
    PaymentState const decided = due ? due->m_State : decidedState(payment);
    for (Decision const& decision : allDecisions()) {
        if (decision.m_State == decided) {
            return {&decision, isPending ? payment.m_State : decided};
        }
    }
    return {&kTooLate, kTooLate.m_State};
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
    FaultEffect effect;
    effect.m_Fault = services.m_Faults.take(
        ExchangeKind::kDecision, payment.attribute("ORDERID").value_or(""), payment.m_Account, [&](Fault const& fault) {
            // Whatever can happen to a page as well happens to responses of HTTP.
            bool const isOfHttp =
                (faultRow(fault.m_Kind).m_Exchanges & static_cast<unsigned>(ExchangeKind::kPage)) != 0;
            return !isOfHttp && canHappen(services, fault, ExchangeKind::kDecision, &payment, effect.m_Other, steps);
        });
    return effect;
}

}  // namespace sandbox
