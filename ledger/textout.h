/// The caller's buffer for a text, as the flat functions have it.
#ifndef TALLOWIN_LEDGER_TEXTOUT_H
#define TALLOWIN_LEDGER_TEXTOUT_H

#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <string>

#include "ledger/failure.h"
#include "tallowin/codes.h"

namespace ledger {

/// `size` in: bytes at `buffer`; out: bytes needed, terminator included.
class TextOut {
public:
    TextOut(std::int32_t* size, char* buffer) : m_Size(size), m_Buffer(buffer) {}

    /// Throws Failure (KVX_E_BUFFER_TOO_SMALL) unless `text` fits. Sets `*size` in that case, and copies nothing.
    void requireRoomFor(std::string const& text) const {
        if (m_Size == nullptr) {
            throw Failure(KVX_E_BUFFER_TOO_SMALL, "there is no size");
        }
        std::int32_t const need = needOf(text);
        if (*m_Size < need) {
            *m_Size = need;
            throw Failure(KVX_E_BUFFER_TOO_SMALL, std::to_string(need) + " bytes are needed");
        }
    }

    /// Copies `text`. Throws Failure (KVX_E_BUFFER_TOO_SMALL) as above.
    void copy(std::string const& text) const {
        requireRoomFor(text);
        std::int32_t const need = needOf(text);
        if (m_Buffer != nullptr) {
            std::memcpy(m_Buffer, text.c_str(), static_cast<std::size_t>(need));
        }
        *m_Size = need;
    }

private:
    static std::int32_t needOf(std::string const& text) {
        if (text.size() >= static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
            throw std::bad_alloc();
        }
        return static_cast<std::int32_t>(text.size() + 1);
    }

    std::int32_t* m_Size;
    char* m_Buffer;
};

}  // namespace ledger

#endif
