// Reading and replacing files.
//
// kvxReplaceFile prefers a new file beside the target: remove left-overs, create and lock a temporary file, take over
// owner and mode, write, synchronise, rename, synchronise the directory. Where that is impossible but the target may be
// written (no permission in the directory, a mount point), it writes in place: reserve room, write once over the old
// content and to its end, synchronise, shorten. A symbolic link stays: the target is the file that it leads to, also
// when that does not exist yet. A lock marks a temporary file as in use; a file without one belonged to a dead process
// and is removed by the next writer.

#include "core/kvxfile.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "foundation/tberrno.h"
#include "foundation/tbmemory.h"
#include "foundation/tbreleaser.h"
#include "foundation/tbsystem.h"

namespace {

constexpr char kTemporaryPrefix[] = ".tallowin-";
constexpr char kTemporarySuffix[] = ".tmp";
constexpr mode_t kPermissions = 07777;

/// Of a new file until it gets the mode of the one that it replaces. A reader who opened it before would keep it open.
constexpr mode_t kOwnerOnly = 0600;

/// A divisor of every page size, a power of two.
constexpr std::size_t kPage = 4096;

void closeDirectory(DIR* directory) noexcept {
    tbSystem().closedir(directory);
}
using Directory = std::unique_ptr<DIR, TbReleaser<closeDirectory>>;

int openFile(char const* path, int flags, mode_t mode = 0) {
    return tbAwayFromStandardStreams(
        tbRetryInterrupted([&] { return tbSystem().open(path, flags | O_CLOEXEC, mode); }));
}

/// A part of a file, on the stack. It may be that of a private key, so what was read of it is wiped at the end.
class Chunk {
public:
    Chunk() = default;
    Chunk(Chunk const&) = delete;
    Chunk& operator=(Chunk const&) = delete;
    ~Chunk() { OPENSSL_cleanse(m_Bytes, m_Touched); }

    /// Reads the next part of `file`, full unless the file ends or reading fails; false when it fails. What came before
    /// counts all the same.
    bool read(int file) {
        m_Length = 0;
        for (ssize_t count = 1; count > 0 && !isFull();) {
            count = tbRetryInterrupted([&] { return tbSystem().read(file, m_Bytes + m_Length, kSize - m_Length); });
            if (count < 0) {
                return false;
            }
            m_Length += static_cast<std::size_t>(count);
            m_Touched = std::max(m_Touched, m_Length);
        }
        return true;
    }

    [[nodiscard]] bool isFull() const { return m_Length == kSize; }
    [[nodiscard]] char const* bytes() const { return m_Bytes; }
    [[nodiscard]] std::uint32_t length() const { return static_cast<std::uint32_t>(m_Length); }

private:
    static constexpr std::size_t kSize = 8192;

    std::size_t m_Length = 0;   ///< Of the part that was read last.
    std::size_t m_Touched = 0;  ///< Of the longest.
    char m_Bytes[kSize];
};

/// The directory part of `path`.
TbString directoryOf(char const* path) {
    char const* const slash = std::strrchr(path, '/');
    if (slash == nullptr) {
        return ".";
    }
    TbString directory("");
    directory.append(path, static_cast<std::uint32_t>(slash == path ? 1 : slash - path));
    return directory;
}

bool isTemporaryName(char const* name) {
    std::size_t const length = std::strlen(name);
    std::size_t const suffix = sizeof kTemporarySuffix - 1;
    return length > suffix && std::strncmp(name, kTemporaryPrefix, sizeof kTemporaryPrefix - 1) == 0 &&
           std::strcmp(name + length - suffix, kTemporarySuffix) == 0;
}

/// Removes temporary files of dead writers from `directory`: a living writer holds a lock on its file.
void removeLeftovers(TbString const& directory) {
    Directory const entries(tbSystem().opendir(directory.c_str()));
    if (entries == nullptr) {
        return;
    }
    while (dirent const* entry = tbSystem().readdir(entries.get())) {
        if (!isTemporaryName(entry->d_name)) {
            continue;
        }
        TbString const path = directory + "/" + TbString(entry->d_name);
        KvxDescriptor const file(openFile(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK));
        if (file.isOpen() && tbSystem().flock(file.get(), LOCK_EX | LOCK_NB) == 0) {
            tbSystem().unlink(path.c_str());
        }
    }
}

/// A new file beside the target. Locked while it is written; removed unless it was renamed to the target.
class TemporaryFile {
public:
    TemporaryFile(TbString const& directory, mode_t mode) : m_File(-1) {
        // Another process may remove the file before it is locked; then another one is made.
        for (int attempt = 0; attempt < kAttempts && !create(directory, mode); ++attempt) {
        }
    }
    TemporaryFile(TemporaryFile const&) = delete;
    TemporaryFile& operator=(TemporaryFile const&) = delete;
    ~TemporaryFile() {
        if (isOpen()) {
            TbErrnoKeeper const keeper(errno);
            if (!m_Renamed) {
                tbSystem().unlink(m_Path.c_str());
            }
            tbSystem().close(m_File);
        }
    }

    [[nodiscard]] bool isOpen() const { return m_File >= 0; }
    [[nodiscard]] int get() const { return m_File; }

    bool renameTo(char const* path) {
        m_Renamed = tbSystem().rename(m_Path.c_str(), path) == 0;
        return m_Renamed;
    }

private:
    static constexpr int kAttempts = 16;

    /// False when another attempt may succeed.
    bool create(TbString const& directory, mode_t mode) {
        static std::atomic<unsigned> s_Number{0};
        char name[64];
        std::snprintf(name, sizeof name, "/%s%ld-%u%s", kTemporaryPrefix, static_cast<long>(::getpid()), s_Number++,
                      kTemporarySuffix);
        m_Path = directory + name;
        int const file = openFile(m_Path.c_str(), O_WRONLY | O_CREAT | O_EXCL, mode);
        if (file < 0) {
            return errno != EEXIST;
        }
        struct ::stat status = {};
        tbRetryInterrupted([&] { return tbSystem().flock(file, LOCK_EX); });
        if (tbSystem().fstat(file, &status) == 0 && status.st_nlink == 0) {
            tbSystem().close(file);
            return false;
        }
        m_File = file;
        return true;
    }

    TbString m_Path;
    int m_File;
    bool m_Renamed = false;
};

/// Whether a file beside the target is impossible while the target itself may still be written.
bool mayWriteInPlace(int error) {
    return error == EACCES || error == EPERM || error == EROFS || error == ENAMETOOLONG;
}

/// Only the system's own word makes a file absent: a process without descriptors or permission must not go on as if
/// there were none.
KvxReadResult failureToOpen(char const* path, int error) {
    struct ::stat status = {};
    TbErrnoKeeper const keeper(error);
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            return KvxReadResult::kAbsent;
        case ENAMETOOLONG:  // of the path, or of the name that a link leads to
            return tbSystem().lstat(path, &status) == 0 ? KvxReadResult::kCannotOpen : KvxReadResult::kNameTooLong;
        case EISDIR:
            return KvxReadResult::kDirectory;
        default:
            return KvxReadResult::kCannotOpen;
    }
}

/// A directory can be opened like a file, and fails when it is read.
KvxReadResult failureToRead(int file) {
    TbErrnoKeeper const keeper(errno);
    struct ::stat status = {};
    bool const isDirectory = tbSystem().fstat(file, &status) == 0 && S_ISDIR(status.st_mode);
    return isDirectory ? KvxReadResult::kDirectory : KvxReadResult::kCannotRead;
}

/// Grows `out` at once where the file's size is known, so that no outgrown copy of a key stays in memory.
void growFor(int file, TbString& out) {
    struct ::stat status = {};
    bool const isKnown = tbSystem().fstat(file, &status) == 0;
    if (isKnown && status.st_size > 0 && status.st_size < std::numeric_limits<std::int32_t>::max()) {
        out.grow(static_cast<std::uint32_t>(status.st_size));
    }
}

bool isOutOfSpace(int error) {
    return error == ENOSPC || error == EDQUOT || error == EIO;
}

bool synchronise(int file, KvxWriteOptions const& options) {
    return !options.m_Syncs || tbRetryInterrupted([file] { return tbSystem().fsync(file); }) == 0;
}

/// Pipes, terminals and some file systems cannot be synchronised.
bool synchroniseIfPossible(int file, KvxWriteOptions const& options) {
    return synchronise(file, options) || errno == EINVAL || errno == EROFS;
}

/// Makes room for `bytes` bytes without a change that a reader sees. File systems that cannot are left to the writing.
bool reserve(int file, std::size_t bytes) {
    int const result = tbRetryInterrupted(
        [&] { return tbSystem().fallocate(file, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(bytes)); });
    return result == 0 || !isOutOfSpace(errno);
}

bool shorten(int file, off_t bytes) {
    return tbRetryInterrupted([&] { return tbSystem().ftruncate(file, bytes); }) == 0;
}

/// Writes `bytes` bytes over the `size` bytes of a regular file. One write takes all of it: the new content, and zero
/// bytes where the old one was longer.
bool overwrite(int file, off_t size, void const* data, std::size_t bytes, KvxWriteOptions const& options) {
    std::size_t const length = std::max(bytes, static_cast<std::size_t>(size));
    if (length == 0) {
        return true;
    }
    TbMemoryHolder const padded = tbHoldMemory(length);
    std::memset(padded.get(), 0, length);
    if (bytes != 0) {
        std::memcpy(padded.get(), data, bytes);
    }
    bool const written = kvxWriteAll(file, padded.get(), length) && synchroniseIfPossible(file, options);
    OPENSSL_cleanse(padded.get(), length);  // it may be a private key
    if (!written || length == bytes) {
        return written;
    }
    return shorten(file, static_cast<off_t>(bytes)) && synchroniseIfPossible(file, options);
}

/// Puts the old content back where the new one did not fit. Its room is still the file's.
void restore(int file, TbString const& old, KvxWriteOptions const& options) {
    if (tbSystem().lseek(file, 0, SEEK_SET) == 0 && kvxWriteAll(file, old.c_str(), old.length()) &&
        shorten(file, static_cast<off_t>(old.length()))) {
        static_cast<void>(synchronise(file, options));
    }
}

/// Locks the file, because two writers at once would shorten each other's content. Anybody who may read it can hold a
/// lock for ever, so after a while the writing goes on without one.
void lockForAWhile(int file) {
    constexpr int kAttempts = 100;
    constexpr int kMilliseconds = 10;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (tbRetryInterrupted([&] { return tbSystem().flock(file, LOCK_EX | LOCK_NB); }) == 0 ||
            errno != EWOULDBLOCK) {
            return;
        }
        tbSystem().poll(nullptr, 0, kMilliseconds);
    }
}

bool overwriteOrRestore(int file, char const* path, void const* data, std::size_t bytes,
                        KvxWriteOptions const& options) {
    lockForAWhile(file);
    struct ::stat status = {};
    if (tbSystem().fstat(file, &status) != 0) {
        return false;
    }
    TbString old;
    old.keepSecret();
    bool const isKnown =
        kvxReadFile(path, old) == KvxReadResult::kDone && static_cast<off_t>(old.length()) == status.st_size;
    if (!reserve(file, bytes)) {
        return false;
    }
    if (overwrite(file, status.st_size, data, bytes, options)) {
        return true;
    }
    if (isKnown) {
        TbErrnoKeeper const keeper(errno);
        restore(file, old, options);
    }
    return false;
}

/// Asks for a new file only where there is none: in a directory with the sticky bit the system may refuse to open a
/// stranger's file for one who asks.
int openForWriting(char const* path, mode_t mode) {
    int const file = openFile(path, O_WRONLY);
    return file >= 0 || errno != ENOENT ? file : openFile(path, O_WRONLY | O_CREAT, mode);
}

KvxWriteResult writeInPlace(char const* path, void const* data, std::size_t bytes, KvxWriteOptions const& options) {
    KvxDescriptor file(openForWriting(path, options.m_Mode));
    if (!file.isOpen()) {
        return KvxWriteResult::kCannotOpen;
    }
    struct ::stat status = {};
    if (tbSystem().fstat(file.get(), &status) != 0) {
        return KvxWriteResult::kCannotWrite;
    }
    bool const written = S_ISREG(status.st_mode)
                             ? overwriteOrRestore(file.get(), path, data, bytes, options)
                             : kvxWriteAll(file.get(), data, bytes) && synchroniseIfPossible(file.get(), options);
    bool const closed = file.close();
    return written && closed ? KvxWriteResult::kDone : KvxWriteResult::kCannotWrite;
}

/// Sets the mode of `file`, and where it differs the owner, to those of the file it replaces.
bool takeOverStatus(int file, struct ::stat const& old) {
    struct ::stat fresh = {};
    if (tbSystem().fstat(file, &fresh) != 0) {
        return false;
    }
    bool const isForeign = fresh.st_uid != old.st_uid || fresh.st_gid != old.st_gid;
    if (isForeign && tbSystem().fchown(file, old.st_uid, old.st_gid) != 0) {
        return false;
    }
    return tbSystem().fchmod(file, old.st_mode & kPermissions) == 0;
}

bool syncDirectory(TbString const& directory, KvxWriteOptions const& options) {
    if (!options.m_Syncs) {
        return true;
    }
    KvxDescriptor const file(kvxOpenDirectory(directory.c_str()));
    return !file.isOpen() || synchronise(file.get(), options) || !isOutOfSpace(errno);
}

KvxWriteResult replaceBeside(char const* path, void const* data, std::size_t bytes, KvxWriteOptions const& options,
                             struct ::stat const* old) {
    TbString const directory = directoryOf(path);
    removeLeftovers(directory);
    TemporaryFile fresh(directory, old == nullptr ? options.m_Mode : kOwnerOnly);
    if (!fresh.isOpen()) {
        int const error = errno;
        if (mayWriteInPlace(error)) {
            return writeInPlace(path, data, bytes, options);
        }
        // An existing file could be opened; only the room for its new content is missing.
        return old != nullptr && isOutOfSpace(error) ? KvxWriteResult::kCannotWrite : KvxWriteResult::kCannotOpen;
    }
    if (old != nullptr && !takeOverStatus(fresh.get(), *old)) {
        return isOutOfSpace(errno) ? KvxWriteResult::kCannotWrite : writeInPlace(path, data, bytes, options);
    }
    if (old == nullptr && options.m_IsExact && tbSystem().fchmod(fresh.get(), options.m_Mode) != 0) {
        return KvxWriteResult::kCannotWrite;
    }
    if (!kvxWriteAll(fresh.get(), data, bytes) || !synchronise(fresh.get(), options)) {
        return KvxWriteResult::kCannotWrite;
    }
    if (!fresh.renameTo(path)) {
        // In a directory with the sticky bit, another user's file may be written but not replaced; the same holds for a
        // mount point, which containers make of single files.
        return mayWriteInPlace(errno) || errno == EBUSY ? writeInPlace(path, data, bytes, options)
                                                        : KvxWriteResult::kCannotWrite;
    }
    return syncDirectory(directory, options) ? KvxWriteResult::kDone : KvxWriteResult::kCannotWrite;
}

/// The file that the symbolic link `path` leads to, through other links perhaps, and that does not exist. Empty when
/// something exists there or the way is unknown.
TbString missingTargetOf(char const* path) {
    constexpr int kMaxLinks = 40;  // as the system has it
    TbString target(path);
    for (int links = 0; links <= kMaxLinks; ++links) {
        char next[PATH_MAX];
        ssize_t const length = tbSystem().readlink(target.c_str(), next, sizeof next);
        if (length < 0 && errno == ENOENT) {
            return target;
        }
        if (length <= 0 || length == ssize_t{sizeof next}) {
            break;
        }
        TbString const directory = next[0] == '/' ? TbString("") : directoryOf(target.c_str()) + "/";
        target = directory;
        target.append(next, static_cast<std::uint32_t>(length));
    }
    return "";
}

}  // namespace

bool KvxDescriptor::close() noexcept {
    if (m_File < 0) {
        return true;
    }
    int const file = m_File;
    m_File = -1;
    // Not repeated when interrupted: the descriptor is closed then.
    return tbSystem().close(file) == 0 || errno == EINTR;
}

int kvxOpenForReading(char const* path) noexcept {
    int const file = openFile(path, O_RDONLY);
    if (file < 0) {
        return -1;
    }
    struct ::stat status = {};
    int const failure = tbSystem().fstat(file, &status) != 0 ? errno : S_ISDIR(status.st_mode) ? EISDIR : 0;
    if (failure == 0) {
        return file;
    }
    tbSystem().close(file);
    errno = failure;
    return -1;
}

int kvxOpenDirectory(char const* path) noexcept {
    return openFile(path, O_RDONLY | O_DIRECTORY);
}

// A file that fits one chunk needs no look at its status: open, read, read at its end, close.
KvxReadResult kvxReadFile(char const* path, TbString& out) {
    KvxDescriptor const file(openFile(path, O_RDONLY));
    if (!file.isOpen()) {
        return failureToOpen(path, errno);
    }
    Chunk chunk;
    for (bool isFirst = true;; isFirst = false) {
        bool const isRead = chunk.read(file.get());
        if (isFirst && chunk.isFull()) {
            growFor(file.get(), out);
        }
        if (chunk.length() != 0) {
            out.append(chunk.bytes(), chunk.length());
        }
        if (!isRead) {
            return failureToRead(file.get());
        }
        if (!chunk.isFull()) {
            return KvxReadResult::kDone;
        }
    }
}

ssize_t kvxReadUpTo(int file, void* buffer, std::size_t bytes) noexcept {
    std::size_t done = 0;
    while (done < bytes) {
        // A caller may pass a size larger than the buffer, and the system refuses a read past the end of all addresses.
        // Each read ends with the page it starts in, so the system sees only room that the file fills.
        char* const next = static_cast<char*>(buffer) + done;
        std::size_t const restOfPage = kPage - (reinterpret_cast<std::uintptr_t>(next) & (kPage - 1));
        ssize_t const count =
            tbRetryInterrupted([&] { return tbSystem().read(file, next, std::min(bytes - done, restOfPage)); });
        if (count < 0) {
            return -1;
        }
        if (count == 0) {
            break;
        }
        done += static_cast<std::size_t>(count);
    }
    return static_cast<ssize_t>(done);
}

bool kvxWriteAll(int file, void const* data, std::size_t bytes) noexcept {
    std::size_t done = 0;
    while (done < bytes) {
        ssize_t const count = tbRetryInterrupted(
            [&] { return tbSystem().write(file, static_cast<char const*>(data) + done, bytes - done); });
        if (count <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(count);
    }
    return true;
}

KvxWriteResult kvxReplaceFile(char const* path, void const* data, std::size_t bytes, KvxWriteOptions const& options) {
    struct ::stat old = {};
    if (tbSystem().lstat(path, &old) != 0) {
        if (errno != ENOENT && errno != ENOTDIR) {
            return KvxWriteResult::kCannotOpen;  // it may be there, with an owner, a mode and a target to keep
        }
        return replaceBeside(path, data, bytes, options, nullptr);
    }
    std::unique_ptr<char, TbReleaser<std::free>> resolved;
    if (S_ISLNK(old.st_mode)) {
        resolved.reset(tbSystem().realpath(path, nullptr));
        TbString const missing = resolved == nullptr && errno == ENOENT ? missingTargetOf(path) : TbString();
        if (!missing.isEmpty()) {
            return replaceBeside(missing.c_str(), data, bytes, options, nullptr);
        }
        if (resolved == nullptr || tbSystem().lstat(resolved.get(), &old) != 0) {
            return writeInPlace(path, data, bytes, options);
        }
        path = resolved.get();
    }
    if (!S_ISREG(old.st_mode)) {
        return writeInPlace(path, data, bytes, options);
    }
    if (tbSystem().access(path, W_OK) != 0) {
        return KvxWriteResult::kCannotOpen;
    }
    return replaceBeside(path, data, bytes, options, &old);
}

bool kvxSyncNewDirectory(TbString const& path) {
    std::uint32_t length = path.length();
    while (length > 1 && path[length - 1] == '/') {
        --length;
    }
    return syncDirectory(directoryOf(path.substring(0, length).c_str()), KvxWriteOptions());
}

std::uint32_t kvxLengthWithoutPadding(TbString const& content) noexcept {
    std::uint32_t length = content.length();
    while (length > 0 && content[length - 1] == '\0') {
        --length;
    }
    return length;
}

TbString kvxWithoutPadding(TbString const& content) {
    return content.substring(0, kvxLengthWithoutPadding(content));
}
