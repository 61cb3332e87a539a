#ifndef TALLOWIN_SANDBOX_STORE_STORELAYOUT_H
#define TALLOWIN_SANDBOX_STORE_STORELAYOUT_H

#include <string>

#include "sandbox/store/database.h"

namespace sandbox {

/// Creates the tables in an empty file, and makes exchanges of the requests that an earlier process began and did not
/// finish; all in one transaction. A file of another layout throws std::runtime_error; `path` stands in its text.
void prepareTables(Database& database, std::string const& path);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_STORE_STORELAYOUT_H
