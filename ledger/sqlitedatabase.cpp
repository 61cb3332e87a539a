// A store in a file, by SQLite.
//
// Order: reasons of failure, the file, then the functions of the header. The file is created before SQLite sees it,
// because SQLite would make it readable for everyone, and its name is flushed to disk with its directory. The
// transaction of a migration is the same as any other: a kill leaves the old version.
#include "ledger/sqlitedatabase.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <limits>
#include <system_error>

#include "ledger/failure.h"
#include "ledger/logfile.h"
#include "tallowin/codes.h"

namespace ledger {

namespace {

constexpr int kPrimaryCode = 0xFF;  // the low byte of an extended result code

/// The result code for one of SQLite's, with the errno behind it.
std::int32_t codeOf(int result, int systemError) {
    // A write that ends at a quota or at the largest size of a file often leaves no errno behind.
    bool const isUnexplained = result == SQLITE_IOERR_WRITE && systemError == 0;
    bool const isQuota = isUnexplained || systemError == EDQUOT || systemError == ENOSPC || systemError == EFBIG;
    switch (result & kPrimaryCode) {
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return KVX_E_LEDGER_BUSY;
        case SQLITE_FULL:
            return KVX_E_LEDGER_FULL;
        case SQLITE_READONLY:
        case SQLITE_PERM:
            return KVX_E_LEDGER_READONLY;
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return KVX_E_LEDGER_DAMAGED;
        case SQLITE_CANTOPEN:
            return KVX_E_LEDGER_CANNOT_OPEN;
        case SQLITE_NOMEM:
            return KVX_E_OUT_OF_MEMORY;
        case SQLITE_IOERR:
            return isQuota ? KVX_E_LEDGER_FULL : KVX_E_LEDGER_STORE;
        default:
            return KVX_E_LEDGER_STORE;
    }
}

[[noreturn]] void failToOpen(std::string const& path) {
    throw Failure(KVX_E_LEDGER_CANNOT_OPEN, path + ": " + std::generic_category().message(errno));
}

/// A descriptor, closed at the end of its life.
class Descriptor {
public:
    Descriptor(std::string const& path, int flags)
        : m_Path(path), m_Number(::open(path.c_str(), flags | O_CLOEXEC, S_IRUSR | S_IWUSR)) {
        if (m_Number < 0) {
            failToOpen(m_Path);
        }
    }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;
    ~Descriptor() { ::close(m_Number); }

    void flush() const {
        if (::fsync(m_Number) != 0) {
            failToOpen(m_Path);
        }
    }

private:
    std::string m_Path;
    int m_Number;
};

std::string directoryOf(std::string const& path) {
    std::size_t const slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, std::max<std::size_t>(slash, 1));
}

/// Creates the file, for its owner only, when there is none, and returns `path`. An existing one is left alone and not
/// opened: closing a descriptor would release the locks of other connections of this process.
std::string const& createdPrivate(std::string const& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0) {
        return path;
    }
    if (errno != ENOENT) {
        failToOpen(path);
    }
    try {
        Descriptor const file(path, O_RDWR | O_CREAT | O_EXCL);
        file.flush();
    } catch (Failure const&) {
        if (::stat(path.c_str(), &status) != 0) {
            throw;
        }
        return path;  // another process has just created it
    }
    Descriptor const directory(directoryOf(path), O_RDONLY | O_DIRECTORY);
    directory.flush();
    return path;
}

void bind(sqlite3_stmt* statement, int position, Parameter const& value) {
    if (auto const* const number = std::get_if<std::int64_t>(&value)) {
        sqlite3_bind_int64(statement, position, *number);
    } else if (auto const* const text = std::get_if<std::string_view>(&value)) {
        sqlite3_bind_text64(statement, position, text->data(), text->size(), SQLITE_STATIC, SQLITE_UTF8);
    } else {
        sqlite3_bind_null(statement, position);
    }
}

Value column(sqlite3_stmt* statement, int index) {
    switch (sqlite3_column_type(statement, index)) {
        case SQLITE_NULL:
            return {};
        case SQLITE_INTEGER:
            return sqlite3_column_int64(statement, index);
        default: {
            void const* const data = sqlite3_column_blob(statement, index);
            auto const length = static_cast<std::size_t>(sqlite3_column_bytes(statement, index));
            return data == nullptr ? std::string() : std::string(static_cast<char const*>(data), length);
        }
    }
}

/// Pages in the log from which on a worker copies them to the tables, and from which on any commit does. The log must
/// not grow for ever: overwriting its old pages is faster on disk than making the file longer.
constexpr int kTidyLogPages = 1000;
constexpr int kMaxLogPages = 4 * kTidyLogPages;

/// Pause before a worker copies the log again because other connections have committed.
constexpr std::chrono::seconds kTidyPause(1);

/// Copies the log to the tables. Pages that other connections still read, or that the disk has no room for, stay in the
/// log for the next time.
void copyLog(sqlite3* connection) noexcept {
    sqlite3_wal_checkpoint_v2(connection, "main", SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
}

/// Compiled when the store is opened: undoing needs no memory, which may be what has failed.
constexpr char kRollback[] = "ROLLBACK";

/// Makes a statement ready for its next use, whatever becomes of this one.
class Reset {
public:
    explicit Reset(sqlite3_stmt* statement) : m_Statement(statement) {}
    Reset(Reset const&) = delete;
    Reset& operator=(Reset const&) = delete;
    ~Reset() {
        sqlite3_reset(m_Statement);
        sqlite3_clear_bindings(m_Statement);
    }

private:
    sqlite3_stmt* m_Statement;  ///< Borrowed.
};

}  // namespace

SqliteDatabase::SqliteDatabase(std::string const& path, std::int64_t busySeconds)
    : m_Path(path), m_File(createdPrivate(path)) {
    sqlite3* connection = nullptr;
    int const result =
        sqlite3_open_v2(path.c_str(), &connection, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, logFileSystem());
    m_Connection.reset(connection);
    if (connection == nullptr) {
        throw Failure(KVX_E_OUT_OF_MEMORY, path + ": no memory for a connection");
    }
    sqlite3_extended_result_codes(connection, 1);
    check(result);
    constexpr std::int64_t kMaxMilliseconds = std::numeric_limits<int>::max();
    sqlite3_busy_timeout(connection, static_cast<int>(std::min(busySeconds * 1000, kMaxMilliseconds)));
    if (sqlite3_db_readonly(connection, "main") == 1) {
        throw Failure(KVX_E_LEDGER_READONLY, path + ": can be read only");
    }
    static_cast<void>(version());  // what is refused is not written to
    execute("PRAGMA synchronous = FULL");
    enterLogMode(busySeconds);
    prepared(kRollback);
    migrate();
    execute("PRAGMA foreign_keys = ON");
    sqlite3_wal_hook(connection, &SqliteDatabase::afterCommit, this);
}

SqliteDatabase::~SqliteDatabase() {
    m_Statements.clear();
}

void SqliteDatabase::begin(Access access) {
    static constexpr char kBeginRead[] = "BEGIN";
    static constexpr char kBeginWrite[] = "BEGIN IMMEDIATE";
    rollback();  // a transaction that could not be undone before
    step(access == Access::kWrite ? kBeginWrite : kBeginRead);
    try {
        requireInPlace();
    } catch (Failure const&) {
        rollback();
        throw;
    }
}

void SqliteDatabase::startChanges() {
    requireInPlace();
}

void SqliteDatabase::commit() {
    static constexpr char kCommit[] = "COMMIT";
    GatheredCommit const gathered(m_Connection.get());
    step(kCommit);
}

void SqliteDatabase::rollback() noexcept {
    // A failure that undoes the transaction by itself leaves nothing to undo.
    if (sqlite3_get_autocommit(m_Connection.get()) == 0) {
        sqlite3_stmt* const statement = m_Statements.at(kRollback).get();
        sqlite3_step(statement);
        sqlite3_reset(statement);
    }
}

Rows SqliteDatabase::run(char const* statement, Parameters parameters) {
    if (sqlite3_get_autocommit(m_Connection.get()) != 0) {
        requireInPlace();
    }
    sqlite3_stmt* const compiled = prepared(statement);
    Reset const reset(compiled);
    int position = 0;
    for (Parameter const& value : parameters) {
        bind(compiled, ++position, value);
    }
    Rows rows;
    int const columns = sqlite3_column_count(compiled);
    int result = sqlite3_step(compiled);
    for (; result == SQLITE_ROW; result = sqlite3_step(compiled)) {
        Row& row = rows.emplace_back();
        row.reserve(static_cast<std::size_t>(columns));
        for (int index = 0; index < columns; ++index) {
            row.push_back(column(compiled, index));
        }
    }
    if (result != SQLITE_DONE) {
        fail();
    }
    return rows;
}

void SqliteDatabase::tidy() {
    // The length of the log is known after an own commit only; commits of other connections show in the version.
    std::optional<std::uint32_t> const version = contentVersion();
    auto const now = std::chrono::steady_clock::now();
    bool const haveOthersChanged = version != m_TidyVersion && now >= m_NextTidy && hasLongLog();
    if (m_LogPages >= kTidyLogPages || haveOthersChanged) {
        m_LogPages = 0;
        m_TidyVersion = version;
        m_NextTidy = now + kTidyPause;
        copyLog(m_Connection.get());
    }
}

void SqliteDatabase::abandon() noexcept {
    // Closing here would write to the parent's file and release locks in the parent's name.
    for (auto& [text, statement] : m_Statements) {
        static_cast<void>(text);
        static_cast<void>(statement.release());
    }
    static_cast<void>(m_Connection.release());
    m_File.abandon();
}

void SqliteDatabase::fail() const {
    sqlite3* const connection = m_Connection.get();
    int const result = sqlite3_extended_errcode(connection);
    bool const hasOnlyRead =
        sqlite3_get_autocommit(connection) == 0 && sqlite3_txn_state(connection, "main") == SQLITE_TXN_READ;
    if ((result & kPrimaryCode) == SQLITE_BUSY && hasOnlyRead) {
        // What has been read is no longer what a change would change, or another connection is about to change it.
        throw Conflict(m_Path + ": " + sqlite3_errmsg(connection));
    }
    int const systemError = sqlite3_system_errno(connection);
    std::string const why = systemError == 0 ? "" : ": " + std::generic_category().message(systemError);
    throw Failure(codeOf(result, systemError), m_Path + ": " + sqlite3_errmsg(connection) + why);
}

void SqliteDatabase::check(int result) const {
    if (result != SQLITE_OK) {
        fail();
    }
}

/// Runs a statement without parameters and rows that is run often.
void SqliteDatabase::step(char const* statement) {
    sqlite3_stmt* const compiled = prepared(statement);
    Reset const reset(compiled);
    if (sqlite3_step(compiled) != SQLITE_DONE) {
        fail();
    }
}

void SqliteDatabase::execute(char const* sql) {
    check(sqlite3_exec(m_Connection.get(), sql, nullptr, nullptr, nullptr));
}

std::int64_t SqliteDatabase::number(char const* sql) {
    Rows const rows = run(sql, {});
    return rows.empty() ? 0 : std::get<std::int64_t>(rows[0][0]);
}

/// Requires that the file is still the one at its path. What is written to a file that was removed or replaced is lost
/// with this connection.
void SqliteDatabase::requireInPlace() {
    int hasMoved = 0;
    if (sqlite3_file_control(m_Connection.get(), "main", SQLITE_FCNTL_HAS_MOVED, &hasMoved) == SQLITE_OK &&
        hasMoved != 0) {
        throw Failure(KVX_E_LEDGER_STORE, m_Path + ": was removed or replaced while it was open: open the store again");
    }
}

/// Has the file keep a write-ahead log. SQLite does not wait for other connections that do the same at this moment.
void SqliteDatabase::enterLogMode(std::int64_t busySeconds) {
    static constexpr char kEnter[] = "PRAGMA journal_mode = WAL";
    constexpr int kPauseMilliseconds = 5;
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(busySeconds);
    while (true) {
        try {
            Rows const rows = run(kEnter, {});
            if (rows.empty() || rows[0][0] != Value("wal")) {
                throw Failure(KVX_E_LEDGER_CANNOT_OPEN, m_Path + ": no write-ahead log is possible in this place");
            }
            return;
        } catch (Failure const& failure) {
            if (failure.code() != KVX_E_LEDGER_BUSY || std::chrono::steady_clock::now() >= end) {
                throw;
            }
        }
        sqlite3_sleep(kPauseMilliseconds);
    }
}

/// The version of the tables, 0 for an empty file. Throws Failure for a newer release's and another program's.
std::int64_t SqliteDatabase::version() {
    static constexpr char kReadVersion[] = "PRAGMA user_version";
    static constexpr char kCountTables[] = "SELECT count(*) FROM sqlite_master";
    std::int64_t const version = number(kReadVersion);
    if (version > kSqliteVersion) {
        throw Failure(KVX_E_LEDGER_VERSION, m_Path + ": has version " + std::to_string(version) +
                                                " of the tables, this release knows version " +
                                                std::to_string(kSqliteVersion));
    }
    // Another process may create the tables between the two readings; what it creates has a version.
    if (version < 0 || (version == 0 && number(kCountTables) != 0 && number(kReadVersion) == 0)) {
        throw Failure(KVX_E_LEDGER_DAMAGED, m_Path + ": is a database, and not one of a ledger");
    }
    return version;
}

/// A number that differs after every change of the store, by any connection. As fresh as the last statement.
std::optional<std::uint32_t> SqliteDatabase::contentVersion() {
    std::uint32_t version = 0;
    bool const isKnown =
        sqlite3_file_control(m_Connection.get(), "main", SQLITE_FCNTL_DATA_VERSION, &version) == SQLITE_OK;
    return isKnown ? std::optional<std::uint32_t>(version) : std::nullopt;
}

/// Whether the log has ever had the pages for which it is copied: its file keeps its size.
bool SqliteDatabase::hasLongLog() const noexcept {
    constexpr off_t kPageInLog = 4096 + 24;
    struct stat status {};
    return ::stat((m_Path + "-wal").c_str(), &status) == 0 && status.st_size >= kTidyLogPages * kPageInLog;
}

/// Brings the tables to this release's version. A store of another program is refused rather than written to.
void SqliteDatabase::migrate() {
    if (version() == kSqliteVersion) {
        return;
    }
    // A table that is copied is missing for a moment: views and tables of the merchant may name it all the same.
    execute("PRAGMA foreign_keys = OFF");
    execute("PRAGMA legacy_alter_table = ON");
    Transaction transaction(*this, Access::kWrite);
    for (std::int64_t step = version(); step < kSqliteVersion; ++step) {  // another process may have been faster
        execute(kSqliteSchemas[step]);
    }
    execute(("PRAGMA user_version = " + std::to_string(kSqliteVersion)).c_str());
    transaction.commit();
    execute("PRAGMA legacy_alter_table = OFF");
}

int SqliteDatabase::afterCommit(void* self, sqlite3* connection, char const* /*name*/, int logPages) noexcept {
    static_cast<SqliteDatabase*>(self)->m_LogPages = logPages;
    if (logPages >= kMaxLogPages) {
        copyLog(connection);
    }
    return SQLITE_OK;
}

sqlite3_stmt* SqliteDatabase::prepared(char const* statement) {
    std::unique_ptr<sqlite3_stmt, Finalize>& found = m_Statements[statement];
    if (found == nullptr) {
        sqlite3_stmt* compiled = nullptr;
        check(sqlite3_prepare_v3(m_Connection.get(), statement, -1, SQLITE_PREPARE_PERSISTENT, &compiled, nullptr));
        found.reset(compiled);
    }
    return found.get();
}

}  // namespace ledger
