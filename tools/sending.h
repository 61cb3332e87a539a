/// Messages that are sent to the service, and their responses.
#ifndef TALLOWIN_TOOLS_SENDING_H
#define TALLOWIN_TOOLS_SENDING_H

#include <cstdint>

#include "tools/session.h"
#include "tools/toolobjects.h"

namespace tool {

/// Raises a ToolFailure unless `code` is KVX_OK; it says so when the service may have carried the request out all the
/// same.
void requireSent(std::int32_t code, char const* doing);

/// Sends `message` as a request of its type and reports the attributes of the response.
void sendAndReport(Session& session, MessageObject const& message);

}  // namespace tool

#endif
