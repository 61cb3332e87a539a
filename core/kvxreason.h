/// The reason of a thread's last failure. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXREASON_H
#define TALLOWIN_CORE_KVXREASON_H

#include <cstddef>
#include <cstdint>

#include "core/kvxbase.h"
#include "core/kvxcause.h"

// An exception's text is published, and too short to act on. So a failing place notes the cause beside the exception it
// throws, and the boundary of the flat functions puts the two together when that exception is what ends the call. Each
// thread has a record of its own, made at its first failure with a text and released when the thread ends; nothing is
// touched while calls succeed. Without memory the code alone is recorded.

/// Notes `cause` for the exception with this code, source and line, which the thread throws next.
void kvxNoteCause(std::int32_t code, char const* source, long line, KvxCause const& cause) noexcept;

/// Drops what was noted: the next exception has no cause.
void kvxForgetCause() noexcept;

/// The cause noted last; empty when there is none. Borrowed until the next note of the thread.
[[nodiscard]] char const* kvxNotedCause() noexcept;

/// Records that a call of this thread ends with `failure`, with the cause when one was noted for it. A secret text
/// without a cause, such as a service's that repeats the password, is left out.
void kvxRecordFailure(KVX_Exception const& failure) noexcept;

/// The same for a failure without an exception's text. Returns `code`.
std::int32_t kvxRecordFailure(std::int32_t code) noexcept;

/// The code recorded last; 0 when no call of this thread has failed.
[[nodiscard]] std::int32_t kvxLastFailure() noexcept;

/// Room for the text of a failure that needs no record of its own.
struct KvxPlainReason {
    char m_Text[160];
};

/// The text of the failure recorded last, in the thread's record or in `room`. Requires: kvxLastFailure() is not 0.
[[nodiscard]] char const* kvxLastReason(KvxPlainReason& room) noexcept;

#endif
