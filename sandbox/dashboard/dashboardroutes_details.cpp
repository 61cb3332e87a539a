// The pages of one payment and of one exchange.
//
// A payment is expired first when it is overdue. Its exchanges are those that the store has linked to it, and those
// that name only its TOKEN, or its ORDERID without a TOKEN, since several payments can have the same order. An exchange
// shows the checks, the decoded message, and request and response exactly as transferred.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/control/controlroutes.h"
#include "sandbox/dashboard/dashboardparts.h"
#include "sandbox/dashboard/dashboardroutes.h"
#include "sandbox/pages/shopperpages.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/httpstatus.h"
#include "sandbox/text/utctime.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr char kNotGiven[] = "not given";
constexpr std::int64_t kMaxExchanges = 500;

/// The payment in its current state. Throws HttpError.
Payment presentPayment(Services const& services, std::string const& id) {
    std::optional<StoredPayment> const stored = services.m_Store.paymentById(id);
    if (!stored) {
        throw HttpError("There is no payment '" + id + "'.", httpstatus::kNotFound);
    }
    bool const isOpen = stored->m_Payment.m_State == PaymentState::kOpened;
    if (!isOpen || expireWhenOverdue(services, stored->m_Payment)) {
        return stored->m_Payment;
    }
    return services.m_Store.paymentById(id).value().m_Payment;
}

std::string paymentData(Payment const& payment) {
    std::string const order = payment.attribute("ORDERID").value_or("");
    return "<dl>\n" + entry("State", "<strong>" + std::string(stateName(payment.m_State)) + "</strong>") +
           entry("Amount", escapeHtml(amountText(payment, kNotGiven))) +
           entry("Order", escapeHtml(order.empty() ? kNotGiven : order)) +
           entry("Merchant", escapeHtml(payment.m_Account)) + entry("Token", escapeHtml(payment.m_Token)) +
           entry("Payment", escapeHtml(payment.m_Id)) + "</dl>\n";
}

std::string historyContent(Payment const& payment) {
    std::vector<Cells> rows;
    for (HistoryEntry const& step : payment.m_History) {
        rows.push_back({whole(step.m_Time), whole(stateName(step.m_State)), escapeHtml(step.m_Note)});
    }
    return wideTable("History, oldest first", {"Time", "State", "Cause"}, rows);
}

std::string notificationsContent(Services const& services, Payment const& payment) {
    std::vector<Cells> rows;
    for (Notification const& notification : services.m_Store.notificationsOf(payment.m_Id)) {
        rows.push_back({escapeHtml(notification.m_Result), escapeHtml(notification.m_Address),
                        whole(notification.m_Pending ? "pending" : "finished"), std::to_string(notification.m_Attempts),
                        whole(notification.m_Time), escapeHtml(notification.m_Outcome)});
    }
    if (rows.empty()) {
        return paragraph(
            "There are no notifications: the merchant gave no NOTIFYADDRESS, or the payment is not decided yet.");
    }
    return wideTable("Notifications, oldest first",
                     {"RESULT sent", "Address", "State", "Attempts", "Last attempt", "Outcome"}, rows);
}

std::string exchangesContent(Services const& services, Payment const& payment) {
    Listing<Exchange> const found = services.m_Store.exchangeSummariesOf(payment, kMaxExchanges);
    if (found.m_Rows.empty()) {
        return paragraph("No exchanges are stored.");
    }
    std::string const more = !found.m_More ? ""
                                           : paragraph("These are the first " + std::to_string(kMaxExchanges) +
                                                       ". The control API lists all of them.");
    return exchangeTable("Exchanges of this payment, oldest first", found.m_Rows) + more;
}

/// The number of the exchange before or after `number`; nothing at the end.
std::optional<std::int64_t> neighbourOf(Services const& services, std::int64_t number, bool before) {
    Page page;
    page.m_NewestFirst = before;
    (before ? page.m_Before : page.m_After) = number;
    page.m_Limit = 1;
    std::vector<Exchange> const found = services.m_Store.exchangeSummaries({}, page).m_Rows;
    return found.empty() ? std::nullopt : std::optional<std::int64_t>(found.front().m_Number);
}

/// Links to the previous and next exchange, if they exist.
std::string neighbours(Services const& services, std::int64_t number) {
    std::string links;
    for (auto const& [before, text] : {std::pair(true, "Previous exchange"), {false, "Next exchange"}}) {
        if (std::optional<std::int64_t> const neighbour = neighbourOf(services, number, before)) {
            links += "<li>" + link("/exchange?number=" + std::to_string(*neighbour), text) + "</li>\n";
        }
    }
    return links;
}

std::string exchangeLinks(Services const& services, Exchange const& exchange) {
    std::string links = neighbours(services, exchange.m_Number);
    if (!exchange.m_Data.empty()) {
        links += "<li>" +
                 link("/calculator?DATA=" + percentEncode(exchange.m_Data) +
                          "&SIGNATURE=" + percentEncode(exchange.m_Signature),
                      "Check DATA and SIGNATURE in the calculator") +
                 "</li>\n";
    }
    return links.empty() ? "" : "<ul>\n" + links + "</ul>\n";
}

std::string exchangeData(Exchange const& exchange) {
    return "<dl>\n" + entry("Result", "<strong>" + escapeHtml(exchange.m_Verdict) + "</strong>") +
           entry("Fault", escapeHtml(exchange.m_Fault.empty() ? "none" : exchange.m_Fault)) +
           entry("Kind", exchangeName(exchange.m_Kind)) + entry("Path", escapeHtml(exchange.m_Path)) +
           entry("Order", escapeHtml(exchange.m_Order.empty() ? "unknown" : exchange.m_Order)) +
           entry("Time", exchange.m_Time) + entry("Duration", millisecondsText(exchange.m_Microseconds)) +
           (exchange.m_Delivery.empty() ? "" : entry("Delivery", escapeHtml(exchange.m_Delivery))) + "</dl>\n";
}

std::string stepsContent(Exchange const& exchange) {
    if (exchange.m_Kind == ExchangeKind::kNotification) {
        return paragraph(
            "A notification has no checks, because this service sends the request. Its result is the merchant's "
            "response, or says that nothing was sent.");
    }
    if (exchange.m_Steps.empty()) {
        return paragraph(exchange.m_Verdict == "not looked at" ? "The request was not checked."
                                                               : "No checks are recorded, only the result.");
    }
    std::vector<Cells> rows;
    for (CheckStep const& step : exchange.m_Steps) {
        rows.push_back(
            {escapeHtml(step.m_What), escapeHtml(step.m_Found), step.m_Good ? "yes" : "<strong>no</strong>"});
    }
    return wideTable("Checks, in order", {"Check", "Found", "Passed"}, rows);
}

std::string messageContent(Exchange const& exchange) {
    if (exchange.m_Data.empty()) {
        return paragraph("The request contains no DATA that can be decoded.");
    }
    return attributesContent(exchange.m_Data) + verbatim(exchange.m_Data);
}

}  // namespace

HttpResponse paymentDetailsPage(Services const& services, Query const& query) {
    Payment const payment = presentPayment(services, query.value("id").value_or(""));
    return dashboardPage(
        httpstatus::kOk, "", "Payment " + payment.m_Id,
        paymentData(payment) + section("history", "History", historyContent(payment)) +
            section("notifications", "Notifications", notificationsContent(services, payment)) +
            section("attributes", "Attributes from the merchant", attributeTable(payment.m_Attributes)) +
            section("exchanges", "Exchanges", exchangesContent(services, payment)));
}

HttpResponse exchangeDetailsPage(Services const& services, Query const& query) {
    std::string const text = query.value("number").value_or("");
    std::optional<std::int64_t> const number = wholeNumber(text);
    std::optional<Exchange> const exchange = number ? services.m_Store.exchange(*number) : std::nullopt;
    if (!exchange) {
        throw HttpError("There is no exchange '" + text + "'.", httpstatus::kNotFound);
    }
    bool const fromMerchant = exchange->m_Kind != ExchangeKind::kNotification;
    return dashboardPage(
        httpstatus::kOk, "", "Exchange " + std::to_string(exchange->m_Number),
        exchangeLinks(services, *exchange) + exchangeData(*exchange) +
            section("steps", "Checks", stepsContent(*exchange)) +
            section("message", "DATA, decoded", messageContent(*exchange)) +
            section("request", fromMerchant ? "Request received" : "Request sent", verbatim(exchange->m_Request)) +
            section("answer", fromMerchant ? "Response, before any fault" : "Response of the merchant",
                    verbatim(exchange->m_Response)));
}

}  // namespace sandbox
