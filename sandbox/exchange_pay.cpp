#include <array>
#include <ctime>
#include <optional>
#include <string>

#include "sandbox/credentials.h"
#include "sandbox/links.h"
#include "sandbox/pages.h"
#include "sandbox/paymentmoves.h"
#include "sandbox/refusal.h"
#include "sandbox/site.h"
#include "sandbox/utctime.h"
#include "sandbox/wiretext.h"

/// The payment page and the shopper's decision.
namespace sandbox {

namespace {

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

void checkExpiration(Site const& site, std::string const& text) {
    std::optional<std::time_t> const expiration = parseExpiration(text);
    if (!expiration) {
        throw Refusal("EXPIRATION is not a time of the form YYYYMMDD hh:mm:ss: '" + text + "'");
    }
    if (site.clock.now() > *expiration) {
        throw Refusal("the payment has expired: EXPIRATION is " + utcText(*expiration) + ", now is " +
                      site.clock.text());
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

/// Whether a payment in `state` was once led there by `decision`.
bool wasDecided(PaymentState state, Decision const& decision) {
    bool const settled = state == PaymentState::Captured || state == PaymentState::Completed;
    return state == decision.state || (settled && decision.state == PaymentState::Authorised);
}

/// Carries the decision out, if it comes in time, and returns the one that holds. The same decision once more (a second
/// click) is harmless. Throws Refusal.
Decision const& decide(Site const& site, Payment const& payment, Decision const& decision) {
    if (payment.state == PaymentState::Opened && !isOverdue(site, payment) &&
        movePayment(site, payment, {PaymentState::Opened}, decision.state,
                    std::string("shopper chose ") + decision.name)) {
        return decision;
    }
    expireWhenOverdue(site, payment);
    PaymentState const state = site.store.paymentById(payment.id)->payment.state;
    if (state == kTooLate.state) {
        return kTooLate;
    }
    if (!wasDecided(state, decision)) {
        throw Refusal("the payment is " + std::string(stateName(state)) + " already", kConflict);
    }
    return decision;
}

/// The address to which `decision` on `payment` leads; empty when the merchant gave none.
std::string addressAfter(Call const& call, Payment const& payment, Decision const& decision) {
    std::string const link = payment.attribute(decision.link).value_or("");
    return link.empty()
               ? ""
               : extendLink(link, signedConfirmation(call.site, payment, stateName(decision.state), call.fault));
}

/// The page of a payment that is decided: nothing more can be done there but to go back to the shop.
HttpReply answerDecided(Call const& call, Payment const& payment, std::string const& reason) {
    call.record.verdict = reason;
    call.record.steps.push_back({"Turned down", reason, false});
    for (Decision const& decision : kDecisions) {
        if (wasDecided(payment.state, decision)) {
            return decidedPage(reason, call.record, addressAfter(call, payment, decision));
        }
    }
    return decidedPage(reason, call.record, addressAfter(call, payment, kTooLate));
}

}  // namespace

HttpReply answerPay(Call const& call) {
    Site const& site = call.site;
    SignedMessage const sent = openSignedMessage(call);
    if (sent.message.type() != "PayInit") {
        throw Refusal("the payment page takes a PayInit, not a '" + sent.message.type() + "'");
    }
    if (std::optional<PaymentRecord> const known =
            site.store.paymentByToken(sent.account, sent.message.require("TOKEN"))) {
        expireWhenOverdue(site, known->payment);
    }
    checkExpiration(site, sent.message.require("EXPIRATION"));
    for (Decision const& decision : kDecisions) {
        checkLink(sent.message, decision.link);
    }
    PaymentRecord const payment = site.store.openPayment(freshPayment(sent), site.clock.text());
    std::string const reason = "TOKEN was used already, by the payment '" + payment.payment.id + "', which is " +
                               stateName(payment.payment.state);
    if (payment.message != sent.text) {
        throw Refusal(reason);
    }
    // The same message again is the shopper reloading the page, or one whose way back to the shop was lost.
    if (payment.payment.state != PaymentState::Opened) {
        return answerDecided(call, payment.payment, reason);
    }
    return paymentPage(payment, site.store.customerOf(payment.payment.account));
}

HttpReply answerDecision(Call const& call) {
    Site const& site = call.site;
    Query const form(call.request.body);
    Decision const& wanted = namedDecision(form.value("decision").value_or(""));
    Payment payment = formPayment(site, form).payment;
    Decision const& decision = decide(site, payment, wanted);
    payment.state = decision.state;
    std::string const query = signedConfirmation(site, payment, stateName(decision.state), call.fault);
    std::string const link = payment.attribute(decision.link).value_or("");
    if (link.empty()) {
        return outcomePage(payment, query);
    }
    return {kFound, "text/plain", "The payment is " + std::string(stateName(decision.state)) + ".\n",
            extendLink(link, query)};
}

}  // namespace sandbox
