#ifndef TALLOWIN_SANDBOX_STORE_DATADIRECTORY_H
#define TALLOWIN_SANDBOX_STORE_DATADIRECTORY_H

#include <string>

#include "sandbox/crypto/filedescriptor.h"

namespace sandbox {

/// The directory that holds all files of the service, created when it is missing and used by one service at a time.
class DataDirectory {
public:
    /// Creates `path` (mode 0711, so that others can open what is published; its parent must exist) and takes the lock
    /// file in it. Throws std::runtime_error when that fails or another service holds the lock.
    explicit DataDirectory(std::string const& path);

    /// The path of `name` in the directory.
    [[nodiscard]] std::string file(std::string const& name) const { return m_Path + "/" + name; }

    /// The bytes of the file `name`, empty when it does not exist. Throws std::runtime_error when it cannot be read.
    [[nodiscard]] std::string read(std::string const& name) const;

    /// Replaces the file `name` (mode 0600) as a whole: a reader sees the old or the new one. Throws
    /// std::runtime_error.
    void write(std::string const& name, std::string const& content) const;

    /// Lets all users read the file `name` (mode 0644). Throws std::runtime_error.
    void publish(std::string const& name) const;

private:
    std::string m_Path;
    FileDescriptor m_Lock;  ///< Holds an exclusive lock while open.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_STORE_DATADIRECTORY_H
