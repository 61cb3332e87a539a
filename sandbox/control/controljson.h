#ifndef TALLOWIN_SANDBOX_CONTROL_CONTROLJSON_H
#define TALLOWIN_SANDBOX_CONTROL_CONTROLJSON_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "sandbox/faults/faultregistry.h"
#include "sandbox/http/httpmessages.h"
#include "sandbox/service/standingdecisions.h"
#include "sandbox/store/rows.h"
#include "sandbox/store/snapshots.h"

/// The JSON of the control API.
namespace sandbox {

HttpResponse jsonResponse(int status, nlohmann::json const& content);

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
nlohmann::json summaryJson(Exchange const& exchange);

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

#endif  // TALLOWIN_SANDBOX_CONTROL_CONTROLJSON_H
