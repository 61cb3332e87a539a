// Base64 of credentials, and percent-encoding.
//
// Tables of inputs and all byte values. Odd: groups are filled with zero bits instead of "=", and bytes above 0x7F end
// the text.

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <random>

#include "net/kvxurl.h"
#include "tests/support/allocations.h"
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
