// The few SQLite calls that the store needs: statements, the connection, transactions.
// The file is created by open() before SQLite sees it, because SQLite would make it readable for everyone. The journal
// is a write-ahead log, so connections that read and the one that writes do not wait for each other. A transaction that
// is not committed is rolled back by its destructor. A prepared statement is kept under its text while it is not used;
// one that is needed twice at the same time is prepared twice.
#include "sandbox/store/database.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <new>
#include <stdexcept>

#include "sandbox/crypto/filedescriptor.h"

namespace sandbox {

namespace {

[[noreturn]] void fail(sqlite3* database) {
    throw std::runtime_error(std::string("database: ") + sqlite3_errmsg(database) + " (" +
                             sqlite3_db_filename(database, "main") + ")");
}

sqlite3* openFile(std::string const& path, Database::Access access) {
    bool const writes = access == Database::Access::kWrite;
    if (writes) {
        // SQLite would create the file readable for everyone; it holds private keys.
        checkedDescriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR), "cannot open " + path);
    }
    sqlite3* database = nullptr;
    int const flags = (writes ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY) | SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(path.c_str(), &database, flags, nullptr) != SQLITE_OK) {
        std::string const reason = database != nullptr ? sqlite3_errmsg(database) : "out of memory";
        sqlite3_close(database);
        throw std::runtime_error("cannot open " + path + ": " + reason);
    }
    return database;
}

}  // namespace

void Statement::prepare() {
    auto const kept = m_Database.m_Kept.find(m_Sql);
    if (kept != m_Database.m_Kept.end() && kept->second) {
        m_Statement = std::move(kept->second);
        return;
    }
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v3(m_Database.m_Database.get(), m_Sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &statement,
                           nullptr) != SQLITE_OK) {
        fail(m_Database.m_Database.get());
    }
    m_Statement.reset(statement);
}

Statement::~Statement() {
    // What reset() returns was reported by step() already.
    sqlite3_reset(m_Statement.get());
    sqlite3_clear_bindings(m_Statement.get());
    try {
        m_Database.m_Kept[m_Sql] = std::move(m_Statement);
    } catch (std::bad_alloc const&) {
        // It is prepared again when it is needed.
    }
}

void Statement::check(int result) const {
    if (result != SQLITE_OK) {
        fail(sqlite3_db_handle(m_Statement.get()));
    }
}

void Statement::bind(std::string const& text) {
    check(sqlite3_bind_text64(m_Statement.get(), ++m_Bound, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
}

void Statement::bind(Bytes bytes) {
    std::string const& value = bytes.m_Value;
    check(sqlite3_bind_blob64(m_Statement.get(), ++m_Bound, value.data(), value.size(), SQLITE_TRANSIENT));
}

void Statement::bind(std::int64_t number) {
    check(sqlite3_bind_int64(m_Statement.get(), ++m_Bound, number));
}

bool Statement::step() {
    int const result = sqlite3_step(m_Statement.get());
    if (result == SQLITE_ROW) {
        return true;
    }
    if (result != SQLITE_DONE) {
        fail(sqlite3_db_handle(m_Statement.get()));
    }
    return false;
}

std::string Statement::column(int index) const {
    void const* const data = sqlite3_column_blob(m_Statement.get(), index);
    int const length = sqlite3_column_bytes(m_Statement.get(), index);
    if (data == nullptr) {
        return "";
    }
    return std::string(static_cast<char const*>(data), static_cast<std::size_t>(length));
}

std::int64_t Statement::numberColumn(int index) const {
    return sqlite3_column_int64(m_Statement.get(), index);
}

Database::Database(std::string const& path, Access access) : m_Database(openFile(path, access)) {
    sqlite3_busy_timeout(m_Database.get(), 5000);
    if (access == Access::kWrite) {
        // What savepoints could restore is kept in memory, which spares a temporary file.
        execute(
            "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA foreign_keys = ON; "
            "PRAGMA temp_store = MEMORY");
    }
}

void Database::execute(char const* sql) {
    if (sqlite3_exec(m_Database.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        fail(m_Database.get());
    }
}

void Database::keepLog() {
    auto const count = [](void* pagesInLog, sqlite3*, char const*, int pages) {
        *static_cast<int*>(pagesInLog) = pages;
        return SQLITE_OK;
    };
    sqlite3_wal_hook(m_Database.get(), count, &m_PagesInLog);
}

void Database::copyTo(Database& target) {
    sqlite3* const to = target.m_Database.get();
    sqlite3_backup* const backup = sqlite3_backup_init(to, "main", m_Database.get(), "main");
    if (backup != nullptr) {
        sqlite3_backup_step(backup, -1);
    }
    if (backup == nullptr || sqlite3_backup_finish(backup) != SQLITE_OK) {
        fail(to);
    }
}

Transaction::~Transaction() {
    if (!m_Open) {
        return;
    }
    try {
        m_Database.run("ROLLBACK");
    } catch (std::runtime_error const&) {
        // SQLite has rolled back by itself, which is what was wanted; the failure that led here is on its way.
    }
}

void Transaction::commit() {
    m_Database.run("COMMIT");
    m_Open = false;
}

ReaderPool::Reader ReaderPool::take() {
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        if (!m_Idle.empty()) {
            Reader reader(m_Idle.back().release(), {this});
            m_Idle.pop_back();
            return reader;
        }
    }
    return Reader(new Database(m_Path, Database::Access::kRead), {this});
}

void ReaderPool::giveBack(std::unique_ptr<Database> database) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    if (m_Idle.size() < kMaxIdle) {
        m_Idle.push_back(std::move(database));
    }
}

}  // namespace sandbox
