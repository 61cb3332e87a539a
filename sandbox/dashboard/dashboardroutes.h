#ifndef TALLOWIN_SANDBOX_DASHBOARD_DASHBOARDROUTES_H
#define TALLOWIN_SANDBOX_DASHBOARD_DASHBOARDROUTES_H

#include "sandbox/service/site.h"
#include "sandbox/text/wiretext.h"

/// The pages of the dashboard, one function each. They throw HttpError. Those that take a Query are given the fields of
/// the query or of the form; the key of a form has been checked.
namespace sandbox {

HttpReply overviewPage(Site const& site, Query const& query);
HttpReply paymentDetailsPage(Site const& site, Query const& query);
HttpReply exchangeDetailsPage(Site const& site, Query const& query);

HttpReply faultsPage(Site const& site, Query const& query);
HttpReply armByForm(Site const& site, Query const& form);
HttpReply liftByForm(Site const& site, Query const& form);

HttpReply keysPage(Site const& site, Query const& query);
HttpReply rotateByForm(Site const& site, Query const& form);
HttpReply setClockByForm(Site const& site, Query const& form);

HttpReply calculatorPage(Site const& site, Query const& query);
HttpReply calculateByForm(Site const& site, Query const& form);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_DASHBOARD_DASHBOARDROUTES_H
