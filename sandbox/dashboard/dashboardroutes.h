#ifndef TALLOWIN_SANDBOX_DASHBOARD_DASHBOARDROUTES_H
#define TALLOWIN_SANDBOX_DASHBOARD_DASHBOARDROUTES_H

#include "sandbox/service/services.h"
#include "sandbox/text/wiretext.h"

/// The pages of the dashboard, one function each. All throw HttpError. The Query contains the fields
/// of the address or of the form, whose key has been checked.
namespace sandbox {

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

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_DASHBOARD_DASHBOARDROUTES_H
