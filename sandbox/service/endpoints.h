#ifndef TALLOWIN_SANDBOX_SERVICE_ENDPOINTS_H
#define TALLOWIN_SANDBOX_SERVICE_ENDPOINTS_H

#include <optional>
#include <string>

#include "sandbox/http/httpmessages.h"
#include "sandbox/service/requestcontext.h"
#include "sandbox/service/services.h"

/// The addresses of the protocol.
namespace sandbox {

/// Handles a request to one of the addresses of the protocol, applies the fault that is armed for it, and stores the
/// exchange. Nothing when the address is none of them.
std::optional<HttpResponse> handleProtocol(Services const& services, HttpRequest const& request);

/// One function for each address: `/auto`, `/pay`, `/pay/decision` and `/capture`. They throw HttpError for a request
/// that they turn down.
HttpResponse handleAuto(RequestContext const& context);
HttpResponse handlePay(RequestContext const& context);
HttpResponse handleDecision(RequestContext const& context);
HttpResponse handleCapture(RequestContext const& context);

/// A message as a response.
HttpResponse messageResponse(std::string const& text);

/// The response when the service itself has failed with `what`.
HttpResponse failureResponse(std::string const& what);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_ENDPOINTS_H
