#ifndef TALLOWIN_SANDBOX_FAULTS_EXCHANGEKIND_H
#define TALLOWIN_SANDBOX_FAULTS_EXCHANGEKIND_H

#include <optional>
#include <string>
#include <vector>

namespace sandbox {

/// What passes between the service and the other sides. Every value is a bit, so that sets of them can be told. The
/// names are kept in the database and used by the control API: do not change them.
enum class ExchangeKind : unsigned {
    Setup = 1U << 0U,
    Defaults = 1U << 1U,
    KeyQuery = 1U << 2U,
    KeyExport = 1U << 3U,
    Page = 1U << 4U,          ///< The shopper opens the payment page.
    Decision = 1U << 5U,      ///< The shopper's answer, and the way back to the shop with the confirmation.
    Notification = 1U << 6U,  ///< The confirmation as the service sends it to the merchant's NOTIFYADDRESS.
    Capture = 1U << 7U,
    Complete = 1U << 8U,
    Status = 1U << 9U,
    Proxy = 1U << 10U,       ///< A request to the proxy.
    Connection = 1U << 11U,  ///< A connection before its request is read.
    Other = 1U << 12U,       ///< A request to an address of the protocol that is none of the above.
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
