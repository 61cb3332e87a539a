#ifndef TALLOWIN_SANDBOX_FAULTS_FAULT_H
#define TALLOWIN_SANDBOX_FAULTS_FAULT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sandbox/faults/exchangekind.h"

namespace sandbox {

/// What can be made to go wrong. The table of all of them is allFaultKinds().
enum class FaultKind {
    Refuse,
    TlsExpired,
    TlsWrongHost,
    TlsUnknownAuthority,
    TlsAbort,
    ProxyAuthentication,
    HttpStatus,
    Error,
    Reset,
    Drop,
    Delay,
    StallBefore,
    StallInside,
    Bytewise,
    Truncate,
    NoBlankLine,
    NulBytes,
    Twice,
    Huge,
    WrongType,
    WrongSignature,
    WrongKey,
    StaleKey,
};

/// A fault that is to happen, and to whom.
struct Fault {
    FaultKind kind = FaultKind::Drop;
    std::optional<ExchangeKind> exchange = {};   ///< Nothing: any that the kind can happen to.
    std::string order = {};                      ///< ORDERID of the payment; empty: any, or none.
    std::int64_t times = 1;                      ///< How often; 0: until it is lifted.
    std::optional<double> seconds = {};          ///< How long, of the kinds that take time.
    std::optional<std::int64_t> bytes = {};      ///< How much of the answer comes before it.
    std::optional<int> status = {};              ///< HTTP status.
    std::optional<std::string> text = {};        ///< What the answer says.
    std::optional<std::int64_t> megabytes = {};  ///< Size of the answer.
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
    FaultKind kind;
    char const* name;
    unsigned exchanges;   ///< The ExchangeKind values it can happen to.
    unsigned parameters;  ///< Of FaultParameter.
    bool carriedOut;      ///< Whether the service does what it was asked, so that a payment moves on.
    char const* meaning;
};

/// All kinds, in the order in which people should read them.
std::vector<FaultKindRow> const& allFaultKinds();

FaultKindRow const& faultRow(FaultKind kind);

/// The kind of that name; nothing for any other text.
std::optional<FaultKind> faultFromName(std::string_view name);

/// The value of the parameter, or what stands for it when it is not given.
double secondsOf(Fault const& fault);
int statusOf(Fault const& fault);
std::string textOf(Fault const& fault);
std::int64_t megabytesOf(Fault const& fault);

/// Throws Refusal when the fault cannot happen: a kind on an exchange that has no such thing, a parameter that the kind
/// does not take, a number out of its range.
void checkFault(Fault const& fault);

/// The names of the exchanges that the kind can happen to, and of the parameters that it takes.
std::vector<std::string> exchangeNames(FaultKindRow const& row);
std::vector<std::string> parameterNames(FaultKindRow const& row);

/// Names and values of a fault's details in the form that parseFault() reads.
using FaultFields = std::vector<std::pair<std::string, std::string>>;

/// The fault of the kind that is named `kind` with these details. Throws Refusal.
Fault makeFault(std::string const& kind, FaultFields const& fields);

/// Reads "kind,name=value,...": the names are exchange, order, times (a number or "always"), seconds, bytes, status,
/// text, megabytes; "truncate,exchange=capture,order=A-1,bytes=40". A value holds no comma, but that of text, which
/// goes to the end. Throws Refusal.
Fault parseFault(std::string const& text);

/// The form that parseFault() reads, with every parameter that was given.
std::string faultText(Fault const& fault);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_FAULTS_FAULT_H
