/// Strings of a function's own, without an allocation and without a count. Internal: not installed.
#ifndef TALLOWIN_FOUNDATION_TBLOCALSTRING_H
#define TALLOWIN_FOUNDATION_TBLOCALSTRING_H

#include "foundation/tbinplace.h"
#include "tallowin/tbstringstream.h"

/// A stream that is not counted as living.
class TbUncountedStream : public TbStringStream {
public:
    TbUncountedStream() noexcept : TbStringStream(TbUncounted{}) {}
    TbUncountedStream(TbUncountedStream const&) = delete;
    TbUncountedStream& operator=(TbUncountedStream const&) = delete;
    using TbString::operator=;
};

/// A string around a text that it does not copy, for the calls that take strings: a literal, or a caller's argument.
///
/// The text must outlive it and not change. Secret when the text is; its end leaves that text alone. Made to be read:
/// clearing or appending to a secret one would wipe the owner's text.
class TbBorrowed final : public TbUncountedString {
public:
    /// NUL-terminated `text`; null counts as "". Raises KVX_E_OUT_OF_MEMORY (TBFC_Exception) for one whose length would
    /// not fit 32 bits with the slack, as copying it does.
    TbBorrowed(char const* text) {  // NOLINT(google-explicit-constructor): C strings are strings everywhere
        borrow(text == nullptr ? "" : text, TCSLEN(text));
    }

    /// `length` bytes, which no zero byte needs to follow: for callees that go by the length.
    TbBorrowed(char const* bytes, std::uint32_t length, bool isSecret) {
        borrow(bytes, length);
        if (isSecret) {
            keepSecret();
        }
    }

    TbBorrowed(TbBorrowed const&) = delete;
    TbBorrowed& operator=(TbBorrowed const&) = delete;
    using TbString::operator=;
    ~TbBorrowed() override { TbInPlaceText::forget(*this); }

private:
    void borrow(char const* bytes, std::size_t length) {
        TbInPlaceText::requireLendable(length);
        TbInPlaceText::lend(*this, const_cast<char*>(bytes),
                            static_cast<std::uint32_t>(length));  // nobody writes there
    }
};

/// The same as a stream that has been written and is to be read.
class TbBorrowedStream final : public TbUncountedStream {
public:
    explicit TbBorrowedStream(TbString const& text) {
        TbInPlaceText::lend(*this, const_cast<char*>(text.c_str()), text.length());
        joinSecrecyOf(text);
        put("", 0);  // readable from now on
    }
    TbBorrowedStream(TbBorrowedStream const&) = delete;
    TbBorrowedStream& operator=(TbBorrowedStream const&) = delete;
    using TbStringStream::operator=;
    ~TbBorrowedStream() override { TbInPlaceText::forget(*this); }
};

/// A string whose texts lie in itself while they are shorter than `kRoom` bytes.
template <std::uint16_t kRoom>
class TbLocalString : public TbUncountedString {
public:
    TbLocalString() noexcept {
        static_assert(sizeof(TbLocalString) >= TbInPlaceText::sizeWithRoom(kRoom));
        TbInPlaceText::giveRoom(*this, kRoom);
    }
    TbLocalString(TbLocalString const&) = delete;
    TbLocalString& operator=(TbLocalString const&) = delete;
    using TbString::operator=;

private:
    char m_MoreText[kRoom];  ///< Behind TbString::m_Text, whose continuation it is.
};

/// For names, identifiers and most values.
using TbShortString = TbLocalString<64>;

/// For paths and addresses.
using TbLongString = TbLocalString<240>;

#endif
