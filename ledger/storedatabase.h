/// The database under the store: what SQLite and PostgreSQL have in common.
///
/// Statements are SQL that both understand, with parameters $1, $2 ... that first appear in this order. They are
/// constants: an implementation may prepare each once and find it again by its address. Numbers have 64 bits; texts
/// that are compared with a column of plain ASCII are plain ASCII.
#ifndef TALLOWIN_LEDGER_STOREDATABASE_H
#define TALLOWIN_LEDGER_STOREDATABASE_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "ledger/failure.h"
#include "ledger/testpoints.h"
#include "tallowin/codes.h"

namespace ledger {

/// NULL, a number or a text. Texts are bytes without a zero byte.
using Value = std::variant<std::monostate, std::int64_t, std::string>;

using Row = std::vector<Value>;
using Rows = std::vector<Row>;

/// What a statement is given: NULL, a number or a text, which is borrowed.
using Parameter = std::variant<std::monostate, std::int64_t, std::string_view>;
using Parameters = std::initializer_list<Parameter>;

template <class Kind>
Parameter orNull(std::optional<Kind> const& value) {
    return value ? Parameter(*value) : Parameter();
}

/// The transaction met another one, or lost its connection, and was undone. Run it again from its beginning; the code
/// is for a caller that gives up.
class Conflict : public Failure {
public:
    explicit Conflict(std::string const& reason, std::int32_t code = KVX_E_LEDGER_BUSY) : Failure(code, reason) {}
};

/// One connection. One thread at a time. Every function throws Failure with one of the codes KVX_E_LEDGER_...
class Database {
public:
    Database() = default;
    Database(Database const&) = delete;
    Database& operator=(Database const&) = delete;
    virtual ~Database() = default;

    /// kRead: the statements see one state of the store. kWrite: no other transaction that writes changes what this one
    /// has read before it is committed. kReadFirst: statements that read, then startChanges(), then as kWrite;
    /// but where others write too, startChanges() or the first change throws Conflict rather than wait for them.
    enum class Access { kRead, kReadFirst, kWrite };

    virtual void begin(Access access) = 0;

    /// Between reading and the first change in a transaction with kReadFirst.
    virtual void startChanges() {}

    /// Returns after the changes are on disk. May throw Conflict: none of them is.
    virtual void commit() = 0;

    /// Undoes the transaction, if one is open.
    virtual void rollback() noexcept = 0;

    /// Runs a statement and returns its rows. May throw Conflict inside a transaction.
    virtual Rows run(char const* statement, Parameters parameters) = 0;

    /// Does housekeeping that no shopper should wait for. For workers; failures are left to the next call.
    virtual void tidy() {}

    /// The clock that all users of the store share, in milliseconds since 1970; nothing when it is the system's.
    virtual std::optional<std::int64_t> sharedTime() { return std::nullopt; }

    /// Forgets the connection without closing it: it belongs to the parent process.
    virtual void abandon() noexcept = 0;
};

/// A transaction, undone at the end of its life unless commit() was called.
class Transaction {
public:
    Transaction(Database& database, Database::Access access) : m_Database(database), m_Access(access) {
        if (access == Database::Access::kWrite) {
            reached(TestPoint::kBeforeChange);
        }
        m_Database.begin(access);
    }
    Transaction(Transaction const&) = delete;
    Transaction& operator=(Transaction const&) = delete;
    ~Transaction() {
        if (m_IsOpen) {
            m_Database.rollback();
        }
    }

    /// Before the first change, when it may have been begun with kReadFirst. May throw Conflict.
    void startChanges() {
        if (m_Access == Database::Access::kReadFirst) {
            reached(TestPoint::kBeforeChange);
            m_Database.startChanges();
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
    Database::Access m_Access;
    bool m_IsOpen = true;
};

/// Pauses for a random time that grows with `round`, so that transactions that met do not meet again.
void pauseAfterConflict(int round);

/// Runs `work`, which may take its transaction or nothing.
template <class Work>
auto resultIn(Transaction& transaction, Work& work) {
    if constexpr (std::is_invocable_v<Work, Transaction&>) {
        return work(transaction);
    } else {
        return work();
    }
}

/// Runs `work` in a transaction and commits it; again, a bounded number of times, when another one was in its way.
template <class Work>
auto inTransaction(Database& database, Work work) {
    constexpr int kMaxRounds = 50;
    for (int round = 1;; ++round) {
        try {
            Transaction transaction(database, Database::Access::kWrite);
            auto result = resultIn(transaction, work);
            transaction.commit();
            return result;
        } catch (Conflict const&) {
            if (round == kMaxRounds) {
                throw;
            }
        }
        pauseAfterConflict(round);
    }
}

/// The same for `work` that often finds nothing to change. Given its transaction, it reads and calls startChanges()
/// before the first change: until then it is in nobody's way, and not every database has all it reads see one state.
template <class Work>
auto inTransactionIfChanged(Database& database, Work work) {
    try {
        Transaction transaction(database, Database::Access::kReadFirst);
        auto result = work(transaction);
        transaction.commit();
        return result;
    } catch (Conflict const&) {
        // Somebody else writes: below they are waited for.
    }
    return inTransaction(database, work);
}

/// Runs `read` in a transaction that sees one state of the store; again when it lost its connection.
template <class Read>
auto inSnapshot(Database& database, Read read) {
    constexpr int kMaxRounds = 3;
    for (int round = 1;; ++round) {
        try {
            Transaction const transaction(database, Database::Access::kRead);
            return read();
        } catch (Conflict const&) {
            if (round == kMaxRounds) {
                throw;
            }
        }
        pauseAfterConflict(round);
    }
}

/// Opens `store`, "sqlite:PATH" or "postgresql://...", and creates or migrates its tables. A locked store is waited for
/// `busySeconds`. Throws Failure.
std::unique_ptr<Database> openDatabase(std::string const& store, std::int64_t busySeconds);

}  // namespace ledger

#endif
