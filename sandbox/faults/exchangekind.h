#ifndef TALLOWIN_SANDBOX_FAULTS_EXCHANGEKIND_H
#define TALLOWIN_SANDBOX_FAULTS_EXCHANGEKIND_H

#include <optional>
#include <string>
#include <vector>

namespace sandbox {

/// The kinds of exchanges between the service and its clients. Every value is a bit, so that a number is a set of them.
/// The names are kept in the database and used by the control API: do not change them.
enum class ExchangeKind : unsigned {
    kSetup = 1U << 0U,
    kDefaults = 1U << 1U,
    kKeyQuery = 1U << 2U,
    kKeyExport = 1U << 3U,
    kPage = 1U << 4U,          ///< The shopper opens the payment page.
    kDecision = 1U << 5U,      ///< The shopper's decision, and the return link with the confirmation.
    kNotification = 1U << 6U,  ///< The confirmation as the service sends it to the merchant's NOTIFYADDRESS.
    kCapture = 1U << 7U,
    kComplete = 1U << 8U,
    kStatus = 1U << 9U,
    kProxy = 1U << 10U,       ///< A request to the proxy.
    kConnection = 1U << 11U,  ///< A connection before its request is read.
    kOther = 1U << 12U,       ///< A request to an address of the protocol that is none of the above.
};

/// The lower-case name of `kind`: "setup", "defaults", "keyquery", "keyexport", "page", "decision", "notification",
/// "capture", "complete", "status", "proxy", "connection", "other".
char const* exchangeName(ExchangeKind kind);

/// The kind of that name; nothing for any other text.
std::optional<ExchangeKind> exchangeFromName(std::string const& name);

/// All kinds in the order of their values.
std::vector<ExchangeKind> allExchangeKinds();

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_FAULTS_EXCHANGEKIND_H
