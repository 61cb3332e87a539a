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

/// Sets the member `name` of `object` to `bytes`. What the protocol carries has no encoding, but JSON holds nothing
/// but UTF-8: a text that is UTF-8 stands as it is; in any other U+FFFD stands for what is not UTF-8, and a second
/// member, its name followed by "Hex", holds all the bytes in lower-case hexadecimal.
void putBytes(nlohmann::json& object, std::string const& name, std::string const& bytes);

nlohmann::json notificationJson(Notification const& notification);

/// `notifications` are those of all payments.
nlohmann::json paymentJson(Payment const& payment, std::vector<Notification> const& notifications);
nlohmann::json exchangeJson(Exchange const& exchange);

/// The fault under the members that readFault() takes, and what only an armed fault has.
nlohmann::json faultJson(ArmedFault const& armed);
nlohmann::json faultKindJson(FaultKindRow const& row);

/// The object that `body` holds. Throws HttpError when it holds anything else, or a member that is not in `allowed`.
nlohmann::json readObject(std::string const& body, std::vector<std::string> const& allowed);

/// A member of an object. Throws HttpError when it is absent or of another type.
std::string requireText(nlohmann::json const& object, std::string const& name);
std::int64_t requireNumber(nlohmann::json const& object, std::string const& name);

/// The fault that `body` describes. Throws HttpError.
Fault readFault(std::string const& body);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CONTROL_CONTROLJSON_H
