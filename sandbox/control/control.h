#ifndef TALLOWIN_SANDBOX_CONTROL_CONTROL_H
#define TALLOWIN_SANDBOX_CONTROL_CONTROL_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "sandbox/service/services.h"

namespace sandbox {

/// Answers a request to `/health`, `/control` or an address below: the JSON API for the service's state and faults.
/// Returns nothing for other paths.
///
/// Errors are objects with the member "error". A text that is not UTF-8 has a second member, see putBytes(). POST
/// requires `Content-Type: application/json`; requests for another host name, or without the token, are
/// rejected, see controlguards.h.
std::optional<HttpResponse> handleControl(Services const& services, HttpRequest const& request);

/// The addresses of the control API, one function each. All throw HttpError.
HttpResponse getHealth(Services const& services, HttpRequest const& request);
HttpResponse getOpenApi(Services const& services, HttpRequest const& request);
HttpResponse getEvents(Services const& services, HttpRequest const& request);
HttpResponse exportAll(Services const& services, HttpRequest const& request);
HttpResponse getStatus(Services const& services, HttpRequest const& request);
HttpResponse getPayments(Services const& services, HttpRequest const& request);
HttpResponse getExchanges(Services const& services, HttpRequest const& request);
HttpResponse removeExchanges(Services const& services, HttpRequest const& request);
HttpResponse reset(Services const& services, HttpRequest const& request);
HttpResponse getKeys(Services const& services, HttpRequest const& request);
HttpResponse rotateKey(Services const& services, HttpRequest const& request);
HttpResponse putAccount(Services const& services, HttpRequest const& request);
HttpResponse setClock(Services const& services, HttpRequest const& request);

HttpResponse getPayment(Services const& services, HttpRequest const& request);
HttpResponse decidePayment(Services const& services, HttpRequest const& request);
HttpResponse getDecisions(Services const& services, HttpRequest const& request);
HttpResponse addDecision(Services const& services, HttpRequest const& request);
HttpResponse removeDecision(Services const& services, HttpRequest const& request);
HttpResponse removeAllDecisions(Services const& services, HttpRequest const& request);
HttpResponse getNotifications(Services const& services, HttpRequest const& request);
HttpResponse resendNotification(Services const& services, HttpRequest const& request);

HttpResponse getScenario(Services const& services, HttpRequest const& request);
HttpResponse playScenario(Services const& services, HttpRequest const& request);
HttpResponse getSnapshots(Services const& services, HttpRequest const& request);
HttpResponse saveSnapshot(Services const& services, HttpRequest const& request);
HttpResponse restoreSnapshot(Services const& services, HttpRequest const& request);
HttpResponse removeSnapshot(Services const& services, HttpRequest const& request);

HttpResponse getFaults(Services const& services, HttpRequest const& request);
HttpResponse getFaultKinds(Services const& services, HttpRequest const& request);
HttpResponse armFault(Services const& services, HttpRequest const& request);
HttpResponse liftFault(Services const& services, HttpRequest const& request);
HttpResponse liftAllFaults(Services const& services, HttpRequest const& request);

/// Arms the scenario in a file. Throws std::runtime_error, with the place of a mistake.
void playScenarioFile(Services const& services, std::string const& path);

/// What getStatus() and getKeys() respond with, for the dashboard.
nlohmann::json statusJson(Services const& services);
nlohmann::json keysJson(Services const& services);

/// Largest clock offset in seconds, in either direction.
inline constexpr std::int64_t kMaxSecondsAhead = std::int64_t{10} * 365 * 24 * 60 * 60;

/// Sets the clock offset of an account, or of all that have no clock of their own. Throws HttpError beyond
/// kMaxSecondsAhead.
void setClockAhead(Services const& services, std::int64_t seconds, std::string const& account = "");

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CONTROL_CONTROL_H
