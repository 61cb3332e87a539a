#include "fuzz/fuzzdirectory.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "fuzz/fuzzcheck.h"

namespace kvxfuzz {

FuzzDirectory::FuzzDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tallowin-fuzz-XXXXXX").string();
    require(::mkdtemp(pattern.data()) != nullptr, "a temporary directory can be made");
    m_Path = pattern;
}

FuzzDirectory::~FuzzDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_Path, ignored);
}

void FuzzDirectory::write(std::string const& name, std::string const& content) const {
    std::filesystem::path const target(m_Path + "/" + name);
    std::filesystem::create_directories(target.parent_path());
    std::ofstream out(target, std::ios::binary);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    require(static_cast<bool>(out.flush()), "a file of the target can be written");
}

std::optional<std::string> FuzzDirectory::read(std::string const& name) const {
    std::ifstream in(m_Path + "/" + name, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    return std::string{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void FuzzDirectory::restore(std::map<std::string, std::string> const& wanted) const {
    std::map<std::string, std::string> const found = files();
    for (auto const& [name, content] : found) {
        if (wanted.count(name) == 0) {
            std::filesystem::remove(m_Path + "/" + name);
        }
    }
    for (auto const& [name, content] : wanted) {
        auto const old = found.find(name);
        if (old == found.end() || old->second != content) {
            write(name, content);
        }
    }
}

std::map<std::string, std::string> FuzzDirectory::files() const {
    std::map<std::string, std::string> result;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(m_Path)) {
        if (!entry.is_directory()) {
            std::string const name = entry.path().lexically_relative(m_Path).string();
            result[name] = read(name).value_or("");
        }
    }
    return result;
}

}  // namespace kvxfuzz
