#include "catalogue.h"

namespace storefront {

namespace {

constexpr std::int64_t kCentsOfOne = 100;

// clang-format off
constexpr std::array<Article, 3> kArticles = {{
    {"candle",      "Beeswax candle",  "Burns for about forty hours.",             1990},
    {"candlestick", "Candlestick",     "Brass & oak, for one candle.",             4900},
    {"mug",         "Caf\u00E9 mug",   "Holds a quarter of a litre, or a candle.",  805},
}};
// clang-format on

}  // namespace

std::array<Article, 3> const& catalogue() {
    return kArticles;
}

Article const* findArticle(std::string const& id) {
    for (Article const& article : kArticles) {
        if (id == article.m_Id) {
            return &article;
        }
    }
    return nullptr;
}

std::int64_t totalCents(Quantities const& quantities) {
    std::int64_t total = 0;
    for (auto const& [id, quantity] : quantities) {
        Article const* const article = findArticle(id);
        total += article == nullptr ? 0 : article->m_Cents * quantity;
    }
    return total;
}

std::string amountText(std::int64_t cents) {
    std::string const rest = std::to_string(cents % kCentsOfOne);
    return std::to_string(cents / kCentsOfOne) + (rest.size() == 1 ? ".0" : ".") + rest;
}

}  // namespace storefront
