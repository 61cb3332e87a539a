#ifndef TALLOWIN_SANDBOX_CONTROL_CONTROLJSON_H
#define TALLOWIN_SANDBOX_CONTROL_CONTROLJSON_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "sandbox/faults/faultregistry.h"
#include "sandbox/http/httpmessages.h"
#include "sandbox/store/exchange.h"
#include "sandbox/store/notification.h"
#include "sandbox/store/storedpayment.h"

/// The JSON of the control API.
namespace sandbox {

HttpResponse jsonResponse(int status, nlohmann::json const& content);

/// Sets the member `name` of `object` to `bytes`. Values of the protocol have no declared encoding, but JSON is UTF-8:
/// in a text that is not UTF-8, U+FFFD replaces the invalid bytes, and a second member, named with the suffix "Hex",
/// contains all bytes in lower-case hexadecimal.
void putBytes(nlohmann::json& object, std::string const& name, std::string const& bytes);

nlohmann::json notificationJson(Notification const& notification);

/// `notifications` are those of this payment.
nlohmann::json paymentJson(Payment const& payment, std::vector<Notification> const& notifications);
nlohmann::json exchangeJson(Exchange const& exchange);

/// The members that readFault() accepts, and those that only an armed fault has.
nlohmann::json faultJson(ArmedFault const& armed);
nlohmann::json faultKindJson(FaultKindRow const& row);

/// The object in `body`, which stands in errors as `name`. Throws HttpError for anything else.
nlohmann::json parseObject(std::string const& body, std::string const& name = "the body");

/// Throws HttpError for a member that is not in `allowed`.
void checkMembers(nlohmann::json const& object, std::vector<std::string> const& allowed);

/// Both.
nlohmann::json readObject(std::string const& body, std::vector<std::string> const& allowed);

/// A required member of an object. Throws HttpError when it is missing or has another type.
std::string requireText(nlohmann::json const& object, std::string const& name);
std::int64_t requireNumber(nlohmann::json const& object, std::string const& name);

/// The fault that `object` describes. Throws HttpError.
Fault readFault(nlohmann::json const& object);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CONTROL_CONTROLJSON_H
