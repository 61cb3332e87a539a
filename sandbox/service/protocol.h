#ifndef TALLOWIN_SANDBOX_SERVICE_PROTOCOL_H
#define TALLOWIN_SANDBOX_SERVICE_PROTOCOL_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "sandbox/service/services.h"

namespace sandbox {

/// Answers a request to one of the addresses of the protocol, lets the fault that is armed for it happen, and stores
/// the exchange. Nothing when the address is none of them.
std::optional<HttpResponse> handleProtocol(Services const& services, HttpRequest const& request);

/// The answer when the service itself has failed with `what`.
HttpResponse failureResponse(std::string const& what);

/// For the timing of an exchange.
std::int64_t microsecondsSince(std::chrono::steady_clock::time_point begin);

/// What became of an answer, in words.
std::string deliveryText(Delivery const& delivery, std::int64_t microseconds);

/// `text` cut to what is kept of a request or an answer.
std::string keptText(std::string const& text);

/// A request as it is kept: the credentials of its header covered.
std::string keptRequest(std::string const& raw);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_PROTOCOL_H
