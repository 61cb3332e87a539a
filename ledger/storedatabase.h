/// The database under the store: what SQLite and PostgreSQL have in common.
///
/// Statements are SQL that both understand, with parameters $1, $2 ... that first appear in this order. They are
/// constants: an implementation may prepare each once and find it again by its address.
#ifndef TALLOWIN_LEDGER_STOREDATABASE_H
#define TALLOWIN_LEDGER_STOREDATABASE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "ledger/testpoints.h"

namespace ledger {

/// NULL, a number or a text. Texts are bytes without a zero byte.
using Value = std::variant<std::monostate, std::int64_t, std::string>;

using Row = std::vector<Value>;
using Rows = std::vector<Row>;

/// The transaction met another one and was undone. Run it again from its beginning.
class Conflict : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// One connection. One thread at a time. Every function throws Failure with one of the codes KVX_E_LEDGER_...
class Database {
public:
    Database() = default;
    Database(Database const&) = delete;
    Database& operator=(Database const&) = delete;
    virtual ~Database() = default;

    /// kRead: the statements see one state of the store. kWrite: no other transaction that writes changes what this one
    /// has read before it is committed.
    enum class Access { kRead, kWrite };

    virtual void begin(Access access) = 0;

    /// Returns after the changes are on disk. May throw Conflict.
    virtual void commit() = 0;

    /// Undoes the transaction, if one is open.
    virtual void rollback() noexcept = 0;

    /// Runs a statement and returns its rows. May throw Conflict inside a transaction.
    virtual Rows run(char const* statement, Row const& parameters) = 0;

    /// Forgets the connection without closing it: it belongs to the parent process.
    virtual void abandon() noexcept = 0;
};

/// A transaction, undone at the end of its life unless commit() was called.
class Transaction {
public:
    Transaction(Database& database, Database::Access access) : m_Database(database) { m_Database.begin(access); }
    Transaction(Transaction const&) = delete;
    Transaction& operator=(Transaction const&) = delete;
    ~Transaction() {
        if (m_IsOpen) {
            m_Database.rollback();
        }
    }

    void commit() {
        reached(TestPoint::kBeforeCommit);
        m_Database.commit();
        m_IsOpen = false;
        reached(TestPoint::kAfterCommit);
    }

private:
    Database& m_Database;  ///< Borrowed.
    bool m_IsOpen = true;
};

/// Opens `store`, such as "sqlite:PATH", and creates or migrates its tables. A locked store is waited for
/// `busySeconds`. Throws Failure.
std::unique_ptr<Database> openDatabase(std::string const& store, std::int64_t busySeconds);

}  // namespace ledger

#endif
