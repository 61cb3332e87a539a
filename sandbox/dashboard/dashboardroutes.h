#ifndef TALLOWIN_SANDBOX_DASHBOARD_DASHBOARDROUTES_H
#define TALLOWIN_SANDBOX_DASHBOARD_DASHBOARDROUTES_H

#include "sandbox/service/services.h"
#include "sandbox/text/wiretext.h"

/// The pages of the dashboard, one function each. They throw HttpError. Those that take a Query are given the fields of
/// the query or of the form; the key of a form has been checked.
namespace sandbox {

HttpReply overviewPage(Services const& services, Query const& query);
HttpReply paymentDetailsPage(Services const& services, Query const& query);
HttpReply exchangeDetailsPage(Services const& services, Query const& query);

HttpReply faultsPage(Services const& services, Query const& query);
HttpReply armByForm(Services const& services, Query const& form);
HttpReply liftByForm(Services const& services, Query const& form);

HttpReply keysPage(Services const& services, Query const& query);
HttpReply rotateByForm(Services const& services, Query const& form);
HttpReply setClockByForm(Services const& services, Query const& form);

HttpReply calculatorPage(Services const& services, Query const& query);
HttpReply calculateByForm(Services const& services, Query const& form);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_DASHBOARD_DASHBOARDROUTES_H
