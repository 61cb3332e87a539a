/// What lies behind a failure, in words. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXCAUSE_H
#define TALLOWIN_CORE_KVXCAUSE_H

#include <cstddef>
#include <cstdint>

#include "foundation/tbstring.h"

/// A short text of a path, an address, the system's words: what the text of an exception leaves out.
///
/// Needs no memory but its own: it is made where a call fails, perhaps for lack of memory. What does not fit is left
/// out. Control characters become "?", because keys and addresses from outside may stand in it.
class KvxCause {
public:
    KvxCause() = default;

    KvxCause& put(char const* text) noexcept;

    /// "(not shown)" for a secret text: it may hold credentials.
    KvxCause& put(TbString const& text) noexcept;

    KvxCause& put(long number) noexcept;

    /// The system's words for the error number `error`, such as "Permission denied".
    KvxCause& putSystem(int error) noexcept;

    /// NUL-terminated. Borrowed from this object.
    [[nodiscard]] char const* text() const noexcept { return m_Text; }

    [[nodiscard]] std::size_t length() const noexcept { return m_Length; }

    static constexpr std::size_t kMaxLength = 767;

private:
    std::size_t m_Length = 0;  ///< Bytes before the terminator.
    char m_Text[kMaxLength + 1] = {};
};

/// "PATH: Permission denied", for a call on a file that failed with `error`.
[[nodiscard]] KvxCause kvxFileCause(TbString const& path, int error) noexcept;

/// The same for `file` in `directory`, which names a key at most and is shown always.
[[nodiscard]] KvxCause kvxFileCause(TbString const& directory, TbString const& file, int error) noexcept;

/// "DIRECTORY/FILE" and `words`.
[[nodiscard]] KvxCause kvxFileCause(TbString const& directory, TbString const& file, char const* words) noexcept;

#endif
