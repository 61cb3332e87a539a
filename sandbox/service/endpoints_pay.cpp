#include <array>
#include <cstddef>
#include <ctime>
#include <optional>
#include <string>

#include "sandbox/crypto/credentials.h"
#include "sandbox/http/links.h"
#include "sandbox/pages/shopperpages.h"
#include "sandbox/service/notifier.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/service/site.h"
#include "sandbox/text/refusal.h"
#include "sandbox/text/utctime.h"
#include "sandbox/text/wiretext.h"

/// The payment page and the shopper's decision.
namespace sandbox {

namespace {

constexpr int kBadRequest = 400;
constexpr int kNotFound = 404;
constexpr int kForbidden = 403;
constexpr int kConflict = 409;
constexpr int kFound = 302;
constexpr int kIdBytes = 8;
constexpr int kFormKeyBytes = 16;

/// What the shopper can answer, what becomes of the payment, and the attribute of the PayInit that tells where to go.
struct Decision {
    char const* name;
    PaymentState state;
    char const* link;
};

/// What becomes of a payment on which nobody decides in time.
constexpr Decision kTooLate = {"nothing", PaymentState::Expired, "FAILLINK"};

// clang-format off
constexpr std::array<Decision, 3> kDecisions = {{
    {"pay",     PaymentState::Authorised, "SUCCESSLINK"},
    {"decline", PaymentState::Declined,   "FAILLINK"},
    {"cancel",  PaymentState::Cancelled,  "BACKLINK"},
}};
// clang-format on

/// Throws Refusal when it is no time, even one that has passed.
void checkExpiration(std::string const& text) {
    if (!parseExpiration(text)) {
        throw Refusal("EXPIRATION is not a time of the form YYYYMMDD hh:mm:ss: '" + text + "'");
    }
}

/// A link goes into a header of the answer: it must be an http address and nothing more than one line.
void checkLink(Message const& message, char const* name) {
    std::string const link = message.find(name).value_or("");
    if (link.empty()) {
        return;
    }
    if (link.compare(0, 7, "http://") != 0 && link.compare(0, 8, "https://") != 0) {
        throw Refusal(std::string(name) + " is not an address that begins with http:// or https://");
    }
    std::size_t const host = link.find("://") + 3;
    if (host == link.size() || std::string(":/?#").find(link[host]) != std::string::npos) {
        throw Refusal(std::string(name) + " names no host");
    }
    for (char const c : link) {
        if (c <= ' ' || c > '~') {
            throw Refusal(std::string(name) + " holds a space or a byte outside ASCII");
        }
    }
}

PaymentRecord freshPayment(SignedMessage const& sent) {
    PaymentRecord fresh;
    fresh.payment.id = "P" + randomHex(kIdBytes);
    fresh.payment.account = sent.account;
    fresh.payment.token = sent.message.require("TOKEN");
    fresh.payment.attributes = sent.message.attributes();
    fresh.formKey = randomHex(kFormKeyBytes);
    fresh.message = sent.text;
    return fresh;
}

Decision const& namedDecision(std::string const& name) {
    for (Decision const& decision : kDecisions) {
        if (name == decision.name) {
            return decision;
        }
    }
    throw Refusal("the decision is none of pay, decline and cancel");
}

/// The payment that a form came from. Throws Refusal.
PaymentRecord formPayment(Site const& site, Query const& form) {
    std::optional<PaymentRecord> const record = site.store.paymentById(form.value("payment").value_or(""));
    if (!record) {
        throw Refusal("there is no such payment", kNotFound);
    }
    if (!equalSecrets(form.value("key").value_or(""), record->formKey)) {
        throw Refusal("the form did not come from the payment page", kForbidden);
    }
    return *record;
}

PaymentState presentState(Site const& site, Payment const& payment) {
    expireWhenOverdue(site, payment);
    return site.store.paymentById(payment.id)->payment.state;
}

/// Whether a payment in `state` was once led there by `decision`.
bool wasDecided(PaymentState state, Decision const& decision) {
    bool const settled = state == PaymentState::Captured || state == PaymentState::Completed;
    return state == decision.state || (settled && decision.state == PaymentState::Authorised);
}

/// Carries the decision out, if it comes in time, and returns the one that holds. The same decision once more (a second
/// click) is harmless. Null when the payment is decided otherwise.
Decision const* decide(Site const& site, Payment const& payment, Decision const& decision) {
    if (payment.state == PaymentState::Opened && !isOverdue(site, payment) &&
        movePayment(site, payment, {PaymentState::Opened}, decision.state,
                    std::string("shopper chose ") + decision.name)) {
        return &decision;
    }
    PaymentState const state = presentState(site, payment);
    if (state == kTooLate.state) {
        return &kTooLate;
    }
    return wasDecided(state, decision) ? &decision : nullptr;
}

/// The address to which `decision` on `payment` leads; empty when the merchant gave none.
std::string addressAfter(Call const& call, Payment const& payment, Decision const& decision) {
    std::string const link = payment.attribute(decision.link).value_or("");
    return link.empty()
               ? ""
               : extendLink(link, signedConfirmation(call.site, payment, stateName(decision.state), call.fault));
}

std::string usedTokenReason(Payment const& payment) {
    return "TOKEN was used already, by the payment '" + payment.id + "', which is " + stateName(payment.state);
}

/// Why nobody can decide on a payment that is not open any more.
std::string reasonToRefuse(Site const& site, Payment const& payment) {
    if (payment.state == kTooLate.state) {
        std::optional<std::time_t> const expiration = parseExpiration(payment.attribute("EXPIRATION").value_or(""));
        return "the payment has expired: EXPIRATION is " + utcText(expiration.value()) + ", now is " +
               site.clock.text();
    }
    return usedTokenReason(payment);
}

/// The page of a payment on which nobody can decide any more: there is nothing to do but to go back to the shop.
HttpReply answerDecided(Call const& call, int status, PaymentRecord const& record, std::string const& reason) {
    Payment const& payment = record.payment;
    call.record.verdict = reason;
    call.record.steps.push_back({"Turned down", reason, false});
    Decision const* made = &kTooLate;
    for (Decision const& decision : kDecisions) {
        made = wasDecided(payment.state, decision) ? &decision : made;
    }
    return decidedPage(status, record, reason, addressAfter(call, payment, *made));
}

}  // namespace

HttpReply answerPay(Call const& call) {
    Site const& site = call.site;
    SignedMessage const sent = openSignedMessage(call);
    if (sent.message.type() != "PayInit") {
        throw Refusal("the payment page takes a PayInit, not a '" + sent.message.type() + "'");
    }
    checkExpiration(sent.message.require("EXPIRATION"));
    for (Decision const& decision : kDecisions) {
        checkLink(sent.message, decision.link);
    }
    PaymentRecord record = site.store.openPayment(freshPayment(sent), site.clock.text());
    Payment& payment = record.payment;
    payment.state = presentState(site, payment);
    if (payment.state == PaymentState::Opened) {
        site.notifier.watch(payment);
    }
    if (record.message != sent.text) {
        throw Refusal(usedTokenReason(payment));
    }
    // The same message again is the shopper reloading the page, or one whose way back to the shop was lost.
    if (payment.state != PaymentState::Opened) {
        return answerDecided(call, kBadRequest, record, reasonToRefuse(site, payment));
    }
    return paymentPage(record, site.store.customerOf(payment.account));
}

HttpReply answerDecision(Call const& call) {
    Site const& site = call.site;
    Query const form(call.request.body);
    Decision const& wanted = namedDecision(form.value("decision").value_or(""));
    PaymentRecord record = formPayment(site, form);
    Payment& payment = record.payment;
    call.record.steps.push_back({"The form came from the payment page", "payment " + payment.id});
    call.record.steps.push_back({"The shopper decided", wanted.name});
    Decision const* const decision = decide(site, payment, wanted);
    if (decision == nullptr) {
        payment.state = presentState(site, payment);
        return answerDecided(call, kConflict, record,
                             "the payment is " + std::string(stateName(payment.state)) + " already");
    }
    payment.state = decision->state;
    std::string const query = signedConfirmation(site, payment, stateName(decision->state), call.fault);
    std::string const link = payment.attribute(decision->link).value_or("");
    if (link.empty()) {
        return outcomePage(payment, query);
    }
    return {kFound, "text/plain", "The payment is " + std::string(stateName(decision->state)) + ".\n",
            extendLink(link, query)};
}

}  // namespace sandbox
