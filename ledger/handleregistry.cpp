#include "ledger/handleregistry.h"

#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "ledger/processlock.h"

namespace ledger {

namespace {

struct Entry {
    void* m_Object;
    Kind m_Kind;
};

using Entries = std::unordered_map<std::uintptr_t, Entry>;

/// Under the lock of the process.
Entries& entries() {
    static auto* const s_Entries = new Entries;  // outlives every object, whenever it is destroyed
    return *s_Entries;
}

std::uintptr_t numberOf(KVX_HANDLE handle) {
    return reinterpret_cast<std::uintptr_t>(handle);
}

/// Odd, so that it is no address of an object: neither one of the component nor any other.
std::uintptr_t nextNumber() {
    static std::uintptr_t s_Last = 1;
    return s_Last += 2;
}

Entries::iterator find(KVX_HANDLE handle, Kind kind) {
    auto const found = entries().find(numberOf(handle));
    return found != entries().end() && found->second.m_Kind == kind ? found : entries().end();
}

}  // namespace

KVX_HANDLE addHandle(void* object, Kind kind) {
    std::lock_guard<std::mutex> const guard(processLock());
    std::uintptr_t const number = nextNumber();
    entries()[number] = {object, kind};
    return reinterpret_cast<KVX_HANDLE>(number);  // NOLINT(performance-no-int-to-ptr): opaque, never followed
}

void* objectOf(KVX_HANDLE handle, Kind kind) noexcept {
    std::lock_guard<std::mutex> const guard(processLock());
    auto const found = find(handle, kind);
    return found == entries().end() ? nullptr : found->second.m_Object;
}

void* removeHandle(KVX_HANDLE handle, Kind kind) noexcept {
    std::lock_guard<std::mutex> const guard(processLock());
    auto const found = find(handle, kind);
    if (found == entries().end()) {
        return nullptr;
    }
    void* const object = found->second.m_Object;
    entries().erase(found);
    return object;
}

}  // namespace ledger
