// The search for what was signed. Each row of a table is one change of one kind; the search gets what arrived and the
// digest, or the signature, of what was sent.
#include "diagnosis/singlechange.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "sandbox/crypto/signature.h"
#include "sandbox/text/wiretext.h"

namespace {

using namespace diagnosis;
using sandbox::digestOf;
using sandbox::Widening;

std::string const kSigned =
    R"(<KVX MSGTYPE="PayConfirm" KEYID="1-SERVER" TOKEN="a1b2c3d4" AMOUNT="12.50" CURRENCY="EUR" NOTE="Caf)"
    "\xE9"
    R"("/>)";

std::string replaced(std::string const& from, std::string const& to) {
    EXPECT_NE(kSigned.find(from), std::string::npos) << from;
    return sandbox::replaceAll(kSigned, from, to);
}

TEST(FindSignedText, FindsEachSingleChange) {
    struct Row {
        char const* m_Name;
        std::string m_Data;
    };
    for (Row const& row : {
             Row{"a digit was removed", replaced("12.50", "1.50")},
             Row{"a digit was added", replaced("12.50", "112.50")},
             Row{"a digit was changed", replaced("12.50", "12.60")},
             Row{"digits were exchanged", replaced("12.50", "21.50")},
             Row{"another amount", replaced("12.50", "9.99")},
             Row{"another currency", replaced("EUR", "USD")},
             Row{"a letter of the other case", replaced("a1b2", "A1b2")},
             Row{"an attribute was added", replaced(" NOTE=", " MORE=\"x y\" NOTE=")},
             Row{"an attribute was moved ahead", replaced(" CURRENCY=\"EUR\"", "").replace(4, 0, " CURRENCY=\"EUR\"")},
             Row{"an attribute was moved behind",
                 sandbox::replaceAll(replaced(" MSGTYPE=\"PayConfirm\"", ""), "/>", " MSGTYPE=\"PayConfirm\"/>")},
             Row{"a blank before the end", replaced("/>", " />")},
             Row{"an end tag", replaced("/>", "></KVX>")},
             Row{"a quotation mark was lost", replaced("EUR\"", "EUR")},
             Row{"a high byte was lost", replaced("\xE9", "")},
             Row{"a high byte was replaced", replaced("\xE9", "?")},
         }) {
        for (Widening const widening : {Widening::kZero, Widening::kSign}) {
            SearchedText const found =
                findSignedText(row.m_Data, digestOf(kSigned, widening),
                               widening == Widening::kZero ? Digested::kZeroExtended : Digested::kSignExtended, {});
            EXPECT_EQ(found.m_Text, kSigned) << row.m_Name;
        }
    }
}

TEST(FindSignedText, TriesCandidates) {
    struct Row {
        char const* m_Name;
        std::string m_Data;
        sandbox::Attributes m_Candidates;
    };
    for (Row const& row : {
             Row{"one value", replaced("a1b2c3d4", "e5f6"), {{"AMOUNT", "1"}, {"TOKEN", "a1b2c3d4"}}},
             Row{"two values of one name", replaced("1-SERVER", "2-OTHER"), {{"KEYID", "0-1"}, {"KEYID", "1-SERVER"}}},
             Row{"two values at once",
                 sandbox::replaceAll(replaced("a1b2c3d4", "e5f6"), "12.50", "99999.00"),
                 {{"TOKEN", "a1b2c3d4"}, {"AMOUNT", "12.50"}}},
             Row{"an attribute was removed", replaced(" TOKEN=\"a1b2c3d4\"", ""), {{"TOKEN", "a1b2c3d4"}}},
             Row{"the first was removed", replaced(" MSGTYPE=\"PayConfirm\"", ""), {{"MSGTYPE", "PayConfirm"}}},
         }) {
        std::string const digest = digestOf(kSigned, Widening::kSign);
        EXPECT_EQ(findSignedText(row.m_Data, digest, Digested::kSignExtended, row.m_Candidates).m_Text, kSigned)
            << row.m_Name;
    }
    std::string const escaped = "<KVX A=\"1 &lt; 2 &amp; &quot;3&quot; &gt; &apos;\"/>";
    EXPECT_EQ(findSignedText("<KVX A=\"x\"/>", digestOf(escaped, Widening::kZero), Digested::kZeroExtended,
                             {{"A", "1 < 2 & \"3\" > '"}})
                  .m_Text,
              escaped);
}

TEST(FindSignedText, FindsNothingInAnotherText) {
    SearchedText const found = findSignedText("<KVX A=\"b\" C=\"d\"/>", digestOf("another text", Widening::kZero),
                                              Digested::kZeroExtended, {});
    EXPECT_FALSE(found.m_Text);
    EXPECT_TRUE(found.m_Complete);
    for (std::string const text : {"", "<", "=", "=\"", " =\"", " A=\"", " A='b", "A=\"b\"", "\0"}) {
        EXPECT_FALSE(findSignedText(text, digestOf("another text", Widening::kZero), Digested::kBytes, {}).m_Text)
            << text;
    }
}

TEST(FindSignedText, FindsASingleByteInAnyText) {
    for (std::string const text : {"", "x", "xy"}) {
        std::string const one = text + "\xFF";
        EXPECT_EQ(findSignedText(text, digestOf(one, Widening::kZero), Digested::kZeroExtended, {}).m_Text, one);
    }
}

TEST(FindSignedText, GivesUpWhenTheTextIsTooLong) {
    std::string const text = "<KVX A=\"" + std::string(20000, 'x') + "\"/>";
    SearchedText const found =
        findSignedText(text, digestOf("another text", Widening::kZero), Digested::kZeroExtended, {}, 10'000'000);
    EXPECT_FALSE(found.m_Text);
    EXPECT_FALSE(found.m_Complete);
}

TEST(FindSignedText, EndsSoonWithManyAttributes) {
    constexpr int kAttributes = 20'000;  // As many times as many places are too many to copy what lies between them.
    std::string text = "<KVX";
    for (int number = 0; number < kAttributes; ++number) {
        text += " A" + std::to_string(number) + "=\"x\"";
    }
    SearchedText const found =
        findSignedText(text + "/>", digestOf("another text", Widening::kZero), Digested::kZeroExtended, {}, 10'000'000);
    EXPECT_FALSE(found.m_Text);
    EXPECT_FALSE(found.m_Complete);
}

class FindSignature : public ::testing::Test {
protected:
    sandbox::KeyHolder m_Key = sandbox::makeSigningKey(512);
    std::string m_Signature = sandbox::signText(m_Key.get(), kSigned, Widening::kSign);
};

TEST_F(FindSignature, FindsEachChangedDigit) {
    for (std::size_t at = 0; at < m_Signature.size(); ++at) {
        std::string changed = m_Signature;
        changed[at] = changed[at] == '0' ? '1' : '0';
        EXPECT_EQ(findSignature(m_Key.get(), kSigned, changed), m_Signature) << at;
    }
}

TEST_F(FindSignature, FindsLostAddedAndExchangedDigits) {
    std::string text = m_Signature;
    EXPECT_EQ(findSignature(m_Key.get(), kSigned, text.erase(17, 1)), m_Signature);
    EXPECT_EQ(findSignature(m_Key.get(), kSigned, m_Signature.substr(1)), m_Signature);
    EXPECT_EQ(findSignature(m_Key.get(), kSigned, m_Signature.substr(0, 127)), m_Signature);
    EXPECT_EQ(findSignature(m_Key.get(), kSigned, m_Signature + "0"), m_Signature);
    EXPECT_EQ(findSignature(m_Key.get(), kSigned, "f" + m_Signature), m_Signature);
    text = m_Signature;
    text[40] = 'O';
    EXPECT_EQ(findSignature(m_Key.get(), kSigned, text), m_Signature);
    std::size_t at = 0;
    while (m_Signature[at] == m_Signature[at + 1]) {
        ++at;
    }
    text = m_Signature;
    std::swap(text[at], text[at + 1]);
    EXPECT_EQ(findSignature(m_Key.get(), kSigned, text), m_Signature);
}

TEST_F(FindSignature, FindsNothingElse) {
    std::string text = m_Signature;
    text[3] = text[3] == '0' ? '1' : '0';
    text[90] = text[90] == '0' ? '1' : '0';
    EXPECT_FALSE(findSignature(m_Key.get(), kSigned, text));
    EXPECT_FALSE(findSignature(m_Key.get(), kSigned + " ", m_Signature));
    EXPECT_FALSE(findSignature(m_Key.get(), kSigned, ""));
    EXPECT_FALSE(findSignature(m_Key.get(), kSigned, m_Signature.substr(2)));
}

}  // namespace
