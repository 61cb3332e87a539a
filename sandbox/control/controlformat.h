#ifndef TALLOWIN_SANDBOX_CONTROL_CONTROLFORMAT_H
#define TALLOWIN_SANDBOX_CONTROL_CONTROLFORMAT_H

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/faults/faultregistry.h"
#include "sandbox/http/httpmessages.h"
#include "sandbox/service/standingdecisions.h"
#include "sandbox/store/rows.h"
#include "sandbox/store/snapshots.h"
#include "sandbox/text/wiretext.h"

/// What requests of the control API hold, and the JSON of its responses. What reads a query throws HttpError (400) for
/// a value that cannot be read and for a name that is not known, with the names that are.
namespace sandbox {

/// Rows of a response when the query has no limit, and the largest limit.
inline constexpr std::int64_t kDefaultRows = 100;
inline constexpr std::int64_t kMaxRows = 1000;

/// A page ends after the row with which it has so much of stored requests and responses.
inline constexpr std::size_t kMaxListedBytes = std::size_t{1024} * 1024;

/// A list with its page.
struct ListQuery {
    Filter m_Filter;
    Page m_Page;
};

ListQuery readPaymentQuery(Query const& query);
ListQuery readExchangeQuery(Query const& query);

/// The conditions on exchanges that are to be removed: no limit.
ListQuery readRemovalQuery(Query const& query);

/// The conditions of a list that is exported whole.
Filter readExportQuery(Query const& query);

/// Throws HttpError when the query has a name that is not `known`.
void refuseUnknown(Query const& query, std::vector<std::string> const& known);

/// The account that a list is limited to; nothing without that condition. Throws HttpError when the query has any other
/// name.
std::optional<std::string> readAccount(Query const& query);

HttpResponse jsonResponse(nlohmann::json const& content, int status = httpstatus::kOk);

/// Sets the member `name` of `object` to `bytes`. Values of the protocol have no declared encoding, but JSON is UTF-8:
/// in a text that is not UTF-8, U+FFFD replaces the invalid bytes, and a second member, named with the suffix "Hex",
/// contains all bytes in lower-case hexadecimal.
void putBytes(nlohmann::json& object, std::string const& name, std::string const& bytes);

/// The library finds these by their name, so that a row, or a vector of rows, becomes JSON where JSON is expected.
void to_json(nlohmann::json& out, CheckStep const& step);
void to_json(nlohmann::json& out, Exchange const& exchange);
void to_json(nlohmann::json& out, FaultKindRow const& row);
void to_json(nlohmann::json& out, HistoryEntry const& step);
void to_json(nlohmann::json& out, Notification const& notification);
void to_json(nlohmann::json& out, Snapshots::Entry const& snapshot);

/// The members that readFault() or readDecision() accepts, and those that only what is armed has.
void to_json(nlohmann::json& out, ArmedFault const& armed);
void to_json(nlohmann::json& out, StandingDecision const& decision);

/// `notifications` are those of this payment.
nlohmann::json paymentJson(Payment const& payment, std::vector<Notification> const& notifications);

/// The members of an exchange but for the long ones: message, request, response and steps.
nlohmann::json summaryJson(ExchangeSummary const& exchange);

/// An array with what `toRow` makes of each element.
template <class Elements, class ToRow>
nlohmann::json rowsOf(Elements const& elements, ToRow toRow) {
    nlohmann::json rows = nlohmann::json::array();
    for (auto const& element : elements) {
        rows.push_back(toRow(element));
    }
    return rows;
}

/// The object in `body`, which stands in errors as `name`. Throws HttpError for anything else.
nlohmann::json parseObject(std::string const& body, std::string const& name = "the body");

/// Throws HttpError for a member that is not in `allowed`.
void checkMembers(nlohmann::json const& object, std::vector<std::string> const& allowed);

/// Both.
nlohmann::json readObject(std::string const& body, std::vector<std::string> const& allowed);

/// A required member of an object. Throws HttpError when it is missing or has another type.
std::string requireText(nlohmann::json const& object, std::string const& name);
std::int64_t requireNumber(nlohmann::json const& object, std::string const& name);

/// The same for one that may be missing.
std::string optionalText(nlohmann::json const& object, std::string const& name);

/// The fault and the standing decision that `object` describes. Both throw HttpError.
Fault readFault(nlohmann::json const& object);
StandingDecision readDecision(nlohmann::json const& object);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CONTROL_CONTROLFORMAT_H
