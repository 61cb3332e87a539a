/// The exception of the foundation classes.
#ifndef TALLOWIN_FOUNDATION_TBEXCEPTION_H
#define TALLOWIN_FOUNDATION_TBEXCEPTION_H

#include <cstdint>

#include "tallowin/codes.h"
#include "tallowin/export.h"

/// Thrown by value by strings, containers and factories. It owns no memory, so that it can report that there is none.
///
/// Codes in use: KVX_E_OUT_OF_MEMORY, KVX_E_OUT_OF_RANGE, KVX_E_DUPLICATE_KEY. No virtual operation, no base class.
class KVX_EXPORT TBFC_Exception {
public:
    /// `code` as raised; the text stays empty.
    explicit TBFC_Exception(std::int32_t code) noexcept : m_Code(static_cast<std::uint32_t>(code)) {}

    /// The result code, as the signed value that the other layers use.
    [[nodiscard]] std::int32_t code() const noexcept { return static_cast<std::int32_t>(m_Code); }

    /// NUL-terminated, empty. Borrowed from this object.
    [[nodiscard]] char const* text() const noexcept { return m_Text; }

private:
    std::uint32_t m_Code;   ///< The result code's bits.
    char m_Text[256] = {};  ///< NUL-terminated; nothing in the library writes it.
};

#endif
