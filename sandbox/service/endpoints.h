#ifndef TALLOWIN_SANDBOX_SERVICE_ENDPOINTS_H
#define TALLOWIN_SANDBOX_SERVICE_ENDPOINTS_H

#include <optional>
#include <string>

#include "sandbox/http/httpmessages.h"
#include "sandbox/service/confirmation.h"
#include "sandbox/service/services.h"
#include "sandbox/store/rows.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/paymessage.h"

/// The addresses of the protocol.
namespace sandbox {

/// One request to an address of the protocol while it is handled. What it holds is parsed and read from the store once,
/// at the beginning.
struct RequestContext {
    Services const& m_Services;  ///< Borrowed, as are the next two.
    HttpRequest const& m_Request;
    Exchange& m_Exchange;                        ///< Filled in by each check that the request passes.
    Query m_Form;                                ///< The fields of a posted form.
    std::optional<std::string> m_Data = {};      ///< DATA of the query, decoded; empty when it is missing.
    std::optional<Message> m_Message = {};       ///< The message in DATA.
    std::optional<HttpError> m_Unreadable = {};  ///< Why there is no message. Thrown where one of the two is needed.
    FaultEffect m_Effect = {};                   ///< Of the fault that applies to the request.

    /// The merchant's key that KEYID of a signed message names.
    std::optional<MerchantKey> m_Signer = {};

    /// The payment that a form names, or TOKEN to the capture service; without its history.
    std::optional<StoredPayment> m_Payment = {};
};

/// A message whose signature has been verified. Borrows from the context it came from.
struct SignedMessage {
    Message const& m_Message;
    std::string const& m_Text;  ///< The message as it was signed.
    std::string m_Account;      ///< Owner of the key that signed it.
};

/// DATA of the request, and the message in it. Both throw HttpError when there is none.
std::string const& requireData(RequestContext const& context);
Message const& requireMessage(RequestContext const& context);

/// Verifies the signature of the message in DATA with the merchant key that KEYID names. Throws HttpError with the
/// first thing that is wrong.
SignedMessage openSignedMessage(RequestContext const& context);

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
