/// A store on a PostgreSQL server, for several web servers.
#ifndef TALLOWIN_LEDGER_POSTGRESQLDATABASE_H
#define TALLOWIN_LEDGER_POSTGRESQLDATABASE_H

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "ledger/libpq.h"
#include "ledger/storedatabase.h"

namespace ledger {

/// The tables, from ledger/schema_postgresql.sql.
extern char const kPostgresqlSchema[];

/// One connection to one database, made again after it is lost. Transactions that write are serializable.
class PostgresqlDatabase : public Database {
public:
    PostgresqlDatabase(std::string const& url, std::int64_t busySeconds);

    void begin(Access access) override;
    void startChanges() override;
    void commit() override;
    void rollback() noexcept override;
    Rows run(char const* statement, Parameters parameters) override;
    std::optional<std::int64_t> sharedTime() override;
    void abandon() noexcept override;

private:
    using Clock = std::chrono::steady_clock;

    struct Finish {
        void operator()(PGconn* connection) const noexcept { libpq().finish(connection); }
    };
    struct Clear {
        void operator()(PGresult* result) const noexcept { libpq().clear(result); }
    };
    using Result = std::unique_ptr<PGresult, Clear>;

    /// What is open on the connection.
    enum class Open { kNothing, kRead, kWrite };

    void connect();
    void reconnect();
    void migrate();
    Result execute(char const* sql);
    Rows runPrepared(char const* statement, Parameters parameters);
    std::string const& prepared(char const* statement);
    Result lastResult(int sent);
    void waitForInput(Clock::time_point end);
    void check(Result const& result);
    std::int64_t number(char const* sql);
    [[noreturn]] void failForState(std::string const& state, std::string const& reason);
    [[noreturn]] void lose(std::string const& reason);
    void findOutCommit();

    template <class Call>
    auto again(Call call);

    std::string m_Url;
    std::int64_t m_BusySeconds;
    std::unique_ptr<PGconn, Finish> m_Connection;   ///< Null when it is lost.
    std::map<char const*, std::string> m_Prepared;  ///< Names of statements by address, on this connection.
    Open m_Open = Open::kNothing;
    std::string m_Transaction;      ///< The server's number of the transaction that is open or was last.
    std::int64_t m_ServerTime = 0;  ///< What the server's clock showed when it was last read.
    std::optional<Clock::time_point> m_ReadAt;
};

}  // namespace ledger

#endif
