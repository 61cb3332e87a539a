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
std::optional<HttpResponse> handleDashboard(Services const& services, HttpRequest const& request);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_DASHBOARD_DASHBOARD_H
