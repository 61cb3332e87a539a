#include "tests/support/directories.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace kvxtest {

TemporaryDirectory::TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tallowin-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("cannot create a directory from " + pattern);
    }
    m_Path = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_Path, ignored);
}

void TemporaryDirectory::write(std::string const& name, std::string const& content) const {
    std::filesystem::path const target(file(name));
    std::filesystem::create_directories(target.parent_path());
    std::ofstream out(target, std::ios::binary);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!out.flush()) {
        throw std::runtime_error("cannot write " + target.string());
    }
}

std::string TemporaryDirectory::read(std::string const& name) const {
    std::ifstream in(file(name), std::ios::binary);
    EXPECT_TRUE(in.is_open()) << "cannot read " << name;
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

bool TemporaryDirectory::exists(std::string const& name) const {
    return std::filesystem::exists(file(name));
}

std::vector<std::string> TemporaryDirectory::namesIn(std::string const& folder) const {
    std::vector<std::string> names;
    for (auto const& entry : std::filesystem::directory_iterator(file(folder))) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

WorkingDirectory::WorkingDirectory(std::string const& path) : m_Previous(std::filesystem::current_path().string()) {
    std::filesystem::current_path(path);
}

WorkingDirectory::~WorkingDirectory() {
    std::filesystem::current_path(m_Previous);
}

std::string contentOf(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace kvxtest
