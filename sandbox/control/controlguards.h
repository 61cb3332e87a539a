#ifndef TALLOWIN_SANDBOX_CONTROL_CONTROLGUARDS_H
#define TALLOWIN_SANDBOX_CONTROL_CONTROLGUARDS_H

#include <optional>
#include <string>

#include "sandbox/http/httpmessages.h"

/// Protection from pages of other sites that are open in the same browser.
namespace sandbox {

/// Throws HttpError when the request may not see control API and dashboard.
///
/// With a non-empty `token` the request must have it: in the header `Authorization: Bearer TOKEN`, or in the cookie
/// that cookieOf() sets (401). Without one the Host header must name this machine (403): a foreign name that resolves
/// to 127.0.0.1 would let pages of that site read the responses, and a browser sends that name as Host. Requests
/// without Host are accepted: browsers always send one.
void checkAccess(std::string const& token, HttpRequest const& request);

/// The cookie for a browser that was given the token in a link, `?token=TOKEN`; nothing when the request has none.
/// Throws HttpError (401) when it is another one.
std::optional<std::string> cookieOf(std::string const& token, HttpRequest const& request);

/// Throws HttpError (415) when the content type is not JSON. A page of another site can post forms and plain text
/// anywhere, but for JSON the browser sends a preflight request first, which is never granted here. The same applies to
/// the method DELETE, so it needs no check.
void requireJson(HttpRequest const& request);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CONTROL_CONTROLGUARDS_H
