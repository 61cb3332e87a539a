/// The seam for operating-system calls. Internal: not installed.
#ifndef TALLOWIN_FOUNDATION_TBSYSTEM_H
#define TALLOWIN_FOUNDATION_TBSYSTEM_H

#include <dirent.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

/// The calls into the operating system that can fail: files, directories, sockets, name lookup, clocks, mappings,
/// the start of a thread.
///
/// The table is constant in the shipped library. In test builds a test replaces single entries to make calls fail.
///
/// Outside the table: reads and writes of a TLS connection, and the random bytes of keys and identifiers, which OpenSSL
/// and libuuid fetch themselves; printing to standard output and error, whose result is ignored; `getpid` and the
/// signal mask of the calling thread, which cannot fail; mutexes. Memory has a seam of its own, foundation/tbmemory.h.
struct TbSystemCalls {
    // NOLINTBEGIN(readability-identifier-naming): an entry has the name of the call it stands for
    static int openFile(char const* path, int flags, mode_t mode) { return ::open(path, flags, mode); }
    static int status(int file, struct ::stat* result) { return ::fstat(file, result); }
    /// Uses the effective user, as opening does.
    static int mayAccess(char const* path, int mode) { return ::faccessat(AT_FDCWD, path, mode, AT_EACCESS); }
    static int linkStatus(char const* path, struct ::stat* result) { return ::lstat(path, result); }
    static int makeNonBlocking(int file) {
        int const flags = ::fcntl(file, F_GETFL);
        return flags == -1 ? -1 : ::fcntl(file, F_SETFL, flags | O_NONBLOCK);
    }
    static int duplicateFrom(int file, int least) { return ::fcntl(file, F_DUPFD_CLOEXEC, least); }

    int (*open)(char const* path, int flags, mode_t mode) = &openFile;
    int (*close)(int file) = &::close;
    ssize_t (*read)(int file, void* buffer, std::size_t bytes) = &::read;
    ssize_t (*write)(int file, void const* buffer, std::size_t bytes) = &::write;
    off_t (*lseek)(int file, off_t offset, int origin) = &::lseek;
    /// Linux's own call, not the standard one, which makes the file longer and writes where the system cannot reserve.
    int (*fallocate)(int file, int mode, off_t offset, off_t bytes) = &::fallocate;
    int (*ftruncate)(int file, off_t bytes) = &::ftruncate;
    int (*fsync)(int file) = &::fsync;
    int (*fstat)(int file, struct ::stat* result) = &status;
    int (*lstat)(char const* path, struct ::stat* result) = &linkStatus;
    int (*fchmod)(int file, mode_t mode) = &::fchmod;
    int (*fchown)(int file, uid_t owner, gid_t group) = &::fchown;
    /// A copy of `file` with a number from `least` up, closed on exec.
    int (*dupFrom)(int file, int least) = &duplicateFrom;
    int (*flock)(int file, int operation) = &::flock;
    int (*access)(char const* path, int mode) = &mayAccess;
    int (*rename)(char const* from, char const* to) = &::rename;
    int (*unlink)(char const* path) = &::unlink;
    int (*mkdir)(char const* path, mode_t mode) = &::mkdir;
    DIR* (*opendir)(char const* path) = &::opendir;
    dirent* (*readdir)(DIR* directory) = &::readdir;
    int (*closedir)(DIR* directory) = &::closedir;
    char* (*realpath)(char const* path, char* resolved) = &::realpath;
    ssize_t (*readlink)(char const* path, char* target, std::size_t bytes) = &::readlink;
    char* (*getcwd)(char* buffer, std::size_t bytes) = &::getcwd;
    std::time_t (*time)(std::time_t* result) = &::time;
    int (*clock_gettime)(clockid_t clock, timespec* now) = &::clock_gettime;
    void* (*mmap)(void* where, std::size_t bytes, int access, int flags, int file, off_t offset) = &::mmap;
    int (*munmap)(void* memory, std::size_t bytes) = &::munmap;

    int (*socket)(int domain, int type, int protocol) = &::socket;
    int (*connect)(int socket, sockaddr const* address, socklen_t length) = &::connect;
    ssize_t (*send)(int socket, void const* buffer, std::size_t bytes, int flags) = &::send;
    ssize_t (*recv)(int socket, void* buffer, std::size_t bytes, int flags) = &::recv;
    int (*shutdown)(int socket, int how) = &::shutdown;
    int (*poll)(pollfd* files, nfds_t count, int milliseconds) = &::poll;
    int (*getsockopt)(int socket, int level, int option, void* value, socklen_t* length) = &::getsockopt;
    int (*setsockopt)(int socket, int level, int option, void const* value, socklen_t length) = &::setsockopt;
    /// Makes the calls on `file` fail with EAGAIN where they would block.
    int (*setNonBlocking)(int file) = &makeNonBlocking;
    int (*gethostbyname_r)(char const* host, hostent* entry, char* memory, std::size_t bytes, hostent** result,
                           int* reason) = &::gethostbyname_r;
    /// Both return an error number.
    int (*pthread_attr_init)(pthread_attr_t* attributes) = &::pthread_attr_init;
    int (*startThread)(pthread_t* thread, pthread_attr_t const* attributes, void* (*run)(void*),
                       void* argument) = &::pthread_create;
    // NOLINTEND(readability-identifier-naming)
};

#ifdef KVX_TEST_SEAMS
/// The table in use. Change it only while no other thread is inside the library.
TbSystemCalls& tbSystem() noexcept;
#else
inline constexpr TbSystemCalls kTbSystemCalls{};

inline TbSystemCalls const& tbSystem() noexcept {
    return kTbSystemCalls;
}
#endif

/// Moves `file` to a number above standard input, output and error. A process that closed those gets their numbers for
/// new files, and other code still prints to them. -1 passes; returns -1 and `errno` when no other number is free.
inline int tbAwayFromStandardStreams(int file) noexcept {
    if (file < STDIN_FILENO || file > STDERR_FILENO) {
        return file;
    }
    int const moved = tbSystem().dupFrom(file, STDERR_FILENO + 1);
    int const failure = errno;
    tbSystem().close(file);
    errno = failure;
    return moved;
}

/// Repeats `call` while a signal interrupts it: signals of a profiler or virtual machine must not fail a payment.
template <class Call>
auto tbRetryInterrupted(Call call) -> decltype(call()) {
    for (;;) {
        auto const result = call();
        if (result != -1 || errno != EINTR) {
            return result;
        }
    }
}

#endif
