// The payment page (/pay) and the shopper's decision (/pay/decision).
// /pay verifies the PayInit, checks its expiration, its links and its content, and opens a payment under its token; the
// same message again shows the same payment. /pay/decision checks the form's key, moves the payment at most once and
// redirects to the shop with a signed confirmation. A payment that is looked at after its expiration expires here; the
// notifier expires the others.
#include "sandbox/service/endpoints.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/crypto/credentials.h"
#include "sandbox/crypto/signature.h"
#include "sandbox/pages/shopperpages.h"
#include "sandbox/service/contentcheck.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr int kIdBytes = 8;
constexpr int kFormKeyBytes = 16;

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
    if (!problems.empty() && !context.m_Services.m_Lenient) {
        throw HttpError(joined(problems, "; "));
    }
    for (std::string const& problem : problems) {
        context.m_Exchange.m_Steps.push_back({"Warning", problem, false, true});
    }
}

/// The identifier of a payment and its form key, when they are not random.
Store::MakeIdentifiers seededIdentifiers(std::string const& seed) {
    if (seed.empty()) {
        return nullptr;
    }
    return [seed](StoredPayment& fresh, std::int64_t number) {
        std::string const& account = fresh.m_Payment.m_Account;
        std::string const text = seed + "/" + std::to_string(number) + "/" + account;
        fresh.m_Payment.m_Id = "P" + toHex(digestOf("id/" + text, Widening::kZero)).substr(0, 2 * kIdBytes);
        fresh.m_FormKey = toHex(digestOf("form/" + text, Widening::kZero)).substr(0, 2 * kFormKeyBytes);
    };
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

std::string usedTokenReason(Payment const& payment) {
    return "TOKEN was used already, by the payment '" + payment.m_Id + "', which is " + stateName(payment.m_State);
}

/// Why a payment that is not open cannot be decided.
std::string reasonToRefuse(Services const& services, Payment const& payment) {
    if (payment.m_State == PaymentState::kExpired) {
        std::optional<std::time_t> const expiration = parseExpiration(payment.attribute("EXPIRATION").value_or(""));
        return "the payment has expired: EXPIRATION is " + utcText(expiration.value()) + ", now is " +
               services.m_Clock.text(payment.m_Account);
    }
    return usedTokenReason(payment);
}

/// The way back to the shop: a redirect, or without a link a page with the confirmation.
HttpResponse returnResponse(Services const& services, FaultEffect const& effect, Payment payment,
                            Outcome const& outcome) {
    payment.m_State = outcome.m_Result;
    ReturnedConfirmation const returned = returnedConfirmation(services, effect, payment, outcome);
    if (returned.m_Link.empty()) {
        return outcomePage(payment, returned.m_Query);
    }
    return {httpstatus::kFound, "text/plain", "The payment is " + std::string(stateName(outcome.m_Result)) + ".\n",
            returned.m_Link};
}

/// The response to a payment page that a standing decision decides; nothing when none is for the payment.
std::optional<HttpResponse> decideByRule(RequestContext const& context, Payment payment) {
    Services const& services = context.m_Services;
    std::optional<StandingDecision> const rule = services.m_Decisions.take(payment);
    if (!rule) {
        return std::nullopt;
    }
    std::vector<CheckStep>& steps = context.m_Exchange.m_Steps;
    steps.push_back({"A standing decision applies", std::to_string(rule->m_Id) + ": " + rule->m_Decision});
    FaultEffect const effect = takeDecisionFault(services, payment, steps);
    if (effect.m_Fault) {
        steps.push_back({"A fault of the decision happened", faultText(*effect.m_Fault)});
    }
    std::string const by = "standing decision " + std::to_string(rule->m_Id) + ":";
    std::optional<Outcome> const outcome = decide(services, effect, payment, namedDecision(rule->m_Decision), by);
    return outcome ? std::optional<HttpResponse>(returnResponse(services, effect, payment, *outcome)) : std::nullopt;
}

/// The page of a payment that cannot be decided any more, with the return link.
HttpResponse decidedResponse(RequestContext const& context, int status, StoredPayment const& stored,
                             std::string const& reason) {
    Payment const& payment = stored.m_Payment;
    context.m_Exchange.m_Verdict = reason;
    context.m_Exchange.m_Steps.push_back({"Turned down", reason, false});
    Outcome const outcome = outcomeOf(context.m_Services, payment);
    return decidedPage(status, stored, reason,
                       returnedConfirmation(context.m_Services, context.m_Effect, payment, outcome).m_Link);
}

}  // namespace

HttpResponse handlePay(RequestContext const& context) {
    Services const& services = context.m_Services;
    SignedMessage const sent = openSignedMessage(context);
    if (sent.m_Message.type() != "PayInit") {
        throw HttpError("the payment page takes a PayInit, not a '" + sent.m_Message.type() + "'");
    }
    checkExpiration(sent.m_Message.require("EXPIRATION"));
    for (Decision const& decision : allDecisions()) {
        checkLink(sent.m_Message, decision.m_Link);
    }
    sent.m_Message.require("TOKEN");
    checkContent(context, sent.m_Message);
    StoredPayment const fresh = freshPayment(sent);
    StoredPayment stored =
        services.m_Store.openPayment(fresh, services.m_Clock.text(sent.m_Account), seededIdentifiers(services.m_Seed));
    Payment& payment = stored.m_Payment;
    context.m_Exchange.m_Payment = payment.m_Id;
    bool const isNew = payment.m_Id == fresh.m_Payment.m_Id;
    if (!isNew || !expireWhenOverdue(services, payment)) {
        payment.m_State = presentState(services, payment);
    }
    if (stored.m_Message != sent.m_Text) {
        throw HttpError(usedTokenReason(payment));
    }
    // The same message again: the shopper reloads the page, or could not follow the return link.
    if (payment.m_State != PaymentState::kOpened) {
        return decidedResponse(context, httpstatus::kBadRequest, stored, reasonToRefuse(services, payment));
    }
    if (std::optional<HttpResponse> response = decideByRule(context, payment)) {
        return *response;
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
    std::optional<Outcome> const outcome = decide(services, context.m_Effect, payment, wanted, "shopper chose");
    if (!outcome) {
        return decidedResponse(context, httpstatus::kConflict, stored,
                               "the payment is " + std::string(stateName(payment.m_State)) + " already");
    }
    return returnResponse(services, context.m_Effect, payment, *outcome);
}

}  // namespace sandbox
