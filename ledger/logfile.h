/// The write-ahead log of a store: the pages of a commit are written at once.
#ifndef TALLOWIN_LEDGER_LOGFILE_H
#define TALLOWIN_LEDGER_LOGFILE_H

#include <sqlite3.h>

namespace ledger {

/// The name, for sqlite3_open_v2(), of the system's files with logs that GatheredCommit knows. Throws Failure.
char const* logFileSystem();

/// While it lives, writes of SQLite to the log of a connection are kept in memory; they reach the file together, when
/// SQLite flushes or reads the log. One thread, that of the connection.
///
/// SQLite writes each page of a commit by two calls, and flushes all of them at the end of the same COMMIT. Nobody
/// reads them before: SQLite publishes a commit after it has flushed it. So it is sound around COMMIT, with PRAGMA
/// synchronous = FULL, and nowhere else: a transaction that is undone must leave nothing that could be written later,
/// over pages that another process has committed.
class GatheredCommit {
public:
    /// Does nothing for a connection that was not opened through logFileSystem(), that has no log, or whose file is
    /// where SQLite fills the sectors of the log.
    explicit GatheredCommit(sqlite3* connection) noexcept;
    GatheredCommit(GatheredCommit const&) = delete;
    GatheredCommit& operator=(GatheredCommit const&) = delete;
    /// Drops kept bytes that have not reached the file: the commit failed and has been undone.
    ~GatheredCommit();

private:
    struct LogFile* m_Log = nullptr;  ///< Borrowed from the connection.
};

}  // namespace ledger

#endif
