#ifndef TALLOWIN_SANDBOX_CONTROL_CONTROLROUTES_H
#define TALLOWIN_SANDBOX_CONTROL_CONTROLROUTES_H

#include <cstdint>
#include <optional>
#include <string>

#include "sandbox/service/services.h"

/// The addresses of the control API, one function each. They throw HttpError.
namespace sandbox {

HttpReply tellService(Services const& services, HttpRequest const& request);
HttpReply tellPayments(Services const& services, HttpRequest const& request);
HttpReply tellExchanges(Services const& services, HttpRequest const& request);
HttpReply tellKeys(Services const& services, HttpRequest const& request);
HttpReply rotateKey(Services const& services, HttpRequest const& request);
HttpReply putAccount(Services const& services, HttpRequest const& request);
HttpReply setClock(Services const& services, HttpRequest const& request);

HttpReply tellFaults(Services const& services, HttpRequest const& request);
HttpReply tellFaultKinds(Services const& services, HttpRequest const& request);
HttpReply armFault(Services const& services, HttpRequest const& request);
HttpReply liftFault(Services const& services, HttpRequest const& request);
HttpReply liftAllFaults(Services const& services, HttpRequest const& request);

/// The whole number that `text` is; nothing for anything else.
std::optional<std::int64_t> wholeNumber(std::string const& text);

/// Lifts the fault whose identifier `text` is; false when none has it.
bool liftNamedFault(Services const& services, std::string const& text);

/// By how many seconds the clock can be set ahead or back.
inline constexpr std::int64_t kFarthestAhead = std::int64_t{10} * 365 * 24 * 60 * 60;

/// Sets the clock ahead. Throws HttpError beyond kFarthestAhead.
void setClockAhead(Services const& services, std::int64_t seconds);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CONTROL_CONTROLROUTES_H
