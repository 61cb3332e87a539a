/// The string type, and null-tolerant replacements of the standard string routines.
///
/// Its free functions are in the static archive only; libtallowin.so exports classes.
#ifndef TALLOWIN_FOUNDATION_TBSTRING_H
#define TALLOWIN_FOUNDATION_TBSTRING_H

#include <cstddef>
#include <cstdint>

#include "tallowin/tbobject.h"

/// Bytes before the first zero; 0 for null.
std::size_t TCSLEN(char const* text) noexcept;

/// Copies `source` with its terminator to `target` and returns `target`. Neither may be null.
char* TCSCPY(char* target, char const* source) noexcept;

/// Copies bytes up to and including the terminator, or `count` + 1 bytes, whichever comes first. Returns `target`.
/// Deliberate (copy-one-more): one byte more than `count`; callers write the terminator at index `count` afterwards.
char* TCSNCPY(char* target, char const* source, std::uint32_t count) noexcept;

/// Compares at most `count` characters (TbString::npos: no limit) as signed bytes: exactly -1, 0 or 1.
/// Null equals null only, and orders before every text for any `count`.
std::int32_t TCSNCMP(char const* left, char const* right, std::uint32_t count) noexcept;

/// Converts a wide text to the locale's multibyte form, at most `count` bytes, as the platform's `wcstombs` does.
void WCSToMBS(char* target, wchar_t const* source, unsigned long count) noexcept;

/// Bytes without an encoding, NUL-terminated whenever a buffer exists.
///
/// Two strings order by length first, then by signed bytes ("zz" < "aaa"): the order of every string-keyed container.
/// Against a C string the order is lexicographic. An empty string may or may not own a buffer; the two compare equal.
/// Embedded zero bytes are kept, but comparisons end at them. Not synchronised. Only running out of memory throws
/// (TBFC_Exception, KVX_E_OUT_OF_MEMORY); so does a length that would not fit 32 bits.
///
/// A secret string (`keepSecret`) leaves no bytes behind: each of its buffers is wiped before it is released. Secrecy
/// passes to copies, parts and every string that a secret one is assigned or appended to, and is never lost again. It
/// does not pass through the bare `char const*`.
class KVX_EXPORT TbString : public TbFindable {
public:
    /// "Not found" position and "no limit" count.
    static constexpr std::uint32_t npos = 0xFFFFFFFFU;

    TbString() = default;

    /// Copies NUL-terminated `text`. Null gives an empty string without a buffer.
    TbString(char const* text);  // NOLINT(google-explicit-constructor): C strings are strings everywhere

    TbString(TbString const& other);
    ~TbString() override;

    TbString& operator=(TbString const& other);
    using TbFindable::operator=;

    TbAllocator getAllocator() const override;

    /// Copies another TbString. Copying itself changes nothing.
    TbString& assign(TbObject const& other) override;

    bool isInstanceOf(char const* className) const override;

    /// True when `compare(TbString)` is negative. The argument is taken to be a TbString.
    bool operator<(TbFindable const& other) const override;

    /// True when `compare(TbString)` is 0. The argument is taken to be a TbString.
    bool operator==(TbFindable const& other) const override;

    /// True when `compare(char const*)` is 0: an empty string equals null.
    virtual bool operator==(char const* text) const;

    /// The same as with a TbFindable, without the call through the table.
    bool operator==(TbString const& other) const { return compare(other) == 0; }
    bool operator!=(TbString const& other) const { return compare(other) != 0; }
    bool operator!=(char const* text) const { return compare(text) != 0; }

    /// Copies the first `count` bytes of `text`; bytes after a zero byte among them become zeros.
    /// Null leaves the string empty. `text` may lie in this string's own buffer.
    TbString& assign(char const* text, std::uint32_t count);

    /// Copies NUL-terminated `text`. Null leaves the string empty, without a buffer.
    TbString& assign(char const* text);

    TbString& append(char character) {
        if (m_Length + 2 > m_Capacity || m_Length + 2 > m_Room) {
            grow(1);
        }
        m_Buffer[m_Length] = character;
        m_Buffer[++m_Length] = '\0';
        return *this;
    }

    /// Null changes nothing. `text` may lie in this string's own buffer.
    TbString& append(char const* text);

    /// Appends exactly `count` bytes, zero bytes included. `bytes` may lie in this string's own buffer.
    TbString& append(char const* bytes, std::uint32_t count);

    /// Appends all bytes of `other`, which may be this string.
    TbString& append(TbString const& other);

    /// Frees the buffer; length and capacity become 0.
    void clear() noexcept;

    /// Makes room for `extra` more bytes and the terminator. Keeps the contents; pointers into the buffer die.
    /// Deliberate (string-slack): the capacity grows to the need plus 65, never by doubling, and stays raised when
    /// memory runs out. The memory behind it may be more, and is less where a text was assigned.
    void grow(std::uint32_t extra);

    /// Makes this string a secret one, for good.
    void keepSecret() noexcept { m_IsSecret = true; }

    /// Makes this string a secret one when `other` is.
    void joinSecrecyOf(TbString const& other) noexcept { m_IsSecret = m_IsSecret || other.m_IsSecret; }

    [[nodiscard]] bool isSecret() const noexcept { return m_IsSecret; }

    /// Lexicographic against NUL-terminated `text`: -1, 0, 1. For null it returns this string's length; for a string
    /// without a buffer, minus the length of `text`.
    /// Deliberate (text-compares-by-letters): the lengths do not count, unlike between two strings.
    [[nodiscard]] std::int32_t compare(char const* text) const noexcept;

    /// Length first: the difference of the lengths when they differ, else -1, 0, 1.
    /// Deliberate (length-first-order): "zz" is less than "aaa", in every container too.
    /// Deliberate (compare-stops-at-zero): equal lengths compare up to the first zero byte.
    [[nodiscard]] std::int32_t compare(TbString const& other) const noexcept;

    /// Bytes before the terminator.
    [[nodiscard]] std::uint32_t length() const noexcept { return m_Length; }

    /// Published bytes of the buffer; 0 without one.
    [[nodiscard]] std::uint32_t capacity() const noexcept { return m_Capacity; }

    [[nodiscard]] bool isEmpty() const noexcept { return m_Length == 0; }

    /// The buffer; null when there is none. Borrowed until the next change.
    [[nodiscard]] char const* buffer() const noexcept { return m_Buffer; }

    /// The text; never null ("" without a buffer). Borrowed until the next change.
    [[nodiscard]] char const* c_str() const noexcept { return m_Buffer == nullptr ? "" : m_Buffer; }

    /// The byte at `index`. Requires: `index` < `length()`.
    [[nodiscard]] char operator[](std::uint32_t index) const noexcept { return m_Buffer[index]; }

    /// The byte at `index`, to be changed. Requires: `index` < `length()`.
    [[nodiscard]] char& operator[](std::uint32_t index) noexcept { return m_Buffer[index]; }

    /// Position of the first `what` at or after `from`; npos when there is none. An empty `what` is found at `from`.
    [[nodiscard]] std::uint32_t find(char const* what, std::uint32_t from = 0) const noexcept;

    /// At most `count` bytes from `from`; empty when `from` is not inside.
    [[nodiscard]] TbString substring(std::uint32_t from, std::uint32_t count = npos) const;

    static void allocate(TbObject** slot);

protected:
    explicit TbString(TbCountedByMaker how) noexcept : TbFindable(how) {}
    explicit TbString(TbUncounted how) noexcept : TbFindable(how) {}

private:
    friend class TbStringWriter;
    friend struct TbInPlaceText;
    friend KVX_EXPORT TbString operator+(TbString const& left, TbString const& right);
    friend KVX_EXPORT TbString operator+(char const* left, TbString const& right);

    /// Bytes of a new capacity beyond the characters: the terminator and 64 of slack.
    static constexpr std::uint32_t kSlack = 65;

    [[nodiscard]] bool owns(char const* pointer) const noexcept;
    [[nodiscard]] bool ownsBuffer() const noexcept { return m_Room != 0 && m_Buffer != m_Text; }
    KVX_INTERNAL void raiseCapacity(std::uint64_t need);
    KVX_INTERNAL void resize(std::uint64_t bytes);
    KVX_INTERNAL void moveTo(char* place) noexcept;
    KVX_INTERNAL void settle(std::uint64_t bytes, std::uint64_t owned);
    [[nodiscard]] KVX_INTERNAL std::uint32_t touched() const noexcept;
    KVX_INTERNAL void takeOver(TbString& other) noexcept;
    KVX_INTERNAL void holdNothing() noexcept;
    KVX_INTERNAL void holdInPlace(char* place, TbString const& other) noexcept;
    KVX_INTERNAL void lieAt(char* place, std::uint32_t length) noexcept;
    KVX_INTERNAL void fill(char const* bytes, std::uint32_t count, std::uint64_t extra);

    bool m_IsSecret = false;       ///< Buffers are wiped before they are released.
    std::uint16_t m_Place = 0;     ///< Bytes at m_Text that a text may lie in, most of them behind the object.
    char* m_Buffer = nullptr;      ///< Owned, or m_Text; when m_Room is 0 null, or the text lies in others' memory.
    std::uint32_t m_Length = 0;    ///< Bytes before the terminator.
    std::uint32_t m_Capacity = 0;  ///< Published size of the buffer; 0 when null. Above m_Length when not.
    std::uint32_t m_Room = 0;      ///< Bytes that may be written at m_Buffer, above m_Length; 0 when it is others'.
    char m_Text[4] = {};           ///< The beginning of m_Place bytes, which the owner of the string provides.
};

/// A string that does not count itself as living.
class TbUncountedString : public TbString {
public:
    TbUncountedString() noexcept : TbString(TbUncounted{}) {}
    TbUncountedString(TbUncountedString const& other) : TbUncountedString() { assign(other); }
    TbUncountedString& operator=(TbUncountedString const&) = default;
    using TbString::operator=;
};

/// Copy of `left`, then `right`.
KVX_EXPORT TbString operator+(TbString const& left, TbString const& right);

/// The same; a null `left` counts as empty.
KVX_EXPORT TbString operator+(char const* left, TbString const& right);

/// A string from a narrow multibyte text; null counts as "". No conversion takes place.
TbString mbstoSTRING(char const* text);

#endif
