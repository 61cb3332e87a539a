// A store on a PostgreSQL server.
//
// Order: conversions, the connection and its tables, transactions, statements, waiting, failures. Every wait has an
// end, because a server that is stopped answers no more and closes nothing.
//
// A connection that is lost outside of a transaction is made again at once, and the call is repeated. Inside of one the
// transaction is undone, so that Conflict makes its caller run it again. At a commit nobody knows what the server did:
// the transaction has a number, and a new connection asks what became of it.
#include "ledger/postgresqldatabase.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <thread>

#include "ledger/failure.h"
#include "tallowin/codes.h"

namespace ledger {

namespace {

constexpr std::int64_t kVersion = 4;
constexpr int kBinary = 1;
constexpr int kText = 0;
constexpr Oid kNumber64 = 20;  // pg_type: int8
constexpr std::int64_t kMillisecond = 1000;
constexpr std::int64_t kStatementSeconds = 10;  // what a statement may take beside waiting for locks
constexpr std::int64_t kAnswerSeconds = 15;     // longer: the server ends the statement first
constexpr std::chrono::seconds kClockLasts(60);
constexpr std::chrono::milliseconds kFatePause(20);
constexpr std::chrono::milliseconds kAwayPause(100);

struct CodeRow {
    char const* m_State;  ///< SQLSTATE, or its beginning.
    std::int32_t m_Code;
};

// clang-format off
constexpr CodeRow kCodes[] = {
    {"53100", KVX_E_LEDGER_FULL},      // disk_full
    {"55P03", KVX_E_LEDGER_BUSY},      // lock_not_available
    {"57014", KVX_E_LEDGER_BUSY},      // query_canceled, by the time limit
    {"25006", KVX_E_LEDGER_READONLY},  // read_only_sql_transaction
    {"0A000", KVX_E_LEDGER_READONLY},  // feature_not_supported: serializable transactions on a standby
    {"42501", KVX_E_LEDGER_READONLY},  // insufficient_privilege
    {"42P01", KVX_E_LEDGER_DAMAGED},   // undefined_table
    {"42703", KVX_E_LEDGER_DAMAGED},   // undefined_column
    {"XX001", KVX_E_LEDGER_DAMAGED},   // data_corrupted
    {"XX002", KVX_E_LEDGER_DAMAGED},   // index_corrupted
};

/// After these the transaction is undone and may be run again.
constexpr char const* kConflicts[] = {
    "40001",  // serialization_failure
    "40P01",  // deadlock_detected
    "23505",  // unique_violation: another transaction has just added the row
};

/// With these the server ends the connection.
constexpr char const* kLosses[] = {
    "08",     // connection exceptions
    "57P01",  // admin_shutdown
    "57P02",  // crash_shutdown
    "57P03",  // cannot_connect_now
    "25P03",  // idle_in_transaction_session_timeout
};
// clang-format on

template <class List>
bool beginsWithOneOf(List const& list, std::string const& state) {
    return std::any_of(std::begin(list), std::end(list), [&](char const* begin) { return state.rfind(begin, 0) == 0; });
}

/// The reason in the words of libpq, on one line.
std::string oneLine(char const* text) {
    std::string line = text == nullptr ? "" : text;
    while (!line.empty() && line.back() == '\n') {
        line.pop_back();
    }
    std::replace(line.begin(), line.end(), '\n', ' ');
    return line;
}

/// A big-endian number, as the server sends it.
std::int64_t numberIn(char const* bytes, int length) {
    std::uint64_t number = 0;
    for (int index = 0; index < length; ++index) {
        number = number << 8U | static_cast<unsigned char>(bytes[index]);
    }
    return static_cast<std::int64_t>(number);
}

Value valueIn(PGresult const* result, int row, int column) {
    if (libpq().getisnull(result, row, column) != 0) {
        return {};
    }
    char const* const bytes = libpq().getvalue(result, row, column);
    int const length = libpq().getlength(result, row, column);
    bool const isNumber = libpq().ftype(result, column) == kNumber64;
    if (isNumber && libpq().fformat(result, column) == kBinary) {
        return numberIn(bytes, length);
    }
    std::string text(bytes, static_cast<std::size_t>(length));
    return isNumber ? Value(std::int64_t{std::stoll(text)}) : Value(std::move(text));
}

Rows rowsOf(PGresult const* result) {
    Rows rows(static_cast<std::size_t>(libpq().ntuples(result)));
    int const columns = libpq().nfields(result);
    for (std::size_t row = 0; row < rows.size(); ++row) {
        rows[row].reserve(static_cast<std::size_t>(columns));
        for (int column = 0; column < columns; ++column) {
            rows[row].push_back(valueIn(result, static_cast<int>(row), column));
        }
    }
    return rows;
}

/// The parameters as libpq takes them: numbers as text, texts as their bytes.
class Given {
public:
    explicit Given(Parameters parameters) {
        m_Numbers.reserve(parameters.size());
        for (Parameter const& value : parameters) {
            auto const* const text = std::get_if<std::string_view>(&value);
            auto const* const number = std::get_if<std::int64_t>(&value);
            if (number != nullptr) {
                m_Numbers.push_back(std::to_string(*number));
            }
            m_Values.push_back(text != nullptr ? text->data() : number != nullptr ? m_Numbers.back().c_str() : nullptr);
            m_Lengths.push_back(text != nullptr ? static_cast<int>(text->size()) : 0);
            m_Formats.push_back(text != nullptr ? kBinary : kText);
        }
    }

    [[nodiscard]] int count() const { return static_cast<int>(m_Values.size()); }
    [[nodiscard]] char const* const* values() const { return m_Values.data(); }
    [[nodiscard]] int const* lengths() const { return m_Lengths.data(); }
    [[nodiscard]] int const* formats() const { return m_Formats.data(); }

private:
    std::vector<std::string> m_Numbers;  ///< Never grows behind the pointers below.
    std::vector<char const*> m_Values;
    std::vector<int> m_Lengths;
    std::vector<int> m_Formats;
};

/// Throws Failure unless libpq can read the address. Its own words would repeat the password.
void requireAddress(std::string const& url) {
    char* reason = nullptr;
    PQconninfoOption* const options = libpq().conninfoParse(url.c_str(), &reason);
    bool const isAddress = options != nullptr;
    libpq().conninfoFree(options);
    libpq().freemem(reason);
    if (!isAddress) {
        throw Failure(KVX_E_LEDGER_CANNOT_OPEN,
                      "the address of the store is not postgresql://[USER@]HOST[:PORT]/DATABASE");
    }
}

}  // namespace

PostgresqlDatabase::PostgresqlDatabase(std::string const& url, std::int64_t busySeconds)
    : m_Url(url), m_BusySeconds(busySeconds) {
    requireAddress(url);
    try {
        connect();
    } catch (Failure const& failure) {
        bool const isUnreachable = failure.code() == KVX_E_LEDGER_UNREACHABLE;
        throw Failure(isUnreachable ? KVX_E_LEDGER_CANNOT_OPEN : failure.code(), failure.what());
    }
    migrate();
}

/// Makes a new connection. Throws Failure.
void PostgresqlDatabase::connect() {
    m_Connection.reset();
    m_Prepared.clear();
    m_ReadAt.reset();
    std::string const wait = std::to_string(std::max<std::int64_t>(m_BusySeconds, 2));
    std::string const unacknowledged = std::to_string((m_BusySeconds + kAnswerSeconds) * kMillisecond);
    // What the address says stands last and counts.
    std::array<char const*, 5> const names = {"application_name", "connect_timeout", "tcp_user_timeout", "dbname",
                                              nullptr};
    std::array<char const*, 5> const values = {"tallowin-ledger", wait.c_str(), unacknowledged.c_str(), m_Url.c_str(),
                                               nullptr};
    m_Connection.reset(libpq().connectdbParams(names.data(), values.data(), 1));
    if (m_Connection == nullptr) {
        throw Failure(KVX_E_OUT_OF_MEMORY, "no memory for a connection");
    }
    if (libpq().status(m_Connection.get()) != CONNECTION_OK) {
        lose(oneLine(libpq().errorMessage(m_Connection.get())));
    }
    libpq().setNoticeProcessor(
        m_Connection.get(), [](void*, char const*) {}, nullptr);
    libpq().setnonblocking(m_Connection.get(), 1);
    // A lock on a whole table, which reading it in order takes, would be in the way of every other transaction.
    std::string const settings =
        "SET search_path = tallowin; SET enable_seqscan = off; SET lock_timeout = " +
        std::to_string(std::max<std::int64_t>(m_BusySeconds * kMillisecond, 1)) +
        "; SET statement_timeout = " + std::to_string((m_BusySeconds + kStatementSeconds) * kMillisecond) +
        "; SET idle_in_transaction_session_timeout = " +
        std::to_string((m_BusySeconds + kAnswerSeconds) * kMillisecond) +
        "; SELECT set_config('synchronous_commit', 'on', false)"
        " WHERE current_setting('synchronous_commit') IN ('off', 'local', 'remote_write')";
    try {
        execute(settings.c_str());
    } catch (Failure const&) {
        m_Connection.reset();  // without them its statements would find no tables
        throw;
    }
}

/// Makes a new connection, to a server that may be away for a while. Throws Failure.
void PostgresqlDatabase::reconnect() {
    Clock::time_point const end = Clock::now() + std::chrono::seconds(m_BusySeconds);
    while (true) {
        try {
            connect();
            return;
        } catch (Failure const& failure) {
            if (failure.code() != KVX_E_LEDGER_UNREACHABLE || Clock::now() >= end) {
                throw;
            }
        }
        std::this_thread::sleep_for(kAwayPause);
    }
}

/// Creates the tables. A schema of another program is refused rather than written to.
void PostgresqlDatabase::migrate() {
    static constexpr char kHasVersion[] =
        "SELECT count(*) FROM pg_catalog.pg_tables WHERE schemaname = 'tallowin' AND tablename = 'ledger_version'";
    static constexpr char kCountTables[] = "SELECT count(*) FROM pg_catalog.pg_tables WHERE schemaname = 'tallowin'";
    static constexpr char kHasSchema[] = "SELECT count(*) FROM pg_catalog.pg_namespace WHERE nspname = 'tallowin'";
    static constexpr char kReadVersion[] = "SELECT version FROM tallowin.ledger_version";
    if (number(kHasVersion) == 0) {
        execute("BEGIN; SELECT pg_advisory_xact_lock(hashtext('tallowin.ledger'))");
        m_Open = Open::kRead;  // nothing of it is asked about after a loss
        if (number(kHasVersion) == 0) {
            if (number(kCountTables) != 0) {
                rollback();
                throw Failure(KVX_E_LEDGER_DAMAGED, "the schema tallowin of the database is not one of a ledger");
            }
            if (number(kHasSchema) == 0) {
                execute("CREATE SCHEMA tallowin");
            }
            execute(kPostgresqlSchema);
        }
        execute("COMMIT");
        m_Open = Open::kNothing;
    }
    std::int64_t const version = number(kReadVersion);
    if (version != kVersion) {
        throw Failure(KVX_E_LEDGER_VERSION, "the store has version " + std::to_string(version) +
                                                " of the tables, this release knows version " +
                                                std::to_string(kVersion));
    }
}

/// Runs `call` outside of a transaction, with a new connection when there is none, and once more when that is lost.
template <class Call>
auto PostgresqlDatabase::again(Call call) {
    bool const isNew = m_Connection == nullptr;
    if (isNew) {
        reconnect();
    }
    try {
        return call();
    } catch (Failure const& failure) {
        if (failure.code() != KVX_E_LEDGER_UNREACHABLE || isNew) {
            throw;
        }
    }
    reconnect();
    return call();
}

void PostgresqlDatabase::begin(Access access) {
    if (access == Access::kReadFirst) {
        return;  // most read by one statement, which sees one state by itself and costs one round trip
    }
    bool const writes = access == Access::kWrite;
    again([&] {
        try {
            Result const result = execute(writes ? "BEGIN ISOLATION LEVEL SERIALIZABLE; SELECT txid_current()::text"
                                                 : "BEGIN ISOLATION LEVEL REPEATABLE READ, READ ONLY");
            if (writes) {
                m_Transaction = libpq().getvalue(result.get(), 0, 0);
            }
        } catch (Failure const&) {
            m_Open = Open::kRead;  // the first statement may have begun one
            rollback();
            throw;
        }
        m_Open = writes ? Open::kWrite : Open::kRead;
        return true;
    });
}

void PostgresqlDatabase::startChanges() {
    if (m_Open == Open::kNothing) {
        throw Conflict("what has been read is not held");
    }
}

void PostgresqlDatabase::commit() {
    if (m_Open == Open::kNothing) {
        return;
    }
    try {
        Result const result = execute("COMMIT");
        bool const isDone = std::string(libpq().cmdStatus(result.get())) == "COMMIT";
        m_Open = Open::kNothing;
        if (!isDone) {
            throw Failure(KVX_E_LEDGER_STORE, "the server has undone the transaction");
        }
    } catch (Conflict const& conflict) {
        if (conflict.code() != KVX_E_LEDGER_UNREACHABLE) {
            throw;
        }
        findOutCommit();
    }
}

/// After a connection was lost at a commit: returns when the transaction is committed, throws Conflict when it is not.
void PostgresqlDatabase::findOutCommit() {
    Clock::time_point const end = Clock::now() + std::chrono::seconds(m_BusySeconds);
    m_Open = Open::kNothing;
    while (true) {
        std::string fate;
        std::string reason = "the server is still at it";
        try {
            if (m_Connection == nullptr) {
                connect();
            }
            std::string const question = "SELECT txid_status(" + m_Transaction + ")";
            Result const result = execute(question.c_str());
            fate = libpq().getvalue(result.get(), 0, 0);
        } catch (Failure const& failure) {
            reason = failure.what();
        }
        if (fate == "committed") {
            return;
        }
        if (fate == "aborted") {
            throw Conflict("the connection was lost before the commit", KVX_E_LEDGER_UNREACHABLE);
        }
        if (Clock::now() >= end) {
            throw Failure(KVX_E_LEDGER_UNREACHABLE, "whether the change is stored is not known: " + reason);
        }
        std::this_thread::sleep_for(kFatePause);
    }
}

void PostgresqlDatabase::rollback() noexcept {
    if (m_Open == Open::kNothing) {
        return;
    }
    m_Open = Open::kNothing;
    try {
        if (m_Connection != nullptr) {
            execute("ROLLBACK");
        }
    } catch (std::exception const&) {
        m_Connection.reset();
    }
}

Rows PostgresqlDatabase::run(char const* statement, Parameters parameters) {
    if (m_Open != Open::kNothing) {
        return runPrepared(statement, parameters);
    }
    return again([&] { return runPrepared(statement, parameters); });
}

std::optional<std::int64_t> PostgresqlDatabase::sharedTime() {
    static constexpr char kRead[] = "SELECT (extract(epoch FROM clock_timestamp()) * 1000)::bigint";
    if (!m_ReadAt || Clock::now() - *m_ReadAt >= kClockLasts) {
        m_ServerTime = std::get<std::int64_t>(run(kRead, {}).at(0).at(0));
        m_ReadAt = Clock::now();
    }
    return m_ServerTime + std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - *m_ReadAt).count();
}

void PostgresqlDatabase::abandon() noexcept {
    // Closing here would say goodbye to the server in the parent's name.
    static_cast<void>(m_Connection.release());
}

PostgresqlDatabase::Result PostgresqlDatabase::execute(char const* sql) {
    if (m_Connection == nullptr) {
        lose("the connection is lost");
    }
    Result result = lastResult(libpq().sendQuery(m_Connection.get(), sql));
    check(result);
    return result;
}

Rows PostgresqlDatabase::runPrepared(char const* statement, Parameters parameters) {
    if (m_Connection == nullptr) {
        lose("the connection is lost");
    }
    std::string const& name = prepared(statement);
    Given const given(parameters);
    Result const result = lastResult(libpq().sendQueryPrepared(
        m_Connection.get(), name.c_str(), given.count(), given.values(), given.lengths(), given.formats(), kBinary));
    check(result);
    return rowsOf(result.get());
}

/// The name of the statement on this connection.
std::string const& PostgresqlDatabase::prepared(char const* statement) {
    auto const found = m_Prepared.find(statement);
    if (found != m_Prepared.end()) {
        return found->second;
    }
    std::string const name = "s" + std::to_string(m_Prepared.size());
    check(lastResult(libpq().sendPrepare(m_Connection.get(), name.c_str(), statement, 0, nullptr)));
    return m_Prepared.emplace(statement, name).first->second;
}

std::int64_t PostgresqlDatabase::number(char const* sql) {
    Rows const rows = runPrepared(sql, {});
    if (rows.empty()) {
        throw Failure(KVX_E_LEDGER_DAMAGED, "the store has no version");
    }
    return std::get<std::int64_t>(rows[0].at(0));
}

/// The last result of what was sent, or the first that is a failure.
PostgresqlDatabase::Result PostgresqlDatabase::lastResult(int sent) {
    PGconn* const connection = m_Connection.get();
    if (sent == 0) {
        lose(oneLine(libpq().errorMessage(connection)));
    }
    Clock::time_point const end = Clock::now() + std::chrono::seconds(m_BusySeconds + kAnswerSeconds);
    Result last;
    while (true) {
        waitForInput(end);
        Result next(libpq().getResult(connection));
        if (next == nullptr) {
            break;
        }
        bool const hasFailed = last != nullptr && libpq().resultStatus(last.get()) == PGRES_FATAL_ERROR;
        if (!hasFailed) {
            last = std::move(next);
        }
    }
    if (last == nullptr) {
        lose(oneLine(libpq().errorMessage(connection)));
    }
    return last;
}

/// Sends what is to be sent and waits until a result can be taken without waiting.
void PostgresqlDatabase::waitForInput(Clock::time_point end) {
    PGconn* const connection = m_Connection.get();
    while (true) {
        int const unsent = libpq().flush(connection);
        if (unsent < 0) {
            lose(oneLine(libpq().errorMessage(connection)));
        }
        if (unsent == 0 && libpq().isBusy(connection) == 0) {
            return;
        }
        auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) {
            lose("the server does not answer");
        }
        pollfd wait{libpq().socket(connection), POLLIN, 0};
        if (unsent > 0) {
            wait.events |= POLLOUT;
        }
        int const ready = ::poll(&wait, 1, static_cast<int>(std::min<std::int64_t>(left, INT32_MAX)));
        if (ready < 0 && errno != EINTR) {
            lose("the connection cannot be waited for");
        }
        if (ready > 0 && libpq().consumeInput(connection) == 0) {
            lose(oneLine(libpq().errorMessage(connection)));
        }
    }
}

/// Throws Failure or Conflict unless the result is a success.
void PostgresqlDatabase::check(Result const& result) {
    ExecStatusType const status = libpq().resultStatus(result.get());
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) {
        return;
    }
    char const* const state = libpq().resultErrorField(result.get(), PG_DIAG_SQLSTATE);
    char const* const words = libpq().resultErrorField(result.get(), PG_DIAG_MESSAGE_PRIMARY);
    if (state == nullptr || libpq().status(m_Connection.get()) != CONNECTION_OK) {
        lose(oneLine(libpq().errorMessage(m_Connection.get())));
    }
    failForState(state, oneLine(words));
}

void PostgresqlDatabase::failForState(std::string const& state, std::string const& reason) {
    std::string const text = "PostgreSQL: " + reason + " (" + state + ")";
    if (beginsWithOneOf(kLosses, state)) {
        lose(text);
    }
    if (beginsWithOneOf(kConflicts, state)) {
        throw Conflict(text);
    }
    for (CodeRow const& row : kCodes) {
        if (state == row.m_State) {
            throw Failure(row.m_Code, text);
        }
    }
    throw Failure(KVX_E_LEDGER_STORE, text);
}

/// Gives the connection up. A transaction that was open is undone.
void PostgresqlDatabase::lose(std::string const& reason) {
    std::string const text = reason;  // of the connection, perhaps
    m_Connection.reset();
    m_Prepared.clear();
    if (m_Open != Open::kNothing) {
        throw Conflict(text, KVX_E_LEDGER_UNREACHABLE);
    }
    throw Failure(KVX_E_LEDGER_UNREACHABLE, text);
}

}  // namespace ledger
