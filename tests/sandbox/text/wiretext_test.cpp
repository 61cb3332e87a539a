// The text forms of bytes: hexadecimal, percent-encoding, Basic credentials, query strings, times. Tables hold texts
// and bytes; refusals are compared with their reasons.
#include "sandbox/text/wiretext.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "sandbox/text/httperror.h"

namespace {

using namespace sandbox;

TEST(Hex, WritesLowerCaseAndReadsItBack) {
    std::string const bytes("\x00\x7f\xE9\xff", 4);
    EXPECT_EQ(toHex(bytes), "007fe9ff");
    EXPECT_EQ(fromHex("007fe9ff"), bytes);
    EXPECT_EQ(fromHex(""), "");
}

TEST(Hex, RefusesUpperCaseOddLengthsAndForeignCharacters) {
    for (char const* text : {"0A", "0", "0a0", "0g", " 0", "0x", "-1"}) {
        EXPECT_EQ(fromHex(text), std::nullopt) << text;
    }
}

TEST(PercentEncoding, LeavesOnlyLettersAndDigitsAsTheyAre) {
    EXPECT_EQ(percentEncode("aZ09 -_.~+/\xE9"), "aZ09%20%2d%5f%2e%7e%2b%2f%e9");
}

TEST(PercentEncoding, IsUndoneForEveryByte) {
    std::string all;
    for (int byte = 0; byte < 256; ++byte) {
        all += static_cast<char>(byte);
    }
    EXPECT_EQ(percentDecode(percentEncode(all)), all);
}

TEST(PercentEncoding, KeepsAPlusAPlus) {
    EXPECT_EQ(percentDecode("a+b%2B"), "a+b+");
}

TEST(PercentEncoding, RefusesCutAndForeignDigits) {
    for (char const* text : {"%", "%4", "a%", "%4g", "%g4", "%%41", "% 1"}) {
        EXPECT_EQ(percentDecode(text), std::nullopt) << text;
    }
}

TEST(ReplaceAll, PutsOneTextInThePlaceOfAnother) {
    EXPECT_EQ(replaceAll("", "a", "b"), "");
    EXPECT_EQ(replaceAll("xyz", "a", "b"), "xyz");
    EXPECT_EQ(replaceAll("a+b+", "+", "%20"), "a%20b%20");
    EXPECT_EQ(replaceAll("&amp;amp;&amp;", "&amp;", "&"), "&amp;&");
    EXPECT_EQ(replaceAll("\n\n", "\n", "\r\n"), "\r\n\r\n");
    EXPECT_EQ(replaceAll("aaa", "aa", ""), "a");
}

TEST(Base64, ReadsTheFormWithoutPadding) {
    // Each row: text of the header, bytes.
    struct Row {
        char const* m_Text;
        char const* m_Bytes;
    };
    for (Row const& row : {Row{"AAAA", ""}, Row{"OgAA", ":"}, Row{"YWIA", "ab"}, Row{"YWJjAAAA", "abc"},
                           Row{"ZGVtbzpkZW1vAAAA", "demo:demo"}}) {
        EXPECT_EQ(decodeBase64(row.m_Text), row.m_Bytes) << row.m_Text;
    }
}

TEST(Base64, ReadsTheFormWithPadding) {
    EXPECT_EQ(decodeBase64("Og=="), ":");
    EXPECT_EQ(decodeBase64("YWI="), "ab");
    EXPECT_EQ(decodeBase64("ZGVtbzpkZW1v"), "demo:demo");
    EXPECT_EQ(decodeBase64("6f//"), "\xE9\xff\xff");
}

TEST(Base64, RefusesForeignCharactersAndCutGroups) {
    for (char const* text : {"A", "AB", "ABC", "ABC D", "A=BC", "====", "YW\xE9=", "YWI=YWI="}) {
        EXPECT_EQ(decodeBase64(text), std::nullopt) << text;
    }
}

TEST(Query, FindsDecodedValuesByExactName) {
    Query const query("DATA=a%3db+c&data=x&SIGNATURE=&FLAG&");
    EXPECT_EQ(query.value("DATA"), "a=b+c");
    EXPECT_EQ(query.value("SIGNATURE"), "");
    EXPECT_EQ(query.value("FLAG"), "");
    EXPECT_EQ(query.value("OTHER"), std::nullopt);
    EXPECT_EQ(Query("").value("DATA"), std::nullopt);
}

TEST(Query, KeepsAnEqualsSignInsideTheValue) {
    EXPECT_EQ(Query("a=b=c").value("a"), "b=c");
}

TEST(Query, RefusesARepeatedName) {
    EXPECT_THROW((void)Query("DATA=1&DATA=1").value("DATA"), HttpError);
}

TEST(Query, RefusesBrokenEncodingOfTheNameAskedFor) {
    Query const query("DATA=%zz&OK=1");
    EXPECT_THROW((void)query.value("DATA"), HttpError);
    EXPECT_EQ(query.value("OK"), "1");
}

TEST(RandomHex, DiffersFromCallToCall) {
    EXPECT_EQ(randomHex(16).size(), 32u);
    EXPECT_NE(randomHex(16), randomHex(16));
}

TEST(ParseExpiration, ReadsUtc) {
    EXPECT_EQ(parseExpiration("20231114 22:13:20"), std::time_t{1700000000});
    EXPECT_EQ(parseExpiration("19700101 00:00:00"), std::time_t{0});
    EXPECT_EQ(parseExpiration("20240229 23:59:59"), std::time_t{1709251199});
}

TEST(ParseExpiration, RefusesOtherFormsAndUnrealDates) {
    for (char const* text :
         {"", "20231114", "20231114 22:13", "20231114T22:13:20", "2023-11-14 22:13:20", "20231114 22:13:20 ",
          " 0231114 22:13:20", "+0231114 22:13:20", "20230229 00:00:00", "20231301 00:00:00", "20230001 00:00:00",
          "20231132 00:00:00", "2023111422:13:20x", "20231114  2:13:20", "20231114 22:13:2 ", "20231114 -2:13:20",
          "20231114 24:00:00", "20231114 22:60:00", "20231114 22:13:60"}) {
        EXPECT_EQ(parseExpiration(text), std::nullopt) << text;
    }
}

TEST(UtcText, WritesUtc) {
    EXPECT_EQ(utcText(1700000000), "2023-11-14T22:13:20Z");
}

}  // namespace
