#include "net/kvxmemorywatch.h"

#include <openssl/err.h>

#include <atomic>

namespace {

std::atomic<bool> g_HasLackedMemory{false};

}  // namespace

KvxMemoryWatch::KvxMemoryWatch() noexcept : m_Before(errno) {
    ERR_clear_error();
    errno = 0;
}

KvxMemoryWatch::~KvxMemoryWatch() {
    static_cast<void>(hasFailure());
    if (errno == 0) {
        errno = m_Before;
    }
}

bool KvxMemoryWatch::hasFailure() noexcept {
    sample();
    while (unsigned long const entry = ERR_get_error()) {
        m_HasFailure = m_HasFailure || ERR_GET_REASON(entry) == ERR_R_MALLOC_FAILURE;
    }
    if (m_HasFailure) {
        kvxNoteLackOfMemory();
    }
    return m_HasFailure;
}

void kvxNoteLackOfMemory() noexcept {
    g_HasLackedMemory = true;
}

bool kvxHasLackedMemory() noexcept {
    return g_HasLackedMemory;
}

bool kvxHasErrorQueue() noexcept {
    // What ERR_raise does, without the name of this file, which would put the place of the build into the library.
    ERR_new();
    ERR_set_debug("kvxmemorywatch.cpp", 0, "kvxHasErrorQueue");
    ERR_set_error(ERR_LIB_USER, ERR_R_INTERNAL_ERROR, nullptr);
    bool const hasEntry = ERR_peek_error() != 0;
    ERR_clear_error();
    return hasEntry;
}
