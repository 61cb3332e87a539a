// The conversion to modified UTF-8: valid text, four-byte characters, ill-formed and truncated text, block limits.
//
// `expectedOf` converts in a different way: it decodes each position as two, three and four bytes and accepts a
// character only when encoding it again gives the same bytes. Random text is compared with that, and every result must
// be valid modified UTF-8 and must not change when converted again.

#include "jni/kvxmodifiedutf8.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>

#include "foundation/tbexception.h"
#include "tests/jni/fakejvm.h"
#include "tests/support/allocations.h"
#include "tests/support/exceptions.h"
#include "tests/support/random.h"
#include "tests/support/tbtext.h"
#include "tests/support/thinmemory.h"

using namespace kvxtest;

namespace {

std::string modified(std::string const& text, std::string const& before = "") {
    TbString result = stringOf(before);
    kvxToModifiedUtf8(text.c_str(), result);
    return bytesOf(result);
}

char byte(unsigned value) {
    return static_cast<char>(static_cast<unsigned char>(value));
}

/// The shortest UTF-8 form of a number, surrogates included; for 0 the two bytes of modified UTF-8.
std::string encoded(unsigned character) {
    if (character == 0) {
        return "\xc0\x80";
    }
    if (character < 0x80) {
        return {byte(character)};
    }
    if (character < 0x800) {
        return {byte(0xC0 + character / 64), byte(0x80 + character % 64)};
    }
    if (character < 0x10000) {
        return {byte(0xE0 + character / 4096), byte(0x80 + character / 64 % 64), byte(0x80 + character % 64)};
    }
    return {byte(0xF0 + character / 262144), byte(0x80 + character / 4096 % 64), byte(0x80 + character / 64 % 64),
            byte(0x80 + character % 64)};
}

std::string encodedAsPair(unsigned character) {
    return encoded(0xD800 + (character - 0x10000) / 1024) + encoded(0xDC00 + (character - 0x10000) % 1024);
}

/// The expected conversion of `text`. A character counts as well formed when encoding it again gives the same bytes.
std::string expectedOf(std::string const& text) {
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        auto const bits = [&](std::size_t index) { return static_cast<unsigned char>(text[at + index]) % 64U; };
        auto const isHere = [&](unsigned character) {
            return text.compare(at, encoded(character).size(), encoded(character)) == 0;
        };
        std::size_t const left = text.size() - at;
        unsigned const first = static_cast<unsigned char>(text[at]);
        unsigned const two = left < 2 ? 0 : first % 32 * 64 + bits(1);
        unsigned const three = left < 3 ? 0 : first % 16 * 4096 + bits(1) * 64 + bits(2);
        unsigned const four = left < 4 ? 0 : first % 8 * 262144 + bits(1) * 4096 + bits(2) * 64 + bits(3);
        std::string written = encoded(first);
        std::size_t used = 1;
        if (first >= 0x80) {
            for (unsigned const character : {two, three}) {
                if (isHere(character)) {
                    written = encoded(character);
                    used = written.size();
                    break;
                }
            }
            if (four >= 0x10000 && four <= 0x10FFFF && isHere(four)) {
                written = encodedAsPair(four);
                used = 4;
            }
        }
        result += written;
        at += used;
    }
    return result;
}

/// Text of well-formed, truncated and invalid parts in random order, without zero bytes.
std::string randomText(std::mt19937_64& random) {
    auto const below = [&](unsigned limit) { return static_cast<unsigned>(random() % limit); };
    std::string text;
    for (unsigned parts = below(40); parts > 0; --parts) {
        switch (below(7)) {
            case 0:
                text.append(below(30), 'a');
                break;
            case 1:
                text += encoded(below(0x800));
                break;
            case 2:
                text += encoded(below(0x10000));
                break;
            case 3:
                text += encoded(0x10000 + below(0x100000));
                break;
            case 4:
                text += encoded(0xD800 + below(0x800));
                break;
            case 5: {
                std::string const whole = encoded(below(0x110000));
                text += whole.substr(0, 1 + below(4));
                break;
            }
            default:
                text += byte(0x80 + below(0x80));
        }
    }
    return text;
}

}  // namespace

TEST(ModifiedUtf8, KeepsValidText) {
    for (char const* const text : {
             "",
             "a",
             "\x01\x7f",
             "some longer text",
             "\xc0\x80",  // U+0000
             "a\xc0\x80z",
             "\xc2\x80",
             "\xdf\xbf",      // U+0080, U+07FF
             "\xe0\xa0\x80",  // U+0800
             "\xe1\x80\x80",
             "\xec\xbf\xbf",
             "\xed\x80\x80",
             "\xed\x9f\xbf",  // up to U+D7FF
             "\xed\xa0\x80",
             "\xed\xaf\xbf",  // high surrogates alone
             "\xed\xb0\x80",
             "\xed\xbf\xbf",              // low surrogates alone
             "\xed\xa0\xbd\xed\xb8\x80",  // a pair
             "\xed\xb8\x80\xed\xa0\xbd",  // a pair the wrong way round
             "\xee\x80\x80",
             "\xef\xbf\xbd",
             "\xef\xbf\xbe",
             "\xef\xbf\xbf",
         }) {
        EXPECT_EQ(modified(text), text);
    }
}

TEST(ModifiedUtf8, KeepsEveryCharacterOfTheBasicPlane) {
    for (unsigned character = 0; character < 0x10000; ++character) {
        std::string const text = encoded(character);
        ASSERT_EQ(modified(text), text) << character;
    }
}

TEST(ModifiedUtf8, WritesCharactersOfFourBytesAsPairsOfSurrogates) {
    EXPECT_EQ(modified("\xf0\x90\x80\x80"), "\xed\xa0\x80\xed\xb0\x80");  // U+10000
    EXPECT_EQ(modified("\xf0\x9f\x98\x80"), "\xed\xa0\xbd\xed\xb8\x80");  // U+1F600
    EXPECT_EQ(modified("\xf4\x8f\xbf\xbf"), "\xed\xaf\xbf\xed\xbf\xbf");  // U+10FFFF
    for (unsigned character = 0x10000; character < 0x110000; character += 0x3FF) {
        ASSERT_EQ(modified(encoded(character)), encodedAsPair(character)) << character;
    }
}

TEST(ModifiedUtf8, ConvertsASingleInvalidByteAsLatin1) {
    for (unsigned value = 0x80; value <= 0xFF; ++value) {
        std::string const text(1, byte(value));
        EXPECT_EQ(modified(text), encoded(value)) << value;
        EXPECT_EQ(modified("a" + text + "z"), "a" + encoded(value) + "z") << value;
    }
}

TEST(ModifiedUtf8, ConvertsEveryByteOfAnIllFormedCharacterAsLatin1) {
    for (std::string const text : {
             "\xc0\x81",
             "\xc0\xbf",
             "\xc1\x80",
             "\xc1\xbf",  // too long for one byte
             "\xe0\x80\x80",
             "\xe0\x80\xaf",
             "\xe0\x9f\xbf",  // too long for two
             "\xf0\x80\x80\x80",
             "\xf0\x8f\xbf\xbf",  // too long for three
             "\xf4\x90\x80\x80",
             "\xf5\x80\x80\x80",
             "\xf7\xbf\xbf\xbf",  // above U+10FFFF
             "\xf8\x88\x80\x80\x80",
             "\xfc\x84\x80\x80\x80\x80",
             "\xfe",
             "\xff\xff",  // never the first byte of a character
             "\xc3\xc3",
             "\xe2\x82\xe2",
             "\xe2\xe2\xe2",
             "\xf0\x9f\x98\xf0",  // a first byte where a continuation byte is expected
         }) {
        std::string expected;
        for (char const character : text) {
            expected += encoded(static_cast<unsigned char>(character));
        }
        EXPECT_EQ(modified(text), expected) << text;
        EXPECT_EQ(modified("a" + text + "z"), "a" + expected + "z") << text;
    }
}

TEST(ModifiedUtf8, ConvertsEveryByteOfATruncatedCharacterAsLatin1) {
    for (std::string const whole :
         {"\xc3\xa9", "\xe2\x82\xac", "\xed\xa0\xbd", "\xf0\x9f\x98\x80", "\xf4\x8f\xbf\xbf"}) {
        for (std::size_t length = 1; length < whole.size(); ++length) {
            std::string const text = whole.substr(0, length);
            std::string expected;
            for (char const character : text) {
                expected += encoded(static_cast<unsigned char>(character));
            }
            EXPECT_EQ(modified(text), expected);
            EXPECT_EQ(modified(text + "z"), expected + "z");
            EXPECT_EQ(modified(text + whole), expected + modified(whole));
        }
    }
}

TEST(ModifiedUtf8, ConvertsAlikeAtEveryBlockLimit) {
    for (std::string const text : {"\xc3\xa9", "\xe9", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "\xc0\x80", "\xe2\x82"}) {
        for (std::size_t before = 500; before < 520; ++before) {
            for (std::size_t const after :
                 {std::size_t{0}, std::size_t{1}, std::size_t{511}, std::size_t{512}, std::size_t{2000}}) {
                std::string const whole = std::string(before, 'a') + text + std::string(after, 'z');
                ASSERT_EQ(modified(whole), std::string(before, 'a') + modified(text) + std::string(after, 'z'))
                    << before << " " << after;
            }
        }
    }
}

TEST(ModifiedUtf8, StopsAtTheFirstZeroByte) {
    EXPECT_EQ(modified(std::string("a\0b", 3)), "a");
}

TEST(ModifiedUtf8, AppendsToTheResult) {
    EXPECT_EQ(modified("\xe9", "before "), "before \xc3\xa9");
    EXPECT_EQ(modified("", "before "), "before ");
    EXPECT_EQ(modified(std::string(600, 'a'), std::string(600, 'b')), std::string(600, 'b') + std::string(600, 'a'));
}

TEST(ModifiedUtf8, ConvertsAnyBytesToValidText) {
    SCOPED_TRACE("KVX_TEST_SEED=" + std::to_string(testSeed()));
    std::mt19937_64 random(testSeed());
    for (int round = 0; round < 20000; ++round) {
        std::string const text = randomText(random);
        std::string const result = modified(text);
        ASSERT_TRUE(isModifiedUtf8(result)) << testing::PrintToString(text);
        ASSERT_EQ(result, expectedOf(text)) << testing::PrintToString(text);
        ASSERT_EQ(modified(result), result) << "valid text changed: " << testing::PrintToString(text);
    }
}

TEST(ModifiedUtf8, RunsOutOfMemoryCleanly) {
    std::string const text(5000, '\xe9');
    EXPECT_GT(survivesEveryFailingAllocation([&] {
                  TbString result;
                  kvxToModifiedUtf8(text.c_str(), result);
                  EXPECT_EQ(result.length(), 10000U);
              }),
              1);
}

TEST(ModifiedUtf8, IsOutOfMemoryWhenTheResultWouldReach2GiB) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer keeps four bytes for each that is written";
#endif
    constexpr std::uint32_t kMost = INT32_MAX;
    ThinText const letters(kMost - 4);
    TbString result;
    if (letters.get() == nullptr || thrownCode([&] { result.grow(kMost); }) != KVX_OK ||
        !makeThin(&result.append('x')[0], kMost)) {
        GTEST_SKIP() << "no room for two texts of 2 GiB";
    }
    result.append(letters.get() + 1, kMost - 5);
    kvxToModifiedUtf8("last", result);
    EXPECT_EQ(result.length(), kMost);
    EXPECT_EQ(thrownCode([&] { kvxToModifiedUtf8("y", result); }), KVX_E_OUT_OF_MEMORY);
    EXPECT_EQ(thrownCode([&] { kvxToModifiedUtf8("\xe9", result); }), KVX_E_OUT_OF_MEMORY);
    EXPECT_EQ(result.length(), kMost);
    EXPECT_EQ(std::string(&result[kMost - 5]), "xlast");
    kvxToModifiedUtf8("", result);
}
