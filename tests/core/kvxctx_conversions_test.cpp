// Conversions of the context: percent-encoding, hexadecimal, slashes, identifiers, time stamps.
//
// All byte values go through each conversion. Known identifiers come from a definition of uuid_generate() in this file
// that replaces the library's.

#include <dlfcn.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <cctype>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "core/kvxpercent.h"
#include "tests/core/coresupport.h"
#include "tests/support/costs.h"
#include "tests/support/exceptions.h"
#include "tests/support/random.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

bool g_ScriptedUuid = false;

}  // namespace

// Replaces the function of libuuid for all callers in this program. Passes the call on unless a test wants known bytes.
extern "C" __attribute__((visibility("default"))) void uuid_generate(uuid_t out) {
    if (!g_ScriptedUuid) {
        auto* const original = reinterpret_cast<void (*)(unsigned char*)>(::dlsym(RTLD_NEXT, "uuid_generate"));
        original(out);
        EXPECT_EQ(uuid_is_null(out), 0);  // also keeps the library linked
        return;
    }
    for (unsigned char i = 0; i < 16; ++i) {
        out[i] = static_cast<unsigned char>(i * 0x11);
    }
}

namespace {

std::string encoded(std::string const& text) {
    return bytesOf(KVX_Context().Encode(stringOf(text)));
}

struct Decoded {
    std::int32_t m_Code;
    unsigned long m_Size;
    std::string m_Bytes;  ///< The whole buffer; '?' where it is untouched.
};

Decoded decode(std::string const& hex, unsigned long capacity) {
    unsigned char buffer[8];
    std::memset(buffer, '?', sizeof buffer);
    unsigned long size = capacity;
    std::int32_t const code = KVX_Context().HexToBuffer(stringOf(hex), buffer, &size);
    return {code, size, std::string(reinterpret_cast<char*>(buffer), sizeof buffer)};
}

TEST(Encode, PassesLettersAndDigitsAndEscapesEveryOtherByte) {
    for (int value = 0; value < 256; ++value) {
        char expected[4] = {static_cast<char>(value)};
        bool const passes =
            (value >= 'A' && value <= 'Z') || (value >= 'a' && value <= 'z') || (value >= '0' && value <= '9');
        if (!passes) {
            std::snprintf(expected, sizeof expected, "%%%02x", static_cast<unsigned>(value));
        }
        EXPECT_EQ(encoded(std::string(1, static_cast<char>(value))), expected) << value;
    }
}

TEST(Encode, HasATableOfWhatTheFunctionMakes) {
    auto const table = std::make_unique<KvxPercentTable>();
    for (unsigned byte = 0; byte < 256; ++byte) {
        std::string const piece(table->m_Rows[byte].m_Text, table->m_Rows[byte].m_Length);
        EXPECT_EQ(encoded(std::string(1, static_cast<char>(byte))), piece) << byte;
    }
}

TEST(Encode, EncodesWholeTexts) {
    EXPECT_EQ(encoded("a b/1"), "a%20b%2f1");
    EXPECT_EQ(encoded(""), "");
    EXPECT_EQ(encoded("\xC3\xA9"), "%c3%a9");
    EXPECT_EQ(encoded(std::string("a\0b", 3)), "a%00b");
    EXPECT_EQ(encoded("100%"), "100%25");
    EXPECT_EQ(bytesOf(KVX_Context().Encode(TbString())), "");
}

/// A string to which the pieces that `text` is encoded as were appended one by one.
TbString appendedOneByOne(std::string const& text) {
    TbString encodedText("");
    for (char const byte : text) {
        encodedText.append(encoded(std::string(1, byte)).c_str());
    }
    return encodedText;
}

TEST(Encode, HasTheCapacityOfAStringThatGrowsByteByByte) {
    Random random;
    for (int i = 0; i < 500; ++i) {
        std::string text;
        for (std::size_t left = random.below(300); left > 0; --left) {
            text += random.below(3) == 0 ? random.byte() : 'a';
        }
        TbString const whole = KVX_Context().Encode(stringOf(text));
        TbString const piecewise = appendedOneByOne(text);
        ASSERT_EQ(bytesOf(whole), bytesOf(piecewise)) << "seed " << testSeed();
        ASSERT_EQ(whole.capacity(), piecewise.capacity()) << "seed " << testSeed() << ", " << bytesOf(whole);
    }
}

TEST(Encode, GrowsOnce) {
    TbString const text = stringOf(std::string(5000, 'a') + std::string(5000, '<'));
    EXPECT_EQ(costOf([&] { TbString const encodedText = KVX_Context().Encode(text); }).m_Calls, 1U);
}

TEST(BufferToHex, GrowsOnceAndHasTheCapacityOfItsText) {
    std::vector<unsigned char> bytes(5000);
    for (std::size_t const length : {1U, 31U, 32U, 33U, 34U, 5000U}) {
        EXPECT_EQ(costOf([&] {
                      TbString const made = KVX_Context().BufferToHex(bytes.data(), length);
                      EXPECT_EQ(made.capacity(), 2 * length < 65 ? 65 : 2 * length + 65);
                  }).m_Calls,
                  1U);
    }
}

TEST(Encode, EscapesTheSameBytesInAUtf8Locale) {
    ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
    std::string const text = encoded("\xC3\xA9 \x80\xFF");
    std::setlocale(LC_CTYPE, "C");
    EXPECT_EQ(text, "%c3%a9%20%80%ff");
}

// A locale of its own, where the byte 0xE4 is a letter; systems need not have any such.
TEST(Encode, PassesTheLettersAboveSevenBitsOfTheLocale) {
    std::string characters = "<code_set_name> ONEBYTE\n<comment_char> %\n<escape_char> /\nCHARMAP\n";
    char line[32];
    for (unsigned byte = 0; byte < 0x80; ++byte) {
        std::snprintf(line, sizeof line, "<U%04X> /x%02x\n", byte, byte);
        characters += line;
    }
    TemporaryDirectory const directory;
    directory.write("characters", characters + "<U00E4> /xe4\nEND CHARMAP\n");
    directory.write("classes",
                    "LC_CTYPE\nupper <U0041>..<U005A>\nlower <U0061>..<U007A>;<U00E4>\ndigit <U0030>..<U0039>\n"
                    "space <U0009>..<U000D>;<U0020>\nEND LC_CTYPE\n");
    std::string const command = "cd " + directory.path() + " && localedef -c -f characters -i classes ./one 2>log";
    EXPECT_NE(std::system(command.c_str()), -1);  // another status than 0: there are categories that are not defined
    ASSERT_EQ(::setenv("LOCPATH", directory.path().c_str(), 1), 0);
    char const* const chosen = std::setlocale(LC_CTYPE, "one");
    TbString const text = KVX_Context().Encode("\xE4 \xE5");
    std::setlocale(LC_CTYPE, "C");
    ::unsetenv("LOCPATH");
    ASSERT_NE(chosen, nullptr) << directory.read("log");
    EXPECT_EQ(bytesOf(text), "\xE4%20%e5");
    EXPECT_EQ(text.capacity(), appendedOneByOne("\xE4 \xE5").capacity());
}

TEST(BufferToHex, WritesTwoLowerCaseDigitsForEveryByte) {
    std::vector<unsigned char> bytes;
    std::string expected;
    for (int value = 0; value < 256; ++value) {
        bytes.push_back(static_cast<unsigned char>(value));
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(value));
        expected += digits;
    }
    EXPECT_EQ(bytesOf(KVX_Context().BufferToHex(bytes.data(), bytes.size())), expected);
}

TEST(BufferToHex, MakesNothingOfNothing) {
    unsigned char byte = 0;
    EXPECT_EQ(bytesOf(KVX_Context().BufferToHex(&byte, 0)), "");
    EXPECT_EQ(bytesOf(KVX_Context().BufferToHex(nullptr, 0)), "");
}

TEST(BufferToHex, RefusesALengthWhoseTextWouldNotFit) {
    unsigned char byte = 0;
    for (std::uint64_t const wide : {UINT64_C(0x80000000), UINT64_C(0xFFFFFFFF), UINT64_C(0x100000000), UINT64_MAX}) {
        auto const length = static_cast<unsigned long>(wide);
        if (length != wide) {
            continue;  // no length where a long has 32 bits
        }
        EXPECT_EQ(thrownCode([&] { static_cast<void>(KVX_Context().BufferToHex(&byte, length)); }),
                  KVX_E_OUT_OF_MEMORY);
    }
}

TEST(HexToBuffer, DecodesAndRefuses) {
    struct Case {
        char const* m_Hex;
        unsigned long m_Capacity;
        std::int32_t m_Code;
        unsigned long m_Size;
        std::string m_Bytes;
    };
    Case const cases[] = {
        {"", 0, KVX_OK, 0, "????????"},
        {"", 4, KVX_OK, 0, "????????"},
        {"41", 4, KVX_OK, 1, "A???????"},
        {"4142", 2, KVX_OK, 2, "AB??????"},
        {"6A6b", 4, KVX_OK, 2, "jk??????"},
        {"6a6B", 4, KVX_OK, 2, "jk??????"},
        {"0A1", 4, KVX_OK, 1, "\x0A???????"},                  // a trailing odd digit is dropped
        {"4", 1, KVX_OK, 0, "????????"},                       // and may be all there is
        {"0A1", 1, KVX_E_BUFFER_TOO_SMALL, 1, "\x0A???????"},  // but needs room all the same
        {"4", 0, KVX_E_BUFFER_TOO_SMALL, 0, "????????"},
        {"4142", 1, KVX_E_BUFFER_TOO_SMALL, 1, "A???????"},
        {"41g", 1, KVX_E_BUFFER_TOO_SMALL, 1, "A???????"},  // the room is looked at first
        {"0g", 4, KVX_E_COMMAND_FAILED, 4, "????????"},
        {"414g", 4, KVX_E_COMMAND_FAILED, 4, "A???????"},
        {"41 42", 4, KVX_E_COMMAND_FAILED, 4, "A???????"},
        {"41\n", 4, KVX_E_COMMAND_FAILED, 4, "A???????"},
        {"0x41", 4, KVX_E_COMMAND_FAILED, 4, "????????"},
        {"-1", 4, KVX_E_COMMAND_FAILED, 4, "????????"},
    };
    for (Case const& row : cases) {
        Decoded const result = decode(row.m_Hex, row.m_Capacity);
        EXPECT_EQ(result.m_Code, row.m_Code) << row.m_Hex;
        EXPECT_EQ(result.m_Size, row.m_Size) << row.m_Hex;
        EXPECT_EQ(result.m_Bytes, row.m_Bytes) << row.m_Hex;
    }
}

TEST(HexToBuffer, StoresTheFirstByteBeforeItFindsTheBufferTooSmall) {
    Decoded const result = decode("0011", 1);
    EXPECT_EQ(result.m_Code, KVX_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(result.m_Size, 1UL);
    EXPECT_EQ(result.m_Bytes, std::string("\0???????", 8));
}

TEST(HexToBuffer, KnowsExactlyTheHexadecimalDigits) {
    for (int value = 0; value < 256; ++value) {
        Decoded const result = decode(std::string(1, static_cast<char>(value)) + "0", 1);
        bool const isDigit = value != 0 && std::strchr("0123456789abcdefABCDEF", value) != nullptr;
        EXPECT_EQ(result.m_Code, isDigit ? KVX_OK : KVX_E_COMMAND_FAILED) << value;
        if (isDigit) {
            EXPECT_EQ(static_cast<unsigned char>(result.m_Bytes[0]),
                      std::stoi(std::string(1, static_cast<char>(value)), nullptr, 16) * 16);
        }
    }
}

TEST(HexToBuffer, ReadsWhatBufferToHexWrites) {
    unsigned char bytes[256];
    for (int value = 0; value < 256; ++value) {
        bytes[value] = static_cast<unsigned char>(value);
    }
    KVX_Context context;
    unsigned char back[256] = {};
    unsigned long size = sizeof back;
    EXPECT_EQ(context.HexToBuffer(context.BufferToHex(bytes, sizeof bytes), back, &size), KVX_OK);
    EXPECT_EQ(size, 256UL);
    EXPECT_EQ(std::memcmp(bytes, back, sizeof bytes), 0);
}

TEST(SlToBackSl, ReplacesEverySlash) {
    struct Case {
        char const* m_Text;
        char const* m_Expected;
    };
    for (Case const& row : {Case{"", ""}, Case{"/", "\\"}, Case{"a/b//c/", "a\\b\\\\c\\"}, Case{"a\\b", "a\\b"}}) {
        TbString text(row.m_Text);
        KVX_Context().SlToBackSl(text);
        EXPECT_EQ(bytesOf(text), row.m_Expected);
    }
    TbString none;
    KVX_Context().SlToBackSl(none);
    EXPECT_TRUE(none.isEmpty());
}

TEST(CreateUuid, WritesTheLeadingFieldsAsLittleEndianNumbers) {
    g_ScriptedUuid = true;
    std::string const text = bytesOf(KVX_Context().CreateUuid());
    g_ScriptedUuid = false;
    EXPECT_EQ(text, "33221100554477668899aabbccddeeff");
}

TEST(CreateUuid, MakesTenThousandDifferentIdentifiers) {
    std::set<std::string> seen;
    for (int i = 0; i < 10000; ++i) {
        std::string const text = bytesOf(KVX_Context().CreateUuid());
        ASSERT_EQ(text.size(), 32U);
        ASSERT_EQ(text.find_first_not_of("0123456789abcdef"), std::string::npos) << text;
        seen.insert(text);
    }
    EXPECT_EQ(seen.size(), 10000U);
}

TEST(TimeStamp, IsTheUtcTime) {
    struct Case {
        std::int64_t m_Now;
        double m_Seconds;
        char const* m_Expected;
    };
    Case const cases[] = {
        {1706745547, 0, "20240131 23:59:07"},     {0, 0, "19700101 00:00:00"},
        {0, 86400, "19700102 00:00:00"},          {0, -1, "19691231 23:59:59"},
        {951782399, 1, "20000229 00:00:00"},      {1706745547, 53, "20240201 00:00:00"},
        {1706745547, 0.999, "20240131 23:59:07"}, {1706745547, 1.999, "20240131 23:59:08"},
        {1706745547, -0.9, "20240131 23:59:07"},  {1706745547, -1.9, "20240131 23:59:06"},
        {4294967296, 0, "21060207 06:28:16"},
    };
    for (Case const& row : cases) {
        auto const now = static_cast<std::time_t>(row.m_Now);
        if (now != row.m_Now) {
            continue;  // no time where time_t has 32 bits
        }
        FixedTime const clock(now);
        EXPECT_EQ(bytesOf(GetTimeDate(row.m_Seconds)), row.m_Expected) << row.m_Now << " " << row.m_Seconds;
    }
}

TEST(TimeStamp, IgnoresTheLocalTimeZone) {
    FixedTime const clock(1706745547);
    ::setenv("TZ", "UTC-9", 1);
    ::tzset();
    std::string const text = bytesOf(GetTimeDate(0));
    ::unsetenv("TZ");
    ::tzset();
    EXPECT_EQ(text, "20240131 23:59:07");
}

TEST(TimeStamp, StaysWithinFourDigitsOfYear) {
    double const infinity = std::numeric_limits<double>::infinity();
    struct Case {
        double m_Seconds;
        char const* m_Expected;
    };
    Case const cases[] = {
        {std::nan(""), "20240131 23:59:07"},
        {-std::nan(""), "20240131 23:59:07"},
        {infinity, "20240131 23:59:07"},
        {-infinity, "20240131 23:59:07"},
        {1e300, "99991231 23:59:59"},
        {-1e300, "00000101 00:00:00"},
        {std::numeric_limits<double>::max(), "99991231 23:59:59"},
        {std::numeric_limits<double>::denorm_min(), "20240131 23:59:07"},
        {9.3e18, "99991231 23:59:59"},
        {-9.3e18, "00000101 00:00:00"},
        {253402300799.0 - 1706745547, "99991231 23:59:59"},
        {253402300800.0 - 1706745547, "99991231 23:59:59"},
        {253402300798.0 - 1706745547, "99991231 23:59:58"},
        {-62167219200.0 - 1706745547, "00000101 00:00:00"},
        {-62167219201.0 - 1706745547, "00000101 00:00:00"},
        {-62167219199.0 - 1706745547, "00000101 00:00:01"},
    };
    FixedTime const clock(1706745547);
    for (Case const& row : cases) {
        EXPECT_EQ(bytesOf(GetTimeDate(row.m_Seconds)), row.m_Expected) << row.m_Seconds;
    }
}

TEST(TimeStamp, IsThatOfTheCLibraryFromYear0To9999) {
    constexpr std::int64_t kStep = 3 * 86400 + 12345;
    FixedTime const clock(0);
    for (std::int64_t second = -62167219200; second <= 253402300799; second += kStep) {
        auto const when = static_cast<std::time_t>(second);
        if (when != second) {
            continue;  // no time where time_t has 32 bits
        }
        std::tm utc = {};
        ::gmtime_r(&when, &utc);
        char expected[80];
        std::snprintf(expected, sizeof expected, "%04d%02d%02d %02d:%02d:%02d", utc.tm_year + 1900, utc.tm_mon + 1,
                      utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
        ASSERT_EQ(bytesOf(GetTimeDate(static_cast<double>(second))), expected) << second;
    }
}

TEST(TimeStamp, ComesFromTheSystemsClock) {
    std::time_t const before = ::time(nullptr);
    std::string const text = bytesOf(GetTimeDate(0));
    std::time_t const after = ::time(nullptr);
    std::tm parts = {};
    ASSERT_NE(::strptime(text.c_str(), "%Y%m%d %H:%M:%S", &parts), nullptr) << text;
    std::time_t const stamped = ::timegm(&parts);
    EXPECT_GE(stamped, before);
    EXPECT_LE(stamped, after);
}

}  // namespace
