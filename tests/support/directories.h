/// Directories of a test, and reading files.
#ifndef TALLOWIN_TESTS_SUPPORT_DIRECTORIES_H
#define TALLOWIN_TESTS_SUPPORT_DIRECTORIES_H

#include <string>
#include <vector>

namespace kvxtest {

/// An empty directory, removed with all its content at the end.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    TemporaryDirectory(TemporaryDirectory const&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;
    ~TemporaryDirectory();

    [[nodiscard]] std::string const& path() const { return m_Path; }
    [[nodiscard]] std::string file(std::string const& name) const { return m_Path + "/" + name; }

    /// Writes a file, creating directories on its way.
    void write(std::string const& name, std::string const& content) const;

    /// The content of a file; fails the test when it cannot be read.
    [[nodiscard]] std::string read(std::string const& name) const;

    [[nodiscard]] bool exists(std::string const& name) const;

    /// Names of the entries of `folder`, sorted.
    [[nodiscard]] std::vector<std::string> namesIn(std::string const& folder) const;

private:
    std::string m_Path;
};

/// Makes `path` the current directory while it lives.
class WorkingDirectory {
public:
    explicit WorkingDirectory(std::string const& path);
    WorkingDirectory(WorkingDirectory const&) = delete;
    WorkingDirectory& operator=(WorkingDirectory const&) = delete;
    ~WorkingDirectory();

private:
    std::string m_Previous;
};

/// Content of the file at `path`; empty when it cannot be read.
std::string contentOf(std::string const& path);

}  // namespace kvxtest

#endif
