#ifndef TALLOWIN_SANDBOX_SERVICE_PAYMENTMOVES_H
#define TALLOWIN_SANDBOX_SERVICE_PAYMENTMOVES_H

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/service/services.h"

namespace sandbox {

/// Moves the payment from one of the states `from` to `to`, and notifies its merchant when a NOTIFYADDRESS was given.
/// An authorised payment lapses after DEFAULTVALIDITY, in seconds. False, with nothing changed, when it is in none of
/// them.
bool movePayment(Services const& services, Payment const& payment, std::vector<PaymentState> const& from,
                 PaymentState to, std::string const& note);

/// Moves the opened payment to "pending", and after `seconds` to `to`; the merchant is notified then. False, with
/// nothing changed, when it is not opened.
bool suspendPayment(Services const& services, Payment const& payment, PaymentState to, std::string const& note,
                    double seconds);

/// Makes the moves that are due: pending payments get their outcome, authorisations lapse. False when none is.
bool makeDueMoves(Services const& services);

/// How many seconds an authorisation of the payment is valid; nothing when DEFAULTVALIDITY is no number of at most ten
/// digits: it never lapses then.
std::optional<std::int64_t> validityOf(Payment const& payment);

/// The last second in which the payment can be decided; long past when it names none that can be read.
std::time_t expirationOf(Payment const& payment);

/// Whether the time to decide on the payment has passed.
bool isOverdue(Services const& services, Payment const& payment);

/// Expires an undecided payment whose time has passed. True when it is undecided and in time.
bool expireWhenOverdue(Services const& services, Payment const& payment);

/// Expires undecided payments whose time has passed, some of them. True when there may be more.
bool expireSomeOverdue(Services const& services);

/// Makes all moves that are due and expires all overdue payments, so that a list shows payments as they are now.
void bringUpToDate(Services const& services);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_PAYMENTMOVES_H
