/// Result codes and their texts, the exception that carries them, the trace hook.
///
/// Its free functions are in the static archive only; libtallowin.so exports classes.
#ifndef TALLOWIN_CORE_KVXBASE_H
#define TALLOWIN_CORE_KVXBASE_H

#include <cstdint>

#include "tallowin/codes.h"
#include "tallowin/export.h"
#include "tallowin/tbstring.h"

/// One row of the text table.
struct KVX_ErrorRow {
    std::int32_t m_Code;  ///< 0 ends the table.
    char const* m_Text;
};

/// The texts of the result codes, in the order of lookup, ended by a row with code 0.
extern KVX_ErrorRow const ErrorTable[];

/// The exception of core, net and api: a result code, a ready text and the published source position.
///
/// Thrown by value. No virtual operation, no base class. Copying may run out of memory (TBFC_Exception).
class KVX_EXPORT KVX_Exception {
public:
    /// Composes the text, stores the position and writes the trace event "EXCEPTION".
    ///
    /// `code`     the result code; sign- and zero-extended values mean the same, only 32 bits count.
    /// `message`  a detail, often empty: appended to the text in parentheses. Copied.
    /// `file`     the source's published name, without directory and extension. Copied.
    /// `line`     the published line.
    KVX_Exception(long code, TbString const& message, char const* file, long line);

    KVX_Exception(KVX_Exception const&) = default;
    KVX_Exception& operator=(KVX_Exception const&) = default;
    ~KVX_Exception() = default;

    [[nodiscard]] std::int32_t code() const noexcept { return m_Code; }

    /// The complete text: with KVXDEBUG set a prefix with position and code, then the code's text, then the detail.
    [[nodiscard]] TbString const& text() const noexcept { return m_Text; }

    [[nodiscard]] TbString const& file() const noexcept { return m_File; }
    [[nodiscard]] std::int32_t line() const noexcept { return m_Line; }

private:
    std::int32_t m_Code;
    TbString m_Text;
    TbString m_File;
    std::int32_t m_Line;
};

/// Looks up texts.
class KVX_EXPORT KVX_ErrorLookup {
public:
    /// Assigns the text of `code` to `text`. False, and `text` untouched, for a code without one; so for 0.
    static bool GetErrorStringFromResult(long code, TbString& text);

    /// Whether the environment variable KVXDEBUG is set, to any value; read at every call.
    static bool UseExtendedErrorInfo();
};

/// The hook for trace records.
class KVX_EXPORT KVX_TraceLog {
public:
    /// Writes a line to the log when one is asked for, else nothing. Called at fixed points.
    ///
    /// `file`, `line`  published position. `code` 0 unless the event is a failure. `event` a heading such as
    /// "OPEN CONTEXT". `detail` may be empty.
    static void Write(char const* file, long line, long code, TbString const& event, TbString const& detail);
};

#ifdef KVX_TEST_SEAMS
/// Test builds only: receives every trace record. Null: none.
using KVX_TraceSink = void (*)(char const* file, long line, long code, TbString const& event, TbString const& detail);
void KVX_SetTraceSink(KVX_TraceSink sink) noexcept;
#endif

#endif
