/// Ends a process at one of its system calls.
#ifndef TALLOWIN_TESTS_SUPPORT_DEADLYCALL_H
#define TALLOWIN_TESTS_SUPPORT_DEADLYCALL_H

#include <unistd.h>

#include <csignal>

#include "tests/support/systemcalls.h"

namespace kvxtest {

/// Kills this process instead of its call number `number`, from 0, while it lives: any call that can leave a trace on
/// disk or at a peer, or open a descriptor. -1 kills none. For child processes; one at a time. Replacements made before
/// stay in force.
class DeadlyCall {
public:
    /// `beforeEach` is called before every call; null for none.
    explicit DeadlyCall(int number, void (*beforeEach)() = nullptr) {
        s_BeforeEach = beforeEach;
        s_Number = number;
        s_Count = 0;
        watch<&TbSystemCalls::open, &TbSystemCalls::close, &TbSystemCalls::read, &TbSystemCalls::write,
              &TbSystemCalls::lseek, &TbSystemCalls::fallocate, &TbSystemCalls::ftruncate, &TbSystemCalls::fsync,
              &TbSystemCalls::fstat, &TbSystemCalls::lstat, &TbSystemCalls::fchmod, &TbSystemCalls::fchown,
              &TbSystemCalls::flock, &TbSystemCalls::access, &TbSystemCalls::rename, &TbSystemCalls::unlink,
              &TbSystemCalls::mkdir, &TbSystemCalls::opendir, &TbSystemCalls::readdir, &TbSystemCalls::closedir,
              &TbSystemCalls::realpath, &TbSystemCalls::readlink, &TbSystemCalls::socket, &TbSystemCalls::connect,
              &TbSystemCalls::send, &TbSystemCalls::recv, &TbSystemCalls::shutdown>();
    }

    /// How many calls were made so far.
    static int count() { return s_Count; }

private:
    template <auto kEntry>
    struct Watched;

    template <class Result, class... Arguments, Result (*TbSystemCalls::*kEntry)(Arguments...)>
    struct Watched<kEntry> {
        static Result call(Arguments... arguments) {
            if (s_BeforeEach != nullptr) {
                s_BeforeEach();
            }
            if (s_Count++ == s_Number) {
                ::kill(::getpid(), SIGKILL);
            }
            return s_Original(arguments...);
        }
        static inline Result (*s_Original)(Arguments...) = nullptr;
    };

    template <auto... kEntries>
    void watch() {
        ((Watched<kEntries>::s_Original = tbSystem().*kEntries), ...);
        ((tbSystem().*kEntries = &Watched<kEntries>::call), ...);
    }

    static inline void (*s_BeforeEach)() = nullptr;
    static inline int s_Number = -1;
    static inline int s_Count = 0;

    SystemCalls m_Calls;
};

}  // namespace kvxtest

#endif
