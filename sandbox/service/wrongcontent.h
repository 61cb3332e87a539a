#ifndef TALLOWIN_SANDBOX_SERVICE_WRONGCONTENT_H
#define TALLOWIN_SANDBOX_SERVICE_WRONGCONTENT_H

#include <optional>
#include <vector>

#include "sandbox/faults/fault.h"
#include "sandbox/service/services.h"
#include "sandbox/store/rows.h"
#include "sandbox/text/paymessage.h"

/// Faults of payments: messages that say something wrong and are signed rightly, and outcomes of another kind.
namespace sandbox {

/// A fault and what it needs to happen.
struct FaultEffect {
    std::optional<Fault> m_Fault = {};
    std::optional<Payment> m_Other = {};  ///< Of `replay` and `swap`: the payment that the message is about instead.

    [[nodiscard]] bool is(FaultKind kind) const { return m_Fault && m_Fault->m_Kind == kind; }
};

/// Whether `fault` can happen to an exchange of this kind about `payment`, which is null when it names none. Sets
/// `other` for `replay` and `swap`. Appends a step that says why it cannot.
bool canHappen(Services const& services, Fault const& fault, ExchangeKind exchange, Payment const* payment,
               std::optional<Payment>& other, std::vector<CheckStep>& steps);

/// `message`, about `payment`, with the attribute that the fault makes wrong; the same message for a fault that makes
/// none wrong. An attribute that is missing is added.
Message withWrongContent(FaultEffect const& effect, Payment const& payment, Message const& message);

/// The RESULT that the shopper's decision on `payment` had, or its expiration.
PaymentState decidedState(Payment const& payment);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_WRONGCONTENT_H
