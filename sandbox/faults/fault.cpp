// The table of fault kinds, and reading, checking and writing one fault.
// kKinds holds every kind once: name, exchanges it can happen to, parameters, meaning. makeFault() and parseFault()
// fill in a Fault field by field, then checkFault() compares it with the row of its kind: command line, control API and
// dashboard share these checks.
// Numbers are read and written in the classic locale, whatever the locale of the program.
#include "sandbox/faults/fault.h"

#include <cmath>
#include <cstddef>
#include <iterator>
#include <locale>
#include <sstream>

#include "sandbox/text/httperror.h"
#include "sandbox/text/rowwith.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

struct ExchangeRow {
    ExchangeKind m_Kind;
    char const* m_Name;
};

// clang-format off
constexpr ExchangeRow kExchanges[] = {
    {ExchangeKind::kSetup,        "setup"},
    {ExchangeKind::kDefaults,     "defaults"},
    {ExchangeKind::kKeyQuery,     "keyquery"},
    {ExchangeKind::kKeyExport,    "keyexport"},
    {ExchangeKind::kPage,         "page"},
    {ExchangeKind::kDecision,     "decision"},
    {ExchangeKind::kNotification, "notification"},
    {ExchangeKind::kCapture,      "capture"},
    {ExchangeKind::kComplete,     "complete"},
    {ExchangeKind::kStatus,       "status"},
    {ExchangeKind::kProxy,        "proxy"},
    {ExchangeKind::kConnection,   "connection"},
    {ExchangeKind::kOther,        "other"},
};
// clang-format on

constexpr unsigned kMessageExchanges = bit(ExchangeKind::kSetup) | bit(ExchangeKind::kDefaults) |
                                       bit(ExchangeKind::kKeyQuery) | bit(ExchangeKind::kKeyExport) |
                                       bit(ExchangeKind::kCapture) | bit(ExchangeKind::kComplete) |
                                       bit(ExchangeKind::kStatus);
constexpr unsigned kConfirmations = bit(ExchangeKind::kDecision) | bit(ExchangeKind::kNotification);
constexpr unsigned kAnswers = kConfirmations | bit(ExchangeKind::kCapture) | bit(ExchangeKind::kComplete);
constexpr unsigned kHttpExchanges =
    kMessageExchanges | bit(ExchangeKind::kPage) | bit(ExchangeKind::kDecision) | bit(ExchangeKind::kProxy);
constexpr unsigned kConnections = bit(ExchangeKind::kConnection);
constexpr unsigned kWithOrder = kConfirmations | bit(ExchangeKind::kPage) | bit(ExchangeKind::kCapture) |
                                bit(ExchangeKind::kComplete) | bit(ExchangeKind::kStatus);

constexpr char kTextField[] = ",text=";
constexpr double kMaxSeconds = 3600;
constexpr std::int64_t kMaxMegabytes = 4096;

// clang-format off
constexpr FaultKindRow kKinds[] = {
    {FaultKind::kRefuse,              "refuse",                kConnections | bit(ExchangeKind::kProxy), kTakesSeconds, false,
     "connections are refused, for some seconds or until the fault is removed"},
    {FaultKind::kTlsExpired,          "tls-expired",           kConnections, 0, false,
     "the server's certificate has expired"},
    {FaultKind::kTlsWrongHost,        "tls-wrong-host",        kConnections, 0, false,
     "the server's certificate is for another host"},
    {FaultKind::kTlsUnknownAuthority, "tls-unknown-authority", kConnections, 0, false,
     "the server's certificate is from an unknown authority"},
    {FaultKind::kTlsAbort,            "tls-abort",             kConnections, 0, false,
     "the connection closes during the TLS handshake"},
    {FaultKind::kProxyAuthentication, "proxy-407",             bit(ExchangeKind::kProxy), 0, false,
     "the proxy requires credentials (status 407)"},
    {FaultKind::kHttpStatus,          "http-status",           kHttpExchanges, kTakesStatus | kTakesText, false,
     "the response is an HTTP status and a plain text"},
    {FaultKind::kError,               "error",                 kMessageExchanges, kTakesText, false,
     "the response is a message of type Error"},
    {FaultKind::kReset,               "reset",                 kHttpExchanges, 0, false,
     "the connection is reset without a response"},
    {FaultKind::kDrop,                "drop",                  kHttpExchanges | bit(ExchangeKind::kNotification), 0, true,
     "the request is processed, then the connection closes without a response; a notification is not sent"},
    {FaultKind::kDelay,               "delay",                 kHttpExchanges | bit(ExchangeKind::kNotification), kTakesSeconds, true,
     "the response is delayed"},
    {FaultKind::kStallBefore,         "stall-before",          kHttpExchanges, kTakesSeconds, true,
     "no response; the connection stays open for some time, then closes"},
    {FaultKind::kStallInside,         "stall-inside",          kHttpExchanges, kTakesSeconds | kTakesBytes, true,
     "the response stops part way; the connection stays open for some time, then closes"},
    {FaultKind::kBytewise,            "bytewise",              kHttpExchanges, kTakesSeconds, true,
     "the response is sent byte by byte, with pauses of a millisecond, or of the given seconds"},
    {FaultKind::kTruncate,            "truncate",              kHttpExchanges, kTakesBytes, true,
     "the connection closes part way through the response"},
    {FaultKind::kNoBlankLine,         "no-blank-line",         kHttpExchanges, 0, true,
     "the empty line between header and body of the response is missing"},
    {FaultKind::kNulBytes,            "nul-bytes",             kHttpExchanges, kTakesBytes, true,
     "the response contains a zero byte"},
    {FaultKind::kTwice,               "twice",                 kHttpExchanges | bit(ExchangeKind::kNotification), 0, true,
     "the whole response is sent twice on the same connection; a notification is sent twice"},
    {FaultKind::kHuge,                "huge",                  kHttpExchanges, kTakesMegabytes, true,
     "the body of the response is padded with spaces to 1 GB, or to the given megabytes"},
    {FaultKind::kWrongType,           "wrong-type",            kMessageExchanges | kConfirmations, 0, true,
     "the message has an unexpected MSGTYPE"},
    {FaultKind::kWrongSignature,      "wrong-signature",       kConfirmations, 0, true,
     "one bit of the confirmation's signature is wrong"},
    {FaultKind::kWrongKey,            "wrong-key",             kConfirmations | bit(ExchangeKind::kKeyQuery), 0, true,
     "the confirmation is signed with another key than its KEYID; a key query returns another key"},
    {FaultKind::kStaleKey,            "stale-key",
     kConfirmations | bit(ExchangeKind::kSetup) | bit(ExchangeKind::kKeyQuery), 0, true,
     "an old key id of the service is used, as after a key rotation"},
    {FaultKind::kWrongAmount,         "wrong-amount",          kAnswers, 0, true,
     "the message has another AMOUNT, under a right signature"},
    {FaultKind::kWrongCurrency,       "wrong-currency",        kAnswers, 0, true,
     "the message has another CURRENCY, under a right signature"},
    {FaultKind::kWrongOrder,          "wrong-order",           kAnswers, 0, true,
     "the message has another ORDERID, under a right signature"},
    {FaultKind::kWrongToken,          "wrong-token",           kAnswers, 0, true,
     "the message has another TOKEN, under a right signature"},
    {FaultKind::kWrongResult,         "wrong-result",          kAnswers, 0, true,
     "the message has another RESULT (a completion's response another STATE), under a right signature"},
    {FaultKind::kReplay,              "replay",                kAnswers, 0, true,
     "the message is that of an earlier payment of the account"},
    {FaultKind::kSwap,                "swap",                  kAnswers, 0, true,
     "the message is about another open payment of the account"},
    {FaultKind::kPending,             "pending",               bit(ExchangeKind::kDecision), kTakesSeconds, true,
     "the outcome is pending at first; the notification reports the final one after the given seconds"},
    {FaultKind::kRefuseCapture,       "refuse-capture",        bit(ExchangeKind::kCapture), kTakesText, false,
     "the capture of the payment is refused, now and for good"},
};
// clang-format on

struct ParameterRow {
    FaultParameter m_Parameter;
    char const* m_Name;
    bool (*m_IsGiven)(Fault const& fault);
};

// clang-format off
constexpr ParameterRow kParameters[] = {
    {kTakesSeconds,   "seconds",   [](Fault const& fault) { return fault.m_Seconds.has_value(); }},
    {kTakesBytes,     "bytes",     [](Fault const& fault) { return fault.m_Bytes.has_value(); }},
    {kTakesStatus,    "status",    [](Fault const& fault) { return fault.m_Status.has_value(); }},
    {kTakesText,      "text",      [](Fault const& fault) { return fault.m_Text.has_value(); }},
    {kTakesMegabytes, "megabytes", [](Fault const& fault) { return fault.m_Megabytes.has_value(); }},
};
// clang-format on

void checkRange(bool good, char const* name, std::string const& range) {
    if (!good) {
        throw HttpError(std::string("a fault's ") + name + " must be " + range);
    }
}

/// A whole number; HttpError when `text` is none.
std::int64_t readNumber(std::string const& name, std::string const& text) {
    std::optional<std::int64_t> const number = wholeNumber(text);
    if (!number) {
        throw HttpError("a fault's " + name + " must be a whole number, not '" + text + "'");
    }
    return *number;
}

template <auto Member>
void readText(Fault& fault, std::string const& /*name*/, std::string const& value) {
    fault.*Member = value;
}

template <auto Member>
void readWhole(Fault& fault, std::string const& name, std::string const& value) {
    fault.*Member = readNumber(name, value);
}

void readExchange(Fault& fault, std::string const& /*name*/, std::string const& value) {
    fault.m_Exchange = exchangeFromName(value);
    if (!fault.m_Exchange && value != "any") {
        throw HttpError("unknown exchange '" + value + "'");
    }
}

void readTimes(Fault& fault, std::string const& name, std::string const& value) {
    fault.m_Times = value == "always" ? 0 : readNumber(name, value);
    checkRange(value == "always" || fault.m_Times > 0, "times", "a number from 1 or \"always\"");
}

void readSeconds(Fault& fault, std::string const& /*name*/, std::string const& value) {
    std::istringstream in(value);
    in.imbue(std::locale::classic());
    double number = 0;
    if (!(in >> number) || in.peek() != std::istringstream::traits_type::eof()) {
        throw HttpError("a fault's seconds must be a number, not '" + value + "'");
    }
    fault.m_Seconds = number;
}

void readStatus(Fault& fault, std::string const& name, std::string const& value) {
    std::int64_t const status = readNumber(name, value);
    checkRange(status >= 100 && status <= 999, "status", "between 100 and 999");
    fault.m_Status = static_cast<int>(status);
}

// clang-format off
constexpr FaultFieldRow kFields[] = {
    {"exchange",  FaultFieldType::kText,   "Exchange",                      readExchange},
    {"account",   FaultFieldType::kText,   "Account (empty for any)",       readText<&Fault::m_Account>},
    {"order",     FaultFieldType::kText,   "Order (empty for any)",         readText<&Fault::m_Order>},
    {"times",     FaultFieldType::kWhole,  "Times (number or always)",      readTimes},
    {"skip",      FaultFieldType::kWhole,  "Exchanges that pass before it", readWhole<&Fault::m_Skip>},
    {"seconds",   FaultFieldType::kNumber, "Seconds",                       readSeconds},
    {"bytes",     FaultFieldType::kWhole,  "Bytes sent before the fault",   readWhole<&Fault::m_Bytes>},
    {"status",    FaultFieldType::kWhole,  "HTTP status",                   readStatus},
    {"text",      FaultFieldType::kText,   "Text of the response",          readText<&Fault::m_Text>},
    {"megabytes", FaultFieldType::kWhole,  "Megabytes",                     readWhole<&Fault::m_Megabytes>},
};
// clang-format on

std::string decimal(double number) {
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << number;
    return out.str();
}

}  // namespace

char const* exchangeName(ExchangeKind kind) {
    return rowWith(kExchanges, &ExchangeRow::m_Kind, kind)->m_Name;
}

std::optional<ExchangeKind> exchangeFromName(std::string const& name) {
    ExchangeRow const* const row = rowWith(kExchanges, &ExchangeRow::m_Name, name);
    return row != nullptr ? std::optional(row->m_Kind) : std::nullopt;
}

std::vector<ExchangeKind> allExchangeKinds() {
    std::vector<ExchangeKind> kinds;
    for (ExchangeRow const& row : kExchanges) {
        kinds.push_back(row.m_Kind);
    }
    return kinds;
}

std::vector<FaultKindRow> const& allFaultKinds() {
    static std::vector<FaultKindRow> const kinds(std::begin(kKinds), std::end(kKinds));
    return kinds;
}

std::vector<FaultFieldRow> const& allFaultFields() {
    static std::vector<FaultFieldRow> const fields(std::begin(kFields), std::end(kFields));
    return fields;
}

FaultKindRow const& faultRow(FaultKind kind) {
    return *rowWith(allFaultKinds(), &FaultKindRow::m_Kind, kind);
}

double secondsOf(Fault const& fault) {
    constexpr double kDelay = 5;
    constexpr double kStall = 60;
    constexpr double kBetweenBytes = 0.001;
    bool const isShort = fault.m_Kind == FaultKind::kDelay || fault.m_Kind == FaultKind::kPending;
    double const otherwise = isShort ? kDelay : fault.m_Kind == FaultKind::kBytewise ? kBetweenBytes : kStall;
    return fault.m_Seconds.value_or(otherwise);
}

int statusOf(Fault const& fault) {
    return fault.m_Status.value_or(httpstatus::kServiceUnavailable);
}

std::string textOf(Fault const& fault) {
    bool const ofCapture = fault.m_Kind == FaultKind::kRefuseCapture;
    return fault.m_Text.value_or(ofCapture ? "the capture of this payment is refused"
                                           : "the sandbox was told to turn this request down");
}

std::int64_t megabytesOf(Fault const& fault) {
    constexpr std::int64_t kGigabyte = 1024;
    return fault.m_Megabytes.value_or(kGigabyte);
}

void checkFault(Fault const& fault) {
    FaultKindRow const& row = faultRow(fault.m_Kind);
    if (fault.m_Exchange && !happensTo(row, *fault.m_Exchange)) {
        throw HttpError(std::string(row.m_Name) + " does not apply to the exchange '" +
                        exchangeName(*fault.m_Exchange) + "', only to: " + joined(exchangeNames(row)));
    }
    for (ParameterRow const& parameter : kParameters) {
        if (parameter.m_IsGiven(fault) && (row.m_Parameters & parameter.m_Parameter) == 0) {
            throw HttpError(std::string(row.m_Name) + " takes no " + parameter.m_Name);
        }
    }
    checkRange(fault.m_Times >= 0, "times", "a number from 1 or \"always\"");
    checkRange(fault.m_Skip >= 0, "skip", "0 or more");
    double const seconds = fault.m_Seconds.value_or(1);
    checkRange(std::isfinite(seconds) && seconds >= 0 && seconds <= kMaxSeconds, "seconds", "between 0 and 3600");
    checkRange(fault.m_Bytes.value_or(0) >= 0, "bytes", "0 or more");
    int const status = statusOf(fault);
    checkRange(status >= 100 && status <= 999, "status", "between 100 and 999");
    std::int64_t const megabytes = megabytesOf(fault);
    checkRange(megabytes > 0 && megabytes <= kMaxMegabytes, "megabytes", "between 1 and 4096");
    bool const before = row.m_Kind == FaultKind::kRefuse || row.m_Exchanges == kConnections;
    if (before && !(fault.m_Order.empty() && fault.m_Account.empty())) {
        throw HttpError(std::string(row.m_Name) +
                        " occurs before the request is read, so it cannot be limited to one " +
                        (fault.m_Account.empty() ? "order" : "account"));
    }
    if (fault.m_Exchange == ExchangeKind::kProxy && !fault.m_Account.empty()) {
        throw HttpError("the exchange 'proxy' has no account");
    }
    if (fault.m_Exchange && !fault.m_Order.empty() && (kWithOrder & bit(*fault.m_Exchange)) == 0) {
        throw HttpError(std::string("the exchange '") + exchangeName(*fault.m_Exchange) + "' has no order");
    }
    if (row.m_Kind == FaultKind::kRefuse && (fault.m_Times > 1 || fault.m_Skip > 0)) {
        throw HttpError("refused connections cannot be counted: use seconds, or remove the fault");
    }
}

std::vector<std::string> exchangeNames(FaultKindRow const& row) {
    std::vector<std::string> names;
    for (ExchangeRow const& exchange : kExchanges) {
        if (happensTo(row, exchange.m_Kind)) {
            names.emplace_back(exchange.m_Name);
        }
    }
    return names;
}

std::vector<std::string> parameterNames(FaultKindRow const& row) {
    std::vector<std::string> names;
    for (ParameterRow const& parameter : kParameters) {
        if ((row.m_Parameters & parameter.m_Parameter) != 0) {
            names.emplace_back(parameter.m_Name);
        }
    }
    return names;
}

Fault makeFault(std::string const& kind, FaultFields const& fields) {
    FaultKindRow const* const named = rowWith(allFaultKinds(), &FaultKindRow::m_Name, kind);
    if (named == nullptr) {
        throw HttpError("unknown fault '" + kind + "'");
    }
    Fault fault;
    fault.m_Kind = named->m_Kind;
    for (auto const& [name, value] : fields) {
        FaultFieldRow const* const row = rowWith(kFields, &FaultFieldRow::m_Name, name);
        if (row == nullptr) {
            throw HttpError("unknown parameter '" + name + "'");
        }
        row->m_Read(fault, name, value);
    }
    checkFault(fault);
    return fault;
}

Fault parseFault(std::string const& text) {
    std::size_t from = text.find(',');
    std::string const kind = text.substr(0, from);
    FaultFields fields;
    while (from != std::string::npos) {
        bool const takesRest = text.compare(from, sizeof kTextField - 1, kTextField) == 0;
        std::size_t const to = takesRest ? std::string::npos : text.find(',', from + 1);
        std::string const field = text.substr(from + 1, to == std::string::npos ? to : to - from - 1);
        std::size_t const equals = field.find('=');
        if (equals == std::string::npos) {
            throw HttpError("fault parameters have the form name=value, not '" + field + "'");
        }
        fields.emplace_back(field.substr(0, equals), field.substr(equals + 1));
        from = to;
    }
    return makeFault(kind, fields);
}

std::string faultText(Fault const& fault) {
    std::string const times = fault.m_Times == 0 ? "always" : std::to_string(fault.m_Times);
    FaultFields const fields = {
        {"exchange", fault.m_Exchange ? exchangeName(*fault.m_Exchange) : ""},
        {"account", fault.m_Account},
        {"order", fault.m_Order},
        {"times", fault.m_Times == 1 ? "" : times},
        {"skip", fault.m_Skip == 0 ? "" : std::to_string(fault.m_Skip)},
        {"seconds", fault.m_Seconds ? decimal(*fault.m_Seconds) : ""},
        {"bytes", fault.m_Bytes ? std::to_string(*fault.m_Bytes) : ""},
        {"status", fault.m_Status ? std::to_string(*fault.m_Status) : ""},
        {"megabytes", fault.m_Megabytes ? std::to_string(*fault.m_Megabytes) : ""},
    };
    std::string out = faultRow(fault.m_Kind).m_Name;
    for (auto const& [name, value] : fields) {
        out += value.empty() ? "" : "," + name + "=" + value;
    }
    return fault.m_Text ? out + kTextField + *fault.m_Text : out;
}

}  // namespace sandbox
