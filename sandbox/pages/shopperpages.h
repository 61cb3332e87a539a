#ifndef TALLOWIN_SANDBOX_PAGES_SHOPPERPAGES_H
#define TALLOWIN_SANDBOX_PAGES_SHOPPERPAGES_H

#include <nlohmann/json.hpp>
#include <string>

#include "diagnosis/explanation.h"
#include "sandbox/http/httpmessages.h"
#include "sandbox/store/rows.h"
#include "sandbox/store/store.h"

/// The pages for shoppers. Plain HTML without scripts, usable with screen readers and on phones. All values from
/// outside are escaped.
namespace sandbox {

/// The payment page, on which the shopper decides, in the language of LANGID.
HttpResponse paymentPage(StoredPayment const& stored, std::string const& customer);

/// The page for a rejected request: the reason, advice for the merchant, the message of the request, and what is wrong
/// with its signature unless `explanation` is empty.
HttpResponse errorPage(int status, std::string const& reason, Exchange const& exchange,
                       diagnosis::Explanation const& explanation = {});

/// The same for a payment that is already decided or expired, with a link to `address` unless that is empty.
HttpResponse decidedPage(int status, StoredPayment const& stored, std::string const& reason,
                         std::string const& address);

/// The outcome of a payment whose merchant gave no return link. `signedQuery` is the query such a link would have
/// contained.
HttpResponse outcomePage(Payment const& payment, std::string const& signedQuery);

/// The target of the default return links. A query that cannot be read gives the error page.
HttpResponse returnedPage(HttpRequest const& request);

/// AMOUNT and CURRENCY; `notGiven` replaces a missing amount.
std::string amountText(Payment const& payment, std::string const& notGiven);

/// The message `text` for the templates `message`, which shows its attributes or why they cannot be read, and
/// `verbatim`.
nlohmann::json messageContent(std::string const& text);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_PAGES_SHOPPERPAGES_H
