#include "sandbox/faults/fault.h"

#include <charconv>
#include <cmath>
#include <cstddef>
#include <locale>
#include <sstream>
#include <stdexcept>

#include "sandbox/text/refusal.h"

namespace sandbox {

namespace {

constexpr unsigned bit(ExchangeKind kind) {
    return static_cast<unsigned>(kind);
}

constexpr unsigned kAsked = bit(ExchangeKind::Setup) | bit(ExchangeKind::Defaults) | bit(ExchangeKind::KeyQuery) |
                            bit(ExchangeKind::KeyExport) | bit(ExchangeKind::Capture) | bit(ExchangeKind::Complete) |
                            bit(ExchangeKind::Status);
constexpr unsigned kConfirming = bit(ExchangeKind::Decision) | bit(ExchangeKind::Notification);
constexpr unsigned kAnswered =
    kAsked | bit(ExchangeKind::Page) | bit(ExchangeKind::Decision) | bit(ExchangeKind::Proxy);
constexpr unsigned kConnecting = bit(ExchangeKind::Connection);
constexpr unsigned kWithOrder = kConfirming | bit(ExchangeKind::Page) | bit(ExchangeKind::Capture) |
                                bit(ExchangeKind::Complete) | bit(ExchangeKind::Status);

constexpr char kTextField[] = ",text=";
constexpr double kLongestSeconds = 3600;
constexpr std::int64_t kLargestMegabytes = 4096;

// clang-format off
std::vector<FaultKindRow> const kKinds = {
    {FaultKind::Refuse,              "refuse",                kConnecting | bit(ExchangeKind::Proxy), kTakesSeconds, false,
     "connections are refused, for some seconds or until it is lifted"},
    {FaultKind::TlsExpired,          "tls-expired",           kConnecting, 0, false,
     "the certificate of the server has expired"},
    {FaultKind::TlsWrongHost,        "tls-wrong-host",        kConnecting, 0, false,
     "the certificate is for another host"},
    {FaultKind::TlsUnknownAuthority, "tls-unknown-authority", kConnecting, 0, false,
     "the certificate is from an authority that nobody knows"},
    {FaultKind::TlsAbort,            "tls-abort",             kConnecting, 0, false,
     "the connection ends in the middle of the TLS handshake"},
    {FaultKind::ProxyAuthentication, "proxy-407",             bit(ExchangeKind::Proxy), 0, false,
     "the proxy asks for credentials (status 407)"},
    {FaultKind::HttpStatus,          "http-status",           kAnswered, kTakesStatus | kTakesText, false,
     "the answer is an HTTP status and a text for people"},
    {FaultKind::Error,               "error",                 kAsked, kTakesText, false,
     "the answer is a message of the type Error"},
    {FaultKind::Reset,               "reset",                 kAnswered, 0, false,
     "the connection is reset, without an answer"},
    {FaultKind::Drop,                "drop",                  kAnswered | bit(ExchangeKind::Notification), 0, true,
     "the request is carried out, then the connection closes without an answer; a notification is not sent"},
    {FaultKind::Delay,               "delay",                 kAnswered | bit(ExchangeKind::Notification), kTakesSeconds, true,
     "the answer comes late"},
    {FaultKind::StallBefore,         "stall-before",          kAnswered, kTakesSeconds, true,
     "nothing comes, the connection stays open for some time and closes"},
    {FaultKind::StallInside,         "stall-inside",          kAnswered, kTakesSeconds | kTakesBytes, true,
     "the answer begins, then nothing more comes, the connection stays open for some time and closes"},
    {FaultKind::Bytewise,            "bytewise",              kAnswered, kTakesSeconds, true,
     "the answer comes one byte at a time, with a millisecond or so many seconds between two"},
    {FaultKind::Truncate,            "truncate",              kAnswered, kTakesBytes, true,
     "the connection closes in the middle of the answer"},
    {FaultKind::NoBlankLine,         "no-blank-line",         kAnswered, 0, true,
     "the empty line between the head and the body of the answer is missing"},
    {FaultKind::NulBytes,            "nul-bytes",             kAnswered, kTakesBytes, true,
     "a zero byte stands in the middle of the answer"},
    {FaultKind::Twice,               "twice",                 kAnswered | bit(ExchangeKind::Notification), 0, true,
     "the whole answer comes twice on the same connection; a notification is sent twice"},
    {FaultKind::Huge,                "huge",                  kAnswered, kTakesMegabytes, true,
     "the body of the answer is followed by blanks up to a size of 1 GB"},
    {FaultKind::WrongType,           "wrong-type",            kAsked | kConfirming, 0, true,
     "the MSGTYPE of the message is another than expected"},
    {FaultKind::WrongSignature,      "wrong-signature",       kConfirming, 0, true,
     "one bit of the signature of the confirmation is wrong"},
    {FaultKind::WrongKey,            "wrong-key",             kConfirming | bit(ExchangeKind::KeyQuery), 0, true,
     "the confirmation is signed with another key than it names; a key query is answered with another key"},
    {FaultKind::StaleKey,            "stale-key",
     kConfirming | bit(ExchangeKind::Setup) | bit(ExchangeKind::KeyQuery), 0, true,
     "an old identifier of the server's key is named, as after a rotation"},
};
// clang-format on

struct ParameterRow {
    FaultParameter parameter;
    char const* name;
};

constexpr ParameterRow kParameters[] = {
    {kTakesSeconds, "seconds"}, {kTakesBytes, "bytes"},         {kTakesStatus, "status"},
    {kTakesText, "text"},       {kTakesMegabytes, "megabytes"},
};

bool isGiven(Fault const& fault, FaultParameter parameter) {
    switch (parameter) {
        case kTakesSeconds:
            return fault.seconds.has_value();
        case kTakesBytes:
            return fault.bytes.has_value();
        case kTakesStatus:
            return fault.status.has_value();
        case kTakesText:
            return fault.text.has_value();
        case kTakesMegabytes:
            return fault.megabytes.has_value();
    }
    return false;
}

void checkRange(bool good, char const* name, std::string const& range) {
    if (!good) {
        throw Refusal(std::string("a fault's ") + name + " must be " + range);
    }
}

std::string exchangesOf(FaultKindRow const& row) {
    std::string names;
    for (std::string const& name : exchangeNames(row)) {
        names += (names.empty() ? "" : ", ") + name;
    }
    return names;
}

/// A whole number; Refusal when `text` is none.
std::int64_t readNumber(std::string const& name, std::string const& text) {
    std::int64_t number = 0;
    char const* const end = text.data() + text.size();
    std::from_chars_result const read = std::from_chars(text.data(), end, number);
    if (read.ec != std::errc() || read.ptr != end) {
        throw Refusal("a fault's " + name + " must be a whole number, not '" + text + "'");
    }
    return number;
}

double readSeconds(std::string const& text) {
    std::istringstream in(text);
    in.imbue(std::locale::classic());
    double number = 0;
    if (!(in >> number) || in.peek() != std::istringstream::traits_type::eof()) {
        throw Refusal("a fault's seconds must be a number, not '" + text + "'");
    }
    return number;
}

void readField(Fault& fault, std::string const& name, std::string const& value) {
    if (name == "exchange") {
        fault.exchange = exchangeFromName(value);
        if (!fault.exchange && value != "any") {
            throw Refusal("there is no exchange '" + value + "'");
        }
    } else if (name == "order") {
        fault.order = value;
    } else if (name == "times") {
        fault.times = value == "always" ? 0 : readNumber(name, value);
        checkRange(value == "always" || fault.times > 0, "times", "a number from 1 or \"always\"");
    } else if (name == "seconds") {
        fault.seconds = readSeconds(value);
    } else if (name == "bytes") {
        fault.bytes = readNumber(name, value);
    } else if (name == "status") {
        std::int64_t const status = readNumber(name, value);
        checkRange(status >= 100 && status <= 999, "status", "between 100 and 999");
        fault.status = static_cast<int>(status);
    } else if (name == "text") {
        fault.text = value;
    } else if (name == "megabytes") {
        fault.megabytes = readNumber(name, value);
    } else {
        throw Refusal("a fault has no '" + name + "'");
    }
}

std::string decimal(double number) {
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << number;
    return out.str();
}

}  // namespace

std::vector<FaultKindRow> const& allFaultKinds() {
    return kKinds;
}

FaultKindRow const& faultRow(FaultKind kind) {
    for (FaultKindRow const& row : kKinds) {
        if (row.kind == kind) {
            return row;
        }
    }
    throw std::logic_error("a fault without a row");
}

std::optional<FaultKind> faultFromName(std::string_view name) {
    for (FaultKindRow const& row : kKinds) {
        if (name == row.name) {
            return row.kind;
        }
    }
    return std::nullopt;
}

double secondsOf(Fault const& fault) {
    constexpr double kDelay = 5;
    constexpr double kStall = 60;
    constexpr double kBetweenBytes = 0.001;
    double const otherwise = fault.kind == FaultKind::Delay      ? kDelay
                             : fault.kind == FaultKind::Bytewise ? kBetweenBytes
                                                                 : kStall;
    return fault.seconds.value_or(otherwise);
}

int statusOf(Fault const& fault) {
    constexpr int kUnavailable = 503;
    return fault.status.value_or(kUnavailable);
}

std::string textOf(Fault const& fault) {
    return fault.text.value_or("the sandbox was told to turn this request down");
}

std::int64_t megabytesOf(Fault const& fault) {
    constexpr std::int64_t kGigabyte = 1024;
    return fault.megabytes.value_or(kGigabyte);
}

void checkFault(Fault const& fault) {
    FaultKindRow const& row = faultRow(fault.kind);
    if (fault.exchange && (row.exchanges & bit(*fault.exchange)) == 0) {
        throw Refusal(std::string(row.name) + " cannot happen to the exchange '" + exchangeName(*fault.exchange) +
                      "', only to: " + exchangesOf(row));
    }
    for (ParameterRow const& parameter : kParameters) {
        if (isGiven(fault, parameter.parameter) && (row.parameters & parameter.parameter) == 0) {
            throw Refusal(std::string(row.name) + " takes no " + parameter.name);
        }
    }
    checkRange(fault.times >= 0, "times", "a number from 1 or \"always\"");
    double const seconds = fault.seconds.value_or(1);
    checkRange(std::isfinite(seconds) && seconds >= 0 && seconds <= kLongestSeconds, "seconds", "between 0 and 3600");
    checkRange(fault.bytes.value_or(0) >= 0, "bytes", "0 or more");
    int const status = statusOf(fault);
    checkRange(status >= 100 && status <= 999, "status", "between 100 and 999");
    std::int64_t const megabytes = megabytesOf(fault);
    checkRange(megabytes > 0 && megabytes <= kLargestMegabytes, "megabytes", "between 1 and 4096");
    bool const before = row.kind == FaultKind::Refuse || row.exchanges == kConnecting;
    if (before && !fault.order.empty()) {
        throw Refusal(std::string(row.name) + " happens before the request is read, so it cannot be for one order");
    }
    if (fault.exchange && !fault.order.empty() && (kWithOrder & bit(*fault.exchange)) == 0) {
        throw Refusal(std::string("the exchange '") + exchangeName(*fault.exchange) + "' is about no order");
    }
    if (row.kind == FaultKind::Refuse && fault.times > 1) {
        throw Refusal("refused connections cannot be counted: give seconds, or lift it");
    }
}

std::vector<std::string> exchangeNames(FaultKindRow const& row) {
    std::vector<std::string> names;
    for (ExchangeKind const kind : allExchangeKinds()) {
        if ((row.exchanges & bit(kind)) != 0) {
            names.emplace_back(exchangeName(kind));
        }
    }
    return names;
}

std::vector<std::string> parameterNames(FaultKindRow const& row) {
    std::vector<std::string> names;
    for (ParameterRow const& parameter : kParameters) {
        if ((row.parameters & parameter.parameter) != 0) {
            names.emplace_back(parameter.name);
        }
    }
    return names;
}

Fault makeFault(std::string const& kind, FaultFields const& fields) {
    std::optional<FaultKind> const named = faultFromName(kind);
    if (!named) {
        throw Refusal("there is no fault '" + kind + "'");
    }
    Fault fault;
    fault.kind = *named;
    for (auto const& [name, value] : fields) {
        readField(fault, name, value);
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
            throw Refusal("a fault's details have the form name=value, not '" + field + "'");
        }
        fields.emplace_back(field.substr(0, equals), field.substr(equals + 1));
        from = to;
    }
    return makeFault(kind, fields);
}

std::string faultText(Fault const& fault) {
    std::string out = faultRow(fault.kind).name;
    auto const add = [&out](char const* name, std::string const& value) {
        out += "," + std::string(name) + "=" + value;
    };
    if (fault.exchange) {
        add("exchange", exchangeName(*fault.exchange));
    }
    if (!fault.order.empty()) {
        add("order", fault.order);
    }
    if (fault.times != 1) {
        add("times", fault.times == 0 ? "always" : std::to_string(fault.times));
    }
    if (fault.seconds) {
        add("seconds", decimal(*fault.seconds));
    }
    if (fault.bytes) {
        add("bytes", std::to_string(*fault.bytes));
    }
    if (fault.status) {
        add("status", std::to_string(*fault.status));
    }
    if (fault.megabytes) {
        add("megabytes", std::to_string(*fault.megabytes));
    }
    if (fault.text) {
        add("text", *fault.text);
    }
    return out;
}

}  // namespace sandbox
