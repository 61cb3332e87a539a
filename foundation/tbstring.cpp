// The null-tolerant string routines, then TbString.
//
// The published capacity follows its own rule (need plus 65) and is not the size of the memory behind it. That grows by
// half of itself, so that appending stays linear; an assigned text has no slack, an empty text nothing but a terminator
// that all strings share, a short text in a container none at all: it lies behind the object that holds it; a string
// that ends with room of its own keeps short texts there (m_Place); and after a failed growth the capacity may be the
// larger one. Texts that lie in the string's own buffer are accepted everywhere: such an assignment builds a second
// string and takes its text over, such an append goes by offset. A string that has become secret after it got its
// buffer wipes that one too.

#include "foundation/tbstring.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <utility>

#include "foundation/tbcompare.h"
#include "foundation/tbexception.h"
#include "foundation/tbmemory.h"
#include "foundation/tbstringwriter.h"

namespace {

/// The buffer of empty texts.
constexpr char kNothing[1] = "";

/// Bytes of memory for a text of `length` bytes that is not expected to grow: as many as the allocator has for it.
std::uint64_t exactRoom(std::uint64_t length) {
    constexpr std::uint64_t kStep = 2 * sizeof(void*);
    constexpr std::uint64_t kLeast = 3 * sizeof(void*);
    return std::max(kLeast, (length + sizeof(void*)) / kStep * kStep + sizeof(void*));
}

std::uint32_t lengthOf(char const* text) {
    std::size_t const length = TCSLEN(text);
    if (length > UINT32_MAX) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    return static_cast<std::uint32_t>(length);
}

}  // namespace

std::int32_t tbCompareTexts(std::uint32_t length, char const* left, char const* right) noexcept {
    // Eight bytes at a time while those are equal and none is zero.
    std::uint32_t at = 0;
    for (; length - at >= sizeof(std::uint64_t); at += sizeof(std::uint64_t)) {
        std::uint64_t const x = tbEightBytes(left + at);
        bool const hasZero = ((x - 0x0101010101010101U) & ~x & 0x8080808080808080U) != 0;
        if (x != tbEightBytes(right + at) || hasZero) {
            return TCSNCMP(left + at, right + at, length - at);
        }
    }
    if (at != 0 && tbEightBytes(left + length - 8) == tbEightBytes(right + length - 8)) {
        return 0;
    }
    return TCSNCMP(left + at, right + at, length - at);
}

std::size_t TCSLEN(char const* text) noexcept {
    return text == nullptr ? 0 : std::strlen(text);
}

char* TCSCPY(char* target, char const* source) noexcept {
    std::memmove(target, source, std::strlen(source) + 1);
    return target;
}

char* TCSNCPY(char* target, char const* source, std::uint32_t count) noexcept {
    std::uint64_t const last = count;
    for (std::uint64_t i = 0; i <= last; ++i) {
        target[i] = source[i];
        if (source[i] == '\0') {
            break;
        }
    }
    return target;
}

std::int32_t TCSNCMP(char const* left, char const* right, std::uint32_t count) noexcept {
    if (left == nullptr) {
        return right == nullptr ? 0 : -1;
    }
    if (right == nullptr) {
        return 1;
    }
    for (std::uint32_t i = 0; count == TbString::npos || i < count; ++i, ++left, ++right) {
        auto const x = static_cast<signed char>(*left);
        auto const y = static_cast<signed char>(*right);
        if (x == 0) {
            return y == 0 ? 0 : -1;
        }
        if (y == 0 || x > y) {
            return 1;
        }
        if (y > x) {
            return -1;
        }
    }
    return 0;
}

void WCSToMBS(char* target, wchar_t const* source, unsigned long count) noexcept {
    static_cast<void>(std::wcstombs(target, source, count));
}

TbString::TbString(char const* text) {
    assign(text);
}

TbString::TbString(TbString const& other) : TbFindable() {
    // A new copy is often the beginning of a longer text, so it has its slack at once; an assigned one rarely is.
    joinSecrecyOf(other);
    if (other.m_Buffer != nullptr) {
        append(other.m_Buffer, other.m_Length);
    }
}

TbString::~TbString() {
    clear();
}

TbString& TbString::operator=(TbString const& other) {
    assign(other);
    return *this;
}

TbAllocator TbString::getAllocator() const {
    return &TbString::allocate;
}

bool TbString::isInstanceOf(char const* className) const {
    return tbIsName(className, "TbString") || TbFindable::isInstanceOf(className);
}

bool TbString::operator<(TbFindable const& other) const {
    return compare(static_cast<TbString const&>(other)) < 0;
}

bool TbString::operator==(TbFindable const& other) const {
    return compare(static_cast<TbString const&>(other)) == 0;
}

bool TbString::operator==(char const* text) const {
    return compare(text) == 0;
}

void TbString::allocate(TbObject** slot) {
    tbAllocateInto<TbString>(slot);
}

/// The bytes that may hold text, in memory that this string does not own: no text becomes shorter before it is cleared.
std::uint32_t TbString::touched() const noexcept {
    return m_Room == 0 ? m_Length : std::min<std::uint32_t>(m_Room, m_Length + TbStringWriter::kSpare);
}

void TbString::clear() noexcept {
    if (ownsBuffer()) {
        if (m_IsSecret) {
            tbReleaseSecret(m_Buffer, m_Room);
        } else {
            tbRelease(m_Buffer);
        }
    } else if (m_IsSecret && m_Length != 0) {
        ::explicit_bzero(m_Buffer, touched());  // it lies in memory that others release
    }
    m_Buffer = nullptr;
    m_Length = 0;
    m_Capacity = 0;
    m_Room = 0;
}

/// Publishes the capacity of a buffer that must hold `need` bytes and the terminator.
void TbString::raiseCapacity(std::uint64_t need) {
    if (need + 1 > m_Capacity) {
        std::uint64_t const wanted = need + kSlack;
        if (wanted > UINT32_MAX) {
            throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
        }
        m_Capacity = static_cast<std::uint32_t>(wanted);
    }
}

/// Moves the contents to owned memory of at least `bytes` bytes.
void TbString::resize(std::uint64_t bytes) {
    bool const isOwned = ownsBuffer();
    std::uint64_t const size = std::min<std::uint64_t>(tbRoomFor(isOwned ? m_Room : 0, bytes), UINT32_MAX);
    void* const memory = !isOwned     ? tbAllocate(static_cast<std::size_t>(size))
                         : m_IsSecret ? tbReallocateSecret(m_Buffer, m_Room, size)
                                      : tbReallocate(m_Buffer, static_cast<std::size_t>(size));
    auto* const buffer = static_cast<char*>(memory);
    if (buffer == nullptr) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    if (isOwned) {
        m_Buffer = buffer;
    } else {
        moveTo(buffer);
    }
    m_Buffer[m_Length] = '\0';
    m_Room = static_cast<std::uint32_t>(size);
}

/// Moves the contents of a string that does not own its buffer.
void TbString::moveTo(char* place) noexcept {
    if (m_Length != 0) {
        std::memcpy(place, m_Buffer, m_Length);
        if (m_IsSecret) {
            ::explicit_bzero(m_Buffer, touched());
        }
    }
    m_Buffer = place;
}

/// Makes room for `bytes` bytes: at m_Text where they fit, else in owned memory of `owned` bytes.
void TbString::settle(std::uint64_t bytes, std::uint64_t owned) {
    if (m_Room != 0 || bytes > m_Place) {
        resize(owned);
        return;
    }
    moveTo(m_Text);
    m_Buffer[m_Length] = '\0';
    m_Room = m_Place;
}

/// Makes a string without a buffer an empty text with one.
void TbString::holdNothing() noexcept {
    m_Buffer = const_cast<char*>(kNothing);  // nothing is written where a string has no room
    m_Capacity = std::max(m_Capacity, kSlack);
}

/// Makes a string without a buffer a copy of `other`, which has a buffer, in the `other.length() + 1` bytes at `place`.
void TbString::holdInPlace(char* place, TbString const& other) noexcept {
    std::memcpy(place, other.m_Buffer, std::size_t{other.m_Length} + 1);
    lieAt(place, other.m_Length);
}

/// Makes a string without a buffer the text of `length` bytes and a zero byte at `place`, which it does not own.
void TbString::lieAt(char* place, std::uint32_t length) noexcept {
    m_Buffer = place;
    m_Length = length;
    m_Capacity = m_Length + kSlack;
}

/// Gives a string without a buffer the text `bytes` and memory for `extra` bytes more, without slack.
void TbString::fill(char const* bytes, std::uint32_t count, std::uint64_t extra) {
    if (count == 0 && extra == 0) {
        holdNothing();
        return;
    }
    if (count + extra < m_Place) {
        m_Buffer = m_Text;
        m_Room = m_Place;
        m_Capacity = count + kSlack;
    } else {
        raiseCapacity(count);
        settle(count + extra + 1, exactRoom(count + extra));
    }
    std::memcpy(m_Buffer, bytes, count);
    m_Length = count;
    m_Buffer[m_Length] = '\0';
}

void TbString::grow(std::uint32_t extra) {
    std::uint64_t const need = std::uint64_t{m_Length} + extra;
    raiseCapacity(need);
    if (need + 1 > m_Room) {
        // After a failed growth the published capacity may never be reached; this request may be smaller.
        settle(need + 1, std::min<std::uint64_t>(m_Capacity, need + kSlack));
    }
}

bool TbString::owns(char const* pointer) const noexcept {
    return m_Buffer != nullptr && !std::less<char const*>()(pointer, m_Buffer) &&
           std::less<char const*>()(pointer, m_Buffer + std::max(m_Room, m_Length + 1));
}

/// Becomes the text of `other`, which owns its buffer or has none, and is left empty.
void TbString::takeOver(TbString& other) noexcept {
    clear();
    m_Buffer = std::exchange(other.m_Buffer, nullptr);
    m_Length = std::exchange(other.m_Length, 0);
    m_Capacity = std::exchange(other.m_Capacity, 0);
    m_Room = std::exchange(other.m_Room, 0);
}

TbString& TbString::assign(char const* text, std::uint32_t count) {
    if (owns(text)) {
        TbString copy;
        copy.joinSecrecyOf(*this);
        copy.assign(text, count);
        takeOver(copy);
        return *this;
    }
    clear();
    if (text == nullptr) {
        return *this;
    }
    if (count == 0) {
        holdNothing();
        return *this;
    }
    grow(count);
    std::size_t const used = ::strnlen(text, count);
    std::memcpy(m_Buffer, text, used);
    std::memset(m_Buffer + used, 0, std::size_t{count} - used + 1);
    m_Length = count;
    return *this;
}

TbString& TbString::assign(char const* text) {
    if (text == nullptr) {
        clear();
        return *this;
    }
    return assign(text, lengthOf(text));
}

TbString& TbString::assign(TbObject const& other) {
    auto const& source = static_cast<TbString const&>(other);
    if (&source == this) {
        return *this;
    }
    clear();
    joinSecrecyOf(source);
    if (source.m_Buffer != nullptr) {
        fill(source.m_Buffer, source.m_Length, 0);
    }
    return *this;
}

TbString& TbString::append(char const* text) {
    if (text == nullptr) {
        return *this;
    }
    return append(text, lengthOf(text));
}

TbString& TbString::append(char const* bytes, std::uint32_t count) {
    if (bytes == nullptr) {
        return *this;
    }
    if (count == 0) {
        if (m_Buffer == nullptr) {
            holdNothing();
        }
        return *this;
    }
    if (!owns(bytes)) {
        grow(count);
        std::memcpy(m_Buffer + m_Length, bytes, count);
    } else {
        auto const offset = bytes - m_Buffer;
        grow(count);
        std::memmove(m_Buffer + m_Length, m_Buffer + offset, count);
    }
    m_Length += count;
    m_Buffer[m_Length] = '\0';
    return *this;
}

TbString& TbString::append(TbString const& other) {
    joinSecrecyOf(other);
    if (other.m_Buffer == nullptr || other.m_Length == 0) {
        return *this;
    }
    return append(other.m_Buffer, other.m_Length);
}

std::int32_t TbString::compare(char const* text) const noexcept {
    if (text == nullptr) {
        return static_cast<std::int32_t>(m_Length);
    }
    if (m_Buffer == nullptr) {
        return static_cast<std::int32_t>(0U - static_cast<std::uint32_t>(TCSLEN(text)));
    }
    return TCSNCMP(m_Buffer, text, npos);
}

std::int32_t TbString::compare(TbString const& other) const noexcept {
    if (m_Length != other.m_Length) {
        return static_cast<std::int32_t>(m_Length - other.m_Length);
    }
    if (m_Length == 0) {
        return 0;  // one may have a buffer and the other none
    }
    return tbCompareTexts(m_Length, m_Buffer, other.m_Buffer);
}

std::uint32_t TbString::find(char const* what, std::uint32_t from) const noexcept {
    std::size_t const wanted = TCSLEN(what);
    if (from > m_Length || wanted > m_Length - from) {
        return npos;
    }
    if (wanted == 0) {
        return from;
    }
    void const* const hit = ::memmem(m_Buffer + from, m_Length - from, what, wanted);
    return hit == nullptr ? npos : static_cast<std::uint32_t>(static_cast<char const*>(hit) - m_Buffer);
}

TbString TbString::substring(std::uint32_t from, std::uint32_t count) const {
    TbString part;
    part.joinSecrecyOf(*this);
    part.holdNothing();
    if (from < m_Length) {
        part.fill(m_Buffer + from, std::min(count, m_Length - from), 0);
    }
    return part;
}

TbString operator+(TbString const& left, TbString const& right) {
    TbString sum;
    sum.joinSecrecyOf(left);
    sum.joinSecrecyOf(right);
    if (left.m_Buffer != nullptr) {
        sum.fill(left.m_Buffer, left.m_Length, std::uint64_t{right.m_Length} + TbString::kSlack);
    }
    sum.append(right);
    return sum;
}

TbString operator+(char const* left, TbString const& right) {
    TbString sum;
    sum.joinSecrecyOf(right);
    if (left != nullptr) {
        sum.fill(left, lengthOf(left), std::uint64_t{right.m_Length} + TbString::kSlack);
    }
    sum.append(right);
    return sum;
}

TbString mbstoSTRING(char const* text) {
    return {text == nullptr ? "" : text};
}
