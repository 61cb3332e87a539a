/// A failure as members of the JSON.
#ifndef TALLOWIN_TOOLS_FAILUREREPORT_H
#define TALLOWIN_TOOLS_FAILUREREPORT_H

#include "tools/session.h"
#include "tools/toolfailure.h"

namespace tool {

/// The member "error": text, code, name, meaning, reason, as far as there are any.
Json jsonOf(ToolFailure const& failure);

}  // namespace tool

#endif
