#include "ledger/handleregistry.h"

#include <pthread.h>

#include <mutex>
#include <unordered_map>

namespace ledger {

namespace {

std::mutex& lock() {
    static std::mutex* const s_Lock = new std::mutex;  // outlives every object, whenever it is destroyed
    return *s_Lock;
}

std::unordered_map<KVX_HANDLE, Kind>& handles() {
    static auto* const s_Handles = new std::unordered_map<KVX_HANDLE, Kind>;
    return *s_Handles;
}

void beforeFork() {
    lock().lock();
}

void afterFork() {
    lock().unlock();
}

void watchForks() {
    static int const s_Registered = ::pthread_atfork(beforeFork, afterFork, afterFork);
    static_cast<void>(s_Registered);  // without memory for it forks go unwatched
}

}  // namespace

void addHandle(KVX_HANDLE handle, Kind kind) {
    watchForks();
    std::lock_guard<std::mutex> const guard(lock());
    handles()[handle] = kind;
}

bool isLiving(KVX_HANDLE handle, Kind kind) noexcept {
    std::lock_guard<std::mutex> const guard(lock());
    auto const found = handles().find(handle);
    return found != handles().end() && found->second == kind;
}

bool removeHandle(KVX_HANDLE handle, Kind kind) noexcept {
    std::lock_guard<std::mutex> const guard(lock());
    auto const found = handles().find(handle);
    if (found == handles().end() || found->second != kind) {
        return false;
    }
    handles().erase(found);
    return true;
}

}  // namespace ledger
