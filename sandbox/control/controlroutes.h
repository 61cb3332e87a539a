#ifndef TALLOWIN_SANDBOX_CONTROL_CONTROLROUTES_H
#define TALLOWIN_SANDBOX_CONTROL_CONTROLROUTES_H

#include <cstdint>
#include <optional>
#include <string>

#include "sandbox/service/site.h"

/// The addresses of the control API, one function each. They throw HttpError.
namespace sandbox {

HttpReply tellService(Site const& site, HttpRequest const& request);
HttpReply tellPayments(Site const& site, HttpRequest const& request);
HttpReply tellExchanges(Site const& site, HttpRequest const& request);
HttpReply tellKeys(Site const& site, HttpRequest const& request);
HttpReply rotateKey(Site const& site, HttpRequest const& request);
HttpReply putAccount(Site const& site, HttpRequest const& request);
HttpReply setClock(Site const& site, HttpRequest const& request);

HttpReply tellFaults(Site const& site, HttpRequest const& request);
HttpReply tellFaultKinds(Site const& site, HttpRequest const& request);
HttpReply armFault(Site const& site, HttpRequest const& request);
HttpReply liftFault(Site const& site, HttpRequest const& request);
HttpReply liftAllFaults(Site const& site, HttpRequest const& request);

/// The whole number that `text` is; nothing for anything else.
std::optional<std::int64_t> wholeNumber(std::string const& text);

/// Lifts the fault whose identifier `text` is; false when none has it.
bool liftNamedFault(Site const& site, std::string const& text);

/// By how many seconds the clock can be set ahead or back.
inline constexpr std::int64_t kFarthestAhead = std::int64_t{10} * 365 * 24 * 60 * 60;

/// Sets the clock ahead. Throws HttpError beyond kFarthestAhead.
void setClockAhead(Site const& site, std::int64_t seconds);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CONTROL_CONTROLROUTES_H
