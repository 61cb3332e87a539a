// Base64 of credentials, and percent-encoding.
//
// Tables of inputs and all byte values. Odd: groups are filled with zero bits instead of "=", and bytes above 0x7F end
// the text.

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <random>

#include "net/kvxurl.h"
#include "tests/support/allocations.h"
#include "tests/support/costs.h"
#include "tests/support/random.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

std::string base64(std::string const& input) {
    TbStringStream in(stringOf(input));
    TbStringStream out;
    Base64Encode(&in, &out);
    return bytesOf(out);
}

std::string percent(std::string const& input) {
    TbStringStream in(stringOf(input));
    TbStringStream out;
    UrlEncode(&in, &out);
    return bytesOf(out);
}

struct EncodingCase {
    std::string m_Input;
    std::string m_Encoded;
};

TEST(Base64Encode, EncodesATable) {
    EncodingCase const cases[] = {
        {"", "AAAA"},         // an empty input is a group of its own
        {"a", "YQAA"},        // missing bits are zero, there is never "="
        {"ab", "YWIA"},       //
        {"abc", "YWJjAAAA"},  // a full group is followed by another
        {":", "OgAA"},        // no user, no password
        {"user:pass", "dXNlcjpwYXNzAAAA"},
        {"\x7F\x7F\x7F", "f39/AAAA"},
        {"~~>", "fn4+AAAA"},
        {"\x01", "AQAA"},
        {std::string("ab\0cd", 5), "YWIA"},  // ends at a zero byte
        {"ab\x80"
         "cd",
         "YWIA"},              // ends at 0x80
        {"ab\xFF", "YWIA"},    // and at 0xFF
        {"\xC3\xBC", "AAAA"},  // nothing before the end
        {"abc\xE9"
         "def",
         "YWJjAAAA"},  // the end is one for good: "def" is never read
        {"a\x80"
         "bcdefghijk",
         "YQAA"},
    };
    for (EncodingCase const& row : cases) {
        EXPECT_EQ(base64(row.m_Input), row.m_Encoded) << testing::PrintToString(row.m_Input);
    }
}

TEST(Base64Encode, AgreesWithOpenSslButForPadding) {
    std::mt19937_64 random(testSeed());
    std::uniform_int_distribution<int> byte(1, 127);
    for (std::size_t length = 0; length < 200; ++length) {
        std::string input;
        for (std::size_t i = 0; i < length; ++i) {
            input += static_cast<char>(byte(random));
        }
        std::string expected(4 * ((length + 2) / 3) + 1, '\0');
        int const size =
            EVP_EncodeBlock(reinterpret_cast<unsigned char*>(expected.data()),
                            reinterpret_cast<unsigned char const*>(input.data()), static_cast<int>(length));
        expected.resize(static_cast<std::size_t>(size));
        for (char& character : expected) {
            character = character == '=' ? 'A' : character;
        }
        expected += length % 3 == 0 ? "AAAA" : "";
        EXPECT_EQ(base64(input), expected) << "seed " << testSeed() << ", length " << length;
    }
}

TEST(Base64Encode, ReadsFromTheCurrentPositionAndAppends) {
    TbStringStream in("xab");
    char skipped = '\0';
    in.get(skipped);
    TbStringStream out("before ");
    Base64Encode(&in, &out);
    EXPECT_EQ(bytesOf(out), "before YWIA");
}

TEST(Base64Encode, UsesTheStandardAlphabetWithoutPadding) {
    EXPECT_STREQ(base64_table, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
    EXPECT_EQ(sizeof base64_table, 65U);
}

TEST(UrlEncode, EncodesATable) {
    EncodingCase const cases[] = {
        {"", ""},
        {"azAZ09", "azAZ09"},
        {"a b/\xC3\xBC", "a%20b%2f%c3%bc"},
        {"-_.~", "%2d%5f%2e%7e"},  // unreserved in RFC 3986, encoded here
        {"+", "%2b"},              // and a blank never becomes one
        {"\r\n\t", "%0d%0a%09"},
        {"%41", "%2541"},
        {"\xFF\x80\x7F\x01", "%ff%80%7f%01"},
        {std::string("ab\0cd", 5), "ab"},  // ends at a zero byte
    };
    for (EncodingCase const& row : cases) {
        EXPECT_EQ(percent(row.m_Input), row.m_Encoded) << testing::PrintToString(row.m_Input);
    }
}

TEST(UrlEncode, EscapesEveryByteButLettersAndDigits) {
    for (int value = 1; value < 256; ++value) {
        auto const byte = static_cast<char>(value);
        bool const passes =
            (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "%%%02x", static_cast<unsigned>(value));
        EXPECT_EQ(percent(std::string(1, byte)), passes ? std::string(1, byte) : escaped) << value;
    }
}

TEST(UrlEncode, ReadsFromTheCurrentPositionAndAppends) {
    TbStringStream in("x y");
    char skipped = '\0';
    in.get(skipped);
    TbStringStream out("before");
    UrlEncode(&in, &out);
    EXPECT_EQ(bytesOf(out), "before%20y");
}

/// The stream `before` after `encode` has written `text` to it.
TbStringStream encodedBehind(std::string const& before, std::string const& text,
                             void (*encode)(TbStringStream*, TbStringStream*)) {
    TbStringStream in(stringOf(text));
    TbStringStream out;
    if (!before.empty()) {
        out.put(before.c_str());
    }
    encode(&in, &out);
    return out;
}

TEST(Encoders, LeaveTheCapacityOfAStreamThatGrowsPieceByPiece) {
    Random random;
    for (int i = 0; i < 1000; ++i) {
        SCOPED_TRACE("seed " + std::to_string(testSeed()) + ", run " + std::to_string(i));
        std::string const before(random.below(2) == 0 ? 0 : random.below(150), 'b');
        std::string const text = random.text("abcdef<>&=", 300);
        TbStringStream percents;
        TbStringStream characters;
        if (!before.empty()) {
            percents.put(before.c_str());
            characters.put(before.c_str());
        }
        for (char const byte : text) {
            percents.put(percent(std::string(1, byte)).c_str());
        }
        std::string const groups = base64(text);
        for (std::size_t at = 0; at < groups.size(); at += 4) {
            characters.put(groups.data() + at, 4);
        }
        TbStringStream const url = encodedBehind(before, text, &UrlEncode);
        ASSERT_EQ(bytesOf(url), bytesOf(percents));
        ASSERT_EQ(url.capacity(), percents.capacity());
        ASSERT_EQ(url.atEnd(), percents.atEnd());
        TbStringStream const encoded = encodedBehind(before, text, &Base64Encode);
        ASSERT_EQ(bytesOf(encoded), bytesOf(characters));
        ASSERT_EQ(encoded.capacity(), characters.capacity());
        ASSERT_EQ(encoded.atEnd(), characters.atEnd());
    }
}

/// A stream to which `bytes` bytes were put one by one, all of them "%".
TbStringStream percentSigns(std::size_t bytes) {
    TbStringStream out;
    for (; bytes > 0; --bytes) {
        out.put("%");
    }
    return out;
}

TEST(UrlEncode, FindsNoPieceInTheTextBeforeItsOwn) {
    for (std::size_t bytes = 60; bytes < 70; ++bytes) {
        for (std::string const text : {"a<b", "ab<", "<a"}) {
            TbStringStream in(stringOf(text));
            TbStringStream out = percentSigns(bytes);
            UrlEncode(&in, &out);
            TbStringStream piecewise = percentSigns(bytes);
            for (char const byte : text) {
                piecewise.put(percent(std::string(1, byte)).c_str());
            }
            EXPECT_EQ(out.capacity(), piecewise.capacity()) << bytes << ", " << text;
        }
    }
}

TEST(Encoders, GrowTheirOutputOnce) {
    TbStringStream in(stringOf(std::string(3000, 'a') + std::string(3000, '<')));
    TbStringStream again(in.str());
    TbStringStream out;
    EXPECT_EQ(costOf([&] { UrlEncode(&in, &out); }).m_Calls, 1U);
    TbStringStream other;
    EXPECT_EQ(costOf([&] { Base64Encode(&again, &other); }).m_Calls, 1U);
}

TEST(Encoders, ReadOneByteBehindTheText) {
    struct Row {
        void (*m_Encode)(TbStringStream*, TbStringStream*);
        std::string m_Text;
        bool m_IsAtEnd;
    };
    Row const rows[] = {
        {&UrlEncode, std::string("ab\0cd", 5), false},
        {&UrlEncode, std::string("ab\0", 3), false},
        {&UrlEncode, "ab", true},
        {&Base64Encode, std::string("ab\0cd", 5), false},
        {&Base64Encode, "ab\xE9", false},
        {&Base64Encode, "ab", true},
        {&Base64Encode, "abc", true},
        {&Base64Encode, "abcdefgh\x80x", false},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.m_Text));
        TbStringStream in(stringOf(row.m_Text));
        TbStringStream out;
        row.m_Encode(&in, &out);
        EXPECT_EQ(in.atEnd(), row.m_IsAtEnd);
        std::size_t const ending = row.m_Text.find_first_of(std::string("\0\xE9\x80", 3));
        std::string const behind = ending == std::string::npos ? "" : row.m_Text.substr(ending + 1);
        EXPECT_EQ(std::string(in.unread(), in.unreadLength()), behind);
    }
}

TEST(Encoders, EncodeAStreamIntoItself) {
    TbStringStream text("a b");
    UrlEncode(&text, &text);
    EXPECT_EQ(bytesOf(text), "a ba%20b");
    TbStringStream other(std::string(1000, 'a').c_str());
    Base64Encode(&other, &other);
    EXPECT_EQ(bytesOf(other), std::string(1000, 'a') + base64(std::string(1000, 'a')));
}

TEST(UrlEncode, SurvivesFailingAllocations) {
    survivesEveryFailingAllocation([] {
        TbStringStream in("a b");
        TbStringStream out;
        UrlEncode(&in, &out);
        TbStringStream again("abc");
        Base64Encode(&again, &out);
    });
}

}  // namespace
