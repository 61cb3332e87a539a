#ifndef TALLOWIN_SANDBOX_SERVICE_SIGNEDMESSAGE_H
#define TALLOWIN_SANDBOX_SERVICE_SIGNEDMESSAGE_H

#include <string>

#include "sandbox/service/requestcontext.h"
#include "sandbox/text/paymessage.h"

namespace sandbox {

/// A message whose signature has been verified. Borrows from the context it came from.
struct SignedMessage {
    Message const& m_Message;
    std::string const& m_Text;  ///< The message as it was signed.
    std::string m_Account;      ///< Owner of the key that signed it.
};

/// DATA of the request. Throws HttpError when it is missing or cannot be decoded.
std::string const& requireData(RequestContext const& context);

/// Verifies the signature of the message in DATA with the merchant key that KEYID names. Throws HttpError with the
/// first thing that is wrong.
SignedMessage openSignedMessage(RequestContext const& context);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_SIGNEDMESSAGE_H
