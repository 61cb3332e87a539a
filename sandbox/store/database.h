#ifndef TALLOWIN_SANDBOX_STORE_DATABASE_H
#define TALLOWIN_SANDBOX_STORE_DATABASE_H

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>

#include "sandbox/crypto/releaser.h"

namespace sandbox {

/// One prepared statement. Parameters count from 1, columns from 0. Everything throws std::runtime_error.
class Statement {
public:
    Statement(sqlite3* database, char const* sql);

    /// Each binds the next parameter; text must hold no NUL, bytes may be anything.
    Statement& text(std::string const& value);
    Statement& bytes(std::string const& value);
    Statement& number(std::int64_t value);

    /// Runs to the next row; false when there is none.
    bool step();

    [[nodiscard]] std::string column(int index) const;
    [[nodiscard]] std::int64_t numberColumn(int index) const;

private:
    void check(int result) const;

    std::unique_ptr<sqlite3_stmt, Releaser<sqlite3_finalize>> m_Statement;
    int m_Bound = 0;  ///< Parameters bound so far.
};

/// One SQLite file. Not synchronised: its owner lets one thread in at a time.
class Database {
public:
    /// Opens or creates the file (mode 0600). Throws std::runtime_error.
    explicit Database(std::string const& path);

    /// Runs statements without parameters or results. Throws std::runtime_error.
    void execute(char const* sql);

    /// The number of the row that was added last.
    [[nodiscard]] std::int64_t lastNumber() const { return sqlite3_last_insert_rowid(m_Database.get()); }

    Statement prepare(char const* sql) { return Statement(m_Database.get(), sql); }

private:
    std::unique_ptr<sqlite3, Releaser<sqlite3_close>> m_Database;
};

/// A transaction, undone at the end of its life unless commit() was called.
class Transaction {
public:
    explicit Transaction(Database& database) : m_Database(database) { m_Database.execute("BEGIN IMMEDIATE"); }
    ~Transaction();
    Transaction(Transaction const&) = delete;
    Transaction& operator=(Transaction const&) = delete;

    void commit();

private:
    Database& m_Database;  ///< Borrowed.
    bool m_Open = true;
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_STORE_DATABASE_H
