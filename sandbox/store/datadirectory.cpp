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

/// A descriptor that closes itself.
class Descriptor {
public:
    explicit Descriptor(int number) : m_Number(number) {}
    ~Descriptor() {
        if (m_Number >= 0) {
            ::close(m_Number);
        }
    }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;

    [[nodiscard]] int get() const { return m_Number; }
    [[nodiscard]] int release() {
        int const number = m_Number;
        m_Number = -1;
        return number;
    }

private:
    int m_Number;
};

int takeLock(std::string const& path) {
    Descriptor lock(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (lock.get() < 0) {
        fail("cannot open", path, errno);
    }
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            throw std::runtime_error("another sandbox is running on this data directory (" + path + " is locked)");
        }
        fail("cannot lock", path, errno);
    }
    return lock.release();
}

}  // namespace

DataDirectory::DataDirectory(std::string const& path) : m_Path(path) {
    if (path.empty()) {
        throw std::runtime_error("no data directory was given");
    }
    if (::mkdir(path.c_str(), S_IRWXU | S_IXGRP | S_IXOTH) != 0 && errno != EEXIST) {
        fail("cannot create the data directory", path, errno);
    }
    m_Lock = takeLock(file("sandbox.lock"));
}

DataDirectory::~DataDirectory() {
    ::close(m_Lock);
}

std::string DataDirectory::read(std::string const& name) const {
    std::string const path = file(name);
    Descriptor const from(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (from.get() < 0) {
        if (errno == ENOENT) {
            return "";
        }
        fail("cannot open", path, errno);
    }
    std::string content;
    char piece[4096];
    for (;;) {
        ssize_t const count = ::read(from.get(), piece, sizeof piece);
        if (count < 0) {
            fail("cannot read", path, errno);
        }
        if (count == 0) {
            return content;
        }
        content.append(piece, static_cast<std::size_t>(count));
    }
}

void DataDirectory::write(std::string const& name, std::string const& content) const {
    std::string const path = file(name);
    std::string const fresh = path + ".new";
    Descriptor const to(::open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (to.get() < 0) {
        fail("cannot create", fresh, errno);
    }
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
