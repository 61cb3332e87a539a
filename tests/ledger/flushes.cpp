#include "tests/ledger/flushes.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace {

std::atomic<long> g_Calls = 0;
std::atomic<bool> g_AreFailing = false;

}  // namespace

/// Found by SQLite before the C library's, because the program is searched first.
extern "C" __attribute__((visibility("default"))) int fdatasync(int file) {
    ++g_Calls;
    if (g_AreFailing) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(::syscall(SYS_fdatasync, file));
}

namespace kvxtest {

long flushCalls() {
    return g_Calls;
}

FailingFlushes::FailingFlushes() {
    g_AreFailing = true;
}

FailingFlushes::~FailingFlushes() {
    g_AreFailing = false;
}

}  // namespace kvxtest
