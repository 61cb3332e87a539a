// The record of a thread's last failure.
//
// Two values of the C library's thread-specific data: the code, as a number in place of an address, and the record with
// noted cause and text, one block that the C library frees when the thread ends: it calls `free` itself, so that no
// code of the library is needed then. A failure without a text of its own, such as a wrong handle, needs no record. No
// lock is held at any time, so a child of fork() finds everything in order.

#include "core/kvxreason.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "core/kvxerrortable.h"
#include "core/kvxlog.h"
#include "foundation/tberrno.h"
#include "foundation/tbmemory.h"

namespace {

/// A service may send a long text.
constexpr std::size_t kMaxText = std::size_t{64} << 10;
constexpr std::size_t kUsualText = 1024;

constexpr char kHidden[] = " (the service's text may repeat credentials and is not shown)";

/// Its text follows it in the same block, NUL-terminated.
struct Record {
    std::size_t m_Room = 0;    ///< Bytes for the text.
    bool m_IsCurrent = false;  ///< The text is that of the last failure.
    bool m_HasCause = false;   ///< The next four belong to the exception on its way.
    std::int32_t m_CauseCode = KVX_OK;
    long m_CauseLine = 0;
    char const* m_CauseSource = "";  ///< One of the constants.
    KvxCause m_Cause;

    [[nodiscard]] char* text() noexcept { return reinterpret_cast<char*>(this + 1); }
};

pthread_once_t g_Once = PTHREAD_ONCE_INIT;
std::atomic<bool> g_HasKeys{false};
pthread_key_t g_CodeKey;
pthread_key_t g_RecordKey;

void makeKeys() {
    if (::pthread_key_create(&g_CodeKey, nullptr) != 0) {
        return;
    }
    if (::pthread_key_create(&g_RecordKey, &std::free) != 0) {
        ::pthread_key_delete(g_CodeKey);
        return;
    }
    g_HasKeys = true;
}

/// A plug-in with the archive inside may be unloaded and loaded again: the keys of a process are few.
[[gnu::destructor]] void deleteKeys() {
    if (g_HasKeys.exchange(false)) {
        std::free(::pthread_getspecific(g_RecordKey));
        ::pthread_key_delete(g_RecordKey);
        ::pthread_key_delete(g_CodeKey);
    }
}

/// Makes the keys at the first failure of the process. False when there are none left.
bool hasKeys() noexcept {
    if (!g_HasKeys) {
        ::pthread_once(&g_Once, &makeKeys);
    }
    return g_HasKeys;
}

Record* present() noexcept {
    return g_HasKeys ? static_cast<Record*>(::pthread_getspecific(g_RecordKey)) : nullptr;
}

/// The thread's record with room for a text of `length` bytes; null without memory. What it held stays.
Record* recordFor(std::size_t length) noexcept {
    if (!hasKeys()) {
        return nullptr;
    }
    Record* const old = present();
    if (old != nullptr && length < old->m_Room) {
        return old;
    }
    std::size_t const room = length < kUsualText ? kUsualText : length + 1;
    auto* const memory = static_cast<Record*>(tbAllocate(sizeof(Record) + room));
    if (memory == nullptr) {
        return nullptr;
    }
    if (::pthread_setspecific(g_RecordKey, memory) != 0) {
        tbRelease(memory);
        return nullptr;
    }
    if (old == nullptr) {
        new (memory) Record;
    } else {
        std::memcpy(static_cast<void*>(memory), old, sizeof *old);
        tbRelease(old);
    }
    memory->m_Room = room;
    return memory;
}

/// Records `code` and that no text belongs to it.
void setCode(std::int32_t code) noexcept {
    if (!hasKeys()) {
        return;
    }
    ::pthread_setspecific(g_CodeKey, reinterpret_cast<void*>(std::intptr_t{code}));
    if (Record* const record = present()) {
        record->m_IsCurrent = false;
    }
}

/// What to say about failures that have no exception.
char const* plainCause(std::int32_t code) noexcept {
    switch (code) {
        case KVX_E_BAD_HANDLE:
            return ": the handle is null, destroyed or of another kind";
        case KVX_E_OUT_OF_MEMORY:
            return ": out of memory";
        case KVX_E_BUFFER_TOO_SMALL:
            return ": the size is a null pointer, or less than the text needs";
        default:
            return "";
    }
}

/// One line for the failure just recorded.
void log(std::int32_t code) noexcept {
    if (kvxLogIsOn()) {
        KvxPlainReason room;
        kvxLogFailure(code, kvxLastReason(room));
    }
}

bool isCauseOf(Record const& record, KVX_Exception const& failure) noexcept {
    return record.m_HasCause && record.m_CauseCode == failure.code() && record.m_CauseLine == failure.line() &&
           std::strcmp(record.m_CauseSource, failure.file().c_str()) == 0;
}

}  // namespace

void kvxNoteCause(std::int32_t code, char const* source, long line, KvxCause const& cause) noexcept {
    TbErrnoKeeper const keeper;
    if (Record* const record = recordFor(0)) {
        record->m_HasCause = true;
        record->m_CauseCode = code;
        record->m_CauseSource = source;
        record->m_CauseLine = line;
        record->m_Cause = cause;
    }
}

void kvxForgetCause() noexcept {
    if (Record* const record = present()) {
        record->m_HasCause = false;
    }
}

char const* kvxNotedCause() noexcept {
    Record const* const record = present();
    return record != nullptr && record->m_HasCause ? record->m_Cause.text() : "";
}

void kvxRecordFailure(KVX_Exception const& failure) noexcept {
    TbErrnoKeeper const keeper;
    setCode(failure.code());
    Record* record = present();
    bool const hasCause = record != nullptr && isCauseOf(*record, failure);
    bool const isShown = hasCause || !failure.text().isSecret();
    char const* const text = isShown ? failure.text().c_str() : kvxErrorText(failure.code());
    std::size_t const length = text == nullptr ? 0 : std::min(std::strlen(text), kMaxText);
    record = recordFor(length + sizeof kHidden + KvxCause::kMaxLength);
    if (record == nullptr) {
        log(failure.code());
        return;
    }
    char* const end = record->text() + length;
    if (length != 0) {
        std::memcpy(record->text(), text, length);
    }
    std::memcpy(end, isShown ? "" : kHidden, isShown ? 1 : sizeof kHidden);
    if (hasCause && record->m_Cause.length() != 0) {
        constexpr char kSeparator[] = ": ";
        std::memcpy(end, kSeparator, sizeof kSeparator);
        std::memcpy(end + sizeof kSeparator - 1, record->m_Cause.text(), record->m_Cause.length() + 1);
    }
    record->m_HasCause = false;
    record->m_IsCurrent = true;
    log(failure.code());
}

std::int32_t kvxRecordFailure(std::int32_t code) noexcept {
    TbErrnoKeeper const keeper;
    setCode(code);
    if (code != KVX_E_BUFFER_TOO_SMALL) {  // mostly a question for the size
        log(code);
    }
    return code;
}

std::int32_t kvxLastFailure() noexcept {
    return g_HasKeys ? static_cast<std::int32_t>(reinterpret_cast<std::intptr_t>(::pthread_getspecific(g_CodeKey))) : 0;
}

char const* kvxLastReason(KvxPlainReason& room) noexcept {
    Record* const record = present();
    if (record != nullptr && record->m_IsCurrent) {
        return record->text();
    }
    std::int32_t const code = kvxLastFailure();
    char const* const text = kvxErrorText(code);
    if (text != nullptr) {
        std::snprintf(room.m_Text, sizeof room.m_Text, "%s%s", text, plainCause(code));
    } else {
        std::snprintf(room.m_Text, sizeof room.m_Text, "ErrorCode = 0x%x%s", static_cast<unsigned>(code),
                      plainCause(code));
    }
    return room.m_Text;
}
