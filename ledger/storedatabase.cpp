#include "ledger/storedatabase.h"

#include <algorithm>
#include <chrono>
#include <random>
#include <thread>

#ifdef KVX_LEDGER_POSTGRESQL
#include "ledger/postgresqldatabase.h"
#endif
#include "ledger/sqlitedatabase.h"

namespace ledger {

void pauseAfterConflict(int round) {
    constexpr int kMaxDoublings = 6;
    thread_local std::minstd_rand s_Random(std::random_device{}());
    int const longest = 1 << std::min(round, kMaxDoublings);
    std::this_thread::sleep_for(std::chrono::milliseconds(std::uniform_int_distribution<int>(0, longest)(s_Random)));
}

std::unique_ptr<Database> openDatabase(std::string const& store, std::int64_t busySeconds) {
    static std::string const kSqlite = "sqlite:";
    static std::string const kPostgresql = "postgresql://";
    if (store.compare(0, kSqlite.size(), kSqlite) == 0 && store.size() > kSqlite.size()) {
        std::string const path = store.substr(kSqlite.size());
        // SQLite gives names such as ":memory:" and "file:orders.db?mode=memory" a meaning of their own.
        return std::make_unique<SqliteDatabase>(path[0] == '/' ? path : "./" + path, busySeconds);
    }
    if (store.compare(0, kPostgresql.size(), kPostgresql) == 0) {
#ifdef KVX_LEDGER_POSTGRESQL
        return std::make_unique<PostgresqlDatabase>(store, busySeconds);
#else
        throw Failure(KVX_E_LEDGER_CANNOT_OPEN, "this build of the ledger has no PostgreSQL: libpq was not found");
#endif
    }
    // What follows the colon may hold a password.
    throw Failure(KVX_E_LEDGER_CANNOT_OPEN, "\"" + store.substr(0, store.find(':')) +
                                                "\" names no kind of store: write sqlite:PATH or postgresql://...");
}

}  // namespace ledger
