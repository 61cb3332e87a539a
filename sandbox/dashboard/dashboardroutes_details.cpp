#include <optional>
#include <string>
#include <vector>

#include "sandbox/control/controlroutes.h"
#include "sandbox/dashboard/dashboardparts.h"
#include "sandbox/dashboard/dashboardroutes.h"
#include "sandbox/pages/shopperpages.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/text/refusal.h"
#include "sandbox/text/utctime.h"

/// The pages about one payment and about one exchange.
namespace sandbox {

namespace {

constexpr char kNotGiven[] = "not given";
constexpr int kNotFound = 404;

/// The payment as it is now. Throws Refusal.
Payment presentPayment(Site const& site, std::string const& id) {
    std::optional<PaymentRecord> const stored = site.store.paymentById(id);
    if (!stored) {
        throw Refusal("There is no payment '" + id + "'.", kNotFound);
    }
    expireWhenOverdue(site, stored->payment);
    return site.store.paymentById(id)->payment;
}

std::string paymentData(Payment const& payment) {
    std::string const order = payment.attribute("ORDERID").value_or("");
    return "<dl>\n" + entry("State", "<strong>" + std::string(stateName(payment.state)) + "</strong>") +
           entry("Amount", escapeHtml(amountText(payment, kNotGiven))) +
           entry("Order", escapeHtml(order.empty() ? kNotGiven : order)) +
           entry("Merchant", escapeHtml(payment.account)) + entry("Token", escapeHtml(payment.token)) +
           entry("Payment", escapeHtml(payment.id)) + "</dl>\n";
}

std::string historyContent(Payment const& payment) {
    std::vector<Cells> rows;
    for (HistoryEntry const& step : payment.history) {
        rows.push_back({whole(step.time), whole(stateName(step.state)), escapeHtml(step.note)});
    }
    return wideTable("History, oldest first", {"Time", "State", "How"}, rows);
}

std::string notificationsContent(Site const& site, Payment const& payment) {
    std::vector<Cells> rows;
    for (Notification const& notification : site.store.notifications()) {
        if (notification.payment == payment.id) {
            rows.push_back({escapeHtml(notification.result), escapeHtml(notification.address),
                            whole(notification.pending ? "to be sent" : "done"), std::to_string(notification.attempts),
                            whole(notification.time), escapeHtml(notification.outcome)});
        }
    }
    if (rows.empty()) {
        return paragraph("There are none: the merchant gave no NOTIFYADDRESS, or nothing is decided yet.");
    }
    return wideTable("Notifications, oldest first",
                     {"Result", "Address", "State", "Attempts", "Last attempt", "Outcome"}, rows);
}

/// Exchanges name their payment in different ways, some by its order only, which others can share.
bool isAbout(Exchange const& exchange, Payment const& payment) {
    for (std::string const* text : {&exchange.data, &exchange.request, &exchange.answer}) {
        if (text->find(payment.id) != std::string::npos) {
            return true;
        }
    }
    try {
        std::optional<std::string> const token = Message::parse(exchange.data).find("TOKEN");
        if (token) {
            return *token == payment.token;
        }
    } catch (Refusal const&) {
        // What cannot be read names no token.
    }
    return !exchange.order.empty() && exchange.order == payment.attribute("ORDERID").value_or("");
}

std::string exchangesContent(Site const& site, Payment const& payment) {
    std::vector<Exchange> found;
    for (Exchange& exchange : site.store.exchanges()) {
        if (isAbout(exchange, payment)) {
            found.push_back(std::move(exchange));
        }
    }
    if (found.empty()) {
        return paragraph("None is kept.");
    }
    return exchangeTable("Exchanges about this payment, oldest first", found);
}

/// Links to the exchanges before and after, as far as they are there.
std::string neighbours(Site const& site, std::int64_t number) {
    std::string links;
    for (auto const& [neighbour, text] : {std::pair(number - 1, "Previous exchange"), {number + 1, "Next exchange"}}) {
        if (site.store.exchange(neighbour)) {
            links += "<li>" + link("/exchange?number=" + std::to_string(neighbour), text) + "</li>\n";
        }
    }
    return links;
}

std::string exchangeLinks(Site const& site, Exchange const& exchange) {
    std::string links = neighbours(site, exchange.number);
    if (!exchange.data.empty()) {
        links +=
            "<li>" +
            link("/calculator?DATA=" + percentEncode(exchange.data) + "&SIGNATURE=" + percentEncode(exchange.signature),
                 "Take DATA and SIGNATURE to the calculator") +
            "</li>\n";
    }
    return links.empty() ? "" : "<ul>\n" + links + "</ul>\n";
}

std::string exchangeData(Exchange const& exchange) {
    return "<dl>\n" + entry("Verdict", "<strong>" + escapeHtml(exchange.verdict) + "</strong>") +
           entry("Fault", escapeHtml(exchange.fault.empty() ? "none" : exchange.fault)) +
           entry("Kind", exchangeName(exchange.kind)) + entry("Path", escapeHtml(exchange.path)) +
           entry("Order", escapeHtml(exchange.order.empty() ? "not known" : exchange.order)) +
           entry("Time", exchange.time) + entry("Duration", millisecondsText(exchange.microseconds)) +
           (exchange.delivery.empty() ? "" : entry("What was sent", escapeHtml(exchange.delivery))) + "</dl>\n";
}

std::string stepsContent(Exchange const& exchange) {
    if (exchange.kind == ExchangeKind::Notification) {
        return paragraph(
            "A notification has no steps, because this service makes the request itself. The verdict tells what the "
            "merchant answered, or that nothing was sent.");
    }
    if (exchange.steps.empty()) {
        return paragraph(exchange.verdict == "not looked at" ? "The request was not looked at."
                                                             : "No steps are on record, only the verdict.");
    }
    std::vector<Cells> rows;
    for (CheckStep const& step : exchange.steps) {
        rows.push_back({escapeHtml(step.what), escapeHtml(step.found), step.good ? "yes" : "<strong>no</strong>"});
    }
    return wideTable("What was looked at, in this order", {"What", "Found", "As it should be"}, rows);
}

std::string messageContent(Exchange const& exchange) {
    if (exchange.data.empty()) {
        return paragraph("The request held no DATA that could be decoded.");
    }
    return attributesContent(exchange.data) + verbatim(exchange.data);
}

}  // namespace

HttpReply paymentDetailsPage(Site const& site, Query const& query) {
    Payment const payment = presentPayment(site, query.value("id").value_or(""));
    return dashboardPage(200, "", "Payment " + payment.id,
                         paymentData(payment) + section("history", "History", historyContent(payment)) +
                             section("notifications", "Notifications", notificationsContent(site, payment)) +
                             section("attributes", "What the merchant sent", attributeTable(payment.attributes)) +
                             section("exchanges", "Exchanges", exchangesContent(site, payment)));
}

HttpReply exchangeDetailsPage(Site const& site, Query const& query) {
    std::string const text = query.value("number").value_or("");
    std::optional<std::int64_t> const number = wholeNumber(text);
    std::optional<Exchange> const exchange = number ? site.store.exchange(*number) : std::nullopt;
    if (!exchange) {
        throw Refusal("There is no exchange '" + text + "'.", kNotFound);
    }
    bool const fromMerchant = exchange->kind != ExchangeKind::Notification;
    return dashboardPage(200, "", "Exchange " + std::to_string(exchange->number),
                         exchangeLinks(site, *exchange) + exchangeData(*exchange) +
                             section("steps", "How the verdict came about", stepsContent(*exchange)) +
                             section("message", "DATA, decoded", messageContent(*exchange)) +
                             section("request", fromMerchant ? "The request as it came" : "The request as it was sent",
                                     verbatim(exchange->request)) +
                             section("answer", fromMerchant ? "The answer before any fault" : "The merchant's answer",
                                     verbatim(exchange->answer)));
}

}  // namespace sandbox
