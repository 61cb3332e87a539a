// malloc and its relatives in a Java virtual machine, over the C library's own entry points.
//
// Loaded ahead of everything else (LD_PRELOAD). A virtual machine does not survive a failing malloc of its own, so an
// allocation fails only on the thread that asked for it, and only when the library under test, OpenSSL or libuuid
// makes it, for the order ledger also SQLite or the C++ run-time library: the return address shows which. Odd:
// allocations that are not released are kept in a fixed table, because the table must not allocate; it covers the same
// callers on the same thread.

#include <dlfcn.h>
#include <jni.h>
#include <link.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "tests/support/clibraryheap.h"

namespace {

/// The libraries whose allocations count.
constexpr char const* kLibraries[] = {"/libtallowin.so", "/libcrypto.so", "/libssl.so", "/libuuid.so"};
constexpr char const* kLedgerLibraries[] = {"/libtallowin-ledger-jni.so", "/libsqlite3.so", "/libstdc++.so",
                                            "/libcrypto.so"};

struct Range {
    std::uintptr_t m_Begin;
    std::uintptr_t m_End;
};
constexpr int kMaxRanges = 64;
Range g_Ranges[kMaxRanges];
int g_RangeCount = 0;

// Reading these must not allocate, also in the first moments of a thread.
#define KVX_EARLY thread_local __attribute__((tls_model("initial-exec")))
KVX_EARLY bool t_IsWatched = false;
KVX_EARLY bool t_IsArmed = false;
KVX_EARLY bool t_IsOnwards = false;
KVX_EARLY bool t_HasFailed = false;
KVX_EARLY long t_Number = 0;
KVX_EARLY long t_Requested = 0;

/// The living allocations: open addressing, of the one watched thread.
constexpr std::size_t kSlots = std::size_t{1} << 16;
void* g_Living[kSlots];
char g_Tombstone;
long g_LivingCount = 0;

std::size_t slotOf(void const* memory) {
    return (reinterpret_cast<std::uintptr_t>(memory) >> 4) * 0x9E3779B97F4A7C15U >> 48;
}

bool counts(void const* caller) {
    auto const address = reinterpret_cast<std::uintptr_t>(caller);
    for (int i = 0; t_IsWatched && i < g_RangeCount; ++i) {
        if (address >= g_Ranges[i].m_Begin && address < g_Ranges[i].m_End) {
            return true;
        }
    }
    return false;
}

bool isPermitted(void const* caller) {
    if (!t_IsArmed || !counts(caller)) {
        return true;
    }
    long const number = t_Requested++;
    bool const fails = t_Number >= 0 && (t_IsOnwards ? number >= t_Number : number == t_Number);
    if (fails) {
        t_HasFailed = true;
        errno = ENOMEM;
    }
    return !fails;
}

void* watched(void* memory, void const* caller) {
    if (memory == nullptr || !counts(caller)) {
        return memory;
    }
    for (std::size_t i = slotOf(memory), tried = 0; tried < kSlots; i = (i + 1) % kSlots, ++tried) {
        if (g_Living[i] == nullptr || g_Living[i] == &g_Tombstone) {
            g_Living[i] = memory;
            ++g_LivingCount;
            return memory;
        }
    }
    std::abort();  // the table is too small
}

void unwatch(void const* memory) {
    if (memory == nullptr || !t_IsWatched) {
        return;
    }
    for (std::size_t i = slotOf(memory), tried = 0; tried < kSlots && g_Living[i] != nullptr;
         i = (i + 1) % kSlots, ++tried) {
        if (g_Living[i] == memory) {
            bool const isLast = g_Living[(i + 1) % kSlots] == nullptr;
            g_Living[i] = isLast ? nullptr : &g_Tombstone;
            --g_LivingCount;
            return;
        }
    }
}

/// Adds the code of a library when one of the four names at `names` is part of its path.
int addRanges(dl_phdr_info* library, std::size_t, void* names) {
    bool isWanted = false;
    for (int i = 0; i < 4; ++i) {
        isWanted = isWanted || std::strstr(library->dlpi_name, static_cast<char const* const*>(names)[i]) != nullptr;
    }
    for (int i = 0; isWanted && i < library->dlpi_phnum; ++i) {
        auto const& part = library->dlpi_phdr[i];
        if (part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0 && g_RangeCount < kMaxRanges) {
            std::uintptr_t const begin = library->dlpi_addr + part.p_vaddr;
            g_Ranges[g_RangeCount++] = {begin, begin + part.p_memsz};
        }
    }
    return 0;
}

int watch(char const* const (&names)[4]) {
    g_RangeCount = 0;
    dl_iterate_phdr(&addRanges, const_cast<char const**>(names));
    t_IsWatched = true;
    return g_RangeCount;
}

/// Releases what OpenSSL keeps for the calling thread, such as the texts of its error queue.
void forgetThread() {
    void* const openssl = dlopen("libcrypto.so.3", RTLD_NOW | RTLD_NOLOAD);
    if (openssl != nullptr) {
        reinterpret_cast<void (*)()>(dlsym(openssl, "OPENSSL_thread_stop"))();
        dlclose(openssl);
    }
}

}  // namespace

// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): the address is that of the function it stands in
#define KVX_CALLER __builtin_return_address(0)

extern "C" {

__attribute__((visibility("default"))) void* malloc(std::size_t bytes) {
    return isPermitted(KVX_CALLER) ? watched(__libc_malloc(bytes), KVX_CALLER) : nullptr;
}

__attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t bytes) {
    return isPermitted(KVX_CALLER) ? watched(__libc_calloc(count, bytes), KVX_CALLER) : nullptr;
}

__attribute__((visibility("default"))) void* realloc(void* memory, std::size_t bytes) {
    if (!isPermitted(KVX_CALLER)) {
        return nullptr;
    }
    unwatch(memory);
    void* const moved = __libc_realloc(memory, bytes);
    watched(moved == nullptr && bytes != 0 ? memory : moved, KVX_CALLER);
    return moved;
}

__attribute__((visibility("default"))) void* memalign(std::size_t alignment, std::size_t bytes) {
    return isPermitted(KVX_CALLER) ? watched(__libc_memalign(alignment, bytes), KVX_CALLER) : nullptr;
}

__attribute__((visibility("default"))) void free(void* memory) {
    unwatch(memory);
    __libc_free(memory);
}

/// Watches the calling thread, the only one, from now on. Returns how many parts of libraries count.
JNIEXPORT jint JNICALL Java_kelvane_tallowin_HeapFault_watch(JNIEnv*, jclass) {
    return watch(kLibraries);
}

/// The same for the libraries of the order ledger.
JNIEXPORT jint JNICALL Java_kelvane_tallowin_HeapFault_watchLedger(JNIEnv*, jclass) {
    return watch(kLedgerLibraries);
}

/// Fails allocation `number` (from 0; negative: none) of the calling thread, or all from there on, until `disarm`.
JNIEXPORT void JNICALL Java_kelvane_tallowin_HeapFault_arm(JNIEnv*, jclass, jlong number, jboolean isOnwards) {
    t_Number = static_cast<long>(number);
    t_IsOnwards = isOnwards != JNI_FALSE;
    t_HasFailed = false;
    t_Requested = 0;
    t_IsArmed = true;
}

/// Returns the allocations requested since `arm`.
JNIEXPORT jlong JNICALL Java_kelvane_tallowin_HeapFault_disarm(JNIEnv*, jclass) {
    t_IsArmed = false;
    return t_Requested;
}

JNIEXPORT jboolean JNICALL Java_kelvane_tallowin_HeapFault_hasFailed(JNIEnv*, jclass) {
    return t_HasFailed ? JNI_TRUE : JNI_FALSE;
}

/// Allocations made while watched and not released, save those that OpenSSL keeps for the thread: these go.
JNIEXPORT jlong JNICALL Java_kelvane_tallowin_HeapFault_living(JNIEnv*, jclass) {
    forgetThread();
    return g_LivingCount;
}

}  // extern "C"
