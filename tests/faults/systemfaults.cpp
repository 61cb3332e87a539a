// One hook for each entry of the table of system calls.
//
// A hook calls what the table held before, which may itself be scripted. Odd: closing takes place even when it is to
// fail, because the descriptor is gone then too; name lookup returns its error and uses no errno.

#include "tests/faults/systemfaults.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <type_traits>

namespace kvxtest {

namespace {

constexpr int kInterruptions = 3;
constexpr std::size_t kMaxEntries = 40;

SystemFault const* g_Fault = nullptr;
long g_Number = 0;
long g_Made[kMaxEntries];  ///< Calls so far, by entry.
int g_Interruptions = 0;   ///< Of the call in progress.
bool g_HasFailed = false;

/// Where the fault's entry stands among the installers.
std::size_t g_FaultyEntry = 0;

/// Whether the call in progress is to fail; sets errno.
bool fails(std::size_t entry) {
    long const number = g_Made[entry]++;
    if (g_Fault == nullptr || entry != g_FaultyEntry) {
        return false;
    }
    if (g_Fault->m_Kind == FaultKind::kStorm) {
        g_HasFailed = true;
        errno = EINTR;
        return g_Interruptions++ % (kInterruptions + 1) != kInterruptions;
    }
    bool const isMeant = g_Fault->m_Kind == FaultKind::kAlways ? number >= g_Number : number == g_Number;
    bool const failing = isMeant && g_Fault->m_Kind != FaultKind::kShort && g_Fault->m_Kind != FaultKind::kEnd;
    g_HasFailed = g_HasFailed || isMeant;
    errno = failing ? g_Fault->m_Error : errno;
    return failing;
}

template <class Result>
Result failedValue() {
    if constexpr (std::is_pointer_v<Result>) {
        return nullptr;
    } else {
        return Result(-1);
    }
}

template <auto kEntry, class Entry = decltype(kEntry)>
struct Hook;

template <auto kEntry, class Result, class... Arguments>
struct Hook<kEntry, Result (*TbSystemCalls::*)(Arguments...)> {
    static inline Result (*s_Before)(Arguments...) = nullptr;

    static inline std::size_t s_Entry = 0;

    static void install(TbSystemCalls& calls, std::size_t entry, Result (*hook)(Arguments...) = &call) {
        s_Before = calls.*kEntry;
        s_Entry = entry;
        calls.*kEntry = hook;
    }

    static Result call(Arguments... arguments) {
        return fails(s_Entry) ? failedValue<Result>() : s_Before(arguments...);
    }

    /// For calls that release something whatever their result.
    static Result callAnyway(Arguments... arguments) {
        bool const failing = fails(s_Entry);
        int const error = errno;
        Result const result = s_Before(arguments...);
        errno = failing ? error : errno;
        return failing ? failedValue<Result>() : result;
    }
};

using ReadHook = Hook<&TbSystemCalls::read>;
using WriteHook = Hook<&TbSystemCalls::write>;
using SendHook = Hook<&TbSystemCalls::send>;
using ReceiveHook = Hook<&TbSystemCalls::recv>;
using LookupHook = Hook<&TbSystemCalls::gethostbyname_r>;
using MapHook = Hook<&TbSystemCalls::mmap>;

/// A transfer of entry `entry` through `move`, which takes how many bytes it may move.
template <class Move>
ssize_t transfer(std::size_t entry, std::size_t bytes, Move move) {
    if (fails(entry)) {
        return -1;
    }
    if (g_Fault == nullptr || entry != g_FaultyEntry) {
        return move(bytes);
    }
    if (g_Fault->m_Kind == FaultKind::kEnd && g_Made[entry] - 1 == g_Number) {
        return 0;
    }
    return move(g_Fault->m_Kind == FaultKind::kShort ? std::min<std::size_t>(bytes, 1) : bytes);
}

ssize_t readHook(int file, void* buffer, std::size_t bytes) {
    return transfer(ReadHook::s_Entry, bytes, [&](std::size_t most) { return ReadHook::s_Before(file, buffer, most); });
}

ssize_t writeHook(int file, void const* buffer, std::size_t bytes) {
    return transfer(WriteHook::s_Entry, bytes,
                    [&](std::size_t most) { return WriteHook::s_Before(file, buffer, most); });
}

ssize_t sendHook(int socket, void const* buffer, std::size_t bytes, int flags) {
    return transfer(SendHook::s_Entry, bytes,
                    [&](std::size_t most) { return SendHook::s_Before(socket, buffer, most, flags); });
}

ssize_t receiveHook(int socket, void* buffer, std::size_t bytes, int flags) {
    return transfer(ReceiveHook::s_Entry, bytes,
                    [&](std::size_t most) { return ReceiveHook::s_Before(socket, buffer, most, flags); });
}

int lookupHook(char const* host, hostent* entry, char* memory, std::size_t bytes, hostent** result, int* reason) {
    if (!fails(LookupHook::s_Entry)) {
        return LookupHook::s_Before(host, entry, memory, bytes, result, reason);
    }
    *result = nullptr;
    *reason = g_Fault->m_Error == EAGAIN ? TRY_AGAIN : HOST_NOT_FOUND;
    return g_Fault->m_Error;
}

void* mapHook(void* where, std::size_t bytes, int access, int flags, int file, off_t offset) {
    return fails(MapHook::s_Entry) ? MAP_FAILED : MapHook::s_Before(where, bytes, access, flags, file, offset);
}

struct Installer {
    char const* m_Call;
    void (*m_Install)(TbSystemCalls& calls, std::size_t entry);
};

// clang-format off
constexpr Installer kInstallers[] = {
    {"open",     [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::open>::install(c, e); }},
    {"close",    [](TbSystemCalls& c, std::size_t e) { using H = Hook<&TbSystemCalls::close>; H::install(c, e, &H::callAnyway); }},
    {"read",     [](TbSystemCalls& c, std::size_t e) { ReadHook::install(c, e, &readHook); }},
    {"write",    [](TbSystemCalls& c, std::size_t e) { WriteHook::install(c, e, &writeHook); }},
    {"fsync",    [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::fsync>::install(c, e); }},
    {"fstat",    [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::fstat>::install(c, e); }},
    {"lstat",    [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::lstat>::install(c, e); }},
    {"fchmod",   [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::fchmod>::install(c, e); }},
    {"flock",    [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::flock>::install(c, e); }},
    {"access",   [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::access>::install(c, e); }},
    {"rename",   [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::rename>::install(c, e); }},
    {"unlink",   [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::unlink>::install(c, e); }},
    {"mkdir",    [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::mkdir>::install(c, e); }},
    {"opendir",  [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::opendir>::install(c, e); }},
    {"readdir",  [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::readdir>::install(c, e); }},
    {"closedir", [](TbSystemCalls& c, std::size_t e) { using H = Hook<&TbSystemCalls::closedir>; H::install(c, e, &H::callAnyway); }},
    {"realpath", [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::realpath>::install(c, e); }},
    {"getcwd",   [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::getcwd>::install(c, e); }},
    {"mmap",     [](TbSystemCalls& c, std::size_t e) { MapHook::install(c, e, &mapHook); }},
    {"munmap",   [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::munmap>::install(c, e); }},
    {"socket",   [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::socket>::install(c, e); }},
    {"connect",  [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::connect>::install(c, e); }},
    {"send",     [](TbSystemCalls& c, std::size_t e) { SendHook::install(c, e, &sendHook); }},
    {"recv",     [](TbSystemCalls& c, std::size_t e) { ReceiveHook::install(c, e, &receiveHook); }},
    {"shutdown", [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::shutdown>::install(c, e); }},
    {"poll",     [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::poll>::install(c, e); }},
    {"getsockopt", [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::getsockopt>::install(c, e); }},
    {"setsockopt", [](TbSystemCalls& c, std::size_t e) { Hook<&TbSystemCalls::setsockopt>::install(c, e); }},
    {"gethostbyname_r", [](TbSystemCalls& c, std::size_t e) { LookupHook::install(c, e, &lookupHook); }},
};

std::size_t entryOf(std::string const& name) {
    std::size_t entry = 0;
    while (name != kInstallers[entry].m_Call) {
        ++entry;
    }
    return entry;
}

#define KVX_ONCE(call, error) {call, #error, FaultKind::kOnce, error}
#define KVX_ALWAYS(call, error) {call, #error "+", FaultKind::kAlways, error}
#define KVX_STORM(call) {call, "storm", FaultKind::kStorm, EINTR}
#define KVX_SHORT(call) {call, "short", FaultKind::kShort, 0}
#define KVX_END(call) {call, "end", FaultKind::kEnd, 0}
std::vector<SystemFault> const kFaults = {
    KVX_ONCE("open", ENOENT), KVX_ONCE("open", ENOTDIR), KVX_ONCE("open", EACCES), KVX_ONCE("open", ELOOP),
    KVX_ONCE("open", EMFILE), KVX_ONCE("open", ENFILE), KVX_ONCE("open", ENOMEM), KVX_ONCE("open", EIO),
    KVX_ONCE("open", EROFS), KVX_ONCE("open", ENOSPC), KVX_ALWAYS("open", EACCES), KVX_ALWAYS("open", EMFILE),
    KVX_STORM("open"),
    KVX_ONCE("close", EIO), KVX_ONCE("close", EINTR), KVX_ONCE("close", ENOSPC),
    KVX_ONCE("read", EIO), KVX_ONCE("read", EISDIR), KVX_SHORT("read"), KVX_STORM("read"),
    KVX_ONCE("write", ENOSPC), KVX_ONCE("write", EDQUOT), KVX_ONCE("write", EFBIG), KVX_ONCE("write", EIO),
    KVX_ALWAYS("write", ENOSPC), KVX_END("write"), KVX_SHORT("write"), KVX_STORM("write"),
    KVX_ONCE("fsync", EIO), KVX_ONCE("fsync", ENOSPC), KVX_ONCE("fsync", EINVAL), KVX_ONCE("fsync", EROFS),
    KVX_STORM("fsync"),
    KVX_ONCE("fstat", EIO), KVX_ONCE("fstat", EOVERFLOW), KVX_ALWAYS("fstat", EIO),
    KVX_ONCE("lstat", ENOENT), KVX_ONCE("lstat", EACCES), KVX_ONCE("lstat", EIO), KVX_ONCE("lstat", ELOOP),
    KVX_ONCE("fchmod", EPERM), KVX_ONCE("fchmod", EIO), KVX_ONCE("fchmod", ENOSPC),
    KVX_ONCE("flock", ENOLCK), KVX_ONCE("flock", EIO), KVX_STORM("flock"),
    KVX_ONCE("access", EACCES), KVX_ONCE("access", EROFS), KVX_ONCE("access", EIO),
    KVX_ONCE("rename", EACCES), KVX_ONCE("rename", EPERM), KVX_ONCE("rename", EBUSY), KVX_ONCE("rename", ENOSPC),
    KVX_ONCE("rename", EIO), KVX_ONCE("rename", EXDEV), KVX_ONCE("rename", EROFS),
    KVX_ONCE("unlink", EACCES), KVX_ONCE("unlink", EIO),
    KVX_ONCE("mkdir", EACCES), KVX_ONCE("mkdir", EEXIST), KVX_ONCE("mkdir", ENOSPC), KVX_ONCE("mkdir", EROFS),
    KVX_ONCE("opendir", EACCES), KVX_ONCE("opendir", EMFILE), KVX_ONCE("opendir", ENOENT), KVX_ONCE("opendir", ENOMEM),
    KVX_ALWAYS("opendir", EMFILE),
    KVX_ONCE("readdir", EIO),
    KVX_ONCE("closedir", EIO),
    KVX_ONCE("realpath", EACCES), KVX_ONCE("realpath", EIO), KVX_ONCE("realpath", ENOENT), KVX_ONCE("realpath", ENOMEM),
    KVX_ONCE("getcwd", ENOENT), KVX_ONCE("getcwd", ERANGE), KVX_ONCE("getcwd", EACCES),
    KVX_ONCE("mmap", ENOMEM), KVX_ALWAYS("mmap", ENOMEM), KVX_ALWAYS("mmap", EINVAL),
    KVX_ONCE("munmap", EINVAL),
    KVX_ONCE("socket", EMFILE), KVX_ONCE("socket", ENOBUFS), KVX_ONCE("socket", EACCES), KVX_ONCE("socket", EAFNOSUPPORT),
    KVX_ONCE("connect", ECONNREFUSED), KVX_ONCE("connect", ETIMEDOUT), KVX_ONCE("connect", ENETUNREACH),
    KVX_ONCE("connect", EHOSTUNREACH), KVX_ONCE("connect", EADDRNOTAVAIL), KVX_ONCE("connect", EINTR),
    KVX_ONCE("send", ECONNRESET), KVX_ONCE("send", EPIPE), KVX_ONCE("send", ENOBUFS), KVX_SHORT("send"), KVX_STORM("send"),
    KVX_ONCE("recv", ECONNRESET), KVX_ONCE("recv", ETIMEDOUT), KVX_ONCE("recv", ENOMEM), KVX_END("recv"),
    KVX_SHORT("recv"), KVX_STORM("recv"),
    KVX_ONCE("shutdown", ENOTCONN),
    KVX_ONCE("poll", ENOMEM),
    KVX_ONCE("getsockopt", ENOBUFS),
    KVX_ONCE("setsockopt", ENOPROTOOPT), KVX_ONCE("setsockopt", ENOMEM),
    KVX_ONCE("gethostbyname_r", ENOENT), KVX_ONCE("gethostbyname_r", EAGAIN), KVX_ONCE("gethostbyname_r", ENOMEM),
    KVX_ONCE("gethostbyname_r", ERANGE),
};
// clang-format on

}  // namespace

std::vector<SystemFault> const& systemFaults() {
    return kFaults;
}

FailingSystem::FailingSystem() {
    static_assert(std::size(kInstallers) <= kMaxEntries);
    g_Fault = nullptr;
    g_Interruptions = 0;
    g_HasFailed = false;
    std::fill(std::begin(g_Made), std::end(g_Made), 0);
    for (std::size_t entry = 0; entry < std::size(kInstallers); ++entry) {
        kInstallers[entry].m_Install(tbSystem(), entry);
    }
}

FailingSystem::FailingSystem(SystemFault const& fault, long number) : FailingSystem() {
    g_FaultyEntry = entryOf(fault.m_Call);
    g_Fault = &fault;
    g_Number = number;
}

bool FailingSystem::hasFailed() {
    return g_HasFailed;
}

long FailingSystem::countOf(std::string const& name) {
    return g_Made[entryOf(name)];
}

}  // namespace kvxtest
