#ifndef TALLOWIN_SANDBOX_CONTROL_CONTROLGUARDS_H
#define TALLOWIN_SANDBOX_CONTROL_CONTROLGUARDS_H

#include "sandbox/http/httpmessages.h"

/// What keeps pages of other sites, open in the same browser as the service, from using it.
namespace sandbox {

/// Throws HttpError (403) when the request names another host than this machine. A browser that was led here by a name
/// which somebody else points at 127.0.0.1 sends that name, and would let the pages of that name read the answers. A
/// request without a Host is none of a browser.
void refuseForeignHost(HttpRequest const& request);

/// Throws HttpError (415) when the body is not declared as JSON. A page may have a browser post forms and plain text to
/// any site; for JSON the browser asks that site first, which is never allowed here. The same holds for the method
/// DELETE, so that needs no check.
void requireJson(HttpRequest const& request);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CONTROL_CONTROLGUARDS_H
