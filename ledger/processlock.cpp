#include "ledger/processlock.h"

#include <pthread.h>

namespace ledger {

namespace {

std::mutex& lock() {
    static std::mutex* const s_Lock = new std::mutex;  // outlives every object, whenever it is destroyed
    return *s_Lock;
}

void beforeFork() {
    lock().lock();
}

void afterFork() {
    lock().unlock();
}

}  // namespace

std::mutex& processLock() {
    static int const s_Registered = ::pthread_atfork(beforeFork, afterFork, afterFork);
    static_cast<void>(s_Registered);  // without memory for it forks go unwatched
    return lock();
}

}  // namespace ledger
