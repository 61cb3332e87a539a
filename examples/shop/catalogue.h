/// What the shop sells, and baskets of it.
#ifndef TALLOWIN_EXAMPLES_SHOP_CATALOGUE_H
#define TALLOWIN_EXAMPLES_SHOP_CATALOGUE_H

#include <cstdint>
#include <map>
#include <string>

namespace storefront {

constexpr char kCurrency[] = "EUR";
constexpr int kMaxQuantity = 99;

/// Texts are ISO 8859-1, like those of payment messages.
struct Article {
    char const* m_Id;
    char const* m_Name;
    char const* m_Description;
    std::int64_t m_Cents;
};

// clang-format off
constexpr Article kArticles[] = {
    {"candle",      "Beeswax candle", "Burns for about forty hours.",             1990},
    {"candlestick", "Candlestick",    "Brass & oak, for one candle.",             4900},
    {"mug",         "Caf\xE9 mug",    "Holds a quarter of a litre, or a candle.",  805},
};
// clang-format on

/// Quantities from 1 to kMaxQuantity, by article.
using Quantities = std::map<std::string, int>;

/// What a visitor is about to buy. Its number becomes the number of the order, so that a second click on "Check out"
/// means the same order. Each change of the content gives it a new number.
struct Basket {
    std::string m_Number;
    Quantities m_Content;
};

/// "19.90": always with two decimals, because the ledger compares amounts as texts.
std::string amountText(std::int64_t cents);

std::int64_t totalCents(Quantities const& quantities);

/// "candle.2:mug.1", for the cookie and for the database.
std::string textOf(Quantities const& quantities);

/// Reverses textOf(). Skips everything else: the text may come from a visitor.
Quantities quantitiesIn(std::string const& text);

/// The value of a cookie for a basket with a new number, which gives access to the order and cannot be guessed.
std::string newBasket(Quantities const& content);

/// The basket in such a cookie; an empty one without a number when the value is none of ours.
Basket basketIn(std::string const& cookie);

}  // namespace storefront

#endif
