// Escaping and unescaping of the five entities.
//
// All 256 bytes go through both directions beside a reference that was written apart; random texts must come back
// unchanged.

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/random.h"
#include "tests/support/tbtext.h"
#include "tests/xml/xmlreference.h"
#include "tests/xml/xmlsupport.h"
#include "xml/xmlentities.h"
#include "xml/xmlscan.h"

using namespace kvxtest;

namespace {

std::string encoded(std::string const& text) {
    TbString out("what was there before");
    XMLEncode(stringOf(text), out);
    return bytesOf(out);
}

std::string decoded(std::string const& text) {
    TbString out("what was there before");
    XMLDecode(stringOf(text), out);
    return bytesOf(out);
}

std::string const kAllBytes = [] {
    std::string all;
    for (int i = 0; i < 256; ++i) {
        all += static_cast<char>(static_cast<unsigned char>(i));
    }
    return all;
}();

TEST(XmlEncode, ReplacesTheFiveCharacters) {
    EXPECT_EQ(encoded("a<b & \"c\""), "a&lt;b &amp; &quot;c&quot;");
    EXPECT_EQ(encoded("'>'"), "&apos;&gt;&apos;");
    EXPECT_EQ(encoded("&amp;"), "&amp;amp;");
    EXPECT_EQ(encoded(""), "");
    EXPECT_EQ(encoded("plain"), "plain");
}

TEST(XmlEncode, TouchesNoOtherByte) {
    EXPECT_EQ(encoded(kAllBytes), referenceEncoded(kAllBytes));
    EXPECT_EQ(encoded(kAllBytes).size(), 256U + 5 + 4 + 5 + 3 + 3);
}

TEST(XmlEncode, PassesSecrecyOnInBothDirections) {
    TbString secret;
    secret.keepSecret();
    secret.assign("a&amp;b");
    TbString decoded;
    XMLDecode(secret, decoded);
    EXPECT_TRUE(decoded.isSecret());
    TbString encoded;
    XMLEncode(secret, encoded);
    EXPECT_TRUE(encoded.isSecret());
    TbString plain;
    XMLEncode("a&b", plain);
    XMLDecode(plain, plain);
    EXPECT_FALSE(plain.isSecret());
}

TEST(XmlEncode, TakesOneStringForBoth) {
    TbString text("a&b");
    XMLEncode(text, text);
    EXPECT_EQ(bytesOf(text), "a&amp;b");
}

TEST(XmlDecode, IsTheInverse) {
    EXPECT_EQ(decoded("a&lt;b &amp; &quot;c&quot;"), "a<b & \"c\"");
    EXPECT_EQ(decoded("&apos;&gt;&apos;"), "'>'");
    EXPECT_EQ(decoded("&amp;amp;"), "&amp;");
    EXPECT_EQ(decoded(encoded(kAllBytes)), kAllBytes);
    EXPECT_EQ(decoded(""), "");
}

TEST(XmlDecode, DropsUnknownEntities) {
    EXPECT_EQ(decoded("x&unknown;y"), "xy");
    EXPECT_EQ(decoded("x&#8364;y"), "xy");
    EXPECT_EQ(decoded("x&a;y"), "xy");
    EXPECT_EQ(decoded("x&;y"), "xy");
    EXPECT_EQ(decoded("x&abcd;y"), "xy");   // fills the window exactly
    EXPECT_EQ(decoded("x&abcde;y"), "xy");  // one more: the skipped character alone would leave the semicolon
    EXPECT_EQ(decoded("x&LT;y"), "xy");
    EXPECT_EQ(decoded("x&nbsp_2.0-a;y"), "xy");
}

TEST(XmlDecode, EndsWithTheInput) {
    EXPECT_EQ(decoded("x&lt"), "x<");
    EXPECT_EQ(decoded("x&quot"), "x\"");
    EXPECT_EQ(decoded("x&"), "x");
    EXPECT_EQ(decoded("x&am"), "x");
    EXPECT_EQ(decoded("x&unkn"), "x");
    EXPECT_EQ(decoded("x&unkno"), "x");
    EXPECT_EQ(decoded("x&lt;"), "x<");
}

// The window of five characters and the one that is skipped behind it are part of the stored format.
TEST(XmlDecode, KeepsTheWindowOfFiveCharacters) {
    EXPECT_EQ(decoded("AT & T rest"), "AT st");
    EXPECT_EQ(decoded("&quotX"), "\"");
    EXPECT_EQ(decoded("&aposX;"), "';");
    EXPECT_EQ(decoded("&&amp;"), "");
    EXPECT_EQ(decoded("&lt b;c"), "c");
    EXPECT_EQ(decoded("&unknown"), "wn");  // no semicolon: not well formed
    EXPECT_EQ(decoded("&unkn&own;z"), "own;z");
    EXPECT_EQ(decoded("&unkno&own;z"), "z");  // the second ampersand begins another one
    EXPECT_EQ(decoded("&unknow n;z"), "w n;z");
    EXPECT_EQ(decoded("&unkn:own;z"), "own;z");
}

TEST(XmlDecode, KeepsBytesOfAnyKind) {
    std::string const text("a\0b\x80\xff&\0;c", 9);
    EXPECT_EQ(decoded(text), std::string("a\0b\x80\xff"
                                         "c",
                                         6));
}

TEST(XmlDecode, TakesOneStringForBoth) {
    TbString text("a&lt;b");
    XMLDecode(text, text);
    EXPECT_EQ(bytesOf(text), "a<b");
}

TEST(XmlDecode, AgreesWithTheReferenceOnRandomText) {
    SCOPED_TRACE("seed " + std::to_string(testSeed()));
    Random random;
    static char const* const kPieces[] = {"&", ";",   "amp", "&amp;", "lt", "&quot", "&#1",
                                          "a", "bcd", " ",   "\x80",  "#",  "<"};
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        for (std::size_t left = random.below(12); left > 0; --left) {
            text += kPieces[random.below(std::size(kPieces))];
        }
        ASSERT_EQ(decoded(text), referenceDecoded(text)) << text;
        ASSERT_EQ(encoded(text), referenceEncoded(text)) << text;
        ASSERT_EQ(decoded(encoded(text)), text);
    }
}

xmlSlice sliceOf(std::string const& text) {
    return {text.data(), static_cast<std::uint32_t>(text.size())};
}

/// Compares what is known of a text as a slice with what encoding and decoding make of the whole of it.
void expectSlicesAgree(std::string const& text) {
    std::string const whole = encoded(text);
    EXPECT_EQ(xmlPlainLength(sliceOf(text)), std::min(text.size(), text.find_first_of("&<>\"'"))) << text;
    EXPECT_EQ(xmlEncodedLength(sliceOf(text)), whole.size()) << text;
    EXPECT_EQ(xmlIsEncoded(sliceOf(text)), encoded(decoded(text)) == text) << text;
    std::string written(whole.size(), '?');
    EXPECT_EQ(xmlEncodeTo(sliceOf(text), written.data()), written.data() + written.size());
    EXPECT_EQ(written, whole);
    TbString appended("before");
    xmlDecodeInto({sliceOf(text), false}, appended);
    EXPECT_EQ(bytesOf(appended), "before" + decoded(text));
}

// Characters are searched in steps of 16 bytes: each of the five stands at every place of three steps.
TEST(XmlSlices, AgreeWithWholeTextsAtEveryPlace) {
    for (std::string const piece : {"&", "<", ">", "\"", "'", "&amp;", "&lt;", "&gt;", "&quot;", "&apos;", "&quotX",
                                    "&amp", "&unknown;", "&;", "\x80", ""}) {
        for (std::size_t before = 0; before < 48; ++before) {
            for (std::size_t const after : {0U, 1U, 2U, 5U, 16U, 40U}) {
                expectSlicesAgree(std::string(before, 'x') + piece + std::string(after, ';'));
                expectSlicesAgree(std::string(before, 'x') + piece + std::string(after, 'y'));
            }
        }
    }
}

TEST(XmlSlices, KnowNamesAtEveryPlace) {
    for (int byte = 0; byte < 256; ++byte) {
        char const character = static_cast<char>(byte);
        for (std::size_t before = 0; before < 34; ++before) {
            for (std::size_t const after : {0U, 1U, 15U, 16U, 32U}) {
                std::string const text = std::string(before, 'n') + character + std::string(after, 'n');
                EXPECT_EQ(xmlNameLength(sliceOf(text)), isAlnum(character) != 0 ? text.size() : before) << byte;
            }
        }
    }
}

TEST(XmlSlices, EndWhereATextIsNotEncoded) {
    struct Row {
        char const* m_Text;
        std::uint32_t m_Length;
    };
    for (Row const& row : {Row{"", 0}, Row{"a", 1}, Row{"&amp;", 5}, Row{"a&lt;b&gt;c", 11}, Row{"&quot;&apos;\"", 12},
                           Row{"a'", 1}, Row{"<", 0}, Row{"&amp;>", 5}, Row{"&amp", 0}, Row{"&lt;&x;", 4}, Row{"&;", 0},
                           Row{"&quot", 0}, Row{"a&&amp;", 1}, Row{"&ampx;", 0}}) {
        EXPECT_EQ(xmlEncodedPrefix(sliceOf(row.m_Text)), row.m_Length) << row.m_Text;
    }
}

TEST(XmlSlices, AgreeWithWholeTextsAtRandom) {
    SCOPED_TRACE("seed " + std::to_string(testSeed()));
    Random random;
    static std::string const kPieces[] = {"&amp;", "&lt;", "&gt;", "&quot;", "&apos;", "plain", "&x;", "&", "<", ";"};
    int kept = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        std::size_t const pieces = random.below(2) == 0 ? 6 : std::size(kPieces);
        for (std::size_t left = random.below(10); left > 0; --left) {
            text += kPieces[random.below(pieces)];
        }
        expectSlicesAgree(text);
        kept += xmlIsEncoded(sliceOf(text)) && !text.empty() ? 1 : 0;
    }
    EXPECT_GT(kept, 1000);
}

}  // namespace
