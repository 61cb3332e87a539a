#include "sandbox/dashboard/dashboardparts.h"

#include <cstddef>
#include <utility>

#include "sandbox/control/controljson.h"
#include "sandbox/pages/shopperpages.h"
#include "sandbox/pages/templates.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/utctime.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

using nlohmann::json;

struct NavigationRow {
    char const* m_Path;
    char const* m_Text;
};

constexpr char kFaults[] = "/faults";
constexpr NavigationRow kNavigation[] = {
    {"/", "Overview"}, {kFaults, "Faults"}, {"/keys", "Keys and clock"}, {"/calculator", "Signature calculator"}};

/// The entry of the faults shows how many are armed.
json navigation(Services const& services, std::string const& path) {
    std::size_t const armed = services.m_Faults.armed().size();
    return rowsOf(kNavigation, [&path, armed](NavigationRow const& row) {
        bool const counts = row.m_Path == std::string(kFaults) && armed > 0;
        return json{{"path", row.m_Path},
                    {"text", row.m_Text},
                    {"current", path == row.m_Path},
                    {"count", counts ? std::to_string(armed) + " armed" : ""}};
    });
}

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

}  // namespace

HttpResponse dashboardPage(Services const& services, int status, std::string const& path, std::string const& title,
                           std::string const& name, json content) {
    content["title"] = title;
    content["isBroad"] = true;
    content["navigation"] = navigation(services, path);
    content["version"] = KVX_VERSION;
    content["formKey"] = services.m_FormKey;
    return renderPage(status, name, std::move(content));
}

HttpResponse seeOther(std::string const& path) {
    return {httpstatus::kSeeOther, "text/plain; charset=utf-8", "Done. See " + path + ".\n", path};
}

json exchangeRow(Exchange const& exchange) {
    json row = summaryJson(exchange);
    row["ok"] = exchange.m_Verdict == "ok";
    row["duration"] = millisecondsText(exchange.m_Microseconds);
    return row;
}

json exchangeTable(std::string const& caption, std::vector<Exchange> const& exchanges) {
    return exchanges.empty() ? json() : json{{"caption", caption}, {"exchanges", rowsOf(exchanges, exchangeRow)}};
}

std::string calculatorPath(std::string const& data, std::string const& signature) {
    return "/calculator?DATA=" + percentEncode(data) + "&SIGNATURE=" + percentEncode(signature);
}

json sentContent(std::string const& label, std::string const& data, std::string const& signature) {
    json content = messageContent(data);
    content["label"] = label;
    content["calculator"] = signature.empty() ? "" : calculatorPath(data, signature);
    return content;
}

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

}  // namespace sandbox
