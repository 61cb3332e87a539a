#ifndef TALLOWIN_EXAMPLES_SHOP_CALLLOG_H
#define TALLOWIN_EXAMPLES_SHOP_CALLLOG_H

#include <string>
#include <vector>

namespace storefront {

/// A call of the library, as the order's page and error pages list it.
struct LibraryCall {
    std::string m_Function;
    std::string m_Result;  ///< Result code and its text.
};

/// Library calls, oldest first.
using CallLog = std::vector<LibraryCall>;

}  // namespace storefront

#endif
