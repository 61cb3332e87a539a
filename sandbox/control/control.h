#ifndef TALLOWIN_SANDBOX_CONTROL_CONTROL_H
#define TALLOWIN_SANDBOX_CONTROL_CONTROL_H

#include <optional>

#include "sandbox/service/services.h"

namespace sandbox {

/// Answers a request to `/control` and what lies below: what the service knows, and what it is told to do, in JSON.
/// Nothing when the path is elsewhere.
///
/// Errors are objects with the member "error". Texts that are not UTF-8 have a second member, see putBytes(). POST
/// needs `Content-Type: application/json`; requests under a foreign host name are refused, see controlguards.h.
///
///     GET    /control                addresses, key, clock and counts
///     GET    /control/faults         the faults that are armed
///     POST   /control/faults         arms one
///     DELETE /control/faults         lifts all
///     DELETE /control/faults/ID      lifts one
///     GET    /control/faults/kinds   what can be made to go wrong
///     GET    /control/payments       with order=, id=, state= those that have all of it
///     GET    /control/exchanges      with after=NUMBER those that came later
///     GET    /control/keys           of the service and of the merchants
///     POST   /control/keys/rotate    makes a new key
///     POST   /control/accounts       creates an account or changes its password
///     POST   /control/clock          sets the clock ahead
std::optional<HttpResponse> handleControl(Services const& services, HttpRequest const& request);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CONTROL_CONTROL_H
