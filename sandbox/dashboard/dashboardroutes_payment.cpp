// The pages of one payment, and of one exchange: its checks, the messages in both directions, request and response
// exactly as transferred.
//
// The exchanges of a payment are those that the store has linked to it, and those that name only its TOKEN,
// or its ORDERID without a TOKEN, since several payments can have the same order.
//
// The stations on its way are a table of rows, each with the exchanges that belong to it and a function that finds out
// how far the payment has come there.
//
// The set-up has no payment: its station shows the account's last set-up before the payment. Decision and return are
// the same exchange, of which one shows the request and the other the confirmation in the response; faults of HTTP
// stand with the decision, those of the confirmation with the return.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/control/controlformat.h"
#include "sandbox/dashboard/dashboard.h"
#include "sandbox/pages/shopperpages.h"
#include "sandbox/pages/templates.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

using nlohmann::json;

constexpr char kNotGiven[] = "not given";
constexpr std::int64_t kMaxExchanges = 500;

// So many exchanges are shown at each station.
constexpr std::size_t kMaxShown = 5;

constexpr char kHeaderEnd[] = "\r\n\r\n";
constexpr char kLocation[] = "\r\nLocation: ";
constexpr char kOutcome[] = "<code>DATA=";

/// The text behind `start` up to `end`; empty when either is missing.
std::string between(std::string const& text, std::string const& start, std::string const& end) {
    std::size_t const at = text.find(start);
    std::size_t const to = at == std::string::npos ? at : text.find(end, at + start.size());
    return to == std::string::npos ? "" : text.substr(at + start.size(), to - at - start.size());
}

/// The query of the return link; on a page it is escaped. Empty without one.
std::string signedQuery(std::string const& response) {
    std::string const link = between(response, kLocation, "\r\n");
    if (!link.empty()) {
        std::size_t const query = link.find('?') + 1;
        return link.substr(query, link.find('#', query) - query);
    }
    std::string const shown = between(response, kOutcome, "</code>");
    return shown.empty() ? "" : "DATA=" + replaceAll(shown, "&amp;", "&");
}

/// The message that a response contains.
struct SentMessage {
    std::string m_Label;  ///< What it is, for people.
    std::string m_Data;
    std::string m_Signature;  ///< Empty when it is not signed.
};

/// The calculator's page for a message.
std::string calculatorPath(std::string const& data, std::string const& signature) {
    return "/calculator?DATA=" + percentEncode(data) + "&SIGNATURE=" + percentEncode(signature);
}

/// A message that was sent, for the template `message`, with a link to the calculator when it is signed.
json sentContent(std::string const& label, std::string const& data, std::string const& signature) {
    json content = messageContent(data);
    content["label"] = label;
    content["calculator"] = signature.empty() ? "" : calculatorPath(data, signature);
    return content;
}

/// The confirmation in the return link of `exchange`, or on the page without one; else the message that is the body of
/// the response. Nothing when there is neither, or not all of it was stored.
std::optional<SentMessage> sentMessage(Exchange const& exchange) {
    std::string const& response = exchange.m_Response;
    bool const isOurs = exchange.m_Kind != ExchangeKind::kNotification;
    std::size_t const head = response.find(kHeaderEnd);
    if (!isOurs || head == std::string::npos) {
        return std::nullopt;
    }
    std::string body = response.substr(head + sizeof kHeaderEnd - 1);
    if (body.compare(0, 4, "<KVX") == 0) {
        return SentMessage{"Message in the response", body, ""};
    }
    try {
        Query const query(signedQuery(response));
        if (std::optional<std::string> const data = query.value("DATA")) {
            return SentMessage{"Confirmation sent with the return link", *data, query.value("SIGNATURE").value_or("")};
        }
    } catch (HttpError const&) {
        return std::nullopt;  // the merchant's link has such names of its own
    }
    return std::nullopt;
}

/// What the stations are made from.
struct Journey {
    Payment const& m_Payment;
    std::vector<Notification> const& m_Notifications;
    std::vector<Exchange> m_Own;  ///< The exchanges of one station.
};

/// How far the payment has come: a class of the style sheet, and words.
struct Progress {
    char const* m_Mark;  ///< "good", "bad", "wait" or "none".
    std::string m_Short;
    std::string m_Text;
};

Progress const kNotYet = {"none", "not yet", "not yet"};

bool isGood(Exchange const& exchange) {
    return exchange.m_Verdict == "ok";
}

/// The state of a station that only its last exchange decides.
Progress byExchange(Journey const& journey) {
    if (journey.m_Own.empty()) {
        return kNotYet;
    }
    Exchange const& last = journey.m_Own.back();
    bool const good = isGood(last);
    return {good ? "good" : "bad", good ? "ok" : "refused", good ? "ok" : last.m_Verdict};
}

/// The newest entry of the history with one of these states; null when there is none.
HistoryEntry const* newestStep(Journey const& journey, std::vector<PaymentState> const& states) {
    std::vector<HistoryEntry> const& history = journey.m_Payment.m_History;
    auto const found = std::find_if(history.rbegin(), history.rend(), [&states](HistoryEntry const& step) {
        return std::find(states.begin(), states.end(), step.m_State) != states.end();
    });
    return found == history.rend() ? nullptr : &*found;
}

Progress decisionProgress(Journey const& journey) {
    HistoryEntry const* const step =
        newestStep(journey, {PaymentState::kPending, PaymentState::kAuthorised, PaymentState::kDeclined,
                             PaymentState::kCancelled, PaymentState::kExpired});
    if (step == nullptr) {
        return {"wait", "open", "The shopper has not decided yet"};
    }
    bool const good = step->m_State == PaymentState::kAuthorised;
    bool const waits = step->m_State == PaymentState::kPending;
    return {good    ? "good"
            : waits ? "wait"
                    : "bad",
            stateName(step->m_State), std::string(stateName(step->m_State)) + ": " + step->m_Note};
}

Progress returnProgress(Journey const& journey) {
    auto const sent = std::find_if(journey.m_Own.rbegin(), journey.m_Own.rend(),
                                   [](Exchange const& exchange) { return sentMessage(exchange).has_value(); });
    if (sent == journey.m_Own.rend()) {
        return kNotYet;
    }
    if (!sent->m_Fault.empty()) {
        return {"bad", "fault", sent->m_Fault};
    }
    return {"good", "sent", "The confirmation was sent with the return link"};
}

Progress notificationProgress(Journey const& journey) {
    if (journey.m_Notifications.empty()) {
        bool const wanted = !journey.m_Payment.attribute("NOTIFYADDRESS").value_or("").empty();
        return wanted ? kNotYet : Progress{"none", "none", "The merchant gave no NOTIFYADDRESS"};
    }
    Notification const& last = journey.m_Notifications.back();
    if (last.m_Pending) {
        return {"wait", "pending", last.m_Outcome.empty() ? "pending" : last.m_Outcome};
    }
    bool const good = last.m_Outcome.compare(0, 9, "delivered") == 0;
    return {good ? "good" : "bad", good ? "delivered" : "failed", last.m_Outcome};
}

/// A station that moves the payment to `state`.
template <PaymentState State>
Progress moveProgress(Journey const& journey) {
    HistoryEntry const* const step = newestStep(journey, {State});
    return step == nullptr ? byExchange(journey) : Progress{"good", stateName(State), stateName(State)};
}

/// Which of the faults of its exchange stand at a station.
enum class Faults { kAll, kOfHttp, kOfMessage };

struct Station {
    char const* m_Id;
    char const* m_Label;
    ExchangeKind m_Kind;
    Progress (*m_Progress)(Journey const& journey);
    Faults m_Faults;
};

// clang-format off
constexpr Station kStations[] = {
    {"set-up",       "Set-up",       ExchangeKind::kSetup,        byExchange,                              Faults::kAll},
    {"page",         "Page",         ExchangeKind::kPage,         byExchange,                              Faults::kAll},
    {"decision",     "Decision",     ExchangeKind::kDecision,     decisionProgress,                        Faults::kOfHttp},
    {"return",       "Return",       ExchangeKind::kDecision,     returnProgress,                          Faults::kOfMessage},
    {"notification", "Notification", ExchangeKind::kNotification, notificationProgress,                    Faults::kAll},
    {"capture",      "Capture",      ExchangeKind::kCapture,      moveProgress<PaymentState::kCaptured>,   Faults::kAll},
    {"completion",   "Completion",   ExchangeKind::kComplete,     moveProgress<PaymentState::kCompleted>,  Faults::kAll},
};
// clang-format on

json faultsOf(Station const& station) {
    json faults = json::array();
    for (FaultKindRow const& row : allFaultKinds()) {
        bool const ofHttp = happensTo(row, ExchangeKind::kPage);
        bool const isHere = station.m_Faults == Faults::kAll || ofHttp == (station.m_Faults == Faults::kOfHttp);
        if (isHere && happensTo(row, station.m_Kind)) {
            faults.push_back({{"name", row.m_Name}, {"meaning", row.m_Meaning}});
        }
    }
    return faults;
}

/// The messages that were sent in an exchange, in both directions where both belong to the station.
json messagesAt(Station const& station, Exchange const& exchange) {
    json sent = json::array();
    if (!exchange.m_Data.empty() && station.m_Progress != returnProgress) {
        bool const isOurs = exchange.m_Kind == ExchangeKind::kNotification;
        sent.push_back(sentContent(isOurs ? "Confirmation sent" : "Message in the request", exchange.m_Data,
                                   exchange.m_Signature));
    }
    if (station.m_Progress != decisionProgress) {
        if (std::optional<SentMessage> const message = sentMessage(exchange)) {
            sent.push_back(sentContent(message->m_Label, message->m_Data, message->m_Signature));
        }
    }
    return sent;
}

/// The exchanges of a station, complete, oldest first.
std::vector<Exchange> exchangesAt(Services const& services, Station const& station, Payment const& payment,
                                  std::vector<Exchange> const& all) {
    std::vector<Exchange> found;
    if (station.m_Kind == ExchangeKind::kSetup) {
        Filter filter;
        filter.m_Account = payment.m_Account;
        filter.m_Kind = station.m_Kind;
        Page page = Page::newest(1);
        page.m_Before = all.empty() ? page.m_Before : all.front().m_Number;
        return services.m_Store.exchanges(filter, page).m_Rows;
    }
    for (Exchange const& summary : all) {
        // With a standing decision the page's response is the return.
        bool const returns = station.m_Progress == returnProgress && summary.m_Kind == ExchangeKind::kPage;
        if (summary.m_Kind != station.m_Kind && !returns) {
            continue;
        }
        std::optional<Exchange> exchange = services.m_Store.exchange(summary.m_Number);
        if (exchange && (station.m_Progress != returnProgress || sentMessage(*exchange))) {
            found.push_back(std::move(*exchange));
        }
        if (found.size() > kMaxShown) {
            found.erase(found.begin());
        }
    }
    return found;
}

json stationContent(Station const& station, Journey const& journey) {
    Progress const progress = station.m_Progress(journey);
    auto const rowOfExchange = [&station](Exchange const& exchange) {
        json row = exchangeRow(exchange);
        row["sent"] = messagesAt(station, exchange);
        return row;
    };
    bool const hasOrder = station.m_Kind != ExchangeKind::kSetup;
    return {{"id", station.m_Id},
            {"label", station.m_Label},
            {"mark", progress.m_Mark},
            {"short", progress.m_Short},
            {"status", progress.m_Text},
            {"time", journey.m_Own.empty() ? "" : journey.m_Own.back().m_Time},
            {"exchanges", rowsOf(journey.m_Own, rowOfExchange)},
            {"exchange", exchangeName(station.m_Kind)},
            {"faultOrder", hasOrder ? journey.m_Payment.attribute("ORDERID").value_or("") : ""},
            {"faults", faultsOf(station)}};
}

json stationsContent(Services const& services, Payment const& payment, std::vector<Notification> const& notifications,
                     std::vector<Exchange> const& exchanges) {
    return rowsOf(kStations, [&](Station const& station) {
        return stationContent(station, {payment, notifications, exchangesAt(services, station, payment, exchanges)});
    });
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

json links(Services const& services, Exchange const& exchange) {
    json out = json::array();
    for (auto const& [before, text] : {std::pair(true, "Previous exchange"), {false, "Next exchange"}}) {
        if (std::optional<std::int64_t> const neighbour = neighbourOf(services, exchange.m_Number, before)) {
            out.push_back({{"path", "/exchange?number=" + std::to_string(*neighbour)}, {"text", text}});
        }
    }
    std::string const& id = exchange.m_Payment;
    if (!id.empty() && services.m_Store.paymentById(id, Store::History::kLeft)) {
        out.push_back({{"path", "/payment?id=" + id}, {"text", "Payment " + id}});
    }
    if (!exchange.m_Data.empty()) {
        out.push_back({{"path", calculatorPath(exchange.m_Data, exchange.m_Signature)},
                       {"text", "Check DATA and SIGNATURE in the calculator"}});
    }
    return out;
}

/// Why there is no table of checks; null when there is one.
json noSteps(Exchange const& exchange) {
    if (exchange.m_Kind == ExchangeKind::kNotification) {
        return "A notification has no checks, because this service sends the request. Its result is the merchant's "
               "response, or says that nothing was sent.";
    }
    if (exchange.m_Steps.empty()) {
        return exchange.m_Verdict == "not looked at" ? "The request was not checked."
                                                     : "No checks are recorded, only the result.";
    }
    return nullptr;
}

}  // namespace

HttpResponse paymentDetailsPage(Services const& services, Query const& query) {
    std::string const id = query.value("id").value_or("");
    bringUpToDate(services);
    std::optional<StoredPayment> const stored = services.m_Store.paymentById(id);
    if (!stored) {
        throw HttpError("There is no payment '" + id + "'.", httpstatus::kNotFound);
    }
    Payment const& payment = stored->m_Payment;
    std::vector<Notification> const notifications = services.m_Store.notificationsOf(payment.m_Id);
    Listing<Exchange> const found = services.m_Store.exchangeSummariesOf(payment, kMaxExchanges);
    std::string const order = payment.attribute("ORDERID").value_or("");
    json content = paymentJson(payment, notifications);
    content["order"] = order.empty() ? kNotGiven : order;
    content["amount"] = amountText(payment, kNotGiven);
    content["hasNotifications"] = !notifications.empty();
    content["stations"] = stationsContent(services, payment, notifications, found.m_Rows);
    content["belonging"] = exchangeTable("Exchanges of this payment, oldest first", found.m_Rows);
    content["more"] =
        !found.m_More ? ""
                      : "These are the first " + std::to_string(kMaxExchanges) + ". The control API lists all of them.";
    return dashboardPage(services, httpstatus::kOk, "", "Payment " + payment.m_Id, "payment_details",
                         std::move(content));
}

HttpResponse exchangeDetailsPage(Services const& services, Query const& query) {
    std::string const text = query.value("number").value_or("");
    std::optional<std::int64_t> const number = wholeNumber(text);
    std::optional<Exchange> const exchange = number ? services.m_Store.exchange(*number) : std::nullopt;
    if (!exchange) {
        throw HttpError("There is no exchange '" + text + "'.", httpstatus::kNotFound);
    }
    bool const fromMerchant = exchange->m_Kind != ExchangeKind::kNotification;
    std::optional<SentMessage> const sent = sentMessage(*exchange);
    json content = *exchange;
    content["links"] = links(services, *exchange);
    content["hasLinks"] = !content["links"].empty();
    content["mark"] = exchange->m_Verdict == "ok" ? "good" : "bad";
    content["duration"] = millisecondsText(exchange->m_Microseconds);
    content["noSteps"] = noSteps(*exchange);
    content["message"] = exchange->m_Data.empty() ? json() : messageContent(exchange->m_Data);
    content["sent"] = sent ? sentContent(sent->m_Label, sent->m_Data, sent->m_Signature) : json();
    content["requestHeading"] = fromMerchant ? "Request received" : "Request sent";
    content["answerHeading"] = fromMerchant ? "Response, before any fault" : "Response of the merchant";
    content["request"] = verbatim(exchange->m_Request);
    content["answer"] = verbatim(exchange->m_Response);
    for (char const* replaced : {"requestHex", "answerHex"}) {
        content.erase(replaced);
    }
    return dashboardPage(services, httpstatus::kOk, "", "Exchange " + std::to_string(exchange->m_Number),
                         "exchange_details", std::move(content));
}

}  // namespace sandbox
