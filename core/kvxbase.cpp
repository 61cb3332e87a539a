// The table of texts, the exception, the lookup and the trace hook.
//
// A lookup takes the first row with the code; the order of the rows is therefore part of the table. An exception
// composes its text once, in its constructor: prefix under KVXDEBUG, text or "ErrorCode = 0x...", detail in
// parentheses; then it writes its own trace record. Trace records go nowhere outside test builds.

#include "core/kvxbase.h"

#include <cstdio>
#include <cstdlib>
#include <iterator>

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
    {KVX_E_SERVER_ERROR,         "the request failed"},  // Deliberate (two-request-texts): not "request failed"
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
    {0,                          nullptr},
};
// clang-format on
static_assert(std::size(ErrorTable) == 34 + 1, "34 texts and the end");

namespace {

/// `value` in `format`; the formats in use need no more than 20 characters.
template <class Number>
TbString formatted(char const* format, Number value) {
    char digits[32];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::snprintf(digits, sizeof digits, format, value);
#pragma GCC diagnostic pop
    return digits;
}

TbString hexOf(std::int32_t code) {
    return formatted("%x", static_cast<std::uint32_t>(code));
}

#ifdef KVX_TEST_SEAMS
KVX_TraceSink g_TraceSink = nullptr;
#endif

}  // namespace

KVX_Exception::KVX_Exception(long code, TbString const& message, char const* file, long line)
    : m_Code(static_cast<std::int32_t>(code)), m_File(file), m_Line(static_cast<std::int32_t>(line)) {
    if (KVX_ErrorLookup::UseExtendedErrorInfo()) {
        m_Text.append(file);
        m_Text.append("(");
        m_Text.append(formatted("%ld", line));
        m_Text.append(") : error ");
        m_Text.append(hexOf(m_Code));
        m_Text.append(" : ");
    }
    TbString text;
    if (KVX_ErrorLookup::GetErrorStringFromResult(m_Code, text)) {
        m_Text.append(text);
    } else {
        m_Text.append("ErrorCode = 0x");
        m_Text.append(hexOf(m_Code));
    }
    if (!message.isEmpty()) {
        m_Text.append(" (");
        m_Text.append(message);
        m_Text.append(")");
    }
    KVX_TraceLog::Write(file, line, m_Code, "EXCEPTION", m_Text);
}

bool KVX_ErrorLookup::GetErrorStringFromResult(long code, TbString& text) {
    auto const wanted = static_cast<std::int32_t>(code);
    for (KVX_ErrorRow const* row = ErrorTable; row->m_Code != 0; ++row) {
        if (row->m_Code == wanted) {
            text.assign(row->m_Text);
            return true;
        }
    }
    return false;
}

bool KVX_ErrorLookup::UseExtendedErrorInfo() {
    return std::getenv("KVXDEBUG") != nullptr;
}

#ifdef KVX_TEST_SEAMS
void KVX_SetTraceSink(KVX_TraceSink sink) noexcept {
    g_TraceSink = sink;
}

void KVX_TraceLog::Write(char const* file, long line, long code, TbString const& event, TbString const& detail) {
    if (g_TraceSink != nullptr) {
        g_TraceSink(file, line, code, event, detail);
    }
}
#else
void KVX_TraceLog::Write(char const*, long, long, TbString const&, TbString const&) {}
#endif
