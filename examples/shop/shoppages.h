#ifndef TALLOWIN_EXAMPLES_SHOP_SHOPPAGES_H
#define TALLOWIN_EXAMPLES_SHOP_SHOPPAGES_H

#include <string>

#include "catalogue.h"
#include "orders.h"
#include "requesterror.h"

namespace storefront {

/// What is before the name of a field for the quantity of an article: "quantity-candle".
constexpr char kQuantityField[] = "quantity-";

/// The field that holds the key of the form that makes an order.
constexpr char kKeyField[] = "key";

std::string cataloguePage();

/// `key` goes with the form that makes an order: another one for every page.
std::string basketPage(Quantities const& basket, std::string const& key);

/// An order, and what happened underneath.
std::string orderPage(Order const& order);

/// What is not carried out, and why. `orderNumber` leads to the order that it was about; empty when there is none.
std::string errorPage(RequestError const& error, std::string const& orderNumber);

/// For an address at which there is no page, and for requests that are no good.
std::string plainPage(std::string const& title, std::string const& text);

}  // namespace storefront

#endif
