#include <algorithm>
#include <array>
#include <cstddef>
#include <ctime>
#include <optional>
#include <string>

#include "sandbox/credentials.h"
#include "sandbox/pages.h"
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
    if (site.clock() > *expiration) {
        throw Refusal("the payment has expired: EXPIRATION is " + utcText(*expiration) + ", now is " + site.timeText());
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

/// `link` with one more piece of query, before a fragment.
std::string extendLink(std::string const& link, std::string const& query) {
    std::size_t const end = std::min(link.find('#'), link.size());
    std::string const address = link.substr(0, end);
    char const separator = address.find('?') == std::string::npos ? '?' : '&';
    return address + separator + query + link.substr(end);
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

/// Carries the decision out. The same decision once more (a second click) is harmless. Throws Refusal.
void decide(Site const& site, Payment const& payment, Decision const& decision) {
    if (payment.state == PaymentState::Opened) {
        checkExpiration(site, payment.attribute("EXPIRATION").value_or(""));
        HistoryEntry const step{site.timeText(), decision.state, std::string("shopper chose ") + decision.name};
        if (site.store.advance(payment.id, {PaymentState::Opened}, step)) {
            return;
        }
    }
    PaymentState const state = site.store.paymentById(payment.id)->payment.state;
    if (!wasDecided(state, decision)) {
        throw Refusal("the payment is " + std::string(stateName(state)) + " already", kConflict);
    }
}

}  // namespace

HttpReply answerPay(Site const& site, HttpRequest const& request, Exchange& record) {
    SignedMessage const sent = openSignedMessage(site, request, record);
    if (sent.message.type() != "PayInit") {
        throw Refusal("the payment page takes a PayInit, not a '" + sent.message.type() + "'");
    }
    checkExpiration(site, sent.message.require("EXPIRATION"));
    for (Decision const& decision : kDecisions) {
        checkLink(sent.message, decision.link);
    }
    PaymentRecord const payment = site.store.openPayment(freshPayment(sent), site.timeText());
    // The same message again while nothing is decided is the shopper reloading the page.
    if (payment.message != sent.text || payment.payment.state != PaymentState::Opened) {
        throw Refusal("TOKEN was used already, by the payment '" + payment.payment.id + "', which is " +
                      stateName(payment.payment.state));
    }
    return paymentPage(payment, site.store.customerOf(payment.payment.account));
}

HttpReply answerDecision(Site const& site, HttpRequest const& request, Exchange&) {
    Query const form(request.body);
    Decision const& decision = namedDecision(form.value("decision").value_or(""));
    Payment payment = formPayment(site, form).payment;
    decide(site, payment, decision);
    payment.state = decision.state;
    std::string const query = site.signedQuery(confirmation(site, payment, stateName(decision.state)));
    std::string const link = payment.attribute(decision.link).value_or("");
    if (link.empty()) {
        return outcomePage(payment, query);
    }
    return {kFound, "text/plain", "The payment is " + std::string(stateName(decision.state)) + ".\n",
            extendLink(link, query)};
}

}  // namespace sandbox
