/// A string with a read cursor.
#ifndef TALLOWIN_FOUNDATION_TBSTRINGSTREAM_H
#define TALLOWIN_FOUNDATION_TBSTRINGSTREAM_H

#include "tallowin/tbstring.h"

/// Text that is written piecewise at the end and read byte by byte from the front.
///
/// A new stream is at its end. Writing clears the at-end flag, so text written after the reader reached the end becomes
/// readable from there. A reader tests `atEnd()` after each `get`: a zero byte is delivered like any other.
/// Deliberate (stream-is-a-string): `isInstanceOf` reports a TbString, and no virtual operation is added; assigning
/// through the TbString part leaves cursor and flag alone, so fill it with `put` only.
class KVX_EXPORT TbStringStream : public TbString {
public:
    TbStringStream() = default;

    /// As an empty stream to which `text` has been written.
    explicit TbStringStream(char const* text) { put(text); }
    explicit TbStringStream(TbString const& text) { put(text); }

    TbStringStream(TbStringStream const&) = default;

    /// Copies text, read position and flag.
    TbStringStream& operator=(TbStringStream const& other) {
        TbString::operator=(other);
        m_ReadPosition = other.m_ReadPosition;
        m_AtEnd = other.m_AtEnd;
        return *this;
    }
    using TbString::operator=;

    void put(char character) {
        append(character);
        m_AtEnd = false;
    }

    void put(char const* text) {
        append(text);
        m_AtEnd = false;
    }

    void put(TbString const& text) {
        append(text);
        m_AtEnd = false;
    }

    /// Writes exactly `count` bytes, zero bytes included.
    void put(char const* bytes, std::uint32_t count) {
        append(bytes, count);
        m_AtEnd = false;
    }

    /// Delivers the next byte into `character`. At the end it sets the flag and leaves `character` alone.
    void get(char& character) {
        if (m_AtEnd) {
            return;
        }
        if (m_ReadPosition < length()) {
            character = (*this)[m_ReadPosition++];
        } else {
            m_AtEnd = true;
        }
    }

    /// Steps back by one byte (not before the first) and clears the flag.
    void unget() {
        if (m_ReadPosition > 0) {
            --m_ReadPosition;
        }
        m_AtEnd = false;
    }

    /// The bytes that `get` would still deliver, borrowed until the next change; `unreadLength` is their number.
    [[nodiscard]] char const* unread() const { return unreadLength() == 0 ? "" : buffer() + m_ReadPosition; }
    [[nodiscard]] std::uint32_t unreadLength() const {
        return m_AtEnd || m_ReadPosition >= length() ? 0 : length() - m_ReadPosition;
    }

    /// Moves behind the first `count` bytes of them, as so many calls of `get` do.
    void skip(std::uint32_t count) { m_ReadPosition += count; }

    /// Whether the last read found no more bytes.
    [[nodiscard]] bool atEnd() const { return m_AtEnd; }

    /// All text written, read or not.
    [[nodiscard]] TbString const& str() const { return *this; }

protected:
    explicit TbStringStream(TbUncounted how) noexcept : TbString(how) {}

private:
    std::uint32_t m_ReadPosition = 0;  ///< Index of the next byte to be read.
    bool m_AtEnd = true;               ///< Set by a read that found nothing; cleared by every write.
};

#endif
