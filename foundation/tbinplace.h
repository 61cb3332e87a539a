/// Objects and texts inside the memory of the object that owns them. Internal: not installed.
#ifndef TALLOWIN_FOUNDATION_TBINPLACE_H
#define TALLOWIN_FOUNDATION_TBINPLACE_H

#include "foundation/tbexception.h"
#include "foundation/tbstring.h"

/// A `T` in memory that its owner releases: destroying it through any base leaves the memory alone.
template <class T>
class TbInPlace : public T {
public:
    TbInPlace() = default;
    explicit TbInPlace(TbCountedByMaker how) noexcept : T(how) {}
    TbInPlace(TbInPlace const&) = delete;
    TbInPlace& operator=(TbInPlace const&) = delete;
    using T::operator=;

    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void operator delete(void*) noexcept {}
};

/// Copies of short texts behind the objects that hold them: no allocation for the text, and it is found in the same
/// cache line.
struct TbInPlaceText {
    /// Longer ones would cost too much memory once another text is assigned.
    static constexpr std::uint32_t kMost = 64;

    /// Whether a copy of `text` may lie in its owner's memory. Secret texts may not: they are wiped when they die.
    static bool suits(TbString const& text) noexcept {
        return text.m_Buffer != nullptr && text.m_Length <= kMost && !text.m_IsSecret;
    }

    /// Bytes behind the object that a copy of `text` needs.
    static std::size_t bytesOf(TbString const& text) noexcept { return std::size_t{text.m_Length} + 1; }

    /// Makes `target`, which has no buffer, a copy of `text` in the bytes at `place`.
    static void copy(TbString& target, TbString const& text, char* place) noexcept { target.holdInPlace(place, text); }

    /// Makes `target`, which has no buffer, the text of `length` bytes and a zero byte at `place`.
    static void lend(TbString& target, char* place, std::uint32_t length) noexcept { target.lieAt(place, length); }

    /// Takes from `target` what was lent to it, and leaves those bytes alone.
    static void forget(TbString& target) noexcept {
        if (target.m_Room == 0) {
            target.m_Buffer = nullptr;
            target.m_Length = 0;
        }
    }

    /// Raises KVX_E_OUT_OF_MEMORY (TBFC_Exception) for the length of a text that no string can have.
    static void requireLendable(std::size_t length) {
        if (length > UINT32_MAX - TbString::kSlack) {
            throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
        }
    }

    /// Makes `target` the text of `source`, another string, as assigning does. Where it can be, only the memory changes
    /// hands, and `source` is left empty.
    static void handOver(TbString& source, TbString& target) {
        if (!source.ownsBuffer()) {
            target = source;
            return;
        }
        target.joinSecrecyOf(source);
        target.takeOver(source);
        target.m_Capacity = target.m_Length + TbString::kSlack;
    }

    /// Makes `target`, which has no buffer, an empty text with one.
    static void empty(TbString& target) noexcept { target.holdNothing(); }

    /// Bytes of an object that ends with the room for its text, `room` bytes.
    static constexpr std::size_t sizeWithRoom(std::size_t room) noexcept {
        return sizeof(TbString) - sizeof TbString::m_Text + room;
    }

    /// Lets texts that are assigned to `target` lie in its own last `room` bytes, zero byte included.
    static void giveRoom(TbString& target, std::uint16_t room) noexcept { target.m_Place = room; }
};

#endif
