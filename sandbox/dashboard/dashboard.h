#ifndef TALLOWIN_SANDBOX_DASHBOARD_DASHBOARD_H
#define TALLOWIN_SANDBOX_DASHBOARD_DASHBOARD_H

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/service/services.h"
#include "sandbox/store/rows.h"
#include "sandbox/text/wiretext.h"

/// The pages for developers, and what they share.
namespace sandbox {

/// Answers a request for a page of the dashboard, which shows the service's state and controls its faults. Returns
/// nothing for other addresses.
///
/// The pages use no scripts. Every form contains a key that changes at each start of the service. A form without it is
/// rejected (403), because it may come from another site. Requests that checkAccess() refuses are rejected.
std::optional<HttpResponse> handleDashboard(Services const& services, HttpRequest const& request);

/// The pages, one function each. All throw HttpError. The Query contains the fields of the address or of the form,
/// whose key has been checked.
HttpResponse overviewPage(Services const& services, Query const& query);
HttpResponse paymentDetailsPage(Services const& services, Query const& query);
HttpResponse exchangeDetailsPage(Services const& services, Query const& query);

HttpResponse faultsPage(Services const& services, Query const& query);
HttpResponse armByForm(Services const& services, Query const& form);
HttpResponse liftByForm(Services const& services, Query const& form);

HttpResponse keysPage(Services const& services, Query const& query);
HttpResponse rotateByForm(Services const& services, Query const& form);
HttpResponse setClockByForm(Services const& services, Query const& form);

HttpResponse calculatorPage(Services const& services, Query const& query);
HttpResponse calculateByForm(Services const& services, Query const& form);

/// The page templates/`name`.html filled in from `content`, with the navigation, in which the entry of `path` is marked
/// as current. The content gets the form key, which every posted form contains.
HttpResponse dashboardPage(Services const& services, int status, std::string const& path, std::string const& title,
                           std::string const& name, nlohmann::json content);

/// Redirects the browser after a form to the page `path`, loaded with GET.
HttpResponse seeOther(std::string const& path);

/// One exchange for the template `exchange_table`.
nlohmann::json exchangeRow(Exchange const& exchange);

/// The template's content; null without exchanges.
nlohmann::json exchangeTable(std::string const& caption, std::vector<Exchange> const& exchanges);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_DASHBOARD_DASHBOARD_H
