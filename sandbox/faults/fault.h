#ifndef TALLOWIN_SANDBOX_FAULTS_FAULT_H
#define TALLOWIN_SANDBOX_FAULTS_FAULT_H

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
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

/// The kinds of faults. allFaultKinds() describes each.
enum class FaultKind {
    kRefuse,
    kTlsExpired,
    kTlsWrongHost,
    kTlsUnknownAuthority,
    kTlsAbort,
    kProxyAuthentication,
    kHttpStatus,
    kError,
    kReset,
    kDrop,
    kDelay,
    kStallBefore,
    kStallInside,
    kBytewise,
    kTruncate,
    kNoBlankLine,
    kNulBytes,
    kTwice,
    kHuge,
    kWrongType,
    kWrongSignature,
    kWrongKey,
    kStaleKey,
    kWrongAmount,
    kWrongCurrency,
    kWrongOrder,
    kWrongToken,
    kWrongResult,
    kReplay,
    kSwap,
    kPending,
    kRefuseCapture,
};

/// A fault that is to happen, and to whom.
struct Fault {
    FaultKind m_Kind = FaultKind::kDrop;
    std::optional<ExchangeKind> m_Exchange = {};   ///< Nothing: any that the kind can happen to.
    std::string m_Account = {};                    ///< Of the merchant; empty: any, or none.
    std::string m_Order = {};                      ///< ORDERID of the payment; empty: any, or none.
    std::int64_t m_Times = 1;                      ///< How often; 0: until it is lifted.
    std::int64_t m_Skip = 0;                       ///< How many exchanges that fit pass before it happens.
    std::optional<double> m_Seconds = {};          ///< How long, of the kinds that take time.
    std::optional<std::int64_t> m_Bytes = {};      ///< How much of the response comes before it.
    std::optional<int> m_Status = {};              ///< HTTP status.
    std::optional<std::string> m_Text = {};        ///< Text of the response.
    std::optional<std::int64_t> m_Megabytes = {};  ///< Size of the response.
};

/// The parameters of a fault, as bits of a set.
enum FaultParameter : unsigned {
    kTakesSeconds = 1U << 0U,
    kTakesBytes = 1U << 1U,
    kTakesStatus = 1U << 2U,
    kTakesText = 1U << 3U,
    kTakesMegabytes = 1U << 4U,
};

/// One kind of fault, as it is named and described to people.
struct FaultKindRow {
    FaultKind m_Kind;
    char const* m_Name;
    unsigned m_Exchanges;   ///< The ExchangeKind values it can happen to.
    unsigned m_Parameters;  ///< Of FaultParameter.
    bool m_CarriedOut;      ///< Whether the request is carried out, so that a payment moves on.
    char const* m_Meaning;
};

/// All kinds, in the order in which people should read them.
std::vector<FaultKindRow> const& allFaultKinds();

FaultKindRow const& faultRow(FaultKind kind);

/// The set of one kind of exchanges.
constexpr unsigned bit(ExchangeKind kind) {
    return static_cast<unsigned>(kind);
}

/// Whether the kind of fault can happen to an exchange.
inline bool happensTo(FaultKindRow const& row, ExchangeKind kind) {
    return (row.m_Exchanges & bit(kind)) != 0;
}

/// The value of the parameter, or what stands for it when it is not given.
double secondsOf(Fault const& fault);
int statusOf(Fault const& fault);
std::string textOf(Fault const& fault);
std::int64_t megabytesOf(Fault const& fault);

/// Throws HttpError when the fault cannot happen: a kind on an exchange that has no such thing, a parameter that the
/// kind does not take, a number out of its range.
void checkFault(Fault const& fault);

/// The names of the exchanges that the kind can happen to, and of the parameters that it takes.
std::vector<std::string> exchangeNames(FaultKindRow const& row);
std::vector<std::string> parameterNames(FaultKindRow const& row);

/// The type of a detail where types are distinguished.
enum class FaultFieldType { kText, kWhole, kNumber };

/// One detail of a fault, as it is named and read everywhere.
struct FaultFieldRow {
    char const* m_Name;
    FaultFieldType m_Type;
    char const* m_Label;  ///< For the field of a form.

    /// Sets the detail. Throws HttpError.
    void (*m_Read)(Fault& fault, std::string const& name, std::string const& value);
};

/// All details but the kind, in the order in which people should see them.
std::vector<FaultFieldRow> const& allFaultFields();

/// Names and values of a fault's details in the form that parseFault() reads.
using FaultFields = std::vector<std::pair<std::string, std::string>>;

/// The fault of the kind that is named `kind` with these details. Throws HttpError.
Fault makeFault(std::string const& kind, FaultFields const& fields);

/// Reads "kind,name=value,...", as in "truncate,exchange=capture,order=A-1,bytes=40"; times may be "always". A value
/// holds no comma, but that of text, which goes to the end. Throws HttpError.
Fault parseFault(std::string const& text);

/// The form that parseFault() reads, with every parameter that was given.
std::string faultText(Fault const& fault);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_FAULTS_FAULT_H
