#ifndef TALLOWIN_SANDBOX_SERVICE_REQUESTCONTEXT_H
#define TALLOWIN_SANDBOX_SERVICE_REQUESTCONTEXT_H

#include <optional>
#include <string>

#include "sandbox/http/httpmessages.h"
#include "sandbox/service/services.h"
#include "sandbox/service/wrongcontent.h"
#include "sandbox/store/exchange.h"
#include "sandbox/text/parsed.h"
#include "sandbox/text/paymessage.h"

namespace sandbox {

/// One request to an address of the protocol while it is handled. What it holds is parsed and read from the store once,
/// at the beginning.
struct RequestContext {
    Services const& m_Services;  ///< Borrowed, as are the next two.
    HttpRequest const& m_Request;
    Exchange& m_Exchange;        ///< Filled in by each check that the request passes.
    Query m_Form;                ///< The fields of a posted form.
    Parsed<std::string> m_Data;  ///< DATA of the query, decoded; empty when it is missing.
    Parsed<Message> m_Message;   ///< The message in DATA.
    FaultEffect m_Effect;        ///< Of the fault that applies to the request.

    /// The merchant's key that KEYID of a signed message names.
    std::optional<MerchantKey> m_Signer = {};

    /// The payment that a form names, or TOKEN to the capture service; without its history.
    std::optional<StoredPayment> m_Payment = {};
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_REQUESTCONTEXT_H
