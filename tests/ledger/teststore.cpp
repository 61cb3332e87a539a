#include "tests/ledger/teststore.h"

#include <sqlite3.h>
#include <unistd.h>

#ifdef KVX_LEDGER_POSTGRESQL
#include <libpq-fe.h>
#endif

#include <cstdlib>
#include <stdexcept>

namespace kvxtest {

namespace {

std::string serverAddress() {
    char const* const address = std::getenv("KVX_LEDGER_POSTGRESQL");
    return address == nullptr ? "" : address;
}

/// The address with the name of a database.
std::string addressOf(std::string const& database) {
    std::string address = serverAddress();
    return address.replace(address.find("%s"), 2, database);
}

/// What a database says: an error, and the first row of its answer.
struct Said {
    std::string m_Error;
    std::string m_Row;
};

void addColumn(std::string& row, char const* text) {
    row += (row.empty() ? "" : " ") + std::string(text == nullptr ? "-" : text);
}

Said askServer(std::string const& address, std::string const& sql) {
    Said said;
#ifdef KVX_LEDGER_POSTGRESQL
    PGconn* const connection = PQconnectdb(address.c_str());
    PGresult* const result = PQexec(connection, sql.c_str());
    ExecStatusType const status = PQresultStatus(result);
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        said.m_Error = PQerrorMessage(connection);
    }
    for (int column = 0; PQntuples(result) > 0 && column < PQnfields(result); ++column) {
        addColumn(said.m_Row, PQgetisnull(result, 0, column) != 0 ? nullptr : PQgetvalue(result, 0, column));
    }
    PQclear(result);
    PQfinish(connection);
#else
    said.m_Error = "these tests were built without PostgreSQL: " + address + sql;
#endif
    return said;
}

Said askFile(std::string const& path, std::string const& sql) {
    constexpr int kBusyMilliseconds = 10000;
    Said said;
    sqlite3* connection = nullptr;
    bool isDone = sqlite3_open(path.c_str(), &connection) == SQLITE_OK;
    sqlite3_busy_timeout(connection, kBusyMilliseconds);
    auto const take = [](void* row, int count, char** columns, char**) {
        for (int column = 0; column < count; ++column) {
            addColumn(*static_cast<std::string*>(row), columns[column]);
        }
        return 0;
    };
    isDone = isDone && sqlite3_exec(connection, sql.c_str(), take, &said.m_Row, nullptr) == SQLITE_OK;
    said.m_Error = isDone ? "" : sqlite3_errmsg(connection);
    sqlite3_close(connection);
    return said;
}

}  // namespace

bool runsOnPostgresql() {
    return !serverAddress().empty();
}

TestStore::TestStore(std::string const& path) : m_Name("sqlite:" + path) {
    static int s_Stores = 0;
    if (!runsOnPostgresql()) {
        return;
    }
    m_Database = "t" + std::to_string(::getpid()) + "_" + std::to_string(++s_Stores);
    m_Name = addressOf(m_Database);
    Said const said = askServer(addressOf("postgres"), "CREATE DATABASE " + m_Database);
    if (!said.m_Error.empty()) {
        throw std::runtime_error(said.m_Error);
    }
}

TestStore::~TestStore() {
    if (!m_Database.empty()) {
        static_cast<void>(askServer(addressOf("postgres"), "DROP DATABASE IF EXISTS " + m_Database + " WITH (FORCE)"));
    }
}

std::string TestStore::run(std::string const& sql) const {
    return m_Database.empty() ? askFile(m_Name.substr(m_Name.find(':') + 1), sql).m_Error
                              : askServer(m_Name, "SET search_path = tallowin; " + sql).m_Error;
}

std::string TestStore::one(std::string const& query) const {
    Said const said = m_Database.empty() ? askFile(m_Name.substr(m_Name.find(':') + 1), query)
                                         : askServer(m_Name, "SET search_path = tallowin; " + query);
    return said.m_Error.empty() ? said.m_Row : said.m_Error;
}

}  // namespace kvxtest
