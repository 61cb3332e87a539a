// The string stream: reading and writing at one position, end of data, failing allocations.
//
// Reads advance the position, writes append. Contents are compared as bytes.

#include "foundation/tbstringstream.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "tallowin/codes.h"
#include "tests/support/allocations.h"
#include "tests/support/exceptions.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

/// All bytes that can be read now.
std::string readAll(TbStringStream& stream) {
    std::string read;
    for (;;) {
        char character = '?';
        stream.get(character);
        if (stream.atEnd()) {
            return read;
        }
        read.push_back(character);
    }
}

TEST(TbStringStream, IsAtItsEndWhileNothingHasBeenWritten) {
    TbStringStream stream;
    EXPECT_TRUE(stream.atEnd());
    char character = 'k';
    stream.get(character);
    EXPECT_EQ(character, 'k');
    EXPECT_TRUE(stream.atEnd());
    EXPECT_EQ(stream.buffer(), nullptr);
}

TEST(TbStringStream, DeliversItsTextThenSetsTheFlag) {
    TbStringStream stream("ab");
    char character = '?';
    EXPECT_FALSE(stream.atEnd());
    stream.get(character);
    EXPECT_EQ(character, 'a');
    stream.get(character);
    EXPECT_EQ(character, 'b');
    EXPECT_FALSE(stream.atEnd()) << "the last byte was read, the end not yet met";
    stream.get(character);
    EXPECT_EQ(character, 'b') << "nothing was delivered";
    EXPECT_TRUE(stream.atEnd());
}

TEST(TbStringStream, GoesOnWhereItStoppedAfterAWrite) {
    TbStringStream stream("ab");
    EXPECT_EQ(readAll(stream), "ab");
    stream.put('c');
    EXPECT_FALSE(stream.atEnd());
    EXPECT_EQ(readAll(stream), "c");
    stream.put("de");
    stream.put(TbString("f"));
    stream.put("g\0h", 3);
    EXPECT_EQ(readAll(stream), std::string("defg\0h", 6));
}

TEST(TbStringStream, DeliversAZeroByteLikeAnyOther) {
    TbStringStream stream(stringOf(std::string("a\0b", 3)));
    EXPECT_EQ(readAll(stream), std::string("a\0b", 3));
}

TEST(TbStringStream, KeepsAllTextWhateverHasBeenRead) {
    TbStringStream stream("abc");
    char character = '?';
    stream.get(character);
    EXPECT_EQ(bytesOf(stream.str()), "abc");
    EXPECT_TRUE(stream == "abc");
}

TEST(TbStringStream, ClearsTheFlagAlsoByAnEmptyWrite) {
    TbStringStream stream;
    stream.put("");
    EXPECT_FALSE(stream.atEnd());
    EXPECT_EQ(readAll(stream), "");
    EXPECT_TRUE(stream.atEnd());

    TbStringStream ofNull(static_cast<char const*>(nullptr));
    EXPECT_FALSE(ofNull.atEnd());
    EXPECT_EQ(readAll(ofNull), "");
}

TEST(TbStringStream, StepsBackByOneByte) {
    TbStringStream stream("ab");
    stream.unget();
    EXPECT_EQ(readAll(stream), "ab") << "before the first byte there is nothing to step to";
    stream.unget();
    EXPECT_FALSE(stream.atEnd());
    EXPECT_EQ(readAll(stream), "b");
}

TEST(TbStringStream, CopiesTextPositionAndFlag) {
    TbStringStream stream("abc");
    char character = '?';
    stream.get(character);
    TbStringStream const copy(stream);
    TbStringStream reader(copy);
    EXPECT_EQ(readAll(reader), "bc");
    TbStringStream assigned("x");
    assigned = stream;
    EXPECT_EQ(readAll(assigned), "bc");
    assigned = TbStringStream();
    EXPECT_TRUE(assigned.atEnd());
    EXPECT_EQ(assigned.length(), 0U);
}

TEST(TbStringStream, KeepsItsFlagWhenAssignedThroughTheStringPart) {
    // Readers see nothing of a text that came in this way: streams are filled by writing only.
    TbStringStream stream;
    static_cast<TbString&>(stream) = TbString("abc");
    EXPECT_EQ(bytesOf(stream.str()), "abc");
    EXPECT_TRUE(stream.atEnd());
    EXPECT_EQ(readAll(stream), "");
}

TEST(TbStringStream, ReadsNothingBehindTheEndOfAShortenedText) {
    TbStringStream stream("abcdef");
    EXPECT_EQ(readAll(stream), "abcdef");
    stream.clear();
    stream.put('x');
    EXPECT_EQ(readAll(stream), "") << "the read position lies behind the text";
}

TEST(TbStringStream, KeepsAnsweringAsAStringWithoutOperationsOfItsOwn) {
    TbStringStream const stream("a");
    EXPECT_TRUE(stream.isInstanceOf("TbString"));
    EXPECT_FALSE(stream.isInstanceOf("TbStringStream"));
    EXPECT_EQ(stream.getAllocator(), &TbString::allocate);
    static_assert(std::is_base_of_v<TbString, TbStringStream>, "a string with a cursor");
}

TEST(TbStringStream, StaysReadableWhenAWriteRunsOutOfMemory) {
    TbStringStream stream("abc");
    {
        FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
        EXPECT_EQ(thrownCode([&] { stream.put(std::string(200, 'x').c_str()); }), KVX_E_OUT_OF_MEMORY);
    }
    EXPECT_EQ(readAll(stream), "abc");
    stream.put("def");
    EXPECT_EQ(readAll(stream), "def");
}

}  // namespace
