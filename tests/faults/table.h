/// Tables of expected results in text files beside the tests.
#ifndef TALLOWIN_TESTS_FAULTS_TABLE_H
#define TALLOWIN_TESTS_FAULTS_TABLE_H

#include <map>
#include <string>
#include <vector>

namespace kvxtest {

/// A text file of rows "key | result". Lines that begin with "#" and empty ones do not count.
class ExpectedTable {
public:
    /// Reads the file `name` of this folder; fails the test when there is none or when a key comes twice.
    explicit ExpectedTable(std::string const& name);

    /// The result of the row `key`; empty without one.
    [[nodiscard]] std::string find(std::string const& key) const;

    [[nodiscard]] std::map<std::string, std::string> const& rows() const { return m_Rows; }

private:
    std::map<std::string, std::string> m_Rows;
};

/// Writes rows in their order to the file that the variable KVX_FAULTS_WRITE names a directory for; nothing without it.
void writeTable(std::string const& name, std::vector<std::pair<std::string, std::string>> const& rows);

/// Whether the whole test is wanted, which takes long: the variable KVX_FAULTS_ALL.
bool wantsAll();

}  // namespace kvxtest

#endif
