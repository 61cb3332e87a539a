// The sentences for people. Every row is a message as it was signed and what arrived, with the sentence for it.
#include "diagnosis/explanation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "diagnosis/directoryevidence.h"
#include "sandbox/crypto/signature.h"
#include "sandbox/text/wiretext.h"
#include "tests/sandbox/support/testmerchant.h"

namespace {

using namespace diagnosis;
using sandbox::makeSigningKey;
using sandbox::publicKeyBlob;
using sandbox::signText;
using sandbox::Widening;
using ::testing::HasSubstr;
using ::testing::StartsWith;

std::string const kSigned =
    R"(<KVX MSGTYPE="PayConfirm" KEYID="1-SERVER" TOKEN="a1b2" AMOUNT="12.50" CURRENCY="EUR" NOTE="a b"/>)";

/// A merchant with the key of the server, and nothing else.
class Explain : public ::testing::Test {
protected:
    [[nodiscard]] Explanation of(std::string const& data, std::string const& signature) const {
        Evidence const evidence = keyEvidence("1-SERVER", publicKeyBlob(m_Key.get()), m_Originals, m_Expected);
        return explain(evidence.m_Wording, diagnose(evidence, data, signature));
    }

    /// The explanation for the message after one replacement, under the signature of the unchanged one.
    [[nodiscard]] Explanation after(std::string const& from, std::string const& to) const {
        return of(sandbox::replaceAll(kSigned, from, to), m_Signature);
    }

    sandbox::KeyHolder m_Key = makeSigningKey(1024);
    std::string m_Signature = signText(m_Key.get(), kSigned, Widening::kSign);
    std::vector<SeenMessage> m_Originals;
    Attributes m_Expected;
};

TEST_F(Explain, NamesTheChangeOfAnAttribute) {
    struct Row {
        char const* m_From;
        char const* m_To;
        char const* m_Sentence;
        char const* m_Change;
    };
    for (Row const& row : {
             Row{"12.50", "1.50", "AMOUNT was changed from 12.50 to 1.50", "change AMOUNT to 12.50"},
             Row{"12.50", "9999.00", "AMOUNT was changed from 12.50 to 9999.00", "change AMOUNT to 12.50"},
             Row{"EUR", "JPY", "CURRENCY was changed from EUR to JPY", "change CURRENCY to EUR"},
             Row{" NOTE=", " TIP=\"2\" NOTE=", "TIP was added with the value 2", "remove TIP"},
             Row{" NOTE=", " TIP=\"\" NOTE=", "TIP was added with an empty value", "remove TIP"},
             Row{"a b", "a-b", "NOTE was changed from a b to a-b", "change NOTE to a b"},
             Row{"\"1-SERVER", "\"1-OTHER", "KEYID was changed from 1-SERVER to 1-OTHER", "change KEYID to 1-SERVER"},
         }) {
        Explanation const explanation = after(row.m_From, row.m_To);
        EXPECT_EQ(explanation.m_Sentence, row.m_Sentence);
        EXPECT_EQ(explanation.m_Change, row.m_Change) << row.m_Sentence;
    }
}

TEST_F(Explain, UsesExpectedValues) {
    m_Expected = {{"AMOUNT", "12.50"}, {"TOKEN", "a1b2"}};
    EXPECT_EQ(after("a1b2", "stolen-from-another-order").m_Sentence,
              "TOKEN was changed from a1b2 to stolen-from-another-order");
    EXPECT_EQ(after(" AMOUNT=\"12.50\"", "").m_Sentence, "AMOUNT was removed; its value was 12.50");
    Explanation const both =
        of(sandbox::replaceAll(sandbox::replaceAll(kSigned, "a1b2", "x"), "12.50", "0"), m_Signature);
    EXPECT_EQ(both.m_Sentence, "TOKEN was changed from a1b2 to x; AMOUNT was changed from 12.50 to 0");
    EXPECT_EQ(both.m_Change, "change TOKEN to a1b2; change AMOUNT to 12.50");
}

TEST_F(Explain, UsesOriginals) {
    m_Originals = {{"<KVX MSGTYPE=\"other\"/>", "another", ""}, {kSigned, "the confirmation of yesterday", ""}};
    Explanation const explanation = after("TOKEN=\"a1b2\" AMOUNT=\"12.50\"", "TOKEN=\"new\" AMOUNT=\"1\" MORE=\"m\"");
    EXPECT_EQ(
        explanation.m_Sentence,
        "TOKEN was changed from a1b2 to new; AMOUNT was changed from 12.50 to 1; MORE was added with the value m");
}

TEST_F(Explain, NamesTheDamageOfDataAndOfSignature) {
    EXPECT_EQ(of(kSigned + "\n", m_Signature).m_Sentence,
              "DATA was changed on its way: white space was added at its end");
    EXPECT_EQ(of(kSigned + "\n", m_Signature).m_Change, "white space at the end removed");
    EXPECT_EQ(of(sandbox::replaceAll(kSigned, " ", "+"), m_Signature).m_Sentence,
              "DATA was changed on its way: each space became +");
    EXPECT_EQ(after("EUR\"", "EUR").m_Sentence,
              "DATA was damaged: '\"' was removed after 'NT=\"12.50\" CURRENCY=\"EUR'");
    EXPECT_THAT(after("/>", " />").m_Sentence, StartsWith("The text of DATA was changed: ' ' was added after "));
    std::string changed = m_Signature;
    changed[0] = changed[0] == '0' ? '1' : '0';
    EXPECT_EQ(of(kSigned, changed).m_Sentence,
              std::string("SIGNATURE was changed: '") + m_Signature[0] + "' became '" + changed[0] + "' at the start");
    EXPECT_EQ(of(kSigned, changed).m_Change, "use the signature " + m_Signature);
    EXPECT_THAT(of(kSigned, m_Signature.substr(0, 255)).m_Sentence,
                HasSubstr(std::string("SIGNATURE was changed: '") + m_Signature[255] + "' was removed after '"));
}

TEST_F(Explain, NamesTheCauseWhenNoChangeHelps) {
    struct Row {
        std::string m_Data;
        std::string m_Signature;
        char const* m_Sentence;
    };
    sandbox::KeyHolder const other = makeSigningKey(1024);
    std::string upper = m_Signature;
    for (char& c : upper) {
        c = c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c;
    }
    std::string const unknown = sandbox::replaceAll(kSigned, "1-SERVER", "9-NOBODY");
    for (Row const& row : {
             Row{kSigned, m_Signature, "SIGNATURE verifies DATA with the key '1-SERVER' of the server"},
             Row{"", m_Signature, "There is no DATA"},
             Row{kSigned, "", "There is no SIGNATURE"},
             Row{kSigned, "hello", "SIGNATURE is not hexadecimal"},
             Row{kSigned, upper, "SIGNATURE has upper-case hexadecimal digits"},
             Row{kSigned, signText(other.get(), kSigned, Widening::kSign),
                 "SIGNATURE was not made with the key '1-SERVER' of the server, or more than one digit"},
             Row{unknown, signText(other.get(), unknown, Widening::kSign),
                 "The message names the key '9-NOBODY', which is not the given key"},
             Row{unknown, signText(m_Key.get(), unknown, Widening::kSign),
                 "The signature was made with the key '1-SERVER' of the server, not with the key '9-NOBODY'"},
             Row{kSigned, signText(m_Key.get(), "<KVX MSGTYPE=\"another\"/>", Widening::kSign),
                 "SIGNATURE belongs to another text"},
             Row{kSigned, m_Signature.substr(0, 20), "SIGNATURE has 10 bytes, but signatures of the key '1-SERVER'"},
             Row{"<KVX MSGTYPE=\"a\"/>", m_Signature, "The message has no KEYID"},
         }) {
        EXPECT_THAT(of(row.m_Data, row.m_Signature).m_Sentence, StartsWith(row.m_Sentence));
    }
}

TEST_F(Explain, NeverPrintsControlCharacters) {
    Explanation const explanation = after("EUR", "\x1b[2J\xC2\x9B\xFF\\\xC3\xA9");
    m_Expected = {{"CURRENCY", "EUR"}};
    EXPECT_EQ(after("EUR", "\x1b[2J\xC2\x9B\xFF\\\xC3\xA9").m_Sentence,
              "CURRENCY was changed from EUR to \\x1b[2J\\xc2\\x9b\\xff\\\\\xC3\xA9");
    EXPECT_EQ(explanation.m_Sentence.find('\x1b'), std::string::npos);
}

TEST(Printable, LeavesUtf8AndWritesTheRestInHexadecimal) {
    struct Row {
        char const* m_Text;
        char const* m_Printable;
    };
    for (Row const& row : {
             Row{"plain", "plain"},
             Row{"\t\r\n\x7F", "\\x09\\x0d\\x0a\\x7f"},
             Row{"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x99\x82", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x99\x82"},
             Row{"\xC0\xAF", "\\xc0\\xaf"},
             Row{"\xE0\x80\xAF", "\\xe0\\x80\\xaf"},
             Row{"\xED\xA0\x80", "\\xed\\xa0\\x80"},
             Row{"\xF4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
             Row{"\xF5\x80\x80\x80", "\\xf5\\x80\\x80\\x80"},
             Row{"\xC3", "\\xc3"},
             Row{"\xE2\x82", "\\xe2\\x82"},
             Row{"\x80", "\\x80"},
             Row{"a\\b", "a\\\\b"},
         }) {
        EXPECT_EQ(printable(row.m_Text), row.m_Printable);
    }
}

TEST(ChangedPlace, ReportsWhatDiffersAndWhere) {
    EXPECT_EQ(changedPlace("abc", "abc"), "nothing differs");
    EXPECT_EQ(changedPlace("abc", "xbc"), "'a' became 'x' at the start");
    EXPECT_EQ(changedPlace("abc", "ac"), "'b' was removed after 'a'");
    EXPECT_EQ(changedPlace("aac", "aaac"), "'a' was added after 'aa'");
    EXPECT_EQ(changedPlace("", "x"), "'x' was added at the start");
}

}  // namespace
