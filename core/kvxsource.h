/// Sources of exceptions and trace records. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXSOURCE_H
#define TALLOWIN_CORE_KVXSOURCE_H

#include "core/kvxbase.h"
#include "core/kvxreason.h"
#include "foundation/tblocalstring.h"

/// A source as exceptions and trace records name it, with its ways to report.
///
/// Names and lines are published: callers read them from KVX_Exception, from the prefix of texts under KVXDEBUG and
/// from trace records, and support logs keep them. So they are constants of the layer (kvxlines_core.h, kvxlines_net.h,
/// kvxlines_api.h) and not the compiler's: moving code changes nothing, and a line in a log means the same condition in
/// every release. Do not change a number; a new condition takes one that its source has not used.
class KvxSource {
public:
    explicit constexpr KvxSource(char const* name) : m_Name(name) {}

    /// Throws a KVX_Exception. Nothing is allocated before the arguments are evaluated: `code` may depend on `errno`.
    [[noreturn]] void fail(std::int32_t code, long line, char const* detail = "") const {
        kvxForgetCause();
        throw KVX_Exception(code, detail, m_Name, line);
    }

    /// The same with a composed detail.
    [[noreturn]] void fail(std::int32_t code, long line, TbString const& detail) const {
        kvxForgetCause();
        throw KVX_Exception(code, detail, m_Name, line);
    }

    /// The same with a cause, which is no part of the exception's published text.
    [[noreturn]] void failBecause(KvxCause const& cause, std::int32_t code, long line,
                                  TbString const& detail = TbString()) const {
        kvxNoteCause(code, m_Name, line, cause);
        throw KVX_Exception(code, detail, m_Name, line);
    }

    /// The same with a cause of fixed words; the caller needs no room for it.
    [[noreturn, gnu::cold]] void failBecause(char const* words, std::int32_t code, long line,
                                             TbString const& detail = TbString()) const;

    /// Writes the trace record of a failure that its caller deals with, without raising it.
    void traceFailure(std::int32_t code, long line) const { KVX_Exception const handled(code, "", m_Name, line); }

    /// Writes a trace record.
    void trace(long line, char const* event, TbString const& detail = TbString(), std::int32_t code = KVX_OK) const {
        KVX_TraceLog::Write(m_Name, line, code, TbBorrowed(event), detail);
    }

    [[nodiscard]] constexpr char const* name() const { return m_Name; }

private:
    char const* m_Name;  ///< Without directory and extension.
};

#endif
