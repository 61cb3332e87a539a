#ifndef TALLOWIN_SANDBOX_DASHBOARD_STATIONS_H
#define TALLOWIN_SANDBOX_DASHBOARD_STATIONS_H

#include <nlohmann/json.hpp>
#include <vector>

#include "sandbox/service/services.h"
#include "sandbox/store/exchange.h"

namespace sandbox {

/// The stations of `payment` on its way, for the template `payment_details`: set-up, page, decision, return,
/// notification, capture, completion. Each has its state, what was sent in its exchanges, which are among `exchanges`
/// (summaries), and the faults that can be armed there.
nlohmann::json stationsContent(Services const& services, Payment const& payment,
                               std::vector<Notification> const& notifications, std::vector<Exchange> const& exchanges);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_DASHBOARD_STATIONS_H
