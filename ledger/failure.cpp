// The record of a thread's last failure: two values of the C library's thread-specific data. A variable of each thread
// would not do: making it needs memory, and without any the C library ends the process.
#include "ledger/failure.h"

#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tallowin/tallowin.h"

namespace ledger {

namespace {

pthread_once_t g_Once = PTHREAD_ONCE_INIT;
bool g_HasKeys = false;
pthread_key_t g_CodeKey;  ///< The code, as a number in place of an address.
pthread_key_t g_TextKey;  ///< One block, freed by the C library when the thread ends; null without memory.

void makeKeys() {
    g_HasKeys = ::pthread_key_create(&g_CodeKey, nullptr) == 0 && ::pthread_key_create(&g_TextKey, &std::free) == 0;
}

/// Makes the keys at the first failure of the process. False when there are none left.
bool hasKeys() noexcept {
    return ::pthread_once(&g_Once, &makeKeys) == 0 && g_HasKeys;
}

/// "NAME: reason" in a block of its own; null without memory.
char* textOf(std::int32_t code, char const* reason) noexcept {
    char const* const name = KVX_GetErrorName(code);
    std::size_t const size = std::strlen(name) + std::strlen(reason) + sizeof ": ";
    auto* const text = static_cast<char*>(std::malloc(size));
    if (text != nullptr) {
        std::snprintf(text, size, "%s: %s", name, reason);
    }
    return text;
}

}  // namespace

void noteFailure(std::int32_t code, char const* reason) noexcept {
    if (!hasKeys()) {
        return;
    }
    void* const old = ::pthread_getspecific(g_TextKey);
    char* const text = textOf(code, reason);
    std::free(::pthread_setspecific(g_TextKey, text) == 0 ? old : text);
    ::pthread_setspecific(g_CodeKey, reinterpret_cast<void*>(std::intptr_t{code}));
}

char const* lastFailure() noexcept {
    if (!hasKeys()) {
        return nullptr;
    }
    auto const* const text = static_cast<char const*>(::pthread_getspecific(g_TextKey));
    auto const code = static_cast<std::int32_t>(reinterpret_cast<std::intptr_t>(::pthread_getspecific(g_CodeKey)));
    return code == KVX_OK || text != nullptr ? text : KVX_GetErrorName(code);
}

}  // namespace ledger
