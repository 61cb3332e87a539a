#ifndef TALLOWIN_SANDBOX_SERVICE_SERVICES_H
#define TALLOWIN_SANDBOX_SERVICE_SERVICES_H

#include <optional>
#include <string>

#include "sandbox/faults/faultregistry.h"
#include "sandbox/http/httpmessages.h"
#include "sandbox/service/keyring.h"
#include "sandbox/service/serviceclock.h"
#include "sandbox/store/store.h"

namespace sandbox {

class Notifier;

/// The MSGTYPE of a confirmation.
inline constexpr char kConfirmationType[] = "PayConfirm";

/// The MSGTYPE of a message whose type is to be wrong.
inline constexpr char kUnexpectedType[] = "Unexpected";

/// Where the service listens: base addresses without a slash at the end, empty where it does not.
struct Addresses {
    std::string m_Plain;
    std::string m_Tls;
    std::string m_Control;  ///< Plain HTTP, never touched by faults.
    std::string m_Proxy;
};

/// What every part of the service works on, shared by all threads.
struct Services {
    Store& m_Store;
    KeyRing& m_Keys;
    FaultRegistry& m_Faults;
    ServiceClock& m_Clock;
    Addresses const& m_Addresses;
    Notifier& m_Notifier;
    std::string const& m_FormKey;  ///< Must come back with every form of the dashboard.
};

/// One request while it is answered.
struct RequestContext {
    Services const& m_Services;
    HttpRequest const& m_Request;
    Exchange& m_Exchange;                 ///< Tells in the end what had been read and found so far.
    std::optional<Fault> const& m_Fault;  ///< What is to go wrong.
};

/// A message whose signature has been verified.
struct SignedMessage {
    Message m_Message;
    std::string m_Text;     ///< The message as it was signed.
    std::string m_Account;  ///< Owner of the key that signed it.
};

/// Takes DATA and SIGNATURE out of the query and verifies the signature with the merchant key that KEYID names. Throws
/// HttpError with the first thing that is wrong.
SignedMessage openSignedMessage(RequestContext const& context);

/// Takes DATA out of the query. Throws HttpError.
std::string takeData(RequestContext const& context);

/// A message as an answer.
HttpResponse messageResponse(std::string const& text);

/// The exchanges. Each throws HttpError for a request it turns down.
HttpResponse handleAuto(RequestContext const& context);
HttpResponse handlePay(RequestContext const& context);
HttpResponse handleDecision(RequestContext const& context);
HttpResponse handleCapture(RequestContext const& context);

/// The message that confirms `payment` to its merchant, with `result` as its RESULT, in the name of the current key.
Message confirmation(Services const& services, Payment const& payment, std::string const& result);

/// The same in the name of any key, with any MSGTYPE.
Message confirmationBy(std::string const& keyId, std::string const& type, Payment const& payment,
                       std::string const& result);

/// The confirmation, signed, as the query of a link: "DATA=...&SIGNATURE=...". `fault` may make it wrong.
std::string signedConfirmation(Services const& services, Payment const& payment, std::string const& result,
                               std::optional<Fault> const& fault);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_SERVICES_H
