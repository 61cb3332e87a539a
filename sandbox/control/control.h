#ifndef TALLOWIN_SANDBOX_CONTROL_CONTROL_H
#define TALLOWIN_SANDBOX_CONTROL_CONTROL_H

#include <optional>

#include "sandbox/service/services.h"

namespace sandbox {

/// Answers a request to `/health`, `/control` or an address below: the JSON API for the service's state and faults.
/// Returns nothing for other paths.
///
/// Errors are objects with the member "error". A text that is not UTF-8 has a second member, see putBytes(). POST
/// requires `Content-Type: application/json`; requests for another host name, or without the token, are
/// rejected, see controlguards.h.
///
///     GET    /health                 whether all ports are served
///     GET    /control                addresses, signing key, clock and counts
///     GET    /control/openapi.json   the description of this API
///     GET    /control/export         payments and exchanges as JSON lines
///     GET    /control/faults         the armed faults
///     POST   /control/faults         arms a fault
///     DELETE /control/faults         removes all faults
///     DELETE /control/faults/ID      removes one fault
///     GET    /control/faults/kinds   the kinds of faults
///     GET    /control/payments       a list with filters and pages, see controlfilters.h
///     GET    /control/payments/ID    one payment, at once or once it has come to until=, also
///                                    /control/payments/newest?order= or ?token=
///     POST   /control/payments/ID/decision   decides a payment, also /control/payments/decision?order= or ?token=
///     GET    /control/decisions      the standing decisions
///     POST   /control/decisions      adds a standing decision
///     DELETE /control/decisions      removes all standing decisions
///     DELETE /control/decisions/ID   removes one standing decision
///     GET    /control/scenario       what is armed, as a scenario
///     POST   /control/scenario       arms faults and standing decisions together
///     GET    /control/snapshots      the snapshots
///     POST   /control/snapshots/NAME   saves a snapshot
///     DELETE /control/snapshots/NAME   removes a snapshot
///     POST   /control/snapshots/NAME/restore   goes back to a snapshot
///     GET    /control/notifications  filtered by payment=
///     POST   /control/notifications/N/resend   sends a notification once more
///     GET    /control/exchanges      a list like that of payments
///     DELETE /control/exchanges      removes them, all or filtered
///     POST   /control/reset          removes payments, exchanges and faults, resets the clock
///     GET    /control/keys           keys of the service and of the merchants
///     POST   /control/keys/rotate    creates a new signing key
///     POST   /control/accounts       creates an account or changes its password
///     POST   /control/clock          sets the clock ahead, steps it, freezes it
std::optional<HttpResponse> handleControl(Services const& services, HttpRequest const& request);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CONTROL_CONTROL_H
