// The log of a store: what a commit writes, when, and what is left of one that fails.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "ledger/failure.h"
#include "ledger/logfile.h"
#include "tallowin/codes.h"
#include "tests/ledger/flushes.h"
#include "tests/ledger/stranger.h"
#include "tests/support/directories.h"

using namespace kvxtest;

namespace {

class LogFile : public testing::Test {
protected:
    LogFile() {
        EXPECT_EQ(m_Writer.run("PRAGMA synchronous = FULL; PRAGMA journal_mode = WAL;"
                               "CREATE TABLE a (text TEXT); CREATE TABLE b (text TEXT); CREATE TABLE c (text TEXT)"),
                  SQLITE_OK);
    }

    /// Adds a row to each table, and whatever `further` adds, without a commit.
    void change(char const* further = "") const {
        EXPECT_EQ(m_Writer.run("BEGIN IMMEDIATE; INSERT INTO a VALUES ('x'); INSERT INTO b VALUES ('x');"
                               "INSERT INTO c VALUES ('x')"),
                  SQLITE_OK);
        EXPECT_EQ(m_Writer.run(further), SQLITE_OK);
    }

    [[nodiscard]] int commit() const {
        ledger::GatheredCommit const gathered(m_Writer.get());
        return m_Writer.run("COMMIT");
    }

    [[nodiscard]] std::string path() const { return m_Dir.file("store.db"); }

    static std::string rowsOf(Stranger const& reader) {
        return reader
            .column(
                "SELECT (SELECT count(*) FROM a) || ' ' || (SELECT count(*) FROM b) || ' ' ||"
                " (SELECT count(*) FROM c)")
            .at(0);
    }

    /// What a machine finds that loses its power now: the files, without the memory that processes share.
    [[nodiscard]] std::string rowsAfterPowerLoss() const {
        for (char const* const file : {"", "-wal"}) {
            std::filesystem::copy_file(path() + file, m_Dir.file("copy.db") + file,
                                       std::filesystem::copy_options::overwrite_existing);
        }
        return rowsOf(Stranger(m_Dir.file("copy.db")));
    }

    TemporaryDirectory m_Dir;
    Stranger m_Writer{path(), ledger::logFileSystem()};
};

TEST_F(LogFile, GetsTheCommitAtOnceAndBeforeItReturns) {
    change();
    std::optional<long> const before = writeCalls();
    long const flushes = flushCalls();
    ASSERT_EQ(commit(), SQLITE_OK);
    EXPECT_EQ(flushCalls(), flushes + 1);
    EXPECT_TRUE(!before || writeCalls() == *before + 1);
    EXPECT_EQ(rowsAfterPowerLoss(), "1 1 1");
    EXPECT_EQ(rowsOf(Stranger(path())), "1 1 1");
}

TEST_F(LogFile, IsWrittenPieceByPieceOutsideOfACommit) {
    std::optional<long> const before = writeCalls();
    ASSERT_EQ(m_Writer.run("INSERT INTO a VALUES ('x')"), SQLITE_OK);
    EXPECT_TRUE(!before || writeCalls() == *before + 2) << "the header of the page, the page";
    EXPECT_EQ(rowsAfterPowerLoss(), "1 0 0");
}

TEST_F(LogFile, TakesACommitThatIsLargerThanItsRoom) {
    change(
        "WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 999)"
        " INSERT INTO a SELECT hex(zeroblob(1000)) FROM n");
    ASSERT_EQ(commit(), SQLITE_OK);
    EXPECT_EQ(rowsAfterPowerLoss(), "1000 1 1");
    EXPECT_EQ(Stranger(path()).column("PRAGMA integrity_check"), std::vector<std::string>{"ok"});
}

TEST_F(LogFile, ForgetsACommitThatFails) {
    change();
    // A file that may not grow.
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    auto* const handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit const none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &none), 0);
    EXPECT_NE(commit(), SQLITE_OK);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
    std::signal(SIGXFSZ, handler);
    // Another connection writes where the failed commit would have.
    Stranger const other(path());
    ASSERT_EQ(other.run("INSERT INTO b VALUES ('y'); INSERT INTO b VALUES ('z')"), SQLITE_OK);
    EXPECT_EQ(rowsOf(m_Writer), "0 2 0");
    change();
    ASSERT_EQ(commit(), SQLITE_OK);
    EXPECT_EQ(rowsAfterPowerLoss(), "1 3 1");
    EXPECT_EQ(Stranger(path()).column("PRAGMA integrity_check"), std::vector<std::string>{"ok"});
}

TEST_F(LogFile, ForgetsACommitThatIsNotFlushed) {
    change();
    {
        FailingFlushes const failing;
        EXPECT_NE(commit(), SQLITE_OK);
    }
    EXPECT_EQ(rowsOf(m_Writer), "0 0 0");
    change();
    ASSERT_EQ(commit(), SQLITE_OK);
    EXPECT_EQ(rowsAfterPowerLoss(), "1 1 1");
}

TEST_F(LogFile, ForgetsALargeTransactionThatIsUndone) {
    // With a small cache SQLite writes pages to the log long before the end.
    ASSERT_EQ(m_Writer.run("PRAGMA cache_size = 10"), SQLITE_OK);
    std::uintmax_t const size = std::filesystem::file_size(path() + "-wal");
    change(
        "WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 40)"
        " INSERT INTO a SELECT hex(zeroblob(1000)) FROM n");
    ASSERT_GT(std::filesystem::file_size(path() + "-wal"), size) << "pages are written before the end";
    ASSERT_EQ(m_Writer.run("ROLLBACK"), SQLITE_OK);
    Stranger const other(path());
    ASSERT_EQ(other.run("INSERT INTO b VALUES ('y')"), SQLITE_OK);
    change();
    ASSERT_EQ(commit(), SQLITE_OK);
    EXPECT_EQ(rowsAfterPowerLoss(), "1 2 1");
    EXPECT_EQ(Stranger(path()).column("PRAGMA integrity_check"), std::vector<std::string>{"ok"});
}

TEST_F(LogFile, IsWrittenWholeWhereSqliteFillsSectors) {
    Stranger const other("file:" + path() + "?psow=0", ledger::logFileSystem());
    constexpr int kCommits = 8;
    for (int count = 0; count < kCommits; ++count) {
        ASSERT_EQ(other.run("BEGIN IMMEDIATE; INSERT INTO a VALUES ('x'); INSERT INTO b VALUES ('x')"), SQLITE_OK);
        ledger::GatheredCommit const gathered(other.get());
        ASSERT_EQ(other.run("COMMIT"), SQLITE_OK);
    }
    EXPECT_EQ(rowsAfterPowerLoss(), "8 8 0");
    EXPECT_EQ(rowsOf(other), "8 8 0");
    EXPECT_EQ(other.column("PRAGMA integrity_check"), std::vector<std::string>{"ok"});
}

TEST_F(LogFile, IsLeftAloneOfAConnectionWithOtherFiles) {
    Stranger const other(path());
    ASSERT_EQ(other.run("PRAGMA synchronous = FULL; BEGIN; INSERT INTO a VALUES ('x')"), SQLITE_OK);
    {
        ledger::GatheredCommit const gathered(other.get());
        ASSERT_EQ(other.run("COMMIT"), SQLITE_OK);
    }
    EXPECT_EQ(rowsAfterPowerLoss(), "1 0 0");
    Stranger const inMemory(":memory:", ledger::logFileSystem());
    ledger::GatheredCommit const gathered(inMemory.get());
    EXPECT_EQ(inMemory.run("CREATE TABLE a (text TEXT)"), SQLITE_OK);
}

/// Memory of SQLite's that can be refused. It is configured once, before SQLite begins.
struct RefusedMemory {
    static inline bool s_IsRefused = false;
    static inline sqlite3_mem_methods s_Real{};

    static void configure() {
        sqlite3_shutdown();
        sqlite3_config(SQLITE_CONFIG_GETMALLOC, &s_Real);
        sqlite3_mem_methods methods = s_Real;
        methods.xMalloc = [](int size) { return s_IsRefused ? nullptr : s_Real.xMalloc(size); };
        sqlite3_config(SQLITE_CONFIG_MALLOC, &methods);
    }
};

/// The exit status of a process that looks for the files without memory, then with it.
int lookTwice() {
    constexpr int kFoundWithoutMemory = 1;
    constexpr int kOtherCode = 2;
    constexpr int kNotFoundLater = 3;
    RefusedMemory::configure();
    RefusedMemory::s_IsRefused = true;
    try {
        static_cast<void>(ledger::logFileSystem());
        return kFoundWithoutMemory;
    } catch (ledger::Failure const& failure) {
        if (failure.code() != KVX_E_OUT_OF_MEMORY) {
            return kOtherCode;
        }
    }
    RefusedMemory::s_IsRefused = false;
    return sqlite3_vfs_find(ledger::logFileSystem()) != nullptr ? 0 : kNotFoundLater;
}

TEST(LogFileSystem, IsLookedForAgainAfterMemoryWasShort) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";  // a process in which nobody has looked yet
    EXPECT_EXIT(std::exit(lookTwice()), testing::ExitedWithCode(0), "");
}

}  // namespace
