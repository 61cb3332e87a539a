#ifndef TALLOWIN_SANDBOX_SERVICE_CONFIRMATION_H
#define TALLOWIN_SANDBOX_SERVICE_CONFIRMATION_H

#include <string>

#include "sandbox/service/services.h"
#include "sandbox/service/wrongcontent.h"
#include "sandbox/store/rows.h"
#include "sandbox/text/paymessage.h"

/// Confirmations: what the service signs to report the result of a payment to its merchant.
namespace sandbox {

/// The MSGTYPE of a confirmation.
inline constexpr char kConfirmationType[] = "PayConfirm";

/// The MSGTYPE of a message whose type is to be wrong.
inline constexpr char kUnexpectedType[] = "Unexpected";

/// The message that confirms `payment` to its merchant, with `result` as its RESULT and the current key as its KEYID.
Message confirmation(Services const& services, Payment const& payment, std::string const& result);

/// The same with any KEYID and any MSGTYPE.
Message confirmationBy(std::string const& keyId, std::string const& type, Payment const& payment,
                       std::string const& result);

/// The confirmation, signed, as the query of a link: "DATA=...&SIGNATURE=...". `effect` may make it wrong.
std::string signedConfirmation(Services const& services, Payment const& payment, std::string const& result,
                               FaultEffect const& effect);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_CONFIRMATION_H
