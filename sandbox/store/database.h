#ifndef TALLOWIN_SANDBOX_STORE_DATABASE_H
#define TALLOWIN_SANDBOX_STORE_DATABASE_H

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "sandbox/crypto/releaser.h"

namespace sandbox {

class Database;

/// One prepared statement. Parameters count from 1, columns from 0. Everything throws std::runtime_error.
class Statement {
public:
    /// Takes the statement that `database` has kept for this text, or prepares it. Borrows `database`.
    Statement(Database& database, std::string sql);

    /// Gives the statement back to be used again.
    ~Statement();
    Statement(Statement const&) = delete;
    Statement& operator=(Statement const&) = delete;

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

    Database& m_Database;  ///< Borrowed.
    std::string m_Sql;
    std::unique_ptr<sqlite3_stmt, Releaser<sqlite3_finalize>> m_Statement;
    int m_Bound = 0;  ///< Parameters bound so far.
};

/// One connection to an SQLite file. Not synchronised: its owner lets one thread in at a time. Statements are prepared
/// once and kept.
class Database {
public:
    enum class Access { kWrite, kRead };

    /// Opens the file; to write, it is created when missing (mode 0600). Throws std::runtime_error.
    explicit Database(std::string const& path, Access access = Access::kWrite);

    /// Runs statements without parameters or results. Throws std::runtime_error.
    void execute(char const* sql);

    /// The number of the row that was added last.
    [[nodiscard]] std::int64_t lastNumber() const { return sqlite3_last_insert_rowid(m_Database.get()); }

    /// How many rows the last statement that was run has inserted, updated or deleted.
    [[nodiscard]] std::int64_t changes() const { return sqlite3_changes64(m_Database.get()); }

    [[nodiscard]] bool isInTransaction() const { return sqlite3_get_autocommit(m_Database.get()) == 0; }

    /// Replaces the content of `target` by that of this database, in one transaction. Throws std::runtime_error.
    void copyTo(Database& target);

    Statement prepare(std::string sql) { return Statement(*this, std::move(sql)); }

private:
    friend class Statement;
    using StatementHolder = std::unique_ptr<sqlite3_stmt, Releaser<sqlite3_finalize>>;

    std::unique_ptr<sqlite3, Releaser<sqlite3_close>> m_Database;
    std::map<std::string, StatementHolder>
        m_Kept;  ///< By their texts; those that are not in use. Go before m_Database.
};

/// A transaction, undone at the end of its life unless commit() was called. One that reads sees the database as it was
/// at its first statement, and holds up no writer.
class Transaction {
public:
    explicit Transaction(Database& database, Database::Access access = Database::Access::kWrite)
        : m_Database(database) {
        m_Database.prepare(access == Database::Access::kWrite ? "BEGIN IMMEDIATE" : "BEGIN").step();
    }
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
