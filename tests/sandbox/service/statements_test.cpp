// How many SQL statements a request takes. Every connection to a database that is opened in this process reports the
// statements it runs, with the thread that runs them: a request is served by one thread.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tests/sandbox/support/sandboxfixture.h"

namespace {

using namespace sandboxtest;
using ::testing::ElementsAre;

std::mutex s_Mutex;
std::vector<std::pair<int, std::string>> s_Run;  ///< With the number of their thread. Guarded by s_Mutex.

/// Identifiers of the system are used again when a thread has ended, these are not.
int threadNumber() {
    static std::atomic<int> s_Last{0};
    thread_local int const s_Number = ++s_Last;
    return s_Number;
}

/// SQLite reports the statements of a trigger as comments.
int noteStatement(unsigned, void*, void*, void* text) {
    std::string const sql = static_cast<char const*>(text);
    if (sql.compare(0, 2, "--") != 0) {
        std::lock_guard<std::mutex> const lock(s_Mutex);
        s_Run.emplace_back(threadNumber(), sql);
    }
    return 0;
}

extern "C" int watchConnection(sqlite3* database, char const**, sqlite3_api_routines const*) {
    return sqlite3_trace_v2(database, SQLITE_TRACE_STMT, noteStatement, nullptr);
}

/// The fixture opens its database after this.
struct Watch {
    Watch() { sqlite3_auto_extension(reinterpret_cast<void (*)()>(watchConnection)); }
    ~Watch() { sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(watchConnection)); }
};

class Statements : private Watch, public SandboxTest {
protected:
    static void forget() {
        std::lock_guard<std::mutex> const lock(s_Mutex);
        s_Run.clear();
    }

    /// What the thread of the only request since forget() ran.
    static std::vector<std::string> ofLastRequest() {
        std::lock_guard<std::mutex> const lock(s_Mutex);
        auto const begun = std::find_if(s_Run.rbegin(), s_Run.rend(), [](auto const& run) {
            return run.second.find("INTO exchanges") != std::string::npos;
        });
        std::vector<std::string> found;
        for (auto const& [thread, sql] : s_Run) {
            if (begun != s_Run.rend() && thread == begun->first) {
                found.push_back(subjectOf(sql));
            }
        }
        return found;
    }

    /// "INSERT payments", "SELECT payments", "BEGIN".
    static std::string subjectOf(std::string const& sql) {
        std::string const verb = sql.substr(0, sql.find(' '));
        for (std::string const& before : {std::string(" INTO "), std::string("UPDATE "), std::string(" FROM ")}) {
            std::size_t const at = sql.find(before);
            if (at != std::string::npos) {
                std::size_t const from = at + before.size();
                return verb + " " + sql.substr(from, sql.find_first_of(" (", from) - from);
            }
        }
        return verb;
    }
};

TEST_F(Statements, OfAFreshPageAreAHandful) {
    forget();
    openPage(m_Merchant.payInit("t1"));
    EXPECT_THAT(ofLastRequest(),
                ElementsAre("SELECT merchant_keys", "BEGIN", "SAVEPOINT", "INSERT payments", "INSERT history",
                            "RELEASE", "SAVEPOINT", "INSERT exchanges", "RELEASE", "COMMIT"));
}

TEST_F(Statements, OfADecisionAreAHandful) {
    RawResponse const page = openPage(m_Merchant.payInit("t1"));
    forget();
    press(page, "pay");
    EXPECT_THAT(ofLastRequest(),
                ElementsAre("SELECT payments", "BEGIN", "SAVEPOINT", "UPDATE payments", "INSERT history",
                            "DELETE due_moves", "RELEASE", "SAVEPOINT", "INSERT exchanges", "RELEASE", "COMMIT"));
}

TEST_F(Statements, OfACaptureAreAHandful) {
    std::string const confirm = authorise("t1");
    forget();
    askCapture(confirm);
    EXPECT_THAT(ofLastRequest(), ElementsAre("SELECT payments", "SELECT due_moves", "SELECT capture_refusals", "BEGIN",
                                             "SAVEPOINT", "UPDATE payments", "INSERT history", "DELETE due_moves",
                                             "RELEASE", "SAVEPOINT", "INSERT exchanges", "RELEASE", "COMMIT"));
}

TEST_F(Statements, OfAListDoNotGrowWithTheStore) {
    auto const count = [this] {
        forget();
        EXPECT_EQ(get("/control/exchanges?limit=2").m_Status, 200);
        EXPECT_EQ(get("/control").m_Status, 200);
        std::lock_guard<std::mutex> const lock(s_Mutex);
        return std::count_if(s_Run.begin(), s_Run.end(),
                             [](auto const& run) { return run.second.find("exchanges") != std::string::npos; });
    };
    openPage(m_Merchant.payInit("t1"));
    auto const few = count();
    for (int i = 0; i < 20; ++i) {
        openPage(m_Merchant.payInit("t" + std::to_string(i)));
    }
    EXPECT_EQ(count(), few);
}

}  // namespace
