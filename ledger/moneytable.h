/// After which result codes of a capture or a completion money may have moved.
///
/// Written by scripts/catalogue from catalogue/errors.json, do not edit.
#ifndef TALLOWIN_LEDGER_MONEYTABLE_H
#define TALLOWIN_LEDGER_MONEYTABLE_H

#include <cstdint>

#include "tallowin/codes.h"

namespace ledger {

/// Whether money may have moved after a failure with one result code.
struct MoneyRow {
    std::int32_t m_Code;
    bool m_MayHaveMoved;
};

// clang-format off
/// Every code that stands for itself, and numbers inside families.
inline constexpr MoneyRow kMoneyOfCodes[] = {
    {KVX_OK,                     true},
    {KVX_E_NO_CONTEXT,           false},
    {KVX_E_FILE_NOT_FOUND,       false},
    {KVX_E_FILE_IO,              false},
    {KVX_E_INVALID_FORMAT,       true},
    {KVX_E_BUFFER_TOO_SMALL,     true},
    {KVX_E_INVALID_URL,          false},
    {KVX_E_INVALID_OPTION,       false},
    {KVX_E_WRONG_RESPONSE,       true},
    {KVX_E_CRYPTO,               false},
    {KVX_E_NO_ENDPOINT,          false},
    {KVX_E_INVALID_KEY,          false},
    {KVX_E_COMMAND_FAILED,       false},
    {KVX_E_NOT_FOUND,            false},
    {KVX_E_NO_KEY_ID,            false},
    {KVX_E_NO_CONFIGURATION,     false},
    {KVX_E_KEY_NOT_FOUND,        false},
    {KVX_E_UNEXPECTED,           false},
    {KVX_E_NO_DEFAULT_PATH,      false},
    {KVX_E_SERVER_ERROR,         true},
    {KVX_E_INVALID_SIGNATURE,    false},
    {KVX_E_BAD_HANDLE,           false},
    {KVX_E_OUT_OF_MEMORY,        true},
    {KVX_E_NO_MESSAGE_TYPE,      false},
    {KVX_E_CANNOT_OPEN,          false},
    {KVX_E_MISSING_SIGNATURE,    false},
    {KVX_E_OUT_OF_RANGE,         false},
    {KVX_E_DUPLICATE_KEY,        false},
    {KVX_E_URL_ACCESS_DENIED,    false},
    {KVX_E_URL_OBJECT_NOT_FOUND, false},
    {KVX_E_URL_DATA_NOT_FOUND,   false},
    {KVX_E_URL_INVALID_REQUEST,  false},
    {KVX_E_HTTP_BAD_URL,         false},
    {KVX_E_HTTP_UNKNOWN_SCHEME,  false},
    {KVX_E_HTTP_NAME_LOOKUP,     false},
    {KVX_E_HTTP_BAD_REPLY,       true},
    {KVX_E_HTTP_STATE,           false},
    {KVX_E_HTTP_UNAUTHORIZED,    false},
    {KVX_E_HTTP_NOT_FOUND,       false},
    {KVX_E_HTTP_UNAVAILABLE,     true},
    {KVX_E_SOCKET_UNREACHABLE,   true},
    {KVX_E_SOCKET_ABORTED,       true},
    {KVX_E_SOCKET_RESET,         true},
    {KVX_E_SOCKET_TIMEOUT,       true},
    {KVX_E_SOCKET_REFUSED,       false},
    {KVX_E_LEDGER_STORE,         false},
    {KVX_E_LEDGER_CANNOT_OPEN,   false},
    {KVX_E_LEDGER_BUSY,          false},
    {KVX_E_LEDGER_FULL,          false},
    {KVX_E_LEDGER_READONLY,      false},
    {KVX_E_LEDGER_DAMAGED,       false},
    {KVX_E_LEDGER_VERSION,       false},
    {KVX_E_LEDGER_FORKED,        false},
    {KVX_E_LEDGER_INVALID,       false},
    {KVX_E_LEDGER_CONFLICT,      false},
    {KVX_E_LEDGER_PAID,          false},
    {KVX_E_LEDGER_STATE,         false},
    {KVX_E_LEDGER_UNREACHABLE,   false},
    {KVX_E_HTTP_FAMILY | 0x12d,  false},
    {KVX_E_HTTP_FAMILY | 0x12e,  false},
    {KVX_E_HTTP_FAMILY | 0x190,  false},
    {KVX_E_HTTP_FAMILY | 0x193,  false},
    {KVX_E_HTTP_FAMILY | 0x197,  false},
    {KVX_E_HTTP_FAMILY | 0x19e,  false},
    {KVX_E_HTTP_FAMILY | 0x1ad,  false},
    {KVX_E_HTTP_FAMILY | 0x1f4,  true},
    {KVX_E_HTTP_FAMILY | 0x1f6,  true},
    {KVX_E_HTTP_FAMILY | 0x1f8,  true},
    {KVX_E_SOCKET_FAMILY | 0xc,  true},
    {KVX_E_SOCKET_FAMILY | 0xd,  false},
    {KVX_E_SOCKET_FAMILY | 0x17, false},
    {KVX_E_SOCKET_FAMILY | 0x18, false},
    {KVX_E_SOCKET_FAMILY | 0x20, true},
    {KVX_E_SOCKET_FAMILY | 0x31, false},
    {KVX_E_SOCKET_FAMILY | 0x32, true},
    {KVX_E_SOCKET_FAMILY | 0x37, true},
    {KVX_E_SOCKET_FAMILY | 0x39, true},
    {KVX_E_SOCKET_FAMILY | 0x40, true},
    {KVX_E_SOCKET_FAMILY | 0x41, true},
    {KVX_E_TLS_FAMILY | 0x1,     false},
    {KVX_E_TLS_FAMILY | 0x5,     true},
    {KVX_E_TLS_FAMILY | 0x6,     true},
    {KVX_E_TLS_FAMILY | 0x102,   false},
    {KVX_E_TLS_FAMILY | 0x10b,   true},
    {KVX_E_TLS_FAMILY | 0x126,   true},
    {KVX_E_TLS_FAMILY | 0x152,   false},
    {KVX_E_TLS_FAMILY | 0x18a,   false},
    {KVX_E_TLS_FAMILY | 0x410,   false},
    {KVX_E_TLS_FAMILY | 0x42e,   false},
    {KVX_E_TLS_FAMILY | 0x438,   true},
    {KVX_E_TLS_FAMILY | 0x458,   false},
    {KVX_E_TLS_FAMILY | 0x809,   false},
    {KVX_E_TLS_FAMILY | 0x80a,   false},
    {KVX_E_TLS_FAMILY | 0x812,   false},
    {KVX_E_TLS_FAMILY | 0x813,   false},
    {KVX_E_TLS_FAMILY | 0x814,   false},
    {KVX_E_TLS_FAMILY | 0x83e,   false},
    {KVX_E_TLS_FAMILY | 0x840,   false},
    {KVX_E_TLS_FAMILY | 0x900,   false},
    {KVX_E_TLS_FAMILY | 0x901,   false},
};

/// The families, for their other numbers.
inline constexpr MoneyRow kMoneyOfFamilies[] = {
    {KVX_E_HTTP_FAMILY,   true},
    {KVX_E_SOCKET_FAMILY, true},
    {KVX_E_TLS_FAMILY,    true},
};
// clang-format on

/// Any errno.
inline constexpr bool kMoneyOfSystemErrors = false;

/// Whether the service may have carried out a request that failed with `code`. True for a code that no row has.
constexpr bool mayHaveMovedMoney(std::int32_t code) {
    constexpr std::uint32_t kNumber = 0xFFF;
    for (MoneyRow const& row : kMoneyOfCodes) {
        if (row.m_Code == code) {
            return row.m_MayHaveMoved;
        }
    }
    for (MoneyRow const& row : kMoneyOfFamilies) {
        if (static_cast<std::uint32_t>(row.m_Code) == (static_cast<std::uint32_t>(code) & ~kNumber)) {
            return row.m_MayHaveMoved;
        }
    }
    return code <= 0 || static_cast<std::uint32_t>(code) > kNumber || kMoneyOfSystemErrors;
}

}  // namespace ledger

#endif
