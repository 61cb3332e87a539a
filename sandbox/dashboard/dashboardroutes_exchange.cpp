#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/control/controljson.h"
#include "sandbox/dashboard/dashboardparts.h"
#include "sandbox/pages/shopperpages.h"
#include "sandbox/pages/templates.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/utctime.h"
#include "sandbox/text/wiretext.h"

/// The page of one exchange: the checks, the messages in both directions, request and response exactly as transferred.
namespace sandbox {

namespace {

using nlohmann::json;

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
