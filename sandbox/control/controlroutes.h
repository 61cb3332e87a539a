#ifndef TALLOWIN_SANDBOX_CONTROL_CONTROLROUTES_H
#define TALLOWIN_SANDBOX_CONTROL_CONTROLROUTES_H

#include <cstdint>
#include <optional>
#include <string>

#include "sandbox/service/services.h"

/// The addresses of the control API, one function each. They throw HttpError.
namespace sandbox {

HttpResponse getStatus(Services const& services, HttpRequest const& request);
HttpResponse getPayments(Services const& services, HttpRequest const& request);
HttpResponse getExchanges(Services const& services, HttpRequest const& request);
HttpResponse getKeys(Services const& services, HttpRequest const& request);
HttpResponse rotateKey(Services const& services, HttpRequest const& request);
HttpResponse putAccount(Services const& services, HttpRequest const& request);
HttpResponse setClock(Services const& services, HttpRequest const& request);

HttpResponse getFaults(Services const& services, HttpRequest const& request);
HttpResponse getFaultKinds(Services const& services, HttpRequest const& request);
HttpResponse armFault(Services const& services, HttpRequest const& request);
HttpResponse liftFault(Services const& services, HttpRequest const& request);
HttpResponse liftAllFaults(Services const& services, HttpRequest const& request);

/// Lifts the fault whose identifier `text` is; false when none has it.
bool liftNamedFault(Services const& services, std::string const& text);

/// By how many seconds the clock can be set ahead or back.
inline constexpr std::int64_t kMaxSecondsAhead = std::int64_t{10} * 365 * 24 * 60 * 60;

/// Sets the clock ahead. Throws HttpError beyond kMaxSecondsAhead.
void setClockAhead(Services const& services, std::int64_t seconds);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CONTROL_CONTROLROUTES_H
