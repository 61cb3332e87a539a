#ifndef TALLOWIN_SANDBOX_STORE_DATABASE_H
#define TALLOWIN_SANDBOX_STORE_DATABASE_H

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/crypto/releaser.h"

namespace sandbox {

class Database;

/// A parameter of bytes without an encoding. One of type std::string is text, which must hold no NUL.
struct Bytes {
    std::string const& m_Value;  ///< Borrowed.
};

/// One prepared statement. Columns count from 0. Everything throws std::runtime_error.
class Statement {
public:
    /// Takes the statement that `database` has kept for this text, or prepares it, and binds `values` to its parameters
    /// in their order. Borrows `database`.
    template <class... Values>
    Statement(Database& database, std::string sql, Values const&... values)
        : m_Database(database), m_Sql(std::move(sql)) {
        prepare();
        (bind(values), ...);
    }

    /// Gives the statement back to be used again.
    ~Statement();
    Statement(Statement const&) = delete;
    Statement& operator=(Statement const&) = delete;

    /// Binds the next parameter, or none when an optional value is absent.
    void bind(std::string const& text);
    void bind(Bytes bytes);
    void bind(std::int64_t number);
    template <class Value>
    void bind(std::optional<Value> const& value) {
        if (value) {
            bind(*value);
        }
    }

    /// Runs to the next row; false when there is none.
    bool step();

    [[nodiscard]] std::string column(int index) const;
    [[nodiscard]] std::int64_t numberColumn(int index) const;

    /// What `read` makes of this statement at each row.
    template <class Read>
    auto all(Read read) {
        std::vector<decltype(read(*this))> found;
        while (step()) {
            found.push_back(read(*this));
        }
        return found;
    }

    /// The same of the next row; nothing when there is none.
    template <class Read>
    auto first(Read read) {
        return step() ? std::optional(read(*this)) : std::nullopt;
    }

private:
    void prepare();
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

    /// From now on commits leave it to the owner to move what they have written from the log to the file, see
    /// moveLog().
    void keepLog();

    /// How many pages the log had at the last commit. 0 before keepLog().
    [[nodiscard]] int pagesInLog() const { return m_PagesInLog; }

    /// Moves what is in the log to the file, as far as other connections still need none of it. Others may read and
    /// write meanwhile. When all of it has been moved, the next transaction begins the log anew. Throws
    /// std::runtime_error.
    void moveLog() { execute("PRAGMA wal_checkpoint(PASSIVE)"); }

    /// Replaces the content of `target` by that of this database, in one transaction. Throws std::runtime_error.
    void copyTo(Database& target);

    template <class... Values>
    Statement prepare(std::string sql, Values const&... values) {
        return Statement(*this, std::move(sql), values...);
    }

    /// Runs one statement to its first row.
    template <class... Values>
    void run(std::string sql, Values const&... values) {
        Statement(*this, std::move(sql), values...).step();
    }

private:
    friend class Statement;
    using StatementHolder = std::unique_ptr<sqlite3_stmt, Releaser<sqlite3_finalize>>;

    std::unique_ptr<sqlite3, Releaser<sqlite3_close>> m_Database;
    std::map<std::string, StatementHolder>
        m_Kept;  ///< By their texts; those that are not in use. Go before m_Database.
    int m_PagesInLog = 0;
};

/// A transaction, undone at the end of its life unless commit() was called. One that reads sees the database as it was
/// at its first statement, and holds up no writer.
class Transaction {
public:
    explicit Transaction(Database& database, Database::Access access = Database::Access::kWrite)
        : m_Database(database) {
        m_Database.run(access == Database::Access::kWrite ? "BEGIN IMMEDIATE" : "BEGIN");
    }
    ~Transaction();
    Transaction(Transaction const&) = delete;
    Transaction& operator=(Transaction const&) = delete;

    void commit();

private:
    Database& m_Database;  ///< Borrowed.
    bool m_Open = true;
};

/// Connections that read one database file, one for each thread that reads. Readers wait neither for the writer nor for
/// each other, and hold up no writer.
class ReaderPool {
    struct GiveBack {
        ReaderPool* m_Pool;  ///< Borrowed.
        void operator()(Database* database) const { m_Pool->giveBack(std::unique_ptr<Database>(database)); }
    };

public:
    /// A connection for one thread, given back at the end of its life.
    using Reader = std::unique_ptr<Database, GiveBack>;

    /// Opens nothing yet; the file must exist when a reader is taken.
    explicit ReaderPool(std::string path) : m_Path(std::move(path)) { m_Idle.reserve(kMaxIdle); }

    /// A connection that is idle, or a new one. Throws std::runtime_error.
    Reader take();

private:
    /// How many idle connections are kept.
    static constexpr std::size_t kMaxIdle = 8;

    void giveBack(std::unique_ptr<Database> database);

    std::string m_Path;
    std::mutex m_Mutex;
    std::vector<std::unique_ptr<Database>> m_Idle;  ///< At most kMaxIdle. Guarded by m_Mutex.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_STORE_DATABASE_H
