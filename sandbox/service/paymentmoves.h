#ifndef TALLOWIN_SANDBOX_SERVICE_PAYMENTMOVES_H
#define TALLOWIN_SANDBOX_SERVICE_PAYMENTMOVES_H

#include <ctime>
#include <string>
#include <vector>

#include "sandbox/service/services.h"

namespace sandbox {

/// Moves the payment from one of the states `from` to `to`, and notifies its merchant when a NOTIFYADDRESS was given.
/// False, with nothing changed, when it is in none of them.
bool movePayment(Services const& services, Payment const& payment, std::vector<PaymentState> const& from,
                 PaymentState to, std::string const& note);

/// The last second in which the payment can be decided; long past when it names none that can be read.
std::time_t expirationOf(Payment const& payment);

/// Whether the time to decide on the payment has passed.
bool isOverdue(Services const& services, Payment const& payment);

/// Expires an undecided payment whose time has passed. True when it is undecided and in time.
bool expireWhenOverdue(Services const& services, Payment const& payment);

/// All payments, oldest first, as they are now.
std::vector<Payment> presentPayments(Services const& services);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_PAYMENTMOVES_H
