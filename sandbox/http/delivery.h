#ifndef TALLOWIN_SANDBOX_HTTP_DELIVERY_H
#define TALLOWIN_SANDBOX_HTTP_DELIVERY_H

#include <optional>
#include <string>

#include "sandbox/faults/fault.h"
#include "sandbox/http/connection.h"

namespace sandbox {

/// Sends `response`, head and body, the way `fault` wants it. Faults that change what a response says are ignored
/// here. Waits end early when the client goes or the service stops.
void deliver(Connection& connection, std::string const& response, std::optional<Fault> const& fault);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_DELIVERY_H
