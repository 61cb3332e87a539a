/// SQLite beside the ledger, or below it.
#ifndef TALLOWIN_TESTS_LEDGER_STRANGER_H
#define TALLOWIN_TESTS_LEDGER_STRANGER_H

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace kvxtest {

/// A connection of somebody else to a store in a file.
class Stranger {
public:
    /// `path`: also a URI. `files`: the name of a file system of SQLite's; null: the default one.
    explicit Stranger(std::string const& path, char const* files = nullptr) {
        constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_URI;
        EXPECT_EQ(sqlite3_open_v2(path.c_str(), &m_Connection, kFlags, files), SQLITE_OK);
    }
    Stranger(Stranger const&) = delete;
    Stranger& operator=(Stranger const&) = delete;
    ~Stranger() { sqlite3_close(m_Connection); }

    /// The borrowed connection.
    [[nodiscard]] sqlite3* get() const { return m_Connection; }

    [[nodiscard]] int run(char const* sql) const { return sqlite3_exec(m_Connection, sql, nullptr, nullptr, nullptr); }

    /// The first column of all rows.
    [[nodiscard]] std::vector<std::string> column(char const* sql) const {
        std::vector<std::string> texts;
        auto const add = [](void* list, int, char** values, char**) {
            static_cast<std::vector<std::string>*>(list)->emplace_back(values[0] == nullptr ? "NULL" : values[0]);
            return 0;
        };
        EXPECT_EQ(sqlite3_exec(m_Connection, sql, add, &texts, nullptr), SQLITE_OK) << sqlite3_errmsg(m_Connection);
        return texts;
    }

private:
    sqlite3* m_Connection = nullptr;
};

/// How often this process has called a function of the system that writes; nothing where the system does not count.
inline std::optional<long> writeCalls() {
    std::ifstream counters("/proc/self/io");
    std::string name;
    long count = 0;
    while (counters >> name >> count) {
        if (name == "syscw:") {
            return count;
        }
    }
    return std::nullopt;
}

}  // namespace kvxtest

#endif
