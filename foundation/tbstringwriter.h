/// Writing into the buffer of a string. Internal: not installed.
#ifndef TALLOWIN_FOUNDATION_TBSTRINGWRITER_H
#define TALLOWIN_FOUNDATION_TBSTRINGWRITER_H

#include <algorithm>
#include <cstdint>

#include "foundation/tbexception.h"
#include "foundation/tbstring.h"

/// Writes a text of known size to the end of a string, with one growth.
///
/// The capacity of a string that grows piece by piece depends on the lengths of the pieces. A writer learns where they
/// end and leaves the capacity that appending them one by one would leave. Borrows the string.
class TbStringWriter {
public:
    /// Bytes behind the text that may be written too.
    static constexpr std::uint32_t kSpare = 4;

    /// Makes room for `bytes` bytes. Raises KVX_E_OUT_OF_MEMORY (TBFC_Exception), changing nothing.
    TbStringWriter(TbString& text, std::uint64_t bytes) : m_Text(text) {
        std::uint64_t const need = text.m_Length + bytes;
        if (need + TbString::kSlack > UINT32_MAX) {
            throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
        }
        if (need + kSpare > text.m_Room) {
            text.settle(need + kSpare, need + TbString::kSlack);
        }
        m_Limit = std::int64_t{std::min(text.m_Capacity, text.m_Room)};
    }

    TbStringWriter(TbStringWriter const&) = delete;
    TbStringWriter& operator=(TbStringWriter const&) = delete;

    /// Where the first byte goes.
    [[nodiscard]] char* begin() noexcept { return m_Text.m_Buffer + m_Text.m_Length; }

    /// A piece, not an empty one, ends at `end`.
    void endPiece(char const* end) noexcept {
        std::int64_t const length = end - m_Text.m_Buffer;
        if (__builtin_expect(length >= m_Limit, 0)) {
            m_Limit = length + TbString::kSlack;
        }
    }

    /// All pieces, at least one, have `bytes` bytes; the last ends at `end`.
    void endPieces(char const* end, std::uint32_t bytes) noexcept {
        std::int64_t const length = end - m_Text.m_Buffer;
        std::int64_t raised = std::int64_t{m_Text.m_Length} + bytes;
        if (raised < m_Limit) {
            raised += (m_Limit - raised + bytes - 1) / bytes * bytes;
        }
        if (raised <= length) {
            std::int64_t const apart = (TbString::kSlack + bytes - 1) / bytes * bytes;
            m_Limit = length - (length - raised) % apart + TbString::kSlack;
        }
    }

    /// Pieces, at least one and none empty, of any size; the last ends at `end`. `endOf(at, begin)` is the end of the
    /// piece with the byte in front of `at`; `begin` is where the first one begins.
    template <class EndOf>
    void endPiecesBy(char const* end, EndOf endOf) noexcept {
        char const* const first = begin();
        while (end - m_Text.m_Buffer >= m_Limit) {
            char const* const at = std::max(first + 1, static_cast<char const*>(m_Text.m_Buffer) + m_Limit);
            m_Limit = endOf(at, first) - m_Text.m_Buffer + TbString::kSlack;
        }
    }

    /// Makes the bytes up to `end` part of the string.
    void finish(char* end) noexcept {
        *end = '\0';
        m_Text.m_Length = static_cast<std::uint32_t>(end - m_Text.m_Buffer);
        m_Text.m_Capacity = std::max(m_Text.m_Capacity, static_cast<std::uint32_t>(m_Limit));
    }

private:
    TbString& m_Text;
    std::int64_t m_Limit;  ///< The capacity that the pieces have made; the memory's size where that is less.
};

#endif
