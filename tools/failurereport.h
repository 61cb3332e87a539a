/// A failure as members of the JSON.
#ifndef TALLOWIN_TOOLS_FAILUREREPORT_H
#define TALLOWIN_TOOLS_FAILUREREPORT_H

#include <string>

#include "tools/session.h"
#include "tools/toolfailure.h"

namespace tool {

/// The library's reason for `failure`, with the path or the address and the words of the system or the service; empty
/// when the tool found the failure. Requires: no call of the library has failed in this thread since.
std::string reasonOf(ToolFailure const& failure);

/// The member "error": text, code, name, meaning, reason, as far as there are any.
Json jsonOf(ToolFailure const& failure);

}  // namespace tool

#endif
