/// The shop's pages as HTML, from the templates of examples/common/shop.
#ifndef TALLOWIN_EXAMPLES_SHOP_SHOPPAGES_H
#define TALLOWIN_EXAMPLES_SHOP_SHOPPAGES_H

#include <string>

#include "orderbook.h"

namespace storefront {

/// A file of examples/common/shop: a template, the style sheet or a picture.
std::string const& asset(std::string const& name);

std::string cataloguePage();
std::string basketPage(Basket const& basket);

/// `order` is a row of OrderBook::find(). `dashboard` is the address of the payment service's pages about payments,
/// without a path.
std::string orderPage(Row const& order, Rows const& history, Rows const& surplus, std::string const& dashboard);

/// A page with one text. `orderNumber` adds a link to that order; may be empty. With `renews` the browser loads the
/// page again after some seconds.
std::string messagePage(std::string const& title, std::string const& text, std::string const& orderNumber = "",
                        bool renews = false);

}  // namespace storefront

#endif
