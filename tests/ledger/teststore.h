/// A store for one test: a file, or a database of its own when the environment names a PostgreSQL server.
#ifndef TALLOWIN_TESTS_LEDGER_TESTSTORE_H
#define TALLOWIN_TESTS_LEDGER_TESTSTORE_H

#include <string>

namespace kvxtest {

/// Whether the tests run on the server that KVX_LEDGER_POSTGRESQL names (tests/ledger/support/withpostgresql.py).
bool runsOnPostgresql();

/// An empty store, gone at the end of its life.
class TestStore {
public:
    /// The file is `path` when the store is a file.
    explicit TestStore(std::string const& path);
    TestStore(TestStore const&) = delete;
    TestStore& operator=(TestStore const&) = delete;
    ~TestStore();

    /// What Ledger_Open takes.
    [[nodiscard]] std::string const& name() const { return m_Name; }

    /// Runs statements as a stranger to the ledger. "" when they succeed, else what the database says.
    [[nodiscard]] std::string run(std::string const& sql) const;

    /// The first row of a query, its columns with spaces in between, "-" for NULL.
    [[nodiscard]] std::string one(std::string const& query) const;

private:
    std::string m_Name;
    std::string m_Database;  ///< On the server; empty when the store is a file.
};

}  // namespace kvxtest

#endif
