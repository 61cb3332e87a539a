// The payment page (/pay) and the shopper's decision (/pay/decision).
// /pay verifies the PayInit, checks its expiration, its links and its content, and opens a payment under its token; the
// same message again shows the same payment. /pay/decision checks the form's key, moves the payment at most once and
// redirects to the shop with a signed confirmation. A payment that is looked at after its expiration expires here; the
// notifier expires the others.
#include "sandbox/service/endpoints.h"

#include <array>
#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/crypto/credentials.h"
#include "sandbox/http/hostport.h"
#include "sandbox/pages/shopperpages.h"
#include "sandbox/service/confirmation.h"
#include "sandbox/service/contentcheck.h"
#include "sandbox/service/notifier.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/service/signedmessage.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/httpstatus.h"
#include "sandbox/text/utctime.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr int kIdBytes = 8;
constexpr int kFormKeyBytes = 16;

/// What the shopper can decide, the state it leads to, and the attribute of the PayInit that holds the return link.
struct Decision {
    char const* m_Name;
    PaymentState m_State;
    char const* m_Link;
};

/// The decision on a payment that is not decided in time.
constexpr Decision kTooLate = {"nothing", PaymentState::kExpired, "FAILLINK"};

// clang-format off
constexpr std::array<Decision, 3> kDecisions = {{
    {"pay",     PaymentState::kAuthorised, "SUCCESSLINK"},
    {"decline", PaymentState::kDeclined,   "FAILLINK"},
    {"cancel",  PaymentState::kCancelled,  "BACKLINK"},
}};
// clang-format on

/// Throws HttpError unless `text` is a time; one that has passed is allowed.
void checkExpiration(std::string const& text) {
    if (!parseExpiration(text)) {
        throw HttpError("EXPIRATION is not a time of the form YYYYMMDD hh:mm:ss: '" + text + "'");
    }
}

/// A link goes into a header of the response: it must be an http address on one line.
void checkLink(Message const& message, char const* name) {
    std::string const link = message.find(name).value_or("");
    if (link.empty()) {
        return;
    }
    if (link.compare(0, 7, "http://") != 0 && link.compare(0, 8, "https://") != 0) {
        throw HttpError(std::string(name) + " is not an address that begins with http:// or https://");
    }
    std::size_t const host = link.find("://") + 3;
    if (host == link.size() || std::string(":/?#").find(link[host]) != std::string::npos) {
        throw HttpError(std::string(name) + " names no host");
    }
    for (char const c : link) {
        if (c <= ' ' || c > '~') {
            throw HttpError(std::string(name) + " holds a space or a byte outside ASCII");
        }
    }
}

/// Throws HttpError with everything that is odd about what the PayInit says and how it travelled; a lenient service
/// notes each as a warning instead.
void checkContent(RequestContext const& context, Message const& message) {
    std::vector<std::string> problems = encodingProblems(context.m_Request.m_Query.rawValue("DATA"));
    for (std::string& problem : contentProblems(message)) {
        problems.push_back(std::move(problem));
    }
    std::string reason;
    for (std::string const& problem : problems) {
        reason += (reason.empty() ? "" : "; ") + problem;
        if (context.m_Services.m_Lenient) {
            context.m_Exchange.m_Steps.push_back({"Warning", problem, false, true});
        }
    }
    if (!reason.empty() && !context.m_Services.m_Lenient) {
        throw HttpError(reason);
    }
}

StoredPayment freshPayment(SignedMessage const& sent) {
    StoredPayment fresh;
    fresh.m_Payment.m_Id = "P" + randomHex(kIdBytes);
    fresh.m_Payment.m_Account = sent.m_Account;
    fresh.m_Payment.m_Token = sent.m_Message.require("TOKEN");
    fresh.m_Payment.m_Attributes = sent.m_Message.attributes();
    fresh.m_FormKey = randomHex(kFormKeyBytes);
    fresh.m_Message = sent.m_Text;
    return fresh;
}

Decision const& namedDecision(std::string const& name) {
    for (Decision const& decision : kDecisions) {
        if (name == decision.m_Name) {
            return decision;
        }
    }
    throw HttpError("the decision is none of pay, decline and cancel");
}

/// The payment that a form came from. Throws HttpError.
StoredPayment formPayment(RequestContext const& context) {
    Query const& form = context.m_Form;
    std::optional<StoredPayment> const& stored = context.m_Payment;
    if (!stored) {
        (void)form.value("payment");  // throws when it cannot be read
        throw HttpError("there is no such payment", httpstatus::kNotFound);
    }
    if (!equalSecrets(form.value("key").value_or(""), stored->m_FormKey)) {
        throw HttpError("the form did not come from the payment page", httpstatus::kForbidden);
    }
    return *stored;
}

/// The state of a payment that may have moved since it was read.
PaymentState presentState(Services const& services, Payment const& payment) {
    makeDueMoves(services);
    expireWhenOverdue(services, payment);
    return services.m_Store.paymentById(payment.m_Id, Store::History::kLeft)->m_Payment.m_State;
}

/// The decision that was made on a payment, and the RESULT of its confirmation.
struct Outcome {
    Decision const* m_Decision;
    PaymentState m_Result;
};

/// The outcome of a payment that is in another state than opened.
Outcome outcomeOf(Services const& services, Payment const& payment) {
    bool const isPending = payment.m_State == PaymentState::kPending;
    std::optional<DueMove> const due = isPending ? services.m_Store.dueMove(payment.m_Id) : std::nullopt;
    PaymentState const decided = due ? due->m_State : decidedState(payment);
    for (Decision const& decision : kDecisions) {
        if (decision.m_State == decided) {
            return {&decision, isPending ? payment.m_State : decided};
        }
    }
    return {&kTooLate, kTooLate.m_State};
}

/// Moves the opened payment as `decision` says, with a fault at first to "pending". False when it is not opened.
bool moveAsDecided(RequestContext const& context, Payment const& payment, Decision const& decision) {
    std::string const note = std::string("shopper chose ") + decision.m_Name;
    if (context.m_Effect.is(FaultKind::kPending)) {
        return suspendPayment(context.m_Services, payment, decision.m_State, note,
                              secondsOf(*context.m_Effect.m_Fault));
    }
    return movePayment(context.m_Services, payment, {PaymentState::kOpened}, decision.m_State, note);
}

/// Applies the decision when it comes in time, and returns the outcome that holds. The same decision again (a second
/// click) is harmless. Nothing when the payment was decided otherwise. Sets the state of `payment`.
std::optional<Outcome> decide(RequestContext const& context, Payment& payment, Decision const& decision) {
    Services const& services = context.m_Services;
    if (payment.m_State == PaymentState::kOpened && !isOverdue(services, payment) &&
        moveAsDecided(context, payment, decision)) {
        bool const isPending = context.m_Effect.is(FaultKind::kPending);
        payment.m_State = isPending ? PaymentState::kPending : decision.m_State;
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

/// The return link of the decision with the confirmation; empty when the merchant gave none.
std::string addressAfter(RequestContext const& context, Payment const& payment, Outcome const& outcome) {
    std::string const link = payment.attribute(outcome.m_Decision->m_Link).value_or("");
    return link.empty() ? ""
                        : extendLink(link, signedConfirmation(context.m_Services, payment, stateName(outcome.m_Result),
                                                              context.m_Effect));
}

std::string usedTokenReason(Payment const& payment) {
    return "TOKEN was used already, by the payment '" + payment.m_Id + "', which is " + stateName(payment.m_State);
}

/// Why a payment that is not open cannot be decided.
std::string reasonToRefuse(Services const& services, Payment const& payment) {
    if (payment.m_State == kTooLate.m_State) {
        std::optional<std::time_t> const expiration = parseExpiration(payment.attribute("EXPIRATION").value_or(""));
        return "the payment has expired: EXPIRATION is " + utcText(expiration.value()) + ", now is " +
               services.m_Clock.text(payment.m_Account);
    }
    return usedTokenReason(payment);
}

/// The page of a payment that cannot be decided any more, with the return link.
HttpResponse decidedResponse(RequestContext const& context, int status, StoredPayment const& stored,
                             std::string const& reason) {
    Payment const& payment = stored.m_Payment;
    context.m_Exchange.m_Verdict = reason;
    context.m_Exchange.m_Steps.push_back({"Turned down", reason, false});
    return decidedPage(status, stored, reason, addressAfter(context, payment, outcomeOf(context.m_Services, payment)));
}

}  // namespace

HttpResponse handlePay(RequestContext const& context) {
    Services const& services = context.m_Services;
    SignedMessage const sent = openSignedMessage(context);
    if (sent.m_Message.type() != "PayInit") {
        throw HttpError("the payment page takes a PayInit, not a '" + sent.m_Message.type() + "'");
    }
    checkExpiration(sent.m_Message.require("EXPIRATION"));
    for (Decision const& decision : kDecisions) {
        checkLink(sent.m_Message, decision.m_Link);
    }
    sent.m_Message.require("TOKEN");
    checkContent(context, sent.m_Message);
    StoredPayment const fresh = freshPayment(sent);
    StoredPayment stored = services.m_Store.openPayment(fresh, services.m_Clock.text(sent.m_Account));
    Payment& payment = stored.m_Payment;
    context.m_Exchange.m_Payment = payment.m_Id;
    bool const isNew = payment.m_Id == fresh.m_Payment.m_Id;
    if (!isNew || !expireWhenOverdue(services, payment)) {
        payment.m_State = presentState(services, payment);
    }
    if (payment.m_State == PaymentState::kOpened) {
        services.m_Notifier.watch();
    }
    if (stored.m_Message != sent.m_Text) {
        throw HttpError(usedTokenReason(payment));
    }
    // The same message again: the shopper reloads the page, or could not follow the return link.
    if (payment.m_State != PaymentState::kOpened) {
        return decidedResponse(context, httpstatus::kBadRequest, stored, reasonToRefuse(services, payment));
    }
    return paymentPage(stored, context.m_Signer->m_Customer);
}

HttpResponse handleDecision(RequestContext const& context) {
    Services const& services = context.m_Services;
    Query const& form = context.m_Form;
    Decision const& wanted = namedDecision(form.value("decision").value_or(""));
    StoredPayment stored = formPayment(context);
    Payment& payment = stored.m_Payment;
    context.m_Exchange.m_Steps.push_back({"The form came from the payment page", "payment " + payment.m_Id});
    context.m_Exchange.m_Steps.push_back({"The shopper decided", wanted.m_Name});
    std::optional<Outcome> const outcome = decide(context, payment, wanted);
    if (!outcome) {
        return decidedResponse(context, httpstatus::kConflict, stored,
                               "the payment is " + std::string(stateName(payment.m_State)) + " already");
    }
    payment.m_State = outcome->m_Result;
    std::string const query = signedConfirmation(services, payment, stateName(outcome->m_Result), context.m_Effect);
    std::string const link = payment.attribute(outcome->m_Decision->m_Link).value_or("");
    if (link.empty()) {
        return outcomePage(payment, query);
    }
    return {httpstatus::kFound, "text/plain", "The payment is " + std::string(stateName(outcome->m_Result)) + ".\n",
            extendLink(link, query)};
}

}  // namespace sandbox
