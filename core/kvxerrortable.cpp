// Texts and names of the result codes. Written by scripts/catalogue from catalogue/errors.json, do not edit.

#include "core/kvxerrortable.h"

#include <iterator>

#include "core/kvxbase.h"

// clang-format off
KVX_ErrorRow const ErrorTable[] = {
    {KVX_E_NO_CONTEXT,           "no context present"},
    {KVX_E_FILE_NOT_FOUND,       "file not found"},
    {KVX_E_FILE_IO,              "file I/O error"},
    {KVX_E_INVALID_FORMAT,       "invalid file format"},
    {KVX_E_BUFFER_TOO_SMALL,     "the buffer size is too small"},
    {KVX_E_INVALID_URL,          "invalid URL"},
    {KVX_E_INVALID_OPTION,       "invalid option"},
    {KVX_E_WRONG_RESPONSE,       "request failed"},
    {KVX_E_CRYPTO,               "cryptographic error"},
    {KVX_E_NO_ENDPOINT,          "no endpoint"},
    {KVX_E_INVALID_KEY,          "invalid key blob"},
    {KVX_E_COMMAND_FAILED,       "command failed"},
    {KVX_E_NOT_FOUND,            "requested item was not found"},
    {KVX_E_NO_KEY_ID,            "no key identifier specified"},
    {KVX_E_NO_CONFIGURATION,     "no configuration found"},
    {KVX_E_KEY_NOT_FOUND,        "the requested key was not found"},
    {KVX_E_UNEXPECTED,           "unexpected error"},
    {KVX_E_NO_DEFAULT_PATH,      "no default path was supplied"},
    {KVX_E_SERVER_ERROR,         "the request failed"},
    {KVX_E_INVALID_SIGNATURE,    "invalid signature"},
    {KVX_E_MISSING_SIGNATURE,    "missing signature"},
    {KVX_E_URL_ACCESS_DENIED,    "access to URL resource denied"},
    {KVX_E_URL_OBJECT_NOT_FOUND, "URL resource not found"},
    {KVX_E_URL_DATA_NOT_FOUND,   "URL resource not found"},
    {KVX_E_URL_INVALID_REQUEST,  "invalid URL request"},
    {KVX_E_SOCKET_REFUSED,       "connection refused"},
    {KVX_E_SOCKET_TIMEOUT,       "connection timeout"},
    {KVX_E_SOCKET_RESET,         "connection reset"},
    {KVX_E_SOCKET_ABORTED,       "connection aborted"},
    {KVX_E_SOCKET_UNREACHABLE,   "network not reachable"},
    {KVX_E_HTTP_NAME_LOOKUP,     "DNS lookup failed"},
    {KVX_E_HTTP_UNAUTHORIZED,    "access to URL resource denied"},
    {KVX_E_HTTP_NOT_FOUND,       "URL resource not found"},
    {KVX_E_HTTP_UNAVAILABLE,     "server temporarily unavailable"},
    {0, nullptr},
};
static_assert(std::size(ErrorTable) == 34 + 1, "34 texts and the end");

KVX_ErrorRow const kKvxErrorNames[] = {
    {KVX_OK,                     "KVX_OK"},
    {KVX_E_NO_CONTEXT,           "KVX_E_NO_CONTEXT"},
    {KVX_E_FILE_NOT_FOUND,       "KVX_E_FILE_NOT_FOUND"},
    {KVX_E_FILE_IO,              "KVX_E_FILE_IO"},
    {KVX_E_INVALID_FORMAT,       "KVX_E_INVALID_FORMAT"},
    {KVX_E_BUFFER_TOO_SMALL,     "KVX_E_BUFFER_TOO_SMALL"},
    {KVX_E_INVALID_URL,          "KVX_E_INVALID_URL"},
    {KVX_E_INVALID_OPTION,       "KVX_E_INVALID_OPTION"},
    {KVX_E_WRONG_RESPONSE,       "KVX_E_WRONG_RESPONSE"},
    {KVX_E_CRYPTO,               "KVX_E_CRYPTO"},
    {KVX_E_NO_ENDPOINT,          "KVX_E_NO_ENDPOINT"},
    {KVX_E_INVALID_KEY,          "KVX_E_INVALID_KEY"},
    {KVX_E_COMMAND_FAILED,       "KVX_E_COMMAND_FAILED"},
    {KVX_E_NOT_FOUND,            "KVX_E_NOT_FOUND"},
    {KVX_E_NO_KEY_ID,            "KVX_E_NO_KEY_ID"},
    {KVX_E_NO_CONFIGURATION,     "KVX_E_NO_CONFIGURATION"},
    {KVX_E_KEY_NOT_FOUND,        "KVX_E_KEY_NOT_FOUND"},
    {KVX_E_UNEXPECTED,           "KVX_E_UNEXPECTED"},
    {KVX_E_NO_DEFAULT_PATH,      "KVX_E_NO_DEFAULT_PATH"},
    {KVX_E_SERVER_ERROR,         "KVX_E_SERVER_ERROR"},
    {KVX_E_INVALID_SIGNATURE,    "KVX_E_INVALID_SIGNATURE"},
    {KVX_E_BAD_HANDLE,           "KVX_E_BAD_HANDLE"},
    {KVX_E_OUT_OF_MEMORY,        "KVX_E_OUT_OF_MEMORY"},
    {KVX_E_NO_MESSAGE_TYPE,      "KVX_E_NO_MESSAGE_TYPE"},
    {KVX_E_CANNOT_OPEN,          "KVX_E_CANNOT_OPEN"},
    {KVX_E_MISSING_SIGNATURE,    "KVX_E_MISSING_SIGNATURE"},
    {KVX_E_OUT_OF_RANGE,         "KVX_E_OUT_OF_RANGE"},
    {KVX_E_DUPLICATE_KEY,        "KVX_E_DUPLICATE_KEY"},
    {KVX_E_URL_ACCESS_DENIED,    "KVX_E_URL_ACCESS_DENIED"},
    {KVX_E_URL_OBJECT_NOT_FOUND, "KVX_E_URL_OBJECT_NOT_FOUND"},
    {KVX_E_URL_DATA_NOT_FOUND,   "KVX_E_URL_DATA_NOT_FOUND"},
    {KVX_E_URL_INVALID_REQUEST,  "KVX_E_URL_INVALID_REQUEST"},
    {KVX_E_HTTP_FAMILY,          "KVX_E_HTTP_FAMILY"},
    {KVX_E_HTTP_BAD_URL,         "KVX_E_HTTP_BAD_URL"},
    {KVX_E_HTTP_UNKNOWN_SCHEME,  "KVX_E_HTTP_UNKNOWN_SCHEME"},
    {KVX_E_HTTP_NAME_LOOKUP,     "KVX_E_HTTP_NAME_LOOKUP"},
    {KVX_E_HTTP_BAD_REPLY,       "KVX_E_HTTP_BAD_REPLY"},
    {KVX_E_HTTP_STATE,           "KVX_E_HTTP_STATE"},
    {KVX_E_HTTP_UNAUTHORIZED,    "KVX_E_HTTP_UNAUTHORIZED"},
    {KVX_E_HTTP_NOT_FOUND,       "KVX_E_HTTP_NOT_FOUND"},
    {KVX_E_HTTP_UNAVAILABLE,     "KVX_E_HTTP_UNAVAILABLE"},
    {KVX_E_SOCKET_FAMILY,        "KVX_E_SOCKET_FAMILY"},
    {KVX_E_SOCKET_UNREACHABLE,   "KVX_E_SOCKET_UNREACHABLE"},
    {KVX_E_SOCKET_ABORTED,       "KVX_E_SOCKET_ABORTED"},
    {KVX_E_SOCKET_RESET,         "KVX_E_SOCKET_RESET"},
    {KVX_E_SOCKET_TIMEOUT,       "KVX_E_SOCKET_TIMEOUT"},
    {KVX_E_SOCKET_REFUSED,       "KVX_E_SOCKET_REFUSED"},
    {KVX_E_TLS_FAMILY,           "KVX_E_TLS_FAMILY"},
    {KVX_E_LEDGER_STORE,         "KVX_E_LEDGER_STORE"},
    {KVX_E_LEDGER_CANNOT_OPEN,   "KVX_E_LEDGER_CANNOT_OPEN"},
    {KVX_E_LEDGER_BUSY,          "KVX_E_LEDGER_BUSY"},
    {KVX_E_LEDGER_FULL,          "KVX_E_LEDGER_FULL"},
    {KVX_E_LEDGER_READONLY,      "KVX_E_LEDGER_READONLY"},
    {KVX_E_LEDGER_DAMAGED,       "KVX_E_LEDGER_DAMAGED"},
    {KVX_E_LEDGER_VERSION,       "KVX_E_LEDGER_VERSION"},
    {KVX_E_LEDGER_FORKED,        "KVX_E_LEDGER_FORKED"},
    {KVX_E_LEDGER_INVALID,       "KVX_E_LEDGER_INVALID"},
    {KVX_E_LEDGER_CONFLICT,      "KVX_E_LEDGER_CONFLICT"},
    {KVX_E_LEDGER_PAID,          "KVX_E_LEDGER_PAID"},
    {KVX_E_LEDGER_STATE,         "KVX_E_LEDGER_STATE"},
    {KVX_E_LEDGER_UNREACHABLE,   "KVX_E_LEDGER_UNREACHABLE"},
    {0, nullptr},
};

KVX_ErrorRow const kKvxFamilyNames[] = {
    {KVX_E_HTTP_FAMILY,   "KVX_E_HTTP_FAMILY"},
    {KVX_E_SOCKET_FAMILY, "KVX_E_SOCKET_FAMILY"},
    {KVX_E_TLS_FAMILY,    "KVX_E_TLS_FAMILY"},
    {0, nullptr},
};

// clang-format on

// Beside its table, which the compiler then knows: every absent file costs a look-up.
char const* kvxErrorText(std::int32_t code) noexcept {
    for (KVX_ErrorRow const* row = ErrorTable; row->m_Code != 0; ++row) {
        if (row->m_Code == code) {
            return row->m_Text;
        }
    }
    return nullptr;
}
