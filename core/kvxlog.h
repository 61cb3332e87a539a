/// The log: trace records and failures as lines of a file or of standard error, on request. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXLOG_H
#define TALLOWIN_CORE_KVXLOG_H

#include <atomic>
#include <cstdint>

#include "foundation/tbstring.h"

// Two requests: KVXLOG and KVXLOGSIZE in the environment, read once, log the whole process; LOGFILE and LOGSIZE in
// "settings.xml" log the calls on that directory, from the call on that has read them. Each line is one write to a file
// opened for it and closed again, so threads, processes, children of fork() and rotation by others need no agreement.
// A line that cannot be written is lost; nothing here fails a call, waits or changes `errno`.

/// What the process knows about requests. Off is the rule, and costs one look at a number.
enum class KvxLogState : std::uint8_t { kUnknown, kOff, kOn };
extern std::atomic<KvxLogState> g_KvxLogState;

/// Reads the environment at the first call of the process.
[[nodiscard]] bool kvxReadLogRequest() noexcept;

/// Whether anything may be logged.
[[nodiscard]] inline bool kvxLogIsOn() noexcept {
    KvxLogState const state = g_KvxLogState.load(std::memory_order_acquire);
    return state == KvxLogState::kOn || (state == KvxLogState::kUnknown && kvxReadLogRequest());
}

/// The calls of this thread are about `directory` from now on.
void kvxLogEnter(TbString const& directory) noexcept;

/// What the settings of `directory` ask for: `file` may be relative to it, "-" for standard error, or empty for no log;
/// `maxBytes` is the size at which the file is renamed, 0 for never.
void kvxLogUse(TbString const& directory, TbString const& file, std::uint32_t maxBytes) noexcept;

/// One line for a trace record. A secret `detail` is left out.
void kvxLogTrace(char const* source, long line, std::int32_t code, TbString const& event,
                 TbString const& detail) noexcept;

/// One line for a call that failed.
void kvxLogFailure(std::int32_t code, char const* reason) noexcept;

/// Bytes after which a log is renamed, where no request says otherwise.
inline constexpr std::uint32_t kKvxLogBytes = 10U << 20;

#ifdef KVX_TEST_SEAMS
/// Test builds only: forgets all requests, so that the environment is read again.
void kvxForgetLogRequests() noexcept;
#endif

#endif
