/// A directory for the files of a target.
#ifndef TALLOWIN_FUZZ_FUZZDIRECTORY_H
#define TALLOWIN_FUZZ_FUZZDIRECTORY_H

#include <map>
#include <optional>
#include <string>

#include "tests/support/systemcalls.h"

namespace kvxfuzz {

/// An empty directory, removed with all its content at the end of the program. Writes are not synchronised meanwhile.
class FuzzDirectory {
public:
    FuzzDirectory();
    FuzzDirectory(FuzzDirectory const&) = delete;
    FuzzDirectory& operator=(FuzzDirectory const&) = delete;
    ~FuzzDirectory();

    [[nodiscard]] std::string const& path() const { return m_Path; }

    /// Writes a file, creating directories on its way.
    void write(std::string const& name, std::string const& content) const;

    /// Nothing when there is no such file.
    [[nodiscard]] std::optional<std::string> read(std::string const& name) const;

    /// Makes the content that of `files`, by name and content: others are removed, changed ones written again. Folders
    /// stay.
    void restore(std::map<std::string, std::string> const& files) const;

    /// Every file below the directory, by name and content.
    [[nodiscard]] std::map<std::string, std::string> files() const;

private:
    kvxtest::WithoutSync m_WithoutSync;
    std::string m_Path;
};

}  // namespace kvxfuzz

#endif
