#ifndef TALLOWIN_SANDBOX_SERVICE_CONFIRMATION_H
#define TALLOWIN_SANDBOX_SERVICE_CONFIRMATION_H

#include <optional>
#include <string>
#include <vector>

#include "sandbox/faults/fault.h"
#include "sandbox/service/services.h"
#include "sandbox/store/rows.h"
#include "sandbox/text/paymessage.h"

/// Confirmations, which report the result of a payment to its merchant, and faults of payments: messages that say
/// something wrong and are signed rightly, and outcomes of another kind.
namespace sandbox {

/// A fault and what it needs to happen.
struct FaultEffect {
    std::optional<Fault> m_Fault = {};
    std::optional<Payment> m_Other = {};  ///< Of `replay` and `swap`: the payment that the message is about instead.

    [[nodiscard]] bool is(FaultKind kind) const { return m_Fault && m_Fault->m_Kind == kind; }
};

/// Takes the oldest fault that is armed for such an exchange about `payment`, which is null when it names none, that
/// can happen to it, and that `allowed` admits unless that is empty. Appends a step for each that cannot happen.
FaultEffect takeFault(Services const& services, ExchangeKind exchange, std::string const& order,
                      std::string const& account, Payment const* payment, std::vector<CheckStep>& steps,
                      FaultRegistry::CanHappen const& allowed = nullptr);

/// `message`, about `payment`, with the attribute that the fault makes wrong; the same message for a fault that makes
/// none wrong. An attribute that is missing is added.
Message withWrongContent(FaultEffect const& effect, Payment const& payment, Message const& message);

/// The RESULT that the shopper's decision on `payment` had, or its expiration.
PaymentState decidedState(Payment const& payment);

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
