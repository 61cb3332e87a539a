#ifndef TALLOWIN_SANDBOX_PAGES_SHOPPERPAGES_H
#define TALLOWIN_SANDBOX_PAGES_SHOPPERPAGES_H

#include <string>

#include "sandbox/http/httpmessages.h"
#include "sandbox/pages/html.h"
#include "sandbox/store/exchange.h"
#include "sandbox/store/store.h"
#include "sandbox/store/storedpayment.h"

/// The HTML pages: plain, without scripts, readable by a screen reader and on a phone. Everything that comes from
/// outside is escaped.
namespace sandbox {

/// The page on which the shopper decides, in the language of LANGID.
HttpResponse paymentPage(StoredPayment const& stored, std::string const& customer);

/// Tells why a request was turned down, shows the message it held, and says what the merchant can do.
HttpResponse errorPage(int status, std::string const& reason, Exchange const& exchange);

/// The same for a payment on which nobody can decide any more, with a link to `address` unless that is empty.
HttpResponse decidedPage(int status, StoredPayment const& stored, std::string const& reason,
                         std::string const& address);

/// Tells the outcome of a payment whose merchant gave no link to return to. `signedQuery` is what such a link would
/// have been given.
HttpResponse outcomePage(Payment const& payment, std::string const& signedQuery);

/// Where shoppers end whose merchant uses the default links. A query that cannot be read gives the error page.
HttpResponse returnedPage(HttpRequest const& request);

/// AMOUNT and CURRENCY, as far as they are there; `notGiven` stands for the amount.
std::string amountText(Payment const& payment, std::string const& notGiven);

/// Names and values as a table.
std::string attributeTable(Attributes const& attributes);

/// The attributes of the message `text` as a table, or why they cannot be shown.
std::string attributesContent(std::string const& text);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_PAGES_SHOPPERPAGES_H
