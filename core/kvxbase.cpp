// The exception, the lookups in the tables of texts and names, and the trace hook.
//
// A lookup takes the first row with the code; the order of the rows is therefore part of a table. An exception
// composes its text once, in its constructor: prefix under KVXDEBUG, text or "ErrorCode = 0x...", detail in
// parentheses; then it writes its own trace record. Trace records go to the log, when one is asked for.

#include "core/kvxbase.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/kvxerrortable.h"
#include "core/kvxlog.h"

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

/// What the row for `code` says, which may be 0; null without one.
char const* textIn(KVX_ErrorRow const* row, std::int32_t code) {
    for (; row->m_Text != nullptr; ++row) {
        if (row->m_Code == code) {
            return row->m_Text;
        }
    }
    return nullptr;
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
    char const* const found = kvxErrorText(static_cast<std::int32_t>(code));
    if (found == nullptr) {
        return false;
    }
    text.assign(found);
    return true;
}

char const* kvxErrorName(std::int32_t code) noexcept {
    constexpr std::uint32_t kOwnNumber = 0xFFF;  // of a code in a family
    char const* const own = textIn(kKvxErrorNames, code);
    if (own != nullptr) {
        return own;
    }
    auto const bits = static_cast<std::uint32_t>(code);
    char const* const shared =
        code > 0 ? ::strerrorname_np(code) : textIn(kKvxFamilyNames, static_cast<std::int32_t>(bits & ~kOwnNumber));
    return shared == nullptr ? "" : shared;
}

bool KVX_ErrorLookup::UseExtendedErrorInfo() {
    return std::getenv("KVXDEBUG") != nullptr;
}

#ifdef KVX_TEST_SEAMS
void KVX_SetTraceSink(KVX_TraceSink sink) noexcept {
    g_TraceSink = sink;
}

#endif

void KVX_TraceLog::Write(char const* file, long line, long code, TbString const& event, TbString const& detail) {
#ifdef KVX_TEST_SEAMS
    if (g_TraceSink != nullptr) {
        g_TraceSink(file, line, code, event, detail);
    }
#endif
    if (kvxLogIsOn()) {
        kvxLogTrace(file, line, static_cast<std::int32_t>(code), event, detail);
    }
}
