#ifndef TALLOWIN_SANDBOX_CONTROL_CONTROLGUARDS_H
#define TALLOWIN_SANDBOX_CONTROL_CONTROLGUARDS_H

#include "sandbox/http/httpmessages.h"

/// Protection from pages of other sites that are open in the same browser.
namespace sandbox {

/// Throws HttpError (403) when the Host header names another host than this machine. A foreign name that resolves
/// to 127.0.0.1 would let pages of that site read the responses; a browser sends that name as Host. Requests without
/// Host are accepted: browsers always send one.
void refuseForeignHost(HttpRequest const& request);

/// Throws HttpError (415) when the content type is not JSON. A page of another site can post forms and plain text
/// anywhere, but for JSON the browser sends a preflight request first, which is never granted here. The same applies to
/// the method DELETE, so it needs no check.
void requireJson(HttpRequest const& request);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CONTROL_CONTROLGUARDS_H
