/// The shop's web pages.
#ifndef TALLOWIN_EXAMPLES_SHOP_STOREFRONT_H
#define TALLOWIN_EXAMPLES_SHOP_STOREFRONT_H

#include <httplib.h>

#include <string>

namespace storefront {

/// Adds the pages to the server. `directory` has the orders; `address` is the shop's own, `dashboard` that of the
/// payment service's pages about payments, both without a path. No page waits for the payment service.
void addPages(httplib::Server& server, std::string const& directory, std::string const& address,
              std::string const& dashboard);

}  // namespace storefront

#endif
