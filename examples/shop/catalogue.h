/// The articles of the shop and their prices.
#ifndef TALLOWIN_EXAMPLES_SHOP_CATALOGUE_H
#define TALLOWIN_EXAMPLES_SHOP_CATALOGUE_H

#include <array>
#include <cstdint>
#include <map>
#include <string>

namespace storefront {

/// The currency of all prices.
constexpr char kCurrency[] = "EUR";

/// An article.
struct Article {
    char const* m_Id;
    char const* m_Name;
    char const* m_Description;
    std::int64_t m_Cents;  ///< Price of one piece.
};

/// Quantities by article id. A quantity of 0 has no entry.
using Quantities = std::map<std::string, int>;

/// All articles of the shop.
std::array<Article, 3> const& catalogue();

/// The article with this id; null when there is none.
Article const* findArticle(std::string const& id);

/// The price of all articles together.
std::int64_t totalCents(Quantities const& quantities);

/// An amount as pages and payment messages write it: "19.90".
std::string amountText(std::int64_t cents);

}  // namespace storefront

#endif
