// Transactions that threads share: what is seen of them when, and what becomes of them when something fails.
#include "sandbox/store/jointwriter.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "tests/support/directories.h"

namespace {

using namespace sandbox;
using kvxtest::TemporaryDirectory;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Turn = JointWriter::Turn;
using Unit = JointWriter::Unit;

class JointWriterTest : public ::testing::Test {
protected:
    JointWriterTest() {
        // The reference is checked by the commit, and 0 is the only number that can be referred to.
        m_Writer.database().execute(
            "CREATE TABLE roots (number INTEGER PRIMARY KEY); INSERT INTO roots VALUES (0);"
            "CREATE TABLE rows (number INTEGER PRIMARY KEY, root INTEGER NOT NULL REFERENCES roots (number) "
            "DEFERRABLE INITIALLY DEFERRED)");
    }

    static void insert(Turn const& turn, std::int64_t number, std::int64_t root = 0) {
        turn.database().run("INSERT INTO rows VALUES (?, ?)", number, root);
    }

    void add(std::int64_t number, std::int64_t root = 0) {
        Turn turn(m_Writer);
        insert(turn, number, root);
        turn.keep();
    }

    void addInThread(std::int64_t number, std::int64_t root = 0) {
        std::thread([=] { add(number, root); }).join();
    }

    /// What is committed.
    std::vector<std::int64_t> rows() {
        std::vector<std::int64_t> found;
        Database database(m_Path, Database::Access::kRead);
        Statement row = database.prepare("SELECT number FROM rows ORDER BY number");
        while (row.step()) {
            found.push_back(row.numberColumn(0));
        }
        return found;
    }

    TemporaryDirectory const m_Directory;
    std::string const m_Path = m_Directory.path() + "/rows.db";
    JointWriter m_Writer{m_Path};
};

TEST_F(JointWriterTest, CommitsAtOnceWithoutAUnit) {
    add(1);
    EXPECT_THAT(rows(), ElementsAre(1));
}

TEST_F(JointWriterTest, CommitsWhatAUnitChangesAtItsEnd) {
    Unit unit(m_Writer);
    add(1);
    EXPECT_THAT(rows(), IsEmpty());
    {
        Turn const turn(m_Writer, Turn::Purpose::kRead);
        EXPECT_TRUE(turn.database().prepare("SELECT 1 FROM rows").step()) << "turns see it";
    }
    {
        Turn turn(m_Writer);
        insert(turn, 2);
        turn.keepLast();
    }
    unit.finish();
    EXPECT_THAT(rows(), ElementsAre(1, 2));
    add(3);
    EXPECT_THAT(rows(), ElementsAre(1, 2, 3)) << "the unit has ended";
}

TEST_F(JointWriterTest, CommitsWhatAUnitChangedThatIsDropped) {
    {
        Unit const unit(m_Writer);
        add(1);
    }
    EXPECT_THAT(rows(), ElementsAre(1));
}

TEST_F(JointWriterTest, HasOneUnitForAThread) {
    Unit const unit(m_Writer);
    EXPECT_THROW(Unit{m_Writer}, std::logic_error);
}

TEST_F(JointWriterTest, UndoesTheTurnThatIsNotKeptAlone) {
    Unit unit(m_Writer);
    add(1);
    {
        Turn const turn(m_Writer);
        insert(turn, 2);
    }
    add(3);
    unit.finish();
    EXPECT_THAT(rows(), ElementsAre(1, 3));
}

TEST_F(JointWriterTest, CommitsForAnotherThreadWhileAUnitIsBusy) {
    Unit unit(m_Writer);
    add(1);
    addInThread(2);
    EXPECT_THAT(rows(), ElementsAre(1, 2));
    add(3);
    EXPECT_THAT(rows(), ElementsAre(1, 2)) << "that is another transaction";
    unit.finish();
    EXPECT_THAT(rows(), ElementsAre(1, 2, 3));
}

TEST_F(JointWriterTest, PutsAUnitOnRecordBeforeAnythingOfItIsCommitted) {
    Unit unit(m_Writer, [this] { m_Writer.database().prepare("INSERT INTO rows VALUES (100, 0)").step(); });
    addInThread(1);
    EXPECT_THAT(rows(), ElementsAre(1)) << "the unit has changed nothing";
    add(2);
    addInThread(3);
    EXPECT_THAT(rows(), ElementsAre(1, 2, 3, 100));
    add(4);
    addInThread(5);
    EXPECT_THAT(rows(), ElementsAre(1, 2, 3, 4, 5, 100)) << "it happens once";
}

TEST_F(JointWriterTest, PutsNoUnitOnRecordThatEndsInTheSameTransaction) {
    Unit unit(m_Writer, [this] { m_Writer.database().prepare("INSERT INTO rows VALUES (100, 0)").step(); });
    add(1);
    {
        Turn turn(m_Writer);
        insert(turn, 2);
        turn.keepLast();
    }
    unit.finish();
    EXPECT_THAT(rows(), ElementsAre(1, 2));
}

TEST_F(JointWriterTest, RunsEffectsInOrderWhenTheyAreCommitted) {
    std::vector<int> order;
    Unit unit(m_Writer);
    m_Writer.runAfter([&order] { order.push_back(3); });
    for (int i = 1; i <= 2; ++i) {
        Turn turn(m_Writer);
        insert(turn, i);
        turn.keep([&order, i] { order.push_back(i); });
    }
    EXPECT_THAT(order, IsEmpty());
    unit.finish();
    EXPECT_THAT(order, ElementsAre(1, 2, 3));
    m_Writer.runAfter([&order] { order.push_back(4); });
    EXPECT_THAT(order, ElementsAre(1, 2, 3, 4));
}

TEST_F(JointWriterTest, ReportsAFailedCommitToAllWhoAreInIt) {
    bool committed = false;
    Unit unit(m_Writer);
    {
        Turn turn(m_Writer);
        insert(turn, 1);
        turn.keep([&committed] { committed = true; });
    }
    std::thread([this] { EXPECT_THROW(add(2, 17), std::runtime_error); }).join();
    EXPECT_THROW(add(3), std::runtime_error) << "the unit goes no further";
    EXPECT_THROW(unit.finish(), std::runtime_error);
    EXPECT_FALSE(committed);
    EXPECT_THAT(rows(), IsEmpty());
    add(4);
    EXPECT_THAT(rows(), ElementsAre(4));
}

TEST_F(JointWriterTest, LetsATurnHaveTheDatabaseWithoutATransaction) {
    Unit const unit(m_Writer);
    add(1);
    std::thread([this] {
        Turn const turn(m_Writer, Turn::Purpose::kAlone);
        EXPECT_FALSE(turn.database().isInTransaction());
    }).join();
    EXPECT_THAT(rows(), ElementsAre(1));
}

TEST_F(JointWriterTest, CommitsWhatManyThreadsChange) {
    constexpr int kThreads = 8;
    constexpr int kUnits = 25;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([this, thread] {
            for (int i = 0; i < kUnits; ++i) {
                Unit unit(m_Writer, [] {});
                std::int64_t const number = 2 * (thread * kUnits + i);
                add(number);
                {
                    Turn turn(m_Writer);
                    insert(turn, number + 1);
                    turn.keepLast();
                }
                unit.finish();
                Database database(m_Path, Database::Access::kRead);
                Statement row =
                    database.prepare("SELECT count(*) FROM rows WHERE number BETWEEN ? AND ?", number, number + 1);
                EXPECT_TRUE(row.step());
                EXPECT_EQ(row.numberColumn(0), 2);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(rows().size(), std::size_t{2 * kThreads * kUnits});
}

TEST_F(JointWriterTest, BeginsALongLogAnew) {
    auto const beginOfLog = [this] {
        char head[32] = "";
        std::ifstream(m_Path + "-wal", std::ios::binary).read(head, sizeof head);
        return std::string(head, sizeof head);  // with salts that differ each time
    };
    add(1);
    std::string const before = beginOfLog();
    {
        Turn turn(m_Writer);
        turn.database().execute("CREATE TABLE large (bytes BLOB); INSERT INTO large VALUES (zeroblob(20000000))");
        turn.keep();
    }
    std::int64_t last = 1;
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (beginOfLog() == before && std::chrono::steady_clock::now() < deadline) {
        add(++last);
    }
    EXPECT_NE(before, beginOfLog());
    EXPECT_EQ(static_cast<std::size_t>(last), rows().size()) << "nothing is lost";
}

TEST_F(JointWriterTest, ReportsALogThatCannotBeMoved) {
    {
        Turn turn(m_Writer);
        turn.database().execute("CREATE TABLE large (bytes BLOB)");
        turn.keep();
    }
    // From now on nothing can be written to the file, only to its log.
    int const readOnly = ::open(m_Path.c_str(), O_RDONLY | O_CLOEXEC);
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        int const number = std::stoi(entry.path().filename());
        if (number != readOnly && std::filesystem::read_symlink(entry.path(), gone) == m_Path) {
            ::dup2(readOnly, number);
        }
    }
    ::close(readOnly);
    std::string report;
    ::testing::internal::CaptureStderr();
    {
        Turn turn(m_Writer);
        turn.database().execute("INSERT INTO large VALUES (zeroblob(20000000))");
        turn.keep();
    }
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (std::int64_t number = 1; report.empty() && std::chrono::steady_clock::now() < deadline; ++number) {
        add(number);
        report = ::testing::internal::GetCapturedStderr();
        ::testing::internal::CaptureStderr();
    }
    ::testing::internal::GetCapturedStderr();
    EXPECT_THAT(report, HasSubstr("cannot be moved to the file: database: disk I/O error"));
}

}  // namespace
