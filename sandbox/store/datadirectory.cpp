// The data directory: its lock, and small files that are replaced as a whole.
// A file is written beside its name, synchronised and renamed over it. The lock is an flock() on a file that stays; the
// system releases it when the process ends, however that happens.
#include "sandbox/store/datadirectory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <stdexcept>
#include <system_error>

namespace sandbox {

namespace {

[[noreturn]] void fail(std::string const& what, std::string const& path, int error) {
    throw std::runtime_error(what + " " + path + ": " + std::generic_category().message(error));
}

FileDescriptor openFile(char const* what, std::string const& path, int flags) {
    return checkedDescriptor(::open(path.c_str(), flags | O_CLOEXEC, S_IRUSR | S_IWUSR), what + (" " + path));
}

/// Creates the directory. Returns `path`.
std::string const& created(std::string const& path) {
    if (path.empty()) {
        throw std::runtime_error("no data directory was given");
    }
    if (::mkdir(path.c_str(), S_IRWXU | S_IXGRP | S_IXOTH) != 0 && errno != EEXIST) {
        fail("cannot create the data directory", path, errno);
    }
    return path;
}

}  // namespace

DataDirectory::DataDirectory(std::string const& path)
    : m_Path(created(path)), m_Lock(openFile("cannot open", file("sandbox.lock"), O_RDWR | O_CREAT)) {
    if (::flock(m_Lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            throw std::runtime_error("another sandbox is running on this data directory (" + file("sandbox.lock") +
                                     " is locked)");
        }
        fail("cannot lock", file("sandbox.lock"), errno);
    }
}

std::string DataDirectory::read(std::string const& name) const {
    std::string const path = file(name);
    if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
        return "";
    }
    FileDescriptor const from = openFile("cannot open", path, O_RDONLY);
    std::string content;
    char piece[4096];
    for (ssize_t count = 1; count > 0; content.append(piece, static_cast<std::size_t>(count))) {
        count = ::read(from.get(), piece, sizeof piece);
        if (count < 0) {
            fail("cannot read", path, errno);
        }
    }
    return content;
}

void DataDirectory::write(std::string const& name, std::string const& content) const {
    std::string const path = file(name);
    std::string const fresh = path + ".new";
    FileDescriptor const to = openFile("cannot create", fresh, O_WRONLY | O_CREAT | O_TRUNC);
    std::size_t done = 0;
    while (done < content.size()) {
        ssize_t const count = ::write(to.get(), content.data() + done, content.size() - done);
        if (count < 0) {
            fail("cannot write", fresh, errno);
        }
        done += static_cast<std::size_t>(count);
    }
    if (::fsync(to.get()) != 0 || ::rename(fresh.c_str(), path.c_str()) != 0) {
        fail("cannot write", path, errno);
    }
}

void DataDirectory::publish(std::string const& name) const {
    std::string const path = file(name);
    if (::chmod(path.c_str(), S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH) != 0) {
        fail("cannot publish", path, errno);
    }
}

}  // namespace sandbox
