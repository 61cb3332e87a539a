#ifndef TALLOWIN_EXAMPLES_SHOP_BASKETS_H
#define TALLOWIN_EXAMPLES_SHOP_BASKETS_H

#include <map>
#include <mutex>
#include <string>

#include "catalogue.h"

namespace storefront {

/// The most of one article that a basket takes.
constexpr int kMaxQuantity = 99;

/// A whole number from 0 to kMaxQuantity. Throws RequestError for every other text.
int readQuantity(std::string const& text);

/// What the visitors want to buy. All functions may be called by any thread at any time.
///
/// Deliberate: a basket lives as long as the shop. A shop for the world would forget old ones.
class Baskets {
public:
    /// A new visitor with an empty basket. Returns the name under which only this visitor's browser knows it.
    std::string open();

    /// Whether `visitor` came from open().
    [[nodiscard]] bool knows(std::string const& visitor) const;

    /// The content; empty for an unknown visitor.
    [[nodiscard]] Quantities of(std::string const& visitor) const;

    /// Puts some more of an article in. Throws RequestError and changes nothing when there is no such article, or more
    /// than kMaxQuantity of it would be in. Requires: knows(visitor).
    void add(std::string const& visitor, std::string const& article, int quantity);

    /// Sets the quantities of the articles that are named; 0 takes them out. Requires: knows(visitor), articles of the
    /// catalogue, 0 to kMaxQuantity each.
    void set(std::string const& visitor, Quantities const& quantities);

    /// Takes everything out of a basket that still holds exactly `bought`. One that was changed meanwhile stays.
    void emptyAfter(std::string const& visitor, Quantities const& bought);

private:
    mutable std::mutex m_Mutex;
    std::map<std::string, Quantities> m_Contents;  ///< By visitor. Guarded by m_Mutex.
};

}  // namespace storefront

#endif
