#include "baskets.h"

#include <charconv>

#include "randomhex.h"
#include "requesterror.h"

namespace storefront {

namespace {

constexpr std::size_t kVisitorWords = 4;
constexpr char kUnchanged[] = "Your basket was not changed";

void put(Quantities& content, std::string const& article, int quantity) {
    content[article] = quantity;
    if (quantity == 0) {
        content.erase(article);
    }
}

}  // namespace

int readQuantity(std::string const& text) {
    int quantity = 0;
    char const* const end = text.data() + text.size();
    std::from_chars_result const read = std::from_chars(text.data(), end, quantity);
    if (read.ec != std::errc() || read.ptr != end || quantity < 0 || quantity > kMaxQuantity) {
        throw RequestError(kUnchanged,
                           "\"" + text + "\" is not a whole number from 0 to " + std::to_string(kMaxQuantity) + ".");
    }
    return quantity;
}

std::string Baskets::open() {
    std::string visitor = randomHex(kVisitorWords);
    std::lock_guard<std::mutex> const lock(m_Mutex);
    m_Contents[visitor];
    return visitor;
}

bool Baskets::knows(std::string const& visitor) const {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    return m_Contents.count(visitor) != 0;
}

Quantities Baskets::of(std::string const& visitor) const {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    auto const found = m_Contents.find(visitor);
    return found == m_Contents.end() ? Quantities() : found->second;
}

void Baskets::add(std::string const& visitor, std::string const& article, int quantity) {
    if (findArticle(article) == nullptr) {
        throw RequestError(kUnchanged, "There is no article \"" + article + "\" in this shop.");
    }
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Quantities changed = m_Contents.at(visitor);
    int const together = changed[article] + quantity;
    if (together > kMaxQuantity) {
        throw RequestError(kUnchanged, "A basket holds at most " + std::to_string(kMaxQuantity) + " of one article.");
    }
    put(changed, article, together);
    m_Contents.at(visitor).swap(changed);
}

void Baskets::set(std::string const& visitor, Quantities const& quantities) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Quantities changed = m_Contents.at(visitor);
    for (auto const& [article, quantity] : quantities) {
        put(changed, article, quantity);
    }
    m_Contents.at(visitor).swap(changed);
}

void Baskets::emptyAfter(std::string const& visitor, Quantities const& bought) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    auto const found = m_Contents.find(visitor);
    if (found != m_Contents.end() && found->second == bought) {
        found->second.clear();
    }
}

}  // namespace storefront
