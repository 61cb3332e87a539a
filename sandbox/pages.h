#pragma once

#include <string>
#include <vector>

#include "sandbox/payment.h"
#include "sandbox/site.h"

/// The HTML pages: plain, without scripts, readable by a screen reader. Everything that comes from outside is escaped.
namespace sandbox {

/// `text` as HTML text or attribute value. Control bytes become the replacement character, so that they show.
std::string escapeHtml(std::string const& text);

/// The page on which the shopper decides.
HttpReply paymentPage(PaymentRecord const& record, std::string const& customer);

/// Tells why a request was turned down and shows the message it held.
HttpReply refusalPage(int status, std::string const& reason, Exchange const& record);

/// Tells the outcome of a payment whose merchant gave no link to return to.
HttpReply outcomePage(Payment const& payment, std::string const& signedQuery);

/// Where shoppers end whose merchant uses the default links.
HttpReply returnedPage(HttpRequest const& request);

/// All payments and their states.
HttpReply listPage(std::vector<Payment> const& payments);

}  // namespace sandbox
