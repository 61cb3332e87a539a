#ifndef TALLOWIN_SANDBOX_DASHBOARD_DASHBOARD_H
#define TALLOWIN_SANDBOX_DASHBOARD_DASHBOARD_H

#include <optional>

#include "sandbox/service/services.h"

namespace sandbox {

/// Answers a request to one of the pages on which people watch the service and make it go wrong. Nothing when the
/// address is none of them.
///
/// The pages need no script. Every form carries a key that is another at every start of the service; without it a
/// form is refused (403), because then a page of another site sent it. Requests under a foreign host name are refused,
/// see controlguards.h.
///
///     GET  /               addresses, payments, exchanges; with live=1 loaded again every two seconds
///     GET  /payment        with id=: all about one payment
///     GET  /exchange       with number=: all about one exchange
///     GET  /faults         what is armed, a form to arm more, what there is
///     POST /faults         arms one
///     POST /faults/lift    lifts one or all
///     GET  /keys           keys and clock
///     POST /keys/rotate    makes a new key
///     POST /keys/clock     sets the clock ahead
///     GET  /calculator     a form for DATA and SIGNATURE; with DATA= and SIGNATURE= in the query what is said of them
///     POST /calculator     the same for what was pasted into the form
std::optional<HttpResponse> handleDashboard(Services const& services, HttpRequest const& request);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_DASHBOARD_DASHBOARD_H
