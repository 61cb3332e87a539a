#ifndef TALLOWIN_EXAMPLES_SHOP_RANDOMHEX_H
#define TALLOWIN_EXAMPLES_SHOP_RANDOMHEX_H

#include <cstddef>
#include <iomanip>
#include <random>
#include <sstream>
#include <string>

namespace storefront {

/// Random lower-case hexadecimal digits, eight for each of `words`; not guessable.
inline std::string randomHex(std::size_t words) {
    std::random_device source;
    std::ostringstream out;
    out << std::hex << std::setfill('0');
    for (std::size_t word = 0; word < words; ++word) {
        out << std::setw(8) << source();
    }
    return out.str();
}

}  // namespace storefront

#endif
