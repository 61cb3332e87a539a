#ifndef TALLOWIN_SANDBOX_SERVICE_PAYMENTMOVES_H
#define TALLOWIN_SANDBOX_SERVICE_PAYMENTMOVES_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/service/confirmation.h"
#include "sandbox/service/services.h"
#include "sandbox/store/rows.h"

/// Moves of payments: by decisions of the shopper's form, of the control API and of standing decisions, and by time.
namespace sandbox {

/// Makes the moves that are due: pending payments get their outcome, authorisations lapse. False when none is.
bool makeDueMoves(Services const& services);

/// How many seconds an authorisation of the payment is valid; nothing when DEFAULTVALIDITY is no number of at most ten
/// digits: it never lapses then.
std::optional<std::int64_t> validityOf(Payment const& payment);

/// Expires an undecided payment whose time has passed. True when it is undecided and in time.
bool expireWhenOverdue(Services const& services, Payment const& payment);

/// Expires undecided payments whose time has passed, some of them. True when there may be more.
bool expireSomeOverdue(Services const& services);

/// Makes all moves that are due and expires all overdue payments, so that a list shows payments as they are now.
void bringUpToDate(Services const& services);

/// What can be decided, the state it leads to, and the attribute of the PayInit that holds the return link.
struct Decision {
    char const* m_Name;
    PaymentState m_State;
    char const* m_Link;
};

/// "pay", "decline" and "cancel".
std::vector<Decision> const& allDecisions();

/// The decision of that name. Throws HttpError.
Decision const& namedDecision(std::string const& name);

/// The decision that was made on a payment, and the RESULT of its confirmation.
struct Outcome {
    Decision const* m_Decision;  ///< Of allDecisions(), or that of a payment which expired.
    PaymentState m_Result;
};

/// The outcome of a payment that is in another state than opened.
Outcome outcomeOf(Services const& services, Payment const& payment);

/// The state of the payment as it is now, after all moves that are due.
PaymentState presentState(Services const& services, Payment const& payment);

/// Applies the decision when it comes in time, and returns the outcome that holds. The same decision again is harmless.
/// Nothing when the payment was decided otherwise. `by` begins the note in the history. Sets the state of `payment`.
std::optional<Outcome> decide(Services const& services, FaultEffect const& effect, Payment& payment,
                              Decision const& decision, std::string const& by);

/// The confirmation of a decided payment on its way back to the shop.
struct ReturnedConfirmation {
    std::string m_Link;   ///< The return link with the confirmation; empty when the merchant gave none.
    std::string m_Query;  ///< "DATA=...&SIGNATURE=...".
};

ReturnedConfirmation returnedConfirmation(Services const& services, FaultEffect const& effect, Payment const& payment,
                                          Outcome const& outcome);

/// Takes the oldest fault that is armed for the decision on `payment` and makes its message or its outcome wrong.
/// Faults of connections and of HTTP stay armed: there is no response of that kind.
FaultEffect takeDecisionFault(Services const& services, Payment const& payment, std::vector<CheckStep>& steps);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_PAYMENTMOVES_H
