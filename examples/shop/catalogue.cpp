#include "catalogue.h"

#include <iomanip>
#include <random>
#include <regex>
#include <sstream>

namespace storefront {

namespace {

constexpr std::int64_t kCentsOfOne = 100;
constexpr int kNumberGroups = 5;
constexpr std::size_t kNumberSize = 5 * kNumberGroups - 1;

}  // namespace

std::string amountText(std::int64_t cents) {
    std::string const rest = std::to_string(cents % kCentsOfOne);
    return std::to_string(cents / kCentsOfOne) + (rest.size() == 1 ? ".0" : ".") + rest;
}

std::int64_t totalCents(Quantities const& quantities) {
    std::int64_t total = 0;
    for (Article const& article : kArticles) {
        auto const found = quantities.find(article.m_Id);
        total += found == quantities.end() ? 0 : article.m_Cents * found->second;
    }
    return total;
}

std::string textOf(Quantities const& quantities) {
    std::string text;
    for (auto const& [id, quantity] : quantities) {
        text += (text.empty() ? "" : ":") + id + "." + std::to_string(quantity);
    }
    return text;
}

Quantities quantitiesIn(std::string const& text) {
    static std::regex const kLine("(candle|candlestick|mug)\\.([1-9][0-9]?)(:|$)");
    Quantities quantities;
    for (std::sregex_iterator line(text.begin(), text.end(), kLine), end; line != end; ++line) {
        quantities[line->str(1)] = std::stoi(line->str(2));
    }
    return quantities;
}

std::string newBasket(Quantities const& content) {
    std::random_device source;
    std::ostringstream out;
    out << std::hex << std::setfill('0');
    for (int group = 0; group < kNumberGroups; ++group) {
        out << (group == 0 ? "" : "-") << std::setw(4) << (source() & 0xFFFFU);
    }
    return out.str() + ":" + textOf(content);
}

Basket basketIn(std::string const& cookie) {
    static std::regex const kNumber("[0-9a-f]{4}(-[0-9a-f]{4}){4}");
    std::string const number = cookie.substr(0, kNumberSize);
    bool const isOurs = std::regex_match(number, kNumber);
    return isOurs ? Basket{number, quantitiesIn(cookie.substr(kNumberSize))} : Basket();
}

}  // namespace storefront
