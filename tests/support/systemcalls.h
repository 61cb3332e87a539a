/// Replaces system calls of the library.
#ifndef TALLOWIN_TESTS_SUPPORT_SYSTEMCALLS_H
#define TALLOWIN_TESTS_SUPPORT_SYSTEMCALLS_H

#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string>

#include "foundation/tbsystem.h"

namespace kvxtest {

/// Gives access to the table of system calls; restores all entries at the end.
class SystemCalls {
public:
    SystemCalls() : m_Original(tbSystem()) {}
    SystemCalls(SystemCalls const&) = delete;
    SystemCalls& operator=(SystemCalls const&) = delete;
    ~SystemCalls() { tbSystem() = m_Original; }

    TbSystemCalls* operator->() { return &tbSystem(); }

private:
    TbSystemCalls m_Original;
};

/// Sets the time of day for the library while it lives. One at a time.
class FixedTime {
public:
    explicit FixedTime(std::time_t now) {
        s_Now = now;
        m_Calls->time = [](std::time_t*) { return s_Now; };
    }

private:
    static inline std::time_t s_Now = 0;

    SystemCalls m_Calls;
};

/// Fails all reads of one file with EIO while it lives, as a damaged disk does. One at a time.
class FailingReads {
public:
    explicit FailingReads(std::string const& path) {
        s_Path = path;
        s_File = -1;
        m_Calls->open = [](char const* opened, int flags, mode_t mode) {
            int const result = TbSystemCalls::openFile(opened, flags, mode);
            s_File = opened == s_Path ? result : s_File == result ? -1 : s_File;
            return result;
        };
        m_Calls->read = [](int descriptor, void* buffer, std::size_t bytes) -> ssize_t {
            if (descriptor == s_File) {
                errno = EIO;
                return -1;
            }
            return ::read(descriptor, buffer, bytes);
        };
    }

private:
    static inline std::string s_Path;
    static inline int s_File = -1;

    SystemCalls m_Calls;
};

/// Leaves out fsync() while it lives, to save time; durability has its own tests.
class WithoutSync {
public:
    WithoutSync() {
        m_Calls->fsync = [](int) { return 0; };
    }

private:
    SystemCalls m_Calls;
};

}  // namespace kvxtest

#endif
