#ifndef TALLOWIN_SANDBOX_DASHBOARD_DASHBOARDPARTS_H
#define TALLOWIN_SANDBOX_DASHBOARD_DASHBOARDPARTS_H

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/service/services.h"
#include "sandbox/store/rows.h"
#include "sandbox/text/wiretext.h"

/// The pages of the dashboard, and what they share.
namespace sandbox {

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

/// The calculator's page for a message.
std::string calculatorPath(std::string const& data, std::string const& signature);

/// A message that was sent, for the template `message`, with a link to the calculator when it is signed.
nlohmann::json sentContent(std::string const& label, std::string const& data, std::string const& signature);

/// The message that a response contains.
struct SentMessage {
    std::string m_Label;  ///< What it is, for people.
    std::string m_Data;
    std::string m_Signature;  ///< Empty when it is not signed.
};

/// The confirmation in the return link of `exchange`, or on the page without one; else the message that is the body of
/// the response. Nothing when there is neither, or not all of it was stored.
std::optional<SentMessage> sentMessage(Exchange const& exchange);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_DASHBOARD_DASHBOARDPARTS_H
