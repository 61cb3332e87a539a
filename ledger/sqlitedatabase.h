/// A store in a file, by SQLite.
#ifndef TALLOWIN_LEDGER_SQLITEDATABASE_H
#define TALLOWIN_LEDGER_SQLITEDATABASE_H

#include <sqlite3.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "ledger/openfiles.h"
#include "ledger/storedatabase.h"

namespace ledger {

/// The version of the tables that this release writes.
inline constexpr int kSqliteVersion = 5;

/// What leads from each version to the next, from none to the first: ledger/schema_1.sql and its successors.
extern char const* const kSqliteSchemas[kSqliteVersion];

/// One connection to one file: a write-ahead log that is flushed to disk with every commit.
class SqliteDatabase : public Database {
public:
    SqliteDatabase(std::string const& path, std::int64_t busySeconds);
    ~SqliteDatabase() override;

    void begin(Access access) override;
    void startChanges() override;
    void commit() override;
    void rollback() noexcept override;
    Rows run(char const* statement, Parameters parameters) override;
    void tidy() override;
    void abandon() noexcept override;

private:
    struct Close {
        void operator()(sqlite3* connection) const noexcept { sqlite3_close(connection); }
    };
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
    };

    [[noreturn]] void fail() const;
    void check(int result) const;
    void step(char const* statement);
    void execute(char const* sql);
    std::int64_t number(char const* sql);
    void requireInPlace();
    void enterLogMode(std::int64_t busySeconds);
    std::int64_t version();
    void migrate();
    sqlite3_stmt* prepared(char const* statement);
    std::optional<std::uint32_t> contentVersion();
    [[nodiscard]] bool hasLongLog() const noexcept;
    static int afterCommit(void* self, sqlite3* connection, char const* name, int logPages) noexcept;

    std::string m_Path;
    OpenFile m_File;  ///< Listed until the connection is closed.
    std::unique_ptr<sqlite3, Close> m_Connection;
    int m_LogPages = 0;                          ///< In the log after the last commit of this connection.
    std::optional<std::uint32_t> m_TidyVersion;  ///< contentVersion() when the log was copied last.
    std::chrono::steady_clock::time_point m_NextTidy;
    std::map<char const*, std::unique_ptr<sqlite3_stmt, Finalize>>
        m_Statements;  ///< By address; gone before the connection.
};

}  // namespace ledger

#endif
