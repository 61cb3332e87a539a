/// The baskets of all visitors.
#ifndef TALLOWIN_EXAMPLES_SHOP_BASKETS_H
#define TALLOWIN_EXAMPLES_SHOP_BASKETS_H

#include <map>
#include <mutex>
#include <string>

#include "catalogue.h"

namespace storefront {

/// The largest quantity of one article in a basket.
constexpr int kMaxQuantity = 99;

/// Reads a whole number from 0 to kMaxQuantity. Throws RequestError for any other text.
int readQuantity(std::string const& text);

/// The baskets, by visitor. Any thread may call any function at any time.
///
/// The shop never deletes a basket. A public shop would delete old ones.
class Baskets {
public:
    /// Creates an empty basket. Returns a new visitor id, which is not guessable.
    std::string open();

    /// Whether open() returned this visitor id.
    [[nodiscard]] bool knows(std::string const& visitor) const;

    /// The basket's content; empty for an unknown visitor.
    [[nodiscard]] Quantities of(std::string const& visitor) const;

    /// Adds `quantity` of an article. Throws RequestError and changes nothing when the article does not exist or its
    /// quantity would exceed kMaxQuantity. Requires: knows(visitor).
    void add(std::string const& visitor, std::string const& article, int quantity);

    /// Sets the quantities of the given articles; 0 removes an article. Requires: knows(visitor), articles of the
    /// catalogue, 0 to kMaxQuantity each.
    void set(std::string const& visitor, Quantities const& quantities);

    /// Empties the basket when its content is still exactly `bought`. A basket that has changed stays as it is.
    void emptyAfter(std::string const& visitor, Quantities const& bought);

private:
    mutable std::mutex m_Mutex;
    std::map<std::string, Quantities> m_Contents;  ///< By visitor. Guarded by m_Mutex.
};

}  // namespace storefront

#endif
