#ifndef TALLOWIN_EXAMPLES_SHOP_CATALOGUE_H
#define TALLOWIN_EXAMPLES_SHOP_CATALOGUE_H

#include <array>
#include <cstdint>
#include <map>
#include <string>

namespace storefront {

/// The currency of all prices.
constexpr char kCurrency[] = "EUR";

/// Something to buy.
struct Article {
    char const* m_Id;
    char const* m_Name;
    char const* m_Description;
    std::int64_t m_Cents;  ///< The price of one.
};

/// How many of which article, by the article's id. What nobody wants has no entry, so that "empty" means empty.
using Quantities = std::map<std::string, int>;

/// Everything the shop sells.
std::array<Article, 3> const& catalogue();

/// The article of that id, null when there is none.
Article const* findArticle(std::string const& id);

/// What all of it costs together.
std::int64_t totalCents(Quantities const& quantities);

/// An amount as people and payment messages write it: "19.90".
std::string amountText(std::int64_t cents);

}  // namespace storefront

#endif
