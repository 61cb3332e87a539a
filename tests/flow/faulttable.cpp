#include "tests/flow/faulttable.h"

#include "tallowin/codes.h"

namespace kvxtest {

namespace {

using E = sandbox::ExchangeKind;
using F = sandbox::FaultKind;
using S = Sees;

constexpr std::int32_t kAsksCredentials = KVX_E_HTTP_FAMILY | 407;
constexpr bool kTunnelled = true;

// clang-format off
std::vector<FaultTableRow> const kRows = {
    {E::Setup,     F::Refuse,              false, KVX_E_SOCKET_REFUSED,    "...."},
    {E::Setup,     F::TlsExpired,          true,  KVX_OK,                  "nnnn"},
    {E::Setup,     F::TlsWrongHost,        true,  KVX_OK,                  "nnnn"},
    {E::Setup,     F::TlsUnknownAuthority, true,  KVX_OK,                  "nnnn"},
    {E::Setup,     F::TlsAbort,            false, KVX_E_TLS_FAMILY,        "...."},
    {E::Setup,     F::HttpStatus,          false, KVX_E_HTTP_UNAVAILABLE,  "...."},
    {E::Setup,     F::Error,               false, KVX_E_SERVER_ERROR,      "...."},
    {E::Setup,     F::Reset,               false, KVX_E_SOCKET_RESET,      "...."},
    {E::Setup,     F::Drop,                true,  KVX_E_HTTP_BAD_REPLY,    "...."},
    {E::Setup,     F::Delay,               true,  KVX_OK,                  "nnnn"},
    {E::Setup,     F::StallBefore,         true,  KVX_E_HTTP_BAD_REPLY,    "...."},
    {E::Setup,     F::StallInside,         true,  KVX_E_INVALID_FORMAT,    "...."},
    {E::Setup,     F::Bytewise,            true,  KVX_OK,                  "nnnn"},
    {E::Setup,     F::Truncate,            true,  KVX_E_INVALID_FORMAT,    "...."},
    {E::Setup,     F::NoBlankLine,         true,  KVX_E_HTTP_BAD_REPLY,    "...."},
    {E::Setup,     F::NulBytes,            true,  KVX_E_INVALID_FORMAT,    "...."},
    {E::Setup,     F::Twice,               true,  KVX_OK,                  "rnnn"},
    {E::Setup,     F::Huge,                true,  KVX_OK,                  "rnnn"},
    {E::Setup,     F::WrongType,           true,  KVX_E_WRONG_RESPONSE,    "...."},
    {E::Setup,     F::StaleKey,            true,  KVX_E_SERVER_ERROR,      "fn.."},

    {E::Defaults,  F::Refuse,              false, KVX_E_SOCKET_REFUSED,    "n..."},
    {E::Defaults,  F::TlsExpired,          true,  KVX_OK,                  "nnnn"},
    {E::Defaults,  F::TlsWrongHost,        true,  KVX_OK,                  "nnnn"},
    {E::Defaults,  F::TlsUnknownAuthority, true,  KVX_OK,                  "nnnn"},
    {E::Defaults,  F::TlsAbort,            false, KVX_E_TLS_FAMILY,        "n..."},
    {E::Defaults,  F::HttpStatus,          false, KVX_E_HTTP_UNAVAILABLE,  "n..."},
    {E::Defaults,  F::Error,               false, KVX_E_SERVER_ERROR,      "n..."},
    {E::Defaults,  F::Reset,               false, KVX_E_SOCKET_RESET,      "n..."},
    {E::Defaults,  F::Drop,                true,  KVX_E_HTTP_BAD_REPLY,    "n..."},
    {E::Defaults,  F::Delay,               true,  KVX_OK,                  "nnnn"},
    {E::Defaults,  F::StallBefore,         true,  KVX_E_HTTP_BAD_REPLY,    "n..."},
    {E::Defaults,  F::StallInside,         true,  KVX_E_INVALID_FORMAT,    "n..."},
    {E::Defaults,  F::Bytewise,            true,  KVX_OK,                  "nnnn"},
    {E::Defaults,  F::Truncate,            true,  KVX_E_INVALID_FORMAT,    "n..."},
    {E::Defaults,  F::NoBlankLine,         true,  KVX_E_HTTP_BAD_REPLY,    "n..."},
    {E::Defaults,  F::NulBytes,            true,  KVX_E_INVALID_FORMAT,    "n..."},
    {E::Defaults,  F::Twice,               true,  KVX_OK,                  "nrnn"},
    {E::Defaults,  F::Huge,                true,  KVX_OK,                  "nrnn"},
    {E::Defaults,  F::WrongType,           true,  KVX_E_WRONG_RESPONSE,    "n..."},

    {E::KeyQuery,  F::Refuse,              false, KVX_E_SOCKET_REFUSED,    "nn.."},
    {E::KeyQuery,  F::TlsExpired,          true,  KVX_OK,                  "nnnn"},
    {E::KeyQuery,  F::TlsWrongHost,        true,  KVX_OK,                  "nnnn"},
    {E::KeyQuery,  F::TlsUnknownAuthority, true,  KVX_OK,                  "nnnn"},
    {E::KeyQuery,  F::TlsAbort,            false, KVX_E_TLS_FAMILY,        "nn.."},
    {E::KeyQuery,  F::HttpStatus,          false, KVX_E_HTTP_UNAVAILABLE,  "nn.."},
    {E::KeyQuery,  F::Error,               false, KVX_E_SERVER_ERROR,      "nn.."},
    {E::KeyQuery,  F::Reset,               false, KVX_E_SOCKET_RESET,      "nn.."},
    {E::KeyQuery,  F::Drop,                true,  KVX_E_HTTP_BAD_REPLY,    "nn.."},
    {E::KeyQuery,  F::Delay,               true,  KVX_OK,                  "nnnn"},
    {E::KeyQuery,  F::StallBefore,         true,  KVX_E_HTTP_BAD_REPLY,    "nn.."},
    {E::KeyQuery,  F::StallInside,         true,  KVX_E_INVALID_FORMAT,    "nn.."},
    {E::KeyQuery,  F::Bytewise,            true,  KVX_OK,                  "nnnn"},
    {E::KeyQuery,  F::Truncate,            true,  KVX_E_INVALID_FORMAT,    "nn.."},
    {E::KeyQuery,  F::NoBlankLine,         true,  KVX_E_HTTP_BAD_REPLY,    "nn.."},
    {E::KeyQuery,  F::NulBytes,            true,  KVX_E_INVALID_FORMAT,    "nn.."},
    {E::KeyQuery,  F::Twice,               true,  KVX_OK,                  "nnnn"},
    {E::KeyQuery,  F::Huge,                true,  KVX_OK,                  "nnnn"},
    {E::KeyQuery,  F::WrongType,           true,  KVX_E_WRONG_RESPONSE,    "nn.."},
    {E::KeyQuery,  F::WrongKey,            true,  KVX_OK,                  "nnfn"},
    {E::KeyQuery,  F::StaleKey,            true,  KVX_OK,                  "nn.n"},

    {E::KeyExport, F::Refuse,              false, KVX_E_SOCKET_REFUSED,    "nnn."},
    {E::KeyExport, F::TlsExpired,          true,  KVX_OK,                  "nnnn"},
    {E::KeyExport, F::TlsWrongHost,        true,  KVX_OK,                  "nnnn"},
    {E::KeyExport, F::TlsUnknownAuthority, true,  KVX_OK,                  "nnnn"},
    {E::KeyExport, F::TlsAbort,            false, KVX_E_TLS_FAMILY,        "nnn."},
    {E::KeyExport, F::HttpStatus,          false, KVX_E_HTTP_UNAVAILABLE,  "nnn."},
    {E::KeyExport, F::Error,               false, KVX_E_SERVER_ERROR,      "nnn."},
    {E::KeyExport, F::Reset,               false, KVX_E_SOCKET_RESET,      "nnn."},
    {E::KeyExport, F::Drop,                true,  KVX_E_HTTP_BAD_REPLY,    "nnn."},
    {E::KeyExport, F::Delay,               true,  KVX_OK,                  "nnnn"},
    {E::KeyExport, F::StallBefore,         true,  KVX_E_HTTP_BAD_REPLY,    "nnn."},
    {E::KeyExport, F::StallInside,         true,  KVX_E_INVALID_FORMAT,    "nnn."},
    {E::KeyExport, F::Bytewise,            true,  KVX_OK,                  "nnnn"},
    {E::KeyExport, F::Truncate,            true,  KVX_E_INVALID_FORMAT,    "nnn."},
    {E::KeyExport, F::NoBlankLine,         true,  KVX_E_HTTP_BAD_REPLY,    "nnn."},
    {E::KeyExport, F::NulBytes,            true,  KVX_E_INVALID_FORMAT,    "nnn."},
    {E::KeyExport, F::Twice,               true,  KVX_OK,                  "nnnn"},
    {E::KeyExport, F::Huge,                true,  KVX_OK,                  "nnnn"},
    {E::KeyExport, F::WrongType,           true,  KVX_E_WRONG_RESPONSE,    "nnn."},

    {E::Page,      F::HttpStatus,          false, kNotCalled,              "none",       S::Status},
    {E::Page,      F::Reset,               false, kNotCalled,              "none",       S::Reset},
    {E::Page,      F::Drop,                true,  kNotCalled,              "opened",     S::Nothing},
    {E::Page,      F::Delay,               true,  kNotCalled,              "opened",     S::Whole},
    {E::Page,      F::StallBefore,         true,  kNotCalled,              "opened",     S::Nothing},
    {E::Page,      F::StallInside,         true,  kNotCalled,              "opened",     S::Cut},
    {E::Page,      F::Bytewise,            true,  kNotCalled,              "opened",     S::Whole},
    {E::Page,      F::Truncate,            true,  kNotCalled,              "opened",     S::Cut},
    {E::Page,      F::NoBlankLine,         true,  kNotCalled,              "opened",     S::NoBlankLine},
    {E::Page,      F::NulBytes,            true,  kNotCalled,              "opened",     S::ZeroByte},
    {E::Page,      F::Twice,               true,  kNotCalled,              "opened",     S::Twice},
    {E::Page,      F::Huge,                true,  kNotCalled,              "opened",     S::Huge},

    {E::Decision,  F::HttpStatus,          false, kNotCalled,              "opened",     S::Status},
    {E::Decision,  F::Reset,               false, kNotCalled,              "opened",     S::Reset},
    {E::Decision,  F::Drop,                true,  kNotCalled,              "authorised", S::Nothing},
    {E::Decision,  F::Delay,               true,  KVX_OK,                  "authorised", S::Whole},
    {E::Decision,  F::StallBefore,         true,  kNotCalled,              "authorised", S::Nothing},
    {E::Decision,  F::StallInside,         true,  KVX_OK,                  "authorised", S::Cut},
    {E::Decision,  F::Bytewise,            true,  KVX_OK,                  "authorised", S::Whole},
    {E::Decision,  F::Truncate,            true,  KVX_OK,                  "authorised", S::Cut},
    {E::Decision,  F::Truncate,            true,  kNotCalled,              "authorised", S::Cut,         "bytes=200"},
    {E::Decision,  F::NoBlankLine,         true,  kNotCalled,              "authorised", S::NoBlankLine},
    {E::Decision,  F::NulBytes,            true,  KVX_OK,                  "authorised", S::ZeroByte},
    {E::Decision,  F::Twice,               true,  KVX_OK,                  "authorised", S::Twice},
    {E::Decision,  F::Huge,                true,  KVX_OK,                  "authorised", S::Huge},
    {E::Decision,  F::WrongType,           true,  KVX_OK,                  "authorised", S::WrongReturn},
    {E::Decision,  F::WrongSignature,      true,  KVX_E_INVALID_SIGNATURE, "authorised", S::WrongReturn},
    {E::Decision,  F::WrongKey,            true,  KVX_E_INVALID_SIGNATURE, "authorised", S::WrongReturn},
    {E::Decision,  F::StaleKey,            true,  KVX_E_NOT_FOUND,         "authorised", S::WrongReturn},

    {E::Capture,   F::Refuse,              false, KVX_E_SOCKET_REFUSED,    "authorised"},
    {E::Capture,   F::TlsExpired,          true,  KVX_OK,                  "captured"},
    {E::Capture,   F::TlsWrongHost,        true,  KVX_OK,                  "captured"},
    {E::Capture,   F::TlsUnknownAuthority, true,  KVX_OK,                  "captured"},
    {E::Capture,   F::TlsAbort,            false, KVX_E_TLS_FAMILY,        "authorised"},
    {E::Capture,   F::HttpStatus,          false, KVX_E_HTTP_UNAVAILABLE,  "authorised"},
    {E::Capture,   F::HttpStatus,          false, KVX_E_INVALID_FORMAT,    "authorised", S::NotAsked,    "status=200"},
    {E::Capture,   F::Error,               false, KVX_E_SERVER_ERROR,      "authorised"},
    {E::Capture,   F::Reset,               false, KVX_E_SOCKET_RESET,      "authorised"},
    {E::Capture,   F::Drop,                true,  KVX_E_HTTP_BAD_REPLY,    "captured"},
    {E::Capture,   F::Delay,               true,  KVX_OK,                  "captured"},
    {E::Capture,   F::StallBefore,         true,  KVX_E_HTTP_BAD_REPLY,    "captured"},
    {E::Capture,   F::StallInside,         true,  KVX_E_INVALID_FORMAT,    "captured"},
    {E::Capture,   F::Bytewise,            true,  KVX_OK,                  "captured"},
    {E::Capture,   F::Truncate,            true,  KVX_E_INVALID_FORMAT,    "captured"},
    {E::Capture,   F::NoBlankLine,         true,  KVX_E_HTTP_BAD_REPLY,    "captured"},
    {E::Capture,   F::NulBytes,            true,  KVX_E_INVALID_FORMAT,    "captured"},
    {E::Capture,   F::Twice,               true,  KVX_OK,                  "captured"},
    {E::Capture,   F::Huge,                true,  KVX_OK,                  "captured"},
    {E::Capture,   F::WrongType,           true,  KVX_E_WRONG_RESPONSE,    "captured"},

    {E::Complete,  F::Refuse,              false, KVX_E_SOCKET_REFUSED,    "captured"},
    {E::Complete,  F::TlsExpired,          true,  KVX_OK,                  "completed"},
    {E::Complete,  F::TlsWrongHost,        true,  KVX_OK,                  "completed"},
    {E::Complete,  F::TlsUnknownAuthority, true,  KVX_OK,                  "completed"},
    {E::Complete,  F::TlsAbort,            false, KVX_E_TLS_FAMILY,        "captured"},
    {E::Complete,  F::HttpStatus,          false, KVX_E_HTTP_UNAVAILABLE,  "captured"},
    {E::Complete,  F::HttpStatus,          false, KVX_E_INVALID_FORMAT,    "captured",   S::NotAsked,    "status=200"},
    {E::Complete,  F::Error,               false, KVX_E_SERVER_ERROR,      "captured"},
    {E::Complete,  F::Reset,               false, KVX_E_SOCKET_RESET,      "captured"},
    {E::Complete,  F::Drop,                true,  KVX_E_HTTP_BAD_REPLY,    "completed"},
    {E::Complete,  F::Delay,               true,  KVX_OK,                  "completed"},
    {E::Complete,  F::StallBefore,         true,  KVX_E_HTTP_BAD_REPLY,    "completed"},
    {E::Complete,  F::StallInside,         true,  KVX_E_INVALID_FORMAT,    "completed"},
    {E::Complete,  F::Bytewise,            true,  KVX_OK,                  "completed"},
    {E::Complete,  F::Truncate,            true,  KVX_E_INVALID_FORMAT,    "completed"},
    {E::Complete,  F::NoBlankLine,         true,  KVX_E_HTTP_BAD_REPLY,    "completed"},
    {E::Complete,  F::NulBytes,            true,  KVX_E_INVALID_FORMAT,    "completed"},
    {E::Complete,  F::Twice,               true,  KVX_OK,                  "completed"},
    {E::Complete,  F::Huge,                true,  KVX_OK,                  "completed"},
    {E::Complete,  F::WrongType,           true,  KVX_E_WRONG_RESPONSE,    "completed"},

    {E::Proxy,     F::Refuse,              false, KVX_E_SOCKET_REFUSED,    "authorised"},
    {E::Proxy,     F::Refuse,              false, KVX_E_SOCKET_REFUSED,    "authorised",  S::NotAsked, "", kTunnelled},
    {E::Proxy,     F::ProxyAuthentication, false, kAsksCredentials,        "authorised"},
    {E::Proxy,     F::ProxyAuthentication, false, kAsksCredentials,        "authorised",  S::NotAsked, "", kTunnelled},
    {E::Proxy,     F::HttpStatus,          false, KVX_E_HTTP_UNAVAILABLE,  "authorised"},
    {E::Proxy,     F::HttpStatus,          false, KVX_E_HTTP_UNAVAILABLE,  "authorised",  S::NotAsked, "", kTunnelled},
    {E::Proxy,     F::Reset,               false, KVX_E_SOCKET_RESET,      "authorised"},
    {E::Proxy,     F::Reset,               false, KVX_E_SOCKET_RESET,      "authorised",  S::NotAsked, "", kTunnelled},
    {E::Proxy,     F::Drop,                true,  KVX_E_HTTP_BAD_REPLY,    "captured"},
    {E::Proxy,     F::Drop,                false, KVX_E_HTTP_BAD_REPLY,    "authorised",  S::NotAsked, "", kTunnelled},
    {E::Proxy,     F::Delay,               true,  KVX_OK,                  "captured"},
    {E::Proxy,     F::Delay,               true,  KVX_OK,                  "captured",    S::NotAsked, "", kTunnelled},
    {E::Proxy,     F::StallBefore,         true,  KVX_E_HTTP_BAD_REPLY,    "captured"},
    {E::Proxy,     F::StallBefore,         false, KVX_E_HTTP_BAD_REPLY,    "authorised",  S::NotAsked, "", kTunnelled},
    {E::Proxy,     F::StallInside,         true,  KVX_E_INVALID_FORMAT,    "captured"},
    {E::Proxy,     F::StallInside,         false, KVX_E_TLS_FAMILY,        "authorised",  S::NotAsked, "", kTunnelled},
    {E::Proxy,     F::Bytewise,            true,  KVX_OK,                  "captured"},
    {E::Proxy,     F::Bytewise,            false, KVX_E_HTTP_BAD_REPLY,    "authorised",  S::NotAsked, "seconds=0.5", kTunnelled},
    {E::Proxy,     F::Truncate,            true,  KVX_E_INVALID_FORMAT,    "captured"},
    {E::Proxy,     F::Truncate,            false, KVX_E_TLS_FAMILY,        "authorised",  S::NotAsked, "", kTunnelled},
    {E::Proxy,     F::NoBlankLine,         true,  KVX_E_HTTP_BAD_REPLY,    "captured"},
    {E::Proxy,     F::NoBlankLine,         false, KVX_E_TLS_FAMILY,        "authorised",  S::NotAsked, "", kTunnelled},
    {E::Proxy,     F::NulBytes,            true,  KVX_E_INVALID_FORMAT,    "captured"},
    {E::Proxy,     F::NulBytes,            false, KVX_E_TLS_FAMILY,        "authorised",  S::NotAsked, "", kTunnelled},
    {E::Proxy,     F::Twice,               true,  KVX_OK,                  "captured"},
    {E::Proxy,     F::Twice,               false, KVX_E_TLS_FAMILY,        "authorised",  S::NotAsked, "", kTunnelled},
    {E::Proxy,     F::Huge,                true,  KVX_OK,                  "captured"},
    {E::Proxy,     F::Huge,                false, KVX_E_TLS_FAMILY,        "authorised",  S::NotAsked, "", kTunnelled},
};

std::vector<LeftOutExchange> const kLeftOut = {
    {E::Notification, "goes to the merchant's own server, past the component"},
    {E::Status,       "asked for with the same function as a completion, and as a completion answered"},
    {E::Connection,   "its faults have rows under the exchanges that are connected for"},
    {E::Other,        "the component sends nothing that is none of the others"},
};
// clang-format on

std::vector<E> const kMerchantExchanges = {E::Setup, E::Defaults, E::KeyQuery, E::KeyExport, E::Capture, E::Complete};

}  // namespace

std::vector<FaultTableRow> const& faultTable() {
    return kRows;
}

std::vector<LeftOutExchange> const& leftOutExchanges() {
    return kLeftOut;
}

std::vector<E> const& merchantExchanges() {
    return kMerchantExchanges;
}

bool isOfSetUp(E exchange) {
    return exchange == E::Setup || exchange == E::Defaults || exchange == E::KeyQuery || exchange == E::KeyExport;
}

bool isOfShopper(E exchange) {
    return exchange == E::Page || exchange == E::Decision;
}

bool isOfConnection(FaultTableRow const& row) {
    bool const canBe = (sandbox::faultRow(row.kind).exchanges & static_cast<unsigned>(E::Connection)) != 0;
    return canBe && row.exchange != E::Proxy;
}

}  // namespace kvxtest
