// Order of a change: the new content is written beside the file and flushed, the name is changed, the folder is
// flushed. The file beside has a fixed name, so that a killed process leaves at most one, which the next change of that
// folder uses up; the lock on the renewal keeps two writers apart.
#include "ledger/setupfiles.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

#include "ledger/failure.h"
#include "ledger/testpoints.h"
#include "tallowin/codes.h"

namespace ledger {

namespace {

constexpr char kTemporary[] = "/.renewal.tmp";
constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;
constexpr mode_t kFolderMode = S_IRWXU;
constexpr mode_t kPermissions = 07777;

[[noreturn]] void fail(std::string const& path, int error) {
    throw Failure(KVX_E_FILE_IO, path + ": " + std::generic_category().message(error));
}

/// An open file, closed at the end of its life.
class OpenFile {
public:
    OpenFile(std::string path, int flags)
        : m_Path(std::move(path)), m_Number(::open(m_Path.c_str(), flags | O_CLOEXEC, kOwnerOnly)) {}
    OpenFile(OpenFile const&) = delete;
    OpenFile& operator=(OpenFile const&) = delete;
    ~OpenFile() {
        if (m_Number >= 0) {
            ::close(m_Number);
        }
    }

    [[nodiscard]] bool isOpen() const { return m_Number >= 0; }
    [[nodiscard]] int get() const { return m_Number; }

    void requireOpen() const {
        if (!isOpen()) {
            fail(m_Path, errno);
        }
    }

    void write(std::string const& content) const {
        std::size_t done = 0;
        while (done < content.size()) {
            ssize_t const count = ::write(m_Number, content.data() + done, content.size() - done);
            if (count < 0 && errno != EINTR) {
                fail(m_Path, errno);
            }
            done += count > 0 ? static_cast<std::size_t>(count) : 0;
        }
    }

    void giveTo(FileModel const& model) const {
        struct stat status {};
        if (::fstat(m_Number, &status) != 0) {
            fail(m_Path, errno);
        }
        // A user who may not give files away keeps it, when the group can read it.
        bool const isMine = status.st_uid == model.m_User;
        bool const mayGive = ::geteuid() == 0;
        if (!isMine && !mayGive && (model.m_Mode & S_IRGRP) == 0) {
            fail(m_Path, EPERM);
        }
        bool const isOther = (!isMine && mayGive) || status.st_gid != model.m_Group;
        uid_t const owner = mayGive ? model.m_User : static_cast<uid_t>(-1);
        if ((isOther && ::fchown(m_Number, owner, model.m_Group) != 0) || ::fchmod(m_Number, model.m_Mode) != 0) {
            fail(m_Path, errno);
        }
    }

    void flush() const {
        if (::fsync(m_Number) != 0) {
            fail(m_Path, errno);
        }
    }

private:
    std::string m_Path;
    int m_Number;
};

std::string folderOf(std::string const& path) {
    std::size_t const slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

void flushFolder(std::string const& path) {
    OpenFile const folder(path, O_RDONLY | O_DIRECTORY);
    folder.requireOpen();
    folder.flush();
}

/// The file that a chain of symbolic links at `path` leads to; `path` itself when there is no such file.
std::string resolved(std::string const& path) {
    std::unique_ptr<char, decltype(&std::free)> const real(::realpath(path.c_str(), nullptr), &std::free);
    return real == nullptr ? path : real.get();
}

}  // namespace

WipedText::WipedText(WipedText&& other) noexcept {
    m_Text.swap(other.m_Text);
}

WipedText& WipedText::operator=(WipedText&& other) noexcept {
    if (this != &other) {
        wipe();
        m_Text.swap(other.m_Text);
    }
    return *this;
}

void WipedText::wipe() noexcept {
    OPENSSL_cleanse(m_Text.data(), m_Text.size());
    m_Text.clear();
}

std::optional<WipedText> readFile(std::string const& path) {
    OpenFile const file(path, O_RDONLY | O_NOCTTY);
    if (!file.isOpen() && errno == ENOENT) {
        return std::nullopt;
    }
    file.requireOpen();
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) {
        fail(path, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        fail(path, EINVAL);
    }
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t done = 0;
    while (done < content.size()) {
        ssize_t const count = ::read(file.get(), content.data() + done, content.size() - done);
        if (count == 0) {
            break;
        }
        if (count < 0 && errno != EINTR) {
            int const error = errno;
            OPENSSL_cleanse(content.data(), content.size());
            fail(path, error);
        }
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    content.resize(done);
    content.resize(content.find_last_not_of('\0') + 1);  // a file that was written in place may end in zero bytes
    return WipedText(std::move(content));
}

bool isThere(std::string const& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0) {
        return true;
    }
    if (errno != ENOENT) {
        fail(path, errno);
    }
    return false;
}

std::uint64_t numberOf(std::string const& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        fail(path, errno);
    }
    return status.st_ino;
}

bool mayChange(std::string const& folder) {
    return ::faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
}

std::vector<std::string> namesIn(std::string const& folder) {
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        std::string const name = entry->path().filename().string();
        if (name.front() != '.') {
            names.push_back(name);
        }
    }
    if (error && error.value() != ENOENT) {
        fail(folder, error.value());
    }
    return names;
}

std::optional<FileModel> modelOf(std::string const& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0) {
        return FileModel{status.st_uid, status.st_gid, status.st_mode & kPermissions};
    }
    if (errno != ENOENT) {
        fail(path, errno);
    }
    return std::nullopt;
}

void replaceFile(std::string const& path, std::string const& content, FileModel const& model) {
    std::optional<WipedText> const old = readFile(path);
    if (old && old->get() == content) {
        return;
    }
    std::string const target = resolved(path);
    std::string const temporary = folderOf(target) + kTemporary;
    reached(TestPoint::kFileStep);
    {
        if (::unlink(temporary.c_str()) != 0 && errno != ENOENT) {
            fail(temporary, errno);
        }
        OpenFile const file(temporary, O_WRONLY | O_CREAT | O_EXCL);
        file.requireOpen();
        file.giveTo(modelOf(target).value_or(model));
        file.write(content);
        file.flush();
    }
    reached(TestPoint::kFileStep);
    if (::rename(temporary.c_str(), target.c_str()) != 0) {
        fail(target, errno);
    }
    reached(TestPoint::kFileStep);
    flushFolder(folderOf(target));
    reached(TestPoint::kFileStep);
}

FileModel newFileIn(std::string const& folder) {
    std::optional<FileModel> const owner = ::geteuid() == 0 ? modelOf(folder) : std::nullopt;
    return owner ? FileModel{owner->m_User, owner->m_Group, kOwnerOnly}
                 : FileModel{::geteuid(), ::getegid(), kOwnerOnly};
}

void createFolder(std::string const& path) {
    if (::mkdir(path.c_str(), kFolderMode) != 0) {
        if (errno != EEXIST) {
            fail(path, errno);
        }
        return;
    }
    FileModel const model = newFileIn(folderOf(path));
    if (::geteuid() == 0 && ::chown(path.c_str(), model.m_User, model.m_Group) != 0) {
        fail(path, errno);
    }
    reached(TestPoint::kFileStep);
    flushFolder(folderOf(path));
}

void renameFolder(std::string const& from, std::string const& to) {
    reached(TestPoint::kFileStep);
    if (::rename(from.c_str(), to.c_str()) != 0) {
        fail(from, errno);
    }
    reached(TestPoint::kFileStep);
    flushFolder(folderOf(to));
}

void removeFolder(std::string const& path) {
    std::error_code error;
    reached(TestPoint::kFileStep);
    std::filesystem::remove_all(path, error);
    if (error) {
        fail(path, error.value());
    }
}

FileLock::FileLock(std::string const& path, Kind kind)
    : m_File(::open(path.c_str(), (kind == Kind::kShared ? O_RDONLY : O_RDWR | O_CREAT) | O_CLOEXEC, kOwnerOnly)) {
    if (m_File < 0) {
        fail(path, errno);
    }
    FileModel const model = newFileIn(folderOf(path));
    bool const isGiven =
        kind == Kind::kShared || ::geteuid() != 0 || ::fchown(m_File, model.m_User, model.m_Group) == 0;
    int const operation = (kind == Kind::kShared ? LOCK_SH : LOCK_EX) | LOCK_NB;
    int result = isGiven ? 0 : -1;
    do {
        result = isGiven ? ::flock(m_File, operation) : -1;
    } while (result != 0 && errno == EINTR);
    if (result != 0 && errno != EWOULDBLOCK) {
        int const error = errno;
        ::close(m_File);
        fail(path, error);
    }
    m_IsTaken = result != 0;
}

FileLock::~FileLock() {
    ::close(m_File);
}

}  // namespace ledger
