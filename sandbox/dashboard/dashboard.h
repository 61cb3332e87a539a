#ifndef TALLOWIN_SANDBOX_DASHBOARD_DASHBOARD_H
#define TALLOWIN_SANDBOX_DASHBOARD_DASHBOARD_H

#include <optional>

#include "sandbox/service/services.h"

namespace sandbox {

/// Answers a request for a page of the dashboard, which shows the service's state and controls its faults. Returns
/// nothing for other addresses.
///
/// The pages use no scripts. Every form contains a key that changes at each start of the service. A form without it is
/// rejected (403), because it may come from another site. Requests for another host name are rejected, see
/// controlguards.h.
///
///     GET  /               addresses, payments, exchanges; with live=1 kept up to date
///     GET  /payment        with id=: one payment
///     GET  /exchange       with number=: one exchange
///     GET  /faults         armed faults, a form to arm one, the kinds of faults
///     POST /faults         arms a fault
///     POST /faults/lift    removes one fault or all
///     GET  /keys           keys and clock
///     POST /keys/rotate    creates a new signing key
///     POST /keys/clock     sets the clock ahead
///     GET  /calculator     a form for DATA and SIGNATURE; with DATA= and SIGNATURE= also their check
///     POST /calculator     checks DATA and SIGNATURE from the form
std::optional<HttpResponse> handleDashboard(Services const& services, HttpRequest const& request);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_DASHBOARD_DASHBOARD_H
