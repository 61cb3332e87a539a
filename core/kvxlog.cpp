// The log.
//
// Requests of settings stand in a list that only grows, one entry for each directory, found by its path; entries are
// never freed, because other threads may be reading them, and a process has few directories. A thread's own entry is a
// value of the C library's thread-specific data. A line is made in a buffer of fixed size, control characters replaced,
// then: open, look at the size, rename a full file to NAME.1 under a lock, write once, close. Odd: a line of which only
// a part fitted on a full disk is ended by the next one of this process.

#include "core/kvxlog.h"

#include <pthread.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "core/kvxcause.h"
#include "core/kvxerrortable.h"
#include "core/kvxfile.h"
#include "foundation/tberrno.h"
#include "foundation/tbmemory.h"
#include "foundation/tbsigpipe.h"
#include "foundation/tbsystem.h"

std::atomic<KvxLogState> g_KvxLogState{KvxLogState::kUnknown};

namespace {

constexpr char kStandardError[] = "-";
constexpr mode_t kLogMode = 0600;

/// Where lines go. The path is that of a file, kStandardError, or empty.
struct Target {
    char m_Path[PATH_MAX] = {};
    std::atomic<std::uint32_t> m_MaxBytes{0};
};

/// The log of one directory. A changed path is a new entry before the old one.
struct Entry {
    Entry* m_Next = nullptr;
    char m_Directory[PATH_MAX] = {};
    Target m_Target;
};

Target g_ProcessTarget;
std::atomic<Entry*> g_Entries{nullptr};
std::atomic<bool> g_EndsTornLine{false};
pthread_once_t g_EnvironmentOnce = PTHREAD_ONCE_INIT;
pthread_once_t g_KeyOnce = PTHREAD_ONCE_INIT;
std::atomic<bool> g_HasKey{false};
pthread_key_t g_EntryKey;

void makeKey() {
    g_HasKey = ::pthread_key_create(&g_EntryKey, nullptr) == 0;
}

[[gnu::destructor]] void deleteKey() {
    if (g_HasKey.exchange(false)) {
        ::pthread_key_delete(g_EntryKey);
    }
}

/// Copies a path; false when it does not fit.
bool copyPath(char (&into)[PATH_MAX], char const* path) {
    std::size_t const length = std::strlen(path);
    if (length >= sizeof into) {
        return false;
    }
    std::memcpy(into, path, length + 1);
    return true;
}

/// Decimal digits alone; anything else gives `otherwise`.
std::uint32_t numberIn(char const* text, std::uint32_t otherwise) {
    std::uint64_t number = 0;
    if (text == nullptr || *text == '\0') {
        return otherwise;
    }
    for (; *text != '\0'; ++text) {
        number = number * 10 + static_cast<std::uint64_t>(*text - '0');
        if (*text < '0' || *text > '9' || number > UINT32_MAX) {
            return otherwise;
        }
    }
    return static_cast<std::uint32_t>(number);
}

/// The process may go to another directory later, so a relative path is completed now.
bool setProcessPath(char const* path) {
    if (*path == '/' || std::strcmp(path, kStandardError) == 0) {
        return copyPath(g_ProcessTarget.m_Path, path);
    }
    char directory[PATH_MAX];
    char whole[2 * PATH_MAX];
    if (tbSystem().getcwd(directory, sizeof directory) == nullptr) {
        return false;
    }
    int const length = std::snprintf(whole, sizeof whole, "%s/%s", directory, path);
    return length > 0 && static_cast<std::size_t>(length) < sizeof whole && copyPath(g_ProcessTarget.m_Path, whole);
}

void readEnvironment() {
    // Not in a program that runs with other rights than its caller has.
    char const* const path = ::secure_getenv("KVXLOG");
    bool const isOn = path != nullptr && *path != '\0' && setProcessPath(path);
    g_ProcessTarget.m_MaxBytes = numberIn(::secure_getenv("KVXLOGSIZE"), kKvxLogBytes);
    KvxLogState expected = KvxLogState::kUnknown;
    g_KvxLogState.compare_exchange_strong(expected, isOn ? KvxLogState::kOn : KvxLogState::kOff);
}

Entry* entryFor(char const* directory) {
    for (Entry* entry = g_Entries.load(std::memory_order_acquire); entry != nullptr; entry = entry->m_Next) {
        if (std::strcmp(entry->m_Directory, directory) == 0) {
            return entry;
        }
    }
    return nullptr;
}

void setOwnEntry(Entry const* entry) {
    ::pthread_once(&g_KeyOnce, &makeKey);
    if (g_HasKey) {
        ::pthread_setspecific(g_EntryKey, entry);
    }
}

/// A line under construction: a time, who writes, what happened.
class Line {
public:
    explicit Line(char const* kind) noexcept {
        timespec now = {};
        tm utc = {};
        tbSystem().clock_gettime(CLOCK_REALTIME, &now);
        ::gmtime_r(&now.tv_sec, &utc);
        char head[96];
        std::snprintf(head, sizeof head, "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ %ld/%ld %s", utc.tm_year + 1900,
                      utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, now.tv_nsec / 1000000,
                      static_cast<long>(::getpid()), static_cast<long>(::gettid()), kind);
        put(head);
    }

    Line& put(char const* text) noexcept {
        for (; *text != '\0' && m_Length < kMaxLength; ++text) {
            bool const isControl = static_cast<unsigned char>(*text) < ' ' || *text == '\x7F';
            m_Bytes[m_Length++] = isControl ? '?' : *text;
        }
        return *this;
    }

    Line& put(std::int32_t code) noexcept {
        char digits[16];
        std::snprintf(digits, sizeof digits, "0x%08X", static_cast<unsigned>(code));
        return put(digits);
    }

    /// The line with its end. Begins a new one first when `endsTornLine`.
    char const* finished(bool endsTornLine) noexcept {
        m_Bytes[m_Length++] = '\n';
        if (!endsTornLine) {
            return m_Bytes + 1;
        }
        return m_Bytes;
    }

    /// Bytes at what `finished` returned.
    [[nodiscard]] std::size_t length(bool endsTornLine) const noexcept { return m_Length - (endsTornLine ? 0 : 1); }

private:
    static constexpr std::size_t kMaxLength = 2000;  // less than a pipe takes at once

    std::size_t m_Length = 1;
    char m_Bytes[kMaxLength + 2] = {'\n'};
};

void writeOnce(int file, Line& line, bool endsTornLine) {
    char const* const bytes = line.finished(endsTornLine);
    std::size_t const length = line.length(endsTornLine);
    ssize_t const written = tbRetryInterrupted([&] { return tbSystem().write(file, bytes, length); });
    if (written > 0) {
        g_EndsTornLine = static_cast<std::size_t>(written) < length;
    }
}

/// Never blocks: a pipe without room for the line gets none.
void writeToStandardError(Line& line) {
    SigPipeGuard const guard;
    pollfd ready = {STDERR_FILENO, POLLOUT, 0};
    if (tbSystem().poll(&ready, 1, 0) == 1 && (ready.revents & POLLOUT) != 0) {
        writeOnce(STDERR_FILENO, line, false);
    }
}

int openLog(char const* path) {
    int const file = tbRetryInterrupted([&] {
        return tbSystem().open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, kLogMode);
    });
    return tbAwayFromStandardStreams(file);
}

/// Renames the full log `path`, open as `file`, unless another process has done so. False when it goes on as it is.
bool rotate(char const* path, int file, struct ::stat const& status) {
    char old[PATH_MAX + 2];
    struct ::stat present = {};
    if (tbSystem().flock(file, LOCK_EX | LOCK_NB) != 0) {
        return false;
    }
    bool const isSame =
        tbSystem().lstat(path, &present) == 0 && present.st_ino == status.st_ino && present.st_dev == status.st_dev;
    std::snprintf(old, sizeof old, "%s.1", path);
    return !isSame || tbSystem().rename(path, old) == 0;
}

void writeToFile(Target const& target, Line& line) {
    KvxDescriptor file(openLog(target.m_Path));
    struct ::stat status = {};
    if (!file.isOpen() || tbSystem().fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return;
    }
    std::uint32_t const most = target.m_MaxBytes;
    bool const isFull = most != 0 && status.st_size >= static_cast<off_t>(most);
    if (isFull && rotate(target.m_Path, file.get(), status)) {
        KvxDescriptor const fresh(openLog(target.m_Path));
        if (fresh.isOpen()) {
            writeOnce(fresh.get(), line, false);
        }
        return;
    }
    writeOnce(file.get(), line, g_EndsTornLine);
}

/// Where this thread logs to; null for nowhere.
Target const* target() noexcept {
    if (g_ProcessTarget.m_Path[0] != '\0') {
        return &g_ProcessTarget;
    }
    auto const* const entry = g_HasKey ? static_cast<Entry const*>(::pthread_getspecific(g_EntryKey)) : nullptr;
    return entry == nullptr || entry->m_Target.m_Path[0] == '\0' ? nullptr : &entry->m_Target;
}

void write(Target const& target, Line& line) {
    if (std::strcmp(target.m_Path, kStandardError) == 0) {
        writeToStandardError(line);
    } else {
        writeToFile(target, line);
    }
}

}  // namespace

bool kvxReadLogRequest() noexcept {
    TbErrnoKeeper const keeper;
    ::pthread_once(&g_EnvironmentOnce, &readEnvironment);
    return g_KvxLogState == KvxLogState::kOn;
}

void kvxLogEnter(TbString const& directory) noexcept {
    if (g_Entries.load(std::memory_order_relaxed) != nullptr) {
        TbErrnoKeeper const keeper;
        setOwnEntry(entryFor(directory.c_str()));
    }
}

void kvxLogUse(TbString const& directory, TbString const& file, std::uint32_t maxBytes) noexcept {
    TbErrnoKeeper const keeper;
    char path[PATH_MAX];
    bool const isRelative = !file.isEmpty() && file[0] != '/' && !(file == kStandardError);
    int const length = isRelative ? std::snprintf(path, sizeof path, "%s/%s", directory.c_str(), file.c_str())
                                  : std::snprintf(path, sizeof path, "%s", file.c_str());
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof path) {
        return;
    }
    if (file.isEmpty() && g_Entries.load(std::memory_order_relaxed) == nullptr) {
        return;
    }
    Entry* entry = entryFor(directory.c_str());
    if (entry == nullptr ? file.isEmpty() : std::strcmp(entry->m_Target.m_Path, path) == 0) {
        if (entry != nullptr) {
            entry->m_Target.m_MaxBytes = maxBytes;
        }
        setOwnEntry(entry);
        return;
    }
    void* const memory = tbAllocate(sizeof(Entry));
    if (memory == nullptr) {
        return;
    }
    entry = new (memory) Entry;
    if (!copyPath(entry->m_Directory, directory.c_str())) {
        tbRelease(memory);
        return;
    }
    std::memcpy(entry->m_Target.m_Path, path, static_cast<std::size_t>(length) + 1);
    entry->m_Target.m_MaxBytes = maxBytes;
    entry->m_Next = g_Entries;
    while (!g_Entries.compare_exchange_weak(entry->m_Next, entry, std::memory_order_release)) {
    }
    g_KvxLogState = KvxLogState::kOn;
    setOwnEntry(entry);
}

void kvxLogTrace(char const* source, long line, std::int32_t code, TbString const& event,
                 TbString const& detail) noexcept {
    TbErrnoKeeper const keeper;
    Target const* const to = target();
    if (to == nullptr) {
        return;
    }
    char place[64];
    std::snprintf(place, sizeof place, " %s(%ld) ", source, line);
    Line text("TRACE");
    text.put(place).put(event.c_str());
    if (code != 0) {
        text.put(" ").put(code);
    }
    if (!detail.isEmpty()) {
        text.put(" ").put(detail.isSecret() ? "(not shown)" : detail.c_str());
    }
    write(*to, text);
}

void kvxLogFailure(std::int32_t code, char const* reason) noexcept {
    TbErrnoKeeper const keeper;
    Target const* const to = target();
    if (to == nullptr) {
        return;
    }
    Line text("FAILURE");
    text.put(" ").put(code).put(" ").put(kvxErrorName(code)).put(" ").put(reason);
    write(*to, text);
}

#ifdef KVX_TEST_SEAMS
void kvxForgetLogRequests() noexcept {
    g_EnvironmentOnce = PTHREAD_ONCE_INIT;
    g_ProcessTarget.m_Path[0] = '\0';
    g_KvxLogState = KvxLogState::kUnknown;
    Entry* entry = g_Entries.exchange(nullptr);
    setOwnEntry(nullptr);
    while (entry != nullptr) {
        Entry* const next = entry->m_Next;
        tbRelease(entry);
        entry = next;
    }
}
#endif
