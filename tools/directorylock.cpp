#include "tools/directorylock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "tools/toolfailure.h"

namespace tool {

DirectoryLock::DirectoryLock(std::string const& directory, Kind kind)
    : m_Directory(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (m_Directory < 0) {
        throw ToolFailure(systemFailure("cannot open the directory " + directory, errno));
    }
    int const operation = kind == Kind::kShared ? LOCK_SH : LOCK_EX | LOCK_NB;
    int result = 0;
    do {
        result = ::flock(m_Directory, operation);
    } while (result != 0 && errno == EINTR);
    if (result != 0 && errno == EWOULDBLOCK) {
        ::close(m_Directory);
        throw ToolFailure("a set-up or another removal of keys is running in " + directory,
                          "try again when it has ended");
    }
}

DirectoryLock::~DirectoryLock() {
    ::close(m_Directory);
}

}  // namespace tool
