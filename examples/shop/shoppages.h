/// The shop's pages as HTML.
#ifndef TALLOWIN_EXAMPLES_SHOP_SHOPPAGES_H
#define TALLOWIN_EXAMPLES_SHOP_SHOPPAGES_H

#include <string>

#include "catalogue.h"
#include "orders.h"
#include "requesterror.h"

namespace storefront {

/// Prefix of the quantity fields' names: "quantity-candle".
constexpr char kQuantityField[] = "quantity-";

/// The checkout form's field for its idempotency key.
constexpr char kKeyField[] = "key";

std::string cataloguePage();

/// `key` is the idempotency key of the checkout form, new for each page.
std::string basketPage(Quantities const& basket, std::string const& key);

/// An order with its messages and library calls.
std::string orderPage(Order const& order);

/// The page for a RequestError. `orderNumber` adds a link to that order; may be empty.
std::string errorPage(RequestError const& error, std::string const& orderNumber);

/// A page with one paragraph.
std::string plainPage(std::string const& title, std::string const& text);

}  // namespace storefront

#endif
