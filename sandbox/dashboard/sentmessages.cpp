#include "sandbox/dashboard/sentmessages.h"

#include <cstddef>

#include "sandbox/text/httperror.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

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
