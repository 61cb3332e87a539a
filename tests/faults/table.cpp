#include "tests/faults/table.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

namespace kvxtest {

namespace {

constexpr char kSeparator[] = " | ";

std::string trimmed(std::string const& text) {
    std::size_t const end = text.find_last_not_of(' ');
    return end == std::string::npos ? "" : text.substr(0, end + 1);
}

}  // namespace

ExpectedTable::ExpectedTable(std::string const& name) {
    std::ifstream in(std::string(KVX_FAULTS_DIR) + "/" + name);
    EXPECT_TRUE(in.is_open()) << "no table " << name;
    for (std::string line; std::getline(in, line);) {
        std::size_t const separator = line.rfind(kSeparator);
        if (line.empty() || line.front() == '#' || separator == std::string::npos) {
            continue;
        }
        std::string const key = trimmed(line.substr(0, separator));
        EXPECT_TRUE(m_Rows.emplace(key, line.substr(separator + sizeof kSeparator - 1)).second) << "twice: " << key;
    }
}

std::string ExpectedTable::find(std::string const& key) const {
    auto const row = m_Rows.find(key);
    return row == m_Rows.end() ? "" : row->second;
}

void writeTable(std::string const& name, std::vector<std::pair<std::string, std::string>> const& rows) {
    char const* const directory = std::getenv("KVX_FAULTS_WRITE");
    if (directory == nullptr) {
        return;
    }
    std::ofstream out(std::string(directory) + "/" + name);
    for (auto const& [key, result] : rows) {
        out << key << kSeparator << result << '\n';
    }
}

bool wantsAll() {
    return std::getenv("KVX_FAULTS_ALL") != nullptr;
}

}  // namespace kvxtest
