/// Keeps set-ups and the removal of keys apart.
#ifndef TALLOWIN_TOOLS_DIRECTORYLOCK_H
#define TALLOWIN_TOOLS_DIRECTORYLOCK_H

#include <string>

namespace tool {

/// A lock on a configuration directory, for this program only: the library takes none. It ends with the object or the
/// process.
class DirectoryLock {
public:
    enum class Kind {
        kShared,     ///< For a set-up; waits for a removal of keys to end.
        kExclusive,  ///< For the removal of keys; ToolFailure at once while a set-up runs.
    };

    /// A file system without locks counts as locked.
    DirectoryLock(std::string const& directory, Kind kind);
    DirectoryLock(DirectoryLock const&) = delete;
    DirectoryLock& operator=(DirectoryLock const&) = delete;
    ~DirectoryLock();

private:
    int m_Directory;
};

}  // namespace tool

#endif
