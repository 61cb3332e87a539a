#ifndef TALLOWIN_SANDBOX_CONTROL_CONTROL_H
#define TALLOWIN_SANDBOX_CONTROL_CONTROL_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/http/httpmessages.h"
#include "sandbox/service/services.h"

namespace sandbox {

/// Throws HttpError when the request may not see control API and dashboard.
///
/// With a non-empty `token` the request must have it: in the header `Authorization: Bearer TOKEN`, or in the cookie
/// that cookieOf() sets (401). Without one the Host header must name this machine (403): a foreign name that resolves
/// to 127.0.0.1 would let pages of that site read the responses, and a browser sends that name as Host. Requests
/// without Host are accepted: browsers always send one.
void checkAccess(std::string const& token, HttpRequest const& request);

/// The cookie for a browser that was given the token in a link, `?token=TOKEN`; nothing when the request has none.
/// Throws HttpError (401) when it is another one.
std::optional<std::string> cookieOf(std::string const& token, HttpRequest const& request);

/// Answers a request to `/health`, `/control` or an address below: the JSON API for the service's state and faults.
/// Returns nothing for other paths.
///
/// Errors are objects with the member "error". A text that is not UTF-8 has a second member, see putBytes(). POST
/// requires `Content-Type: application/json`; requests that checkAccess() refuses are rejected.
std::optional<HttpResponse> handleControl(Services const& services, HttpRequest const& request);

/// One method of one address.
struct ControlRoute {
    char const* m_Method;
    char const* m_Path;  ///< As for fnmatch(): "?*" stands for any text without a slash, "[0-9]*" for an identifier.

    /// Throws HttpError.
    HttpResponse (*m_Handler)(Services const& services, HttpRequest const& request);
};

/// The addresses of the control API: what is stored, what drives the service, and what is sent piece by piece.
std::vector<ControlRoute> stateRoutes();
std::vector<ControlRoute> drivingRoutes();
std::vector<ControlRoute> streamRoutes();

/// Arms the scenario in a file. Throws std::runtime_error, with the place of a mistake.
void playScenarioFile(Services const& services, std::string const& path);

/// The status and the keys of the service, for the dashboard as well.
nlohmann::json statusJson(Services const& services);
nlohmann::json keysJson(Services const& services);

/// Largest clock offset in seconds, in either direction.
inline constexpr std::int64_t kMaxSecondsAhead = std::int64_t{10} * 365 * 24 * 60 * 60;

/// Sets the clock offset of an account, or of all that have no clock of their own. Throws HttpError beyond
/// kMaxSecondsAhead.
void setClockAhead(Services const& services, std::int64_t seconds, std::string const& account = "");

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CONTROL_CONTROL_H
