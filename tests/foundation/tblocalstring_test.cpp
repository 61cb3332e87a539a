// Strings that borrow their text, and strings with room of their own.
//
// Their contents and published capacities after every operation are compared with a model in tbstring_test.cpp.

#include "foundation/tblocalstring.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <type_traits>

#include "tallowin/codes.h"
#include "tests/support/allocations.h"
#include "tests/support/exceptions.h"
#include "tests/support/freedmemory.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

char const* const kNull = nullptr;

/// Allocations of `act`.
template <class Act>
long allocationsOf(Act act) {
    FailingAllocation const counting(-1, FailingAllocation::Mode::kOnlyThat);
    act();
    return FailingAllocation::requested();
}

TEST(TbBorrowed, IsTheTextItselfAndReadsLikeACopy) {
    for (char const* text : {"", "abc", "a longer text that would not fit into a string of its own"}) {
        TbString const copy(text);
        EXPECT_EQ(allocationsOf([&] {
                      TbBorrowed const borrowed(text);
                      EXPECT_EQ(borrowed.buffer(), text);
                      EXPECT_EQ(borrowed, copy);
                      EXPECT_EQ(borrowed.capacity(), copy.capacity());
                  }),
                  0);
    }
    TbBorrowed const ofNull(kNull);
    EXPECT_EQ(bytesOf(ofNull), "");
    EXPECT_NE(ofNull.buffer(), nullptr);
    EXPECT_FALSE((std::is_copy_constructible_v<TbBorrowed>));
}

TEST(TbBorrowed, IsCopiedByItsLength) {
    TbString copy;
    copy = TbBorrowed("abcdef", 3, false);
    EXPECT_EQ(bytesOf(copy), "abc");
    EXPECT_EQ(copy.capacity(), 68U);
    EXPECT_FALSE(copy.isSecret());
}

TEST(TbBorrowed, LeavesASecretTextToItsOwner) {
    char text[] = "password";
    TbString copy;
    {
        TbBorrowed const borrowed(text, 8, true);
        EXPECT_TRUE(borrowed.isSecret());
        copy = borrowed;
    }
    EXPECT_STREQ(text, "password");
    EXPECT_TRUE(copy.isSecret());
    EXPECT_EQ(bytesOf(copy), "password");
}

TEST(TbBorrowed, RefusesALengthThatNoStringHas) {
    EXPECT_EQ(thrownCode([] { TbBorrowed const borrowed("", UINT32_MAX - 64, false); }), KVX_E_OUT_OF_MEMORY);
    EXPECT_EQ(thrownCode([] { TbBorrowed const borrowed("", UINT32_MAX - 65, false); }), 0);
}

TEST(TbBorrowed, ThatIsAssignedOwnsItsText) {
    char text[] = "abc";
    FreedMemory const freed;
    {
        TbBorrowed borrowed(text);
        borrowed.append("def");
        EXPECT_EQ(bytesOf(borrowed), "abcdef");
    }
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(FreedMemory::searched(), 1);
}

TEST(TbBorrowedStream, IsReadableFromItsBeginning) {
    TbString text("ab");
    text.keepSecret();
    {
        TbBorrowedStream stream(text);
        EXPECT_TRUE(stream.isSecret());
        EXPECT_EQ(stream.buffer(), text.buffer());
        EXPECT_FALSE(stream.atEnd());
        char character = 0;
        std::string read;
        for (stream.get(character); !stream.atEnd(); stream.get(character)) {
            read += character;
        }
        EXPECT_EQ(read, "ab");
    }
    EXPECT_EQ(bytesOf(text), "ab");
    TbBorrowedStream ofNothing{TbString()};
    EXPECT_FALSE(ofNothing.atEnd()) << "as any stream that has been written";
    EXPECT_EQ(ofNothing.unreadLength(), 0U);
}

TEST(TbLocalString, NeedsNoMemoryForTextsThatFit) {
    std::string const fits(63, 'x');
    EXPECT_EQ(allocationsOf([&] {
                  TbShortString text;
                  text = fits.c_str() + TbBorrowed("");
              }),
              1)
        << "of the sum alone";
    EXPECT_EQ(allocationsOf([&] {
                  TbShortString text;
                  text.assign(fits.c_str());
                  text.clear();
                  text.append(fits.c_str(), 60);
                  text.append("abc");
                  text.clear();
                  for (char const character : fits) {
                      text.append(character);
                  }
                  EXPECT_EQ(bytesOf(text), fits);
                  text.assign(text.c_str() + 63);
              }),
              0);
    EXPECT_EQ(allocationsOf([&] {
                  TbShortString text;
                  text.assign((fits + "y").c_str());
                  EXPECT_EQ(bytesOf(text), fits + "y");
              }),
              1);
}

TEST(TbLocalString, HasItsTextStillWhenItMovesToTheHeapAndWhenItCannot) {
    TbShortString text;
    text.assign("abc");
    {
        FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
        EXPECT_EQ(thrownCode([&] { text.append(std::string(100, 'x').c_str()); }), KVX_E_OUT_OF_MEMORY);
    }
    EXPECT_EQ(bytesOf(text), "abc");
    text.append(std::string(100, 'x').c_str());
    EXPECT_EQ(bytesOf(text), "abc" + std::string(100, 'x'));
    text.assign(text.c_str() + 99);
    EXPECT_EQ(bytesOf(text), "xxxx");
}

/// The bytes of a local string after `use` of it and its end.
template <class Use>
std::string remainsOf(Use use) {
    alignas(TbShortString) static char place[sizeof(TbShortString)];
    std::memset(place, 0, sizeof place);
    auto* const text = new (place) TbShortString;
    use(*text);
    text->~TbShortString();
    return {place, sizeof place};
}

TEST(TbLocalString, LeavesNoBytesOfASecretBehind) {
    std::string const secret = "0123456789abcdef0123456789abcdef";
    EXPECT_NE(remainsOf([&](TbString& text) { text.assign(secret.c_str()); }).find("0123"), std::string::npos)
        << "the search finds something";
    struct {
        char const* m_Name;
        void (*m_Use)(TbString& text);
    } const rows[] = {
        {"its end", [](TbString&) {}},
        {"cleared", [](TbString& text) { text.clear(); }},
        {"shorter", [](TbString& text) { text.assign("x"); }},
        {"a part of itself", [](TbString& text) { text.assign(text.c_str() + 31); }},
        {"moved to the heap", [](TbString& text) { text.append(std::string(100, 'x').c_str()); }},
        {"taken over",
         [](TbString& text) {
             TbString long_(std::string(100, 'x').c_str());
             TbInPlaceText::handOver(long_, text);
         }},
    };
    for (auto const& row : rows) {
        std::string const remains = remainsOf([&](TbString& text) {
            text.keepSecret();
            text.assign(secret.c_str());
            row.m_Use(text);
        });
        for (char const* part : {"0123", "4567", "89ab", "cdef"}) {
            EXPECT_EQ(remains.find(part), std::string::npos) << row.m_Name;
        }
    }
}

TEST(LocalStrings, AreNotCountedAsLiving) {
    std::int32_t const start = TbRefCounter::m_nTotalRef;
    {
        TbString const counted("text");
        TbBorrowed const borrowed("text");
        TbBorrowedStream const borrowedStream(counted);
        TbShortString local;
        local = counted;
        TbUncountedString const uncounted;
        TbUncountedString const copy(uncounted);
        TbUncountedStream const stream;
        EXPECT_EQ(TbRefCounter::m_nTotalRef, start + 1) << "the one that is counted";
        TbString const outside(local);
        EXPECT_EQ(outside, "text");
        EXPECT_EQ(TbRefCounter::m_nTotalRef, start + 2) << "a copy for others";
    }
    EXPECT_EQ(TbRefCounter::m_nTotalRef, start);
}

TEST(TbUncountedString, IsCopiedAndAssignedWithItsSecrecy) {
    TbUncountedString text;
    text = TbString("text");
    text.keepSecret();
    TbUncountedString const copy(text);
    TbUncountedString assigned;
    assigned = copy;
    EXPECT_EQ(copy, "text");
    EXPECT_EQ(assigned, "text");
    EXPECT_TRUE(copy.isSecret());
    EXPECT_TRUE(assigned.isSecret());
}

TEST(TbInPlaceText, HandsTheMemoryOver) {
    std::string const bytes(100, 'x');
    TbString source(bytes.c_str());
    source.grow(1000);
    char const* const buffer = source.buffer();
    TbString target("old");
    EXPECT_EQ(allocationsOf([&] { TbInPlaceText::handOver(source, target); }), 0);
    EXPECT_EQ(target.buffer(), buffer);
    EXPECT_EQ(bytesOf(target), bytes);
    EXPECT_EQ(target.capacity(), 165U) << "as an assigned text's";
    EXPECT_EQ(source.buffer(), nullptr);
    EXPECT_EQ(source.capacity(), 0U);

    TbString secret("s");
    secret.keepSecret();
    TbInPlaceText::handOver(secret, source);
    EXPECT_TRUE(source.isSecret());

    TbShortString local;
    local.assign("abc");
    TbInPlaceText::handOver(local, target);
    EXPECT_EQ(bytesOf(target), "abc");
    EXPECT_EQ(target.capacity(), 68U);
}

}  // namespace
