// The null-tolerant string routines, then TbString.
//
// The published capacity follows its own rule (need plus 65) and is not the size of the block behind it, which
// foundation/tbmemory.h grows geometrically; after a failed growth the capacity may even be the larger one. Texts that
// lie in the string's own buffer are accepted everywhere: such an assignment builds a second string and swaps, such an
// append goes by offset. A string that has become secret after it got its buffer wipes that one too.

#include "foundation/tbstring.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "foundation/tbexception.h"
#include "foundation/tbmemory.h"

namespace {

/// Bytes of a new capacity beyond the characters: the terminator and 64 of slack.
constexpr std::uint64_t kSlack = 65;

std::uint32_t lengthOf(char const* text) {
    std::size_t const length = TCSLEN(text);
    if (length > UINT32_MAX) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    return static_cast<std::uint32_t>(length);
}

}  // namespace

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
    TbString::assign(other);
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

void TbString::clear() noexcept {
    if (m_IsSecret) {
        tbReleaseSecretBlock(m_Buffer);
    } else {
        tbReleaseBlock(m_Buffer);
    }
    m_Buffer = nullptr;
    m_Length = 0;
    m_Capacity = 0;
}

void TbString::grow(std::uint32_t extra) {
    std::uint64_t const need = std::uint64_t{m_Length} + extra;
    if (need + 1 <= tbBlockSize(m_Buffer) && need + 1 <= m_Capacity) {
        return;
    }
    std::uint64_t const wanted = need + kSlack;
    if (need + 1 > m_Capacity) {
        if (wanted > UINT32_MAX) {
            throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
        }
        m_Capacity = static_cast<std::uint32_t>(wanted);
    }
    // After a failed growth the published capacity may never be reached; this request may be smaller.
    std::uint64_t const bytes = std::min<std::uint64_t>(m_Capacity, wanted);
    auto* const buffer =
        static_cast<char*>(m_IsSecret ? tbResizeSecretBlock(m_Buffer, bytes) : tbResizeBlock(m_Buffer, bytes));
    if (buffer == nullptr) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    m_Buffer = buffer;
    m_Buffer[m_Length] = '\0';
}

bool TbString::owns(char const* pointer) const noexcept {
    return m_Buffer != nullptr && !std::less<char const*>()(pointer, m_Buffer) &&
           std::less<char const*>()(pointer, m_Buffer + tbBlockSize(m_Buffer));
}

TbString& TbString::assign(char const* text, std::uint32_t count) {
    if (owns(text)) {
        TbString copy;
        copy.joinSecrecyOf(*this);
        copy.assign(text, count);
        std::swap(m_Buffer, copy.m_Buffer);
        std::swap(m_Length, copy.m_Length);
        std::swap(m_Capacity, copy.m_Capacity);
        return *this;
    }
    clear();
    if (text == nullptr) {
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
        grow(source.m_Length);
        std::memcpy(m_Buffer, source.m_Buffer, std::size_t{source.m_Length} + 1);
        m_Length = source.m_Length;
    }
    return *this;
}

TbString& TbString::append(char character) {
    grow(1);
    m_Buffer[m_Length] = character;
    m_Buffer[++m_Length] = '\0';
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
    return TCSNCMP(m_Buffer, other.m_Buffer, npos);
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
    TbString part("");
    part.joinSecrecyOf(*this);
    if (from < m_Length) {
        part.append(m_Buffer + from, std::min(count, m_Length - from));
    }
    return part;
}

TbString operator+(TbString const& left, TbString const& right) {
    TbString sum(left);
    sum.append(right);
    return sum;
}

TbString operator+(char const* left, TbString const& right) {
    TbString sum;
    if (left != nullptr) {
        sum.assign(TbString(left));
    }
    sum.append(right);
    return sum;
}

TbString mbstoSTRING(char const* text) {
    TbString string("");
    if (text != nullptr) {
        string.assign(TbString(text));
    }
    return string;
}
