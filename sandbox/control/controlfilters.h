#ifndef TALLOWIN_SANDBOX_CONTROL_CONTROLFILTERS_H
#define TALLOWIN_SANDBOX_CONTROL_CONTROLFILTERS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/store/rows.h"
#include "sandbox/text/wiretext.h"

/// The conditions in the query of a request for a list. All throw HttpError (400) for a value that cannot be read and
/// for a name that is not known, with the names that are.
namespace sandbox {

/// Rows of a response when the query has no limit, and the largest limit.
inline constexpr std::int64_t kDefaultRows = 100;
inline constexpr std::int64_t kMaxRows = 1000;

/// A page ends after the row with which it has so much of stored requests and responses.
inline constexpr std::size_t kMaxListedBytes = std::size_t{1024} * 1024;

/// A list with its page.
struct ListQuery {
    Filter m_Filter;
    Page m_Page;
};

ListQuery readPaymentQuery(Query const& query);
ListQuery readExchangeQuery(Query const& query);

/// The conditions on exchanges that are to be removed: no limit.
ListQuery readRemovalQuery(Query const& query);

/// The conditions of a list that is exported whole.
Filter readExportQuery(Query const& query);

/// Throws HttpError when the query has a name that is not `known`.
void refuseUnknown(Query const& query, std::vector<std::string> const& known);

/// The one condition of other lists.
std::optional<std::string> readAccount(Query const& query);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CONTROL_CONTROLFILTERS_H
