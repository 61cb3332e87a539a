// The rows: the effect of every fault of the sandbox at every exchange.
//
// One row a line, by exchange and within one by fault, both in the order of the sandbox. The tests check each row
// against the component; docs/fault-table.md is generated from them.

#include "tests/flow/faulttable.h"

#include <stdexcept>

#include "tallowin/codes.h"

namespace kvxtest {

namespace {

using E = sandbox::ExchangeKind;
using F = sandbox::FaultKind;
using S = BrowserResult;

constexpr std::int32_t kAsksCredentials = KVX_E_HTTP_FAMILY | 407;
constexpr bool kTunnelled = true;

// clang-format off
std::vector<FaultTableRow> const kRows = {
    {E::kSetup,     F::kRefuse,              false, KVX_E_SOCKET_REFUSED,    "...."},
    {E::kSetup,     F::kTlsExpired,          true,  KVX_OK,                  "nnnn"},
    {E::kSetup,     F::kTlsWrongHost,        true,  KVX_OK,                  "nnnn"},
    {E::kSetup,     F::kTlsUnknownAuthority, true,  KVX_OK,                  "nnnn"},
    {E::kSetup,     F::kTlsAbort,            false, KVX_E_TLS_FAMILY,        "...."},
    {E::kSetup,     F::kHttpStatus,          false, KVX_E_HTTP_UNAVAILABLE,  "...."},
    {E::kSetup,     F::kError,               false, KVX_E_SERVER_ERROR,      "...."},
    {E::kSetup,     F::kReset,               false, KVX_E_SOCKET_RESET,      "...."},
    {E::kSetup,     F::kDrop,                true,  KVX_E_HTTP_BAD_REPLY,    "...."},
    {E::kSetup,     F::kDelay,               true,  KVX_OK,                  "nnnn"},
    {E::kSetup,     F::kStallBefore,         true,  KVX_E_HTTP_BAD_REPLY,    "...."},
    {E::kSetup,     F::kStallInside,         true,  KVX_E_INVALID_FORMAT,    "...."},
    {E::kSetup,     F::kBytewise,            true,  KVX_OK,                  "nnnn"},
    {E::kSetup,     F::kTruncate,            true,  KVX_E_INVALID_FORMAT,    "...."},
    {E::kSetup,     F::kNoBlankLine,         true,  KVX_E_HTTP_BAD_REPLY,    "...."},
    {E::kSetup,     F::kNulBytes,            true,  KVX_E_INVALID_FORMAT,    "...."},
    {E::kSetup,     F::kTwice,               true,  KVX_OK,                  "rnnn"},
    {E::kSetup,     F::kHuge,                true,  KVX_OK,                  "rnnn"},
    {E::kSetup,     F::kWrongType,           true,  KVX_E_WRONG_RESPONSE,    "...."},
    {E::kSetup,     F::kStaleKey,            true,  KVX_E_SERVER_ERROR,      "fn.."},

    {E::kDefaults,  F::kRefuse,              false, KVX_E_SOCKET_REFUSED,    "n..."},
    {E::kDefaults,  F::kTlsExpired,          true,  KVX_OK,                  "nnnn"},
    {E::kDefaults,  F::kTlsWrongHost,        true,  KVX_OK,                  "nnnn"},
    {E::kDefaults,  F::kTlsUnknownAuthority, true,  KVX_OK,                  "nnnn"},
    {E::kDefaults,  F::kTlsAbort,            false, KVX_E_TLS_FAMILY,        "n..."},
    {E::kDefaults,  F::kHttpStatus,          false, KVX_E_HTTP_UNAVAILABLE,  "n..."},
    {E::kDefaults,  F::kError,               false, KVX_E_SERVER_ERROR,      "n..."},
    {E::kDefaults,  F::kReset,               false, KVX_E_SOCKET_RESET,      "n..."},
    {E::kDefaults,  F::kDrop,                true,  KVX_E_HTTP_BAD_REPLY,    "n..."},
    {E::kDefaults,  F::kDelay,               true,  KVX_OK,                  "nnnn"},
    {E::kDefaults,  F::kStallBefore,         true,  KVX_E_HTTP_BAD_REPLY,    "n..."},
    {E::kDefaults,  F::kStallInside,         true,  KVX_E_INVALID_FORMAT,    "n..."},
    {E::kDefaults,  F::kBytewise,            true,  KVX_OK,                  "nnnn"},
    {E::kDefaults,  F::kTruncate,            true,  KVX_E_INVALID_FORMAT,    "n..."},
    {E::kDefaults,  F::kNoBlankLine,         true,  KVX_E_HTTP_BAD_REPLY,    "n..."},
    {E::kDefaults,  F::kNulBytes,            true,  KVX_E_INVALID_FORMAT,    "n..."},
    {E::kDefaults,  F::kTwice,               true,  KVX_OK,                  "nrnn"},
    {E::kDefaults,  F::kHuge,                true,  KVX_OK,                  "nrnn"},
    {E::kDefaults,  F::kWrongType,           true,  KVX_E_WRONG_RESPONSE,    "n..."},

    {E::kKeyQuery,  F::kRefuse,              false, KVX_E_SOCKET_REFUSED,    "nn.."},
    {E::kKeyQuery,  F::kTlsExpired,          true,  KVX_OK,                  "nnnn"},
    {E::kKeyQuery,  F::kTlsWrongHost,        true,  KVX_OK,                  "nnnn"},
    {E::kKeyQuery,  F::kTlsUnknownAuthority, true,  KVX_OK,                  "nnnn"},
    {E::kKeyQuery,  F::kTlsAbort,            false, KVX_E_TLS_FAMILY,        "nn.."},
    {E::kKeyQuery,  F::kHttpStatus,          false, KVX_E_HTTP_UNAVAILABLE,  "nn.."},
    {E::kKeyQuery,  F::kError,               false, KVX_E_SERVER_ERROR,      "nn.."},
    {E::kKeyQuery,  F::kReset,               false, KVX_E_SOCKET_RESET,      "nn.."},
    {E::kKeyQuery,  F::kDrop,                true,  KVX_E_HTTP_BAD_REPLY,    "nn.."},
    {E::kKeyQuery,  F::kDelay,               true,  KVX_OK,                  "nnnn"},
    {E::kKeyQuery,  F::kStallBefore,         true,  KVX_E_HTTP_BAD_REPLY,    "nn.."},
    {E::kKeyQuery,  F::kStallInside,         true,  KVX_E_INVALID_FORMAT,    "nn.."},
    {E::kKeyQuery,  F::kBytewise,            true,  KVX_OK,                  "nnnn"},
    {E::kKeyQuery,  F::kTruncate,            true,  KVX_E_INVALID_FORMAT,    "nn.."},
    {E::kKeyQuery,  F::kNoBlankLine,         true,  KVX_E_HTTP_BAD_REPLY,    "nn.."},
    {E::kKeyQuery,  F::kNulBytes,            true,  KVX_E_INVALID_FORMAT,    "nn.."},
    {E::kKeyQuery,  F::kTwice,               true,  KVX_OK,                  "nnnn"},
    {E::kKeyQuery,  F::kHuge,                true,  KVX_OK,                  "nnnn"},
    {E::kKeyQuery,  F::kWrongType,           true,  KVX_E_WRONG_RESPONSE,    "nn.."},
    {E::kKeyQuery,  F::kWrongKey,            true,  KVX_OK,                  "nnfn"},
    {E::kKeyQuery,  F::kStaleKey,            true,  KVX_OK,                  "nn.n"},

    {E::kKeyExport, F::kRefuse,              false, KVX_E_SOCKET_REFUSED,    "nnn."},
    {E::kKeyExport, F::kTlsExpired,          true,  KVX_OK,                  "nnnn"},
    {E::kKeyExport, F::kTlsWrongHost,        true,  KVX_OK,                  "nnnn"},
    {E::kKeyExport, F::kTlsUnknownAuthority, true,  KVX_OK,                  "nnnn"},
    {E::kKeyExport, F::kTlsAbort,            false, KVX_E_TLS_FAMILY,        "nnn."},
    {E::kKeyExport, F::kHttpStatus,          false, KVX_E_HTTP_UNAVAILABLE,  "nnn."},
    {E::kKeyExport, F::kError,               false, KVX_E_SERVER_ERROR,      "nnn."},
    {E::kKeyExport, F::kReset,               false, KVX_E_SOCKET_RESET,      "nnn."},
    {E::kKeyExport, F::kDrop,                true,  KVX_E_HTTP_BAD_REPLY,    "nnn."},
    {E::kKeyExport, F::kDelay,               true,  KVX_OK,                  "nnnn"},
    {E::kKeyExport, F::kStallBefore,         true,  KVX_E_HTTP_BAD_REPLY,    "nnn."},
    {E::kKeyExport, F::kStallInside,         true,  KVX_E_INVALID_FORMAT,    "nnn."},
    {E::kKeyExport, F::kBytewise,            true,  KVX_OK,                  "nnnn"},
    {E::kKeyExport, F::kTruncate,            true,  KVX_E_INVALID_FORMAT,    "nnn."},
    {E::kKeyExport, F::kNoBlankLine,         true,  KVX_E_HTTP_BAD_REPLY,    "nnn."},
    {E::kKeyExport, F::kNulBytes,            true,  KVX_E_INVALID_FORMAT,    "nnn."},
    {E::kKeyExport, F::kTwice,               true,  KVX_OK,                  "nnnn"},
    {E::kKeyExport, F::kHuge,                true,  KVX_OK,                  "nnnn"},
    {E::kKeyExport, F::kWrongType,           true,  KVX_E_WRONG_RESPONSE,    "nnn."},

    {E::kPage,      F::kHttpStatus,          false, kNotCalled,              "none",       S::kStatus},
    {E::kPage,      F::kReset,               false, kNotCalled,              "none",       S::kReset},
    {E::kPage,      F::kDrop,                true,  kNotCalled,              "opened",     S::kNothing},
    {E::kPage,      F::kDelay,               true,  kNotCalled,              "opened",     S::kWhole},
    {E::kPage,      F::kStallBefore,         true,  kNotCalled,              "opened",     S::kNothing},
    {E::kPage,      F::kStallInside,         true,  kNotCalled,              "opened",     S::kCut},
    {E::kPage,      F::kBytewise,            true,  kNotCalled,              "opened",     S::kWhole},
    {E::kPage,      F::kTruncate,            true,  kNotCalled,              "opened",     S::kCut},
    {E::kPage,      F::kNoBlankLine,         true,  kNotCalled,              "opened",     S::kNoBlankLine},
    {E::kPage,      F::kNulBytes,            true,  kNotCalled,              "opened",     S::kZeroByte},
    {E::kPage,      F::kTwice,               true,  kNotCalled,              "opened",     S::kTwice},
    {E::kPage,      F::kHuge,                true,  kNotCalled,              "opened",     S::kHuge},

    {E::kDecision,  F::kHttpStatus,          false, kNotCalled,              "opened",     S::kStatus},
    {E::kDecision,  F::kReset,               false, kNotCalled,              "opened",     S::kReset},
    {E::kDecision,  F::kDrop,                true,  kNotCalled,              "authorised", S::kNothing},
    {E::kDecision,  F::kDelay,               true,  KVX_OK,                  "authorised", S::kWhole},
    {E::kDecision,  F::kStallBefore,         true,  kNotCalled,              "authorised", S::kNothing},
    {E::kDecision,  F::kStallInside,         true,  KVX_OK,                  "authorised", S::kCut},
    {E::kDecision,  F::kBytewise,            true,  KVX_OK,                  "authorised", S::kWhole},
    {E::kDecision,  F::kTruncate,            true,  KVX_OK,                  "authorised", S::kCut},
    {E::kDecision,  F::kTruncate,            true,  kNotCalled,              "authorised", S::kCut,         "bytes=200"},
    {E::kDecision,  F::kNoBlankLine,         true,  kNotCalled,              "authorised", S::kNoBlankLine},
    {E::kDecision,  F::kNulBytes,            true,  KVX_OK,                  "authorised", S::kZeroByte},
    {E::kDecision,  F::kTwice,               true,  KVX_OK,                  "authorised", S::kTwice},
    {E::kDecision,  F::kHuge,                true,  KVX_OK,                  "authorised", S::kHuge},
    {E::kDecision,  F::kWrongType,           true,  KVX_OK,                  "authorised", S::kWrongReturn},
    {E::kDecision,  F::kWrongSignature,      true,  KVX_E_INVALID_SIGNATURE, "authorised", S::kWrongReturn},
    {E::kDecision,  F::kWrongKey,            true,  KVX_E_INVALID_SIGNATURE, "authorised", S::kWrongReturn},
    {E::kDecision,  F::kStaleKey,            true,  KVX_E_NOT_FOUND,         "authorised", S::kWrongReturn},
    {E::kDecision,  F::kWrongAmount,         true,  KVX_OK,                  "authorised", S::kWrongReturn},
    {E::kDecision,  F::kWrongCurrency,       true,  KVX_OK,                  "authorised", S::kWrongReturn},
    {E::kDecision,  F::kWrongOrder,          true,  KVX_OK,                  "authorised", S::kWrongReturn},
    {E::kDecision,  F::kWrongToken,          true,  KVX_OK,                  "authorised", S::kWrongReturn},
    {E::kDecision,  F::kWrongResult,         true,  KVX_OK,                  "authorised", S::kWrongReturn},
    {E::kDecision,  F::kReplay,              true,  KVX_OK,                  "authorised", S::kWrongReturn},
    {E::kDecision,  F::kSwap,                true,  KVX_OK,                  "authorised", S::kWrongReturn},
    {E::kDecision,  F::kPending,             true,  KVX_OK,                  "pending",    S::kWhole},

    {E::kCapture,   F::kRefuse,              false, KVX_E_SOCKET_REFUSED,    "authorised"},
    {E::kCapture,   F::kTlsExpired,          true,  KVX_OK,                  "captured"},
    {E::kCapture,   F::kTlsWrongHost,        true,  KVX_OK,                  "captured"},
    {E::kCapture,   F::kTlsUnknownAuthority, true,  KVX_OK,                  "captured"},
    {E::kCapture,   F::kTlsAbort,            false, KVX_E_TLS_FAMILY,        "authorised"},
    {E::kCapture,   F::kHttpStatus,          false, KVX_E_HTTP_UNAVAILABLE,  "authorised"},
    {E::kCapture,   F::kHttpStatus,          false, KVX_E_INVALID_FORMAT,    "authorised", S::kNoShopper,    "status=200"},
    {E::kCapture,   F::kError,               false, KVX_E_SERVER_ERROR,      "authorised"},
    {E::kCapture,   F::kReset,               false, KVX_E_SOCKET_RESET,      "authorised"},
    {E::kCapture,   F::kDrop,                true,  KVX_E_HTTP_BAD_REPLY,    "captured"},
    {E::kCapture,   F::kDelay,               true,  KVX_OK,                  "captured"},
    {E::kCapture,   F::kStallBefore,         true,  KVX_E_HTTP_BAD_REPLY,    "captured"},
    {E::kCapture,   F::kStallInside,         true,  KVX_E_INVALID_FORMAT,    "captured"},
    {E::kCapture,   F::kBytewise,            true,  KVX_OK,                  "captured"},
    {E::kCapture,   F::kTruncate,            true,  KVX_E_INVALID_FORMAT,    "captured"},
    {E::kCapture,   F::kNoBlankLine,         true,  KVX_E_HTTP_BAD_REPLY,    "captured"},
    {E::kCapture,   F::kNulBytes,            true,  KVX_E_INVALID_FORMAT,    "captured"},
    {E::kCapture,   F::kTwice,               true,  KVX_OK,                  "captured"},
    {E::kCapture,   F::kHuge,                true,  KVX_OK,                  "captured"},
    {E::kCapture,   F::kWrongType,           true,  KVX_E_WRONG_RESPONSE,    "captured"},
    {E::kCapture,   F::kWrongAmount,         true,  KVX_OK,                  "captured"},
    {E::kCapture,   F::kWrongCurrency,       true,  KVX_OK,                  "captured"},
    {E::kCapture,   F::kWrongOrder,          true,  KVX_OK,                  "captured"},
    {E::kCapture,   F::kWrongToken,          true,  KVX_OK,                  "captured"},
    {E::kCapture,   F::kWrongResult,         true,  KVX_OK,                  "captured"},
    {E::kCapture,   F::kReplay,              true,  KVX_OK,                  "captured"},
    {E::kCapture,   F::kSwap,                true,  KVX_OK,                  "captured"},
    {E::kCapture,   F::kRefuseCapture,       false, KVX_E_SERVER_ERROR,      "authorised"},

    {E::kComplete,  F::kRefuse,              false, KVX_E_SOCKET_REFUSED,    "captured"},
    {E::kComplete,  F::kTlsExpired,          true,  KVX_OK,                  "completed"},
    {E::kComplete,  F::kTlsWrongHost,        true,  KVX_OK,                  "completed"},
    {E::kComplete,  F::kTlsUnknownAuthority, true,  KVX_OK,                  "completed"},
    {E::kComplete,  F::kTlsAbort,            false, KVX_E_TLS_FAMILY,        "captured"},
    {E::kComplete,  F::kHttpStatus,          false, KVX_E_HTTP_UNAVAILABLE,  "captured"},
    {E::kComplete,  F::kHttpStatus,          false, KVX_E_INVALID_FORMAT,    "captured",   S::kNoShopper,    "status=200"},
    {E::kComplete,  F::kError,               false, KVX_E_SERVER_ERROR,      "captured"},
    {E::kComplete,  F::kReset,               false, KVX_E_SOCKET_RESET,      "captured"},
    {E::kComplete,  F::kDrop,                true,  KVX_E_HTTP_BAD_REPLY,    "completed"},
    {E::kComplete,  F::kDelay,               true,  KVX_OK,                  "completed"},
    {E::kComplete,  F::kStallBefore,         true,  KVX_E_HTTP_BAD_REPLY,    "completed"},
    {E::kComplete,  F::kStallInside,         true,  KVX_E_INVALID_FORMAT,    "completed"},
    {E::kComplete,  F::kBytewise,            true,  KVX_OK,                  "completed"},
    {E::kComplete,  F::kTruncate,            true,  KVX_E_INVALID_FORMAT,    "completed"},
    {E::kComplete,  F::kNoBlankLine,         true,  KVX_E_HTTP_BAD_REPLY,    "completed"},
    {E::kComplete,  F::kNulBytes,            true,  KVX_E_INVALID_FORMAT,    "completed"},
    {E::kComplete,  F::kTwice,               true,  KVX_OK,                  "completed"},
    {E::kComplete,  F::kHuge,                true,  KVX_OK,                  "completed"},
    {E::kComplete,  F::kWrongType,           true,  KVX_E_WRONG_RESPONSE,    "completed"},
    {E::kComplete,  F::kWrongAmount,         true,  KVX_OK,                  "completed"},
    {E::kComplete,  F::kWrongCurrency,       true,  KVX_OK,                  "completed"},
    {E::kComplete,  F::kWrongOrder,          true,  KVX_OK,                  "completed"},
    {E::kComplete,  F::kWrongToken,          true,  KVX_OK,                  "completed"},
    {E::kComplete,  F::kWrongResult,         true,  KVX_OK,                  "completed"},
    {E::kComplete,  F::kReplay,              true,  KVX_OK,                  "completed"},
    {E::kComplete,  F::kSwap,                true,  KVX_OK,                  "completed"},

    {E::kProxy,     F::kRefuse,              false, KVX_E_SOCKET_REFUSED,    "authorised"},
    {E::kProxy,     F::kRefuse,              false, KVX_E_SOCKET_REFUSED,    "authorised",  S::kNoShopper, "", kTunnelled},
    {E::kProxy,     F::kProxyAuthentication, false, kAsksCredentials,        "authorised"},
    {E::kProxy,     F::kProxyAuthentication, false, kAsksCredentials,        "authorised",  S::kNoShopper, "", kTunnelled},
    {E::kProxy,     F::kHttpStatus,          false, KVX_E_HTTP_UNAVAILABLE,  "authorised"},
    {E::kProxy,     F::kHttpStatus,          false, KVX_E_HTTP_UNAVAILABLE,  "authorised",  S::kNoShopper, "", kTunnelled},
    {E::kProxy,     F::kReset,               false, KVX_E_SOCKET_RESET,      "authorised"},
    {E::kProxy,     F::kReset,               false, KVX_E_SOCKET_RESET,      "authorised",  S::kNoShopper, "", kTunnelled},
    {E::kProxy,     F::kDrop,                true,  KVX_E_HTTP_BAD_REPLY,    "captured"},
    {E::kProxy,     F::kDrop,                false, KVX_E_HTTP_BAD_REPLY,    "authorised",  S::kNoShopper, "", kTunnelled},
    {E::kProxy,     F::kDelay,               true,  KVX_OK,                  "captured"},
    {E::kProxy,     F::kDelay,               true,  KVX_OK,                  "captured",    S::kNoShopper, "", kTunnelled},
    {E::kProxy,     F::kStallBefore,         true,  KVX_E_HTTP_BAD_REPLY,    "captured"},
    {E::kProxy,     F::kStallBefore,         false, KVX_E_HTTP_BAD_REPLY,    "authorised",  S::kNoShopper, "", kTunnelled},
    {E::kProxy,     F::kStallInside,         true,  KVX_E_INVALID_FORMAT,    "captured"},
    {E::kProxy,     F::kStallInside,         false, KVX_E_TLS_FAMILY,        "authorised",  S::kNoShopper, "", kTunnelled},
    {E::kProxy,     F::kBytewise,            true,  KVX_OK,                  "captured"},
    {E::kProxy,     F::kBytewise,            false, KVX_E_HTTP_BAD_REPLY,    "authorised",  S::kNoShopper, "seconds=0.5", kTunnelled},
    {E::kProxy,     F::kTruncate,            true,  KVX_E_INVALID_FORMAT,    "captured"},
    {E::kProxy,     F::kTruncate,            false, KVX_E_TLS_FAMILY,        "authorised",  S::kNoShopper, "", kTunnelled},
    {E::kProxy,     F::kNoBlankLine,         true,  KVX_E_HTTP_BAD_REPLY,    "captured"},
    {E::kProxy,     F::kNoBlankLine,         false, KVX_E_TLS_FAMILY,        "authorised",  S::kNoShopper, "", kTunnelled},
    {E::kProxy,     F::kNulBytes,            true,  KVX_E_INVALID_FORMAT,    "captured"},
    {E::kProxy,     F::kNulBytes,            false, KVX_E_TLS_FAMILY,        "authorised",  S::kNoShopper, "", kTunnelled},
    {E::kProxy,     F::kTwice,               true,  KVX_OK,                  "captured"},
    {E::kProxy,     F::kTwice,               false, KVX_E_TLS_FAMILY,        "authorised",  S::kNoShopper, "", kTunnelled},
    {E::kProxy,     F::kHuge,                true,  KVX_OK,                  "captured"},
    {E::kProxy,     F::kHuge,                false, KVX_E_TLS_FAMILY,        "authorised",  S::kNoShopper, "", kTunnelled},
};

std::vector<LeftOutExchange> const kLeftOut = {
    {E::kNotification, "goes to the merchant's own server, past the component"},
    {E::kStatus,       "asked for with the same function as a completion, and as a completion answered"},
    {E::kConnection,   "its faults have rows under the exchanges that are connected for"},
    {E::kOther,        "the component sends nothing that is none of the others"},
};
// clang-format on

std::vector<E> const kMerchantExchanges = {E::kSetup,     E::kDefaults, E::kKeyQuery,
                                           E::kKeyExport, E::kCapture,  E::kComplete};

/// The row of another fault at the same place.
FaultTableRow const& rowBeside(FaultTableRow const& row, F kind) {
    for (FaultTableRow const& other : kRows) {
        if (other.m_Exchange == row.m_Exchange && other.m_Kind == kind && other.m_Tunnelled == row.m_Tunnelled) {
            return other;
        }
    }
    throw std::logic_error("a place without that fault");
}

/// `row` with `result`, and otherwise as `like` ends.
FaultTableRow endingAs(FaultTableRow row, FaultTableRow const& like, std::int32_t result) {
    row.m_Result = result;
    row.m_CarriedOut = like.m_CarriedOut;
    row.m_Left = like.m_Left;
    return row;
}

}  // namespace

namespace {

FaultTableRow strictOutcomeOf(FaultTableRow const& row) {
    if (row.m_Exchange == E::kPage) {
        return row;
    }
    if (row.m_Exchange == E::kDecision) {
        return row.m_Kind == F::kWrongType ? endingAs(row, row, KVX_E_WRONG_RESPONSE) : row;
    }
    switch (row.m_Kind) {
        case F::kTlsExpired:
        case F::kTlsWrongHost:
        case F::kTlsUnknownAuthority:
            return endingAs(row, rowBeside(row, F::kTlsAbort), KVX_E_TLS_FAMILY);
        case F::kDelay:
        case F::kStallBefore:
        case F::kStallInside:
            return endingAs(row, rowBeside(row, F::kStallBefore), KVX_E_SOCKET_TIMEOUT);
        case F::kHuge:
            return row.m_Tunnelled ? row : endingAs(row, rowBeside(row, F::kStallBefore), KVX_E_BUFFER_TOO_SMALL);
        default:
            return row;
    }
}

}  // namespace

FaultTableRow strictRow(FaultTableRow const& row) {
    FaultTableRow strict = strictOutcomeOf(row);
    // All responses but the last are checked before a file is written.
    if (isOfSetUp(row.m_Exchange) && row.m_Exchange != E::kKeyExport && strict.m_Result != KVX_OK) {
        strict.m_Left = "....";
    }
    return strict;
}

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
    return exchange == E::kSetup || exchange == E::kDefaults || exchange == E::kKeyQuery || exchange == E::kKeyExport;
}

bool isOfShopper(E exchange) {
    return exchange == E::kPage || exchange == E::kDecision;
}

bool isOfConnection(FaultTableRow const& row) {
    bool const canBe = (sandbox::faultRow(row.m_Kind).m_Exchanges & static_cast<unsigned>(E::kConnection)) != 0;
    return canBe && row.m_Exchange != E::kProxy;
}

}  // namespace kvxtest
