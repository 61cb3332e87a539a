// The check of a signature. Sections: valid signatures, missing or unreadable texts, wrong signatures,
// wrong keys, another message than the signed one, damaged messages with their repairs, pasted texts. The fixture makes
// two keys of the service and two of merchants for each test.
#include "diagnosis/diagnosis.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/rsa.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/crypto/signature.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/wiretext.h"
#include "tests/sandbox/support/testmerchant.h"

/// The check of a signature: valid signatures, wrong ones with the reason, repairs, pasted texts.
namespace {

using namespace diagnosis;
using namespace sandbox;
using sandboxtest::TestMerchant;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

/// Two keys of the service, two merchants with one key each, and signed messages.
class Diagnose : public ::testing::Test {
protected:
    Diagnose() {
        m_Keys.push_back({"1-SERVER-1", "", false, makeSigningKey(512)});
        m_Keys.push_back({"1-SERVER-2", "", true, makeSigningKey(512)});
        m_Keys.push_back({m_Merchant.keyId(), "demo", false, readPublicKeyBlob(m_Merchant.blob())});
        m_Keys.push_back({"0-1002-big", "other", false, makeSigningKey(1024)});
    }

    [[nodiscard]] EVP_PKEY* serverKey() const { return m_Keys[1].m_Key.get(); }
    [[nodiscard]] EVP_PKEY* bigKey() const { return m_Keys[3].m_Key.get(); }

    [[nodiscard]] Diagnosis of(std::string const& data, std::string const& signature) const {
        Recall const recall = [this](KnownKey const&, std::string const& digest) {
            for (std::string const& text : m_Seen) {
                if (digest == digestOf(text, Widening::kZero) || digest == digestOf(text, Widening::kSign)) {
                    return std::optional<SeenMessage>({text, "what was seen", "/seen"});
                }
            }
            return std::optional<SeenMessage>();
        };
        return diagnose({m_Keys, recall, m_Wording, m_SearchesChanges}, data, signature);
    }

    /// The result for `sent` with the merchant's signature of `signedText`.
    [[nodiscard]] Diagnosis afterDamage(std::string const& signedText, std::string const& sent) const {
        return of(sent, m_Merchant.sign(signedText));
    }

    /// RSA with the key of 1024 bits over `block`, with a padding of the library.
    [[nodiscard]] std::string signBlock(std::string const& block, int padding) const {
        KeyContextHolder const context(EVP_PKEY_CTX_new(bigKey(), nullptr));
        std::size_t length = 128;
        std::string signature(length, '\0');
        EXPECT_EQ(EVP_PKEY_sign_init(context.get()), 1);
        EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(context.get(), padding), 1);
        if (padding == RSA_PKCS1_PSS_PADDING) {
            EXPECT_EQ(EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha1()), 1);
        }
        EXPECT_EQ(EVP_PKEY_sign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                                reinterpret_cast<unsigned char const*>(block.data()), block.size()),
                  1);
        return toHex(signature);
    }

    TestMerchant m_Merchant{"0-1001-testkey"};
    std::vector<KnownKey> m_Keys;
    Wording const m_Wording{"this service", "is not known here",
                            "Nor does it belong to another message: all were searched."};
    bool m_SearchesChanges = false;
    std::vector<std::string> m_Seen;  ///< Messages stored by the service.
    std::string const m_Text = "<KVX MSGTYPE=\"PayInit\" KEYID=\"0-1001-testkey\" NOTE=\"Caf\xE9\"/>";
    std::string const m_Plain = "<KVX MSGTYPE=\"PayInit\" KEYID=\"0-1001-testkey\" NOTE=\"Tea\"/>";
    std::string const m_Confirm = "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"1-SERVER-2\" NOTE=\"Caf\xE9\"/>";
    std::string const m_BigText = "<KVX MSGTYPE=\"PayInit\" KEYID=\"0-1002-big\" NOTE=\"Caf\xE9\"/>";
};

std::vector<Finding> findingsOf(Diagnosis const& result) {
    std::vector<Finding> findings;
    for (Remark const& remark : result.m_Remarks) {
        findings.push_back(remark.m_Finding);
    }
    return findings;
}

std::string textsOf(Diagnosis const& result) {
    std::string texts;
    for (Remark const& remark : result.m_Remarks) {
        texts += remark.m_Text + "\n";
    }
    return texts;
}

/// The repair with which the signature verifies; empty for none, or when anything else is wrong.
std::string repairOf(Diagnosis const& result) {
    if (result.m_Right || result.m_Matches.size() != 1 || result.m_Matches[0].m_KeyId != "0-1001-testkey" ||
        result.m_Matches[0].m_Digested != Digested::kZeroExtended ||
        result.m_Matches[0].m_Wrapping != Wrapping::kBare) {
        return "";
    }
    EXPECT_THAT(findingsOf(result), Contains(Finding::kDamaged));
    EXPECT_THAT(textsOf(result), HasSubstr("after this change: " + result.m_Matches[0].m_Repair));
    return result.m_Matches[0].m_Repair;
}

// --- Valid signatures

TEST_F(Diagnose, FindsAMerchantsSignatureRight) {
    Diagnosis const result = of(m_Text, m_Merchant.sign(m_Text));
    EXPECT_TRUE(result.m_Right);
    EXPECT_THAT(findingsOf(result), ElementsAre(Finding::kRight));
    ASSERT_TRUE(result.m_Key);
    EXPECT_EQ(result.m_Key->m_Account, "demo");
    EXPECT_EQ(result.m_KeyId, "0-1001-testkey");
    EXPECT_EQ(result.m_Message->find("NOTE"), "Caf\xE9");
    EXPECT_EQ(result.m_HeldDigest, result.m_ZeroDigest);
    EXPECT_NE(result.m_ZeroDigest, result.m_SignDigest);
    ASSERT_EQ(result.m_Matches.size(), 1u);
    EXPECT_EQ(result.m_Matches[0].m_Digested, Digested::kZeroExtended);
    EXPECT_EQ(result.m_Matches[0].m_Repair, "");
    EXPECT_THAT(textsOf(result), HasSubstr("the merchant demo"));
}

TEST_F(Diagnose, FindsTheServicesSignatureRight) {
    Diagnosis const result = of(m_Confirm, signText(serverKey(), m_Confirm, Widening::kSign));
    EXPECT_TRUE(result.m_Right);
    EXPECT_THAT(findingsOf(result), ElementsAre(Finding::kRight));
    EXPECT_TRUE(result.m_Key->ofService());
    EXPECT_TRUE(result.m_Key->m_Current);
    EXPECT_EQ(result.m_HeldDigest, result.m_SignDigest);
    EXPECT_THAT(textsOf(result), HasSubstr("this service"));
}

TEST_F(Diagnose, FindsBothRightInPlainAscii) {
    EXPECT_TRUE(of(m_Plain, m_Merchant.sign(m_Plain)).m_Right);
    EXPECT_TRUE(of(m_Plain, m_Merchant.sign(m_Plain, true)).m_Right);
    std::string const confirm = "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"1-SERVER-2\"/>";
    Diagnosis const result = of(confirm, signText(serverKey(), confirm, Widening::kZero));
    EXPECT_TRUE(result.m_Right);
    EXPECT_EQ(result.m_Matches.at(0).m_Digested, Digested::kSignExtended);
    EXPECT_EQ(result.m_ZeroDigest, result.m_SignDigest);
}

TEST_F(Diagnose, GivesTheDigestsOfTheCommandLine) {
    // printf 'a\0\351\0' | sha1sum, and with \351\377
    Diagnosis const result = of("a\xE9", "");
    EXPECT_EQ(result.m_ZeroDigest, "2820e15aa1975cd1903b8024868aaa2033d2a2a9");
    EXPECT_EQ(result.m_SignDigest, "8025c09662631a1993bb93b0acd4e6f06a79067e");
}

TEST_F(Diagnose, ReportsThatAKeyOfTheServiceIsOld) {
    std::string const text = "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"1-SERVER-1\"/>";
    Diagnosis const result = of(text, signText(m_Keys[0].m_Key.get(), text, Widening::kSign));
    EXPECT_TRUE(result.m_Right);
    EXPECT_THAT(findingsOf(result), ElementsAre(Finding::kKeyOld, Finding::kRight));
    EXPECT_FALSE(result.m_Key->m_Current);
}

// --- Missing or unreadable texts

TEST_F(Diagnose, ReportsWhatIsMissing) {
    EXPECT_THAT(findingsOf(of("", "00")), ElementsAre(Finding::kDataMissing));
    EXPECT_THAT(findingsOf(of(m_Text, "")), ElementsAre(Finding::kSignatureMissing));
    EXPECT_EQ(of(m_Text, "").m_ZeroDigest.size(), 40u);
    EXPECT_EQ(of(m_Text, "").m_KeyId, "0-1001-testkey");
}

TEST_F(Diagnose, ReportsThatDataIsNoMessage) {
    for (std::string const data : {"<KVX", "hello", "<KVX MSGTYPE=\"a\" MSGTYPE=\"b\"/>"}) {
        Diagnosis const result = of(data, m_Merchant.sign(data));
        EXPECT_THAT(findingsOf(result), ElementsAre(Finding::kNoMessage)) << data;
        EXPECT_FALSE(result.m_Right);
        EXPECT_FALSE(result.m_Message);
        EXPECT_EQ(result.m_Matches.size(), 1u);
    }
    std::string const withZero("<KVX MSGTYPE=\"a\"/>\0", 19);
    EXPECT_THAT(textsOf(of(withZero, m_Merchant.sign(withZero))), HasSubstr("zero byte"));
}

TEST_F(Diagnose, ReportsThatNoKeyIsNamed) {
    std::string const text = "<KVX MSGTYPE=\"PayInit\"/>";
    Diagnosis const result = of(text, m_Merchant.sign(text));
    EXPECT_THAT(findingsOf(result), ElementsAre(Finding::kKeyIdMissing));
    EXPECT_FALSE(result.m_Right);
    EXPECT_EQ(result.m_Matches.at(0).m_KeyId, "0-1001-testkey");
}

TEST_F(Diagnose, ReportsThatTheKeyIsUnknown) {
    std::string const text = "<KVX MSGTYPE=\"PayInit\" KEYID=\"nobody\"/>";
    Diagnosis const result = of(text, TestMerchant("nobody").sign(text));
    EXPECT_THAT(findingsOf(result), ElementsAre(Finding::kKeyUnknown, Finding::kNothingFits));
    EXPECT_FALSE(result.m_Key);
    EXPECT_THAT(textsOf(result), HasSubstr("any of the 4 known keys"));
}

TEST_F(Diagnose, ReportsThatSignatureIsNotHexadecimal) {
    Diagnosis const odd = of(m_Text, m_Merchant.sign(m_Text).substr(1));
    EXPECT_THAT(findingsOf(odd), ElementsAre(Finding::kNotHexadecimal));
    EXPECT_THAT(textsOf(odd), HasSubstr("127 hexadecimal digits"));
    Diagnosis const foreign = of(m_Text, "0x12");
    EXPECT_THAT(findingsOf(foreign), ElementsAre(Finding::kNotHexadecimal));
    EXPECT_THAT(textsOf(foreign), HasSubstr("character number 2"));
}

// --- Wrong signatures

TEST_F(Diagnose, ReportsUpperCase) {
    std::string upper = m_Merchant.sign(m_Text);
    for (char& c : upper) {
        c = c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c;
    }
    ASSERT_NE(upper, m_Merchant.sign(m_Text));
    Diagnosis const result = of(m_Text, upper);
    EXPECT_FALSE(result.m_Right);
    EXPECT_THAT(findingsOf(result), ElementsAre(Finding::kUpperCase));
    EXPECT_EQ(result.m_Matches.size(), 1u);
    EXPECT_EQ(result.m_HeldDigest, result.m_ZeroDigest);
}

TEST_F(Diagnose, ReportsAWrongLength) {
    Diagnosis const cut = of(m_Text, m_Merchant.sign(m_Text).substr(0, 126));
    EXPECT_THAT(findingsOf(cut), ElementsAre(Finding::kWrongLength, Finding::kUnreadable, Finding::kNothingFits));
    EXPECT_THAT(textsOf(cut), HasSubstr("63 bytes, but signatures of the key '0-1001-testkey' of 512 bits have 64"));
    Diagnosis const longer = of(m_Text, m_Merchant.sign(m_Text) + "00");
    EXPECT_THAT(findingsOf(longer), ElementsAre(Finding::kWrongLength, Finding::kNothingFits));
    EXPECT_EQ(longer.m_HeldDigest, "");
}

TEST_F(Diagnose, FindsLostZeroBytesBeforeTheSignature) {
    std::string text;
    std::string signature;
    for (int tries = 0; tries < 10000 && signature.compare(0, 2, "00") != 0; ++tries) {
        text = "<KVX MSGTYPE=\"PayInit\" KEYID=\"0-1001-testkey\" N=\"" + std::to_string(tries) + "\"/>";
        signature = m_Merchant.sign(text);
    }
    ASSERT_EQ(signature.compare(0, 2, "00"), 0) << "no such signature found";
    EXPECT_TRUE(of(text, signature).m_Right);
    Diagnosis const result = of(text, signature.substr(2));
    EXPECT_FALSE(result.m_Right);
    EXPECT_THAT(findingsOf(result), Each(Finding::kWrongLength));
    EXPECT_TRUE(result.m_Matches.at(0).m_ZerosLost);
    EXPECT_THAT(textsOf(result), HasSubstr("lacks leading zero bytes"));
}

TEST_F(Diagnose, ReportsAChangedSignature) {
    std::string signature = m_Merchant.sign(m_Text);
    signature.back() = signature.back() == '0' ? '1' : '0';
    Diagnosis const result = of(m_Text, signature);
    EXPECT_THAT(findingsOf(result), ElementsAre(Finding::kUnreadable, Finding::kNothingFits));
    EXPECT_EQ(result.m_HeldDigest, "");
    EXPECT_THAT(result.m_Matches, IsEmpty());
}

TEST_F(Diagnose, ReportsThatSomethingElseWasSigned) {
    Diagnosis const result = of(m_Text, m_Merchant.sign("something else"));
    EXPECT_THAT(findingsOf(result), ElementsAre(Finding::kOtherDigest, Finding::kNothingFits));
    EXPECT_EQ(result.m_HeldDigest, toHex(digestOf("something else", Widening::kZero)));
}

TEST_F(Diagnose, ReportsADigestInfo) {
    std::string const wrapped =
        fromHex("3021300906052b0e03021a05000414").value() + digestOf(m_BigText, Widening::kZero);
    Diagnosis const result = of(m_BigText, signBlock(wrapped, RSA_PKCS1_PADDING));
    EXPECT_FALSE(result.m_Right);
    EXPECT_THAT(findingsOf(result), ElementsAre(Finding::kWrongWrapping));
    EXPECT_EQ(result.m_Matches.at(0).m_Wrapping, Wrapping::kDigestInfo);
    EXPECT_EQ(result.m_HeldDigest, result.m_ZeroDigest);
    EXPECT_THAT(textsOf(result), HasSubstr("35 bytes"));
}

TEST_F(Diagnose, ReportsOtherContent) {
    Diagnosis const result = of(m_BigText, signBlock(std::string(32, 'x'), RSA_PKCS1_PADDING));
    EXPECT_THAT(findingsOf(result), ElementsAre(Finding::kWrongWrapping, Finding::kNothingFits));
    EXPECT_EQ(result.m_HeldDigest, toHex(std::string(32, 'x')));
    EXPECT_THAT(textsOf(result), HasSubstr("32 bytes"));
    // As long as a DigestInfo, but not one.
    EXPECT_THAT(textsOf(of(m_BigText, signBlock(std::string(35, 'x'), RSA_PKCS1_PADDING))),
                HasSubstr("contains 35 bytes"));
}

TEST_F(Diagnose, ReportsForeignPadding) {
    std::string const digest = digestOf(m_BigText, Widening::kZero);
    Diagnosis const unpadded = of(m_BigText, signBlock(std::string(108, '\0') + digest, RSA_NO_PADDING));
    EXPECT_THAT(findingsOf(unpadded), ElementsAre(Finding::kWrongWrapping));
    EXPECT_EQ(unpadded.m_Matches.at(0).m_Wrapping, Wrapping::kUnpadded);
    EXPECT_EQ(unpadded.m_HeldDigest, unpadded.m_ZeroDigest);
    Diagnosis const pss = of(m_BigText, signBlock(digest, RSA_PKCS1_PSS_PADDING));
    EXPECT_THAT(findingsOf(pss), ElementsAre(Finding::kWrongWrapping));
    EXPECT_EQ(pss.m_Matches.at(0).m_Wrapping, Wrapping::kPss);
    EXPECT_THAT(textsOf(pss), HasSubstr("PSS"));
    Diagnosis const encryption =
        of(m_BigText, signBlock(std::string("\0\2", 2) + std::string(105, 'p') + '\0' + digest, RSA_NO_PADDING));
    EXPECT_THAT(findingsOf(encryption), ElementsAre(Finding::kWrongWrapping, Finding::kNothingFits));
    EXPECT_THAT(textsOf(encryption), HasSubstr("type 2"));
    for (Diagnosis const& result : {unpadded, pss, encryption}) {
        EXPECT_FALSE(result.m_Right);
    }
}

// --- Wrong keys and extensions

TEST_F(Diagnose, ReportsTheWrongWidening) {
    Diagnosis const merchant = of(m_Text, m_Merchant.sign(m_Text, true));
    EXPECT_FALSE(merchant.m_Right);
    EXPECT_THAT(findingsOf(merchant), ElementsAre(Finding::kOtherDigest, Finding::kWrongWidening));
    EXPECT_EQ(merchant.m_Matches.at(0).m_Digested, Digested::kSignExtended);
    EXPECT_EQ(merchant.m_HeldDigest, merchant.m_SignDigest);
    Diagnosis const service = of(m_Confirm, signText(serverKey(), m_Confirm, Widening::kZero));
    EXPECT_FALSE(service.m_Right);
    EXPECT_THAT(findingsOf(service), ElementsAre(Finding::kOtherDigest, Finding::kWrongWidening));
    EXPECT_EQ(service.m_Matches.at(0).m_Digested, Digested::kZeroExtended);
}

TEST_F(Diagnose, ReportsThatBytesWereNotWidened) {
    std::string digest(20, '\0');
    EVP_Digest(m_BigText.data(), m_BigText.size(), reinterpret_cast<unsigned char*>(digest.data()), nullptr, EVP_sha1(),
               nullptr);
    Diagnosis const result = of(m_BigText, signBlock(digest, RSA_PKCS1_PADDING));
    EXPECT_FALSE(result.m_Right);
    EXPECT_THAT(findingsOf(result), ElementsAre(Finding::kOtherDigest, Finding::kWrongWidening));
    EXPECT_EQ(result.m_Matches.at(0).m_Digested, Digested::kBytes);
}

TEST_F(Diagnose, FindsTheKeyThatDidSign) {
    std::string const server = signText(serverKey(), m_Text, Widening::kSign);
    Diagnosis const result = of(m_Text, server);
    EXPECT_FALSE(result.m_Right);
    EXPECT_THAT(findingsOf(result), ElementsAre(Finding::kUnreadable, Finding::kWrongKey));
    EXPECT_EQ(result.m_Matches.at(0).m_KeyId, "1-SERVER-2");
    EXPECT_EQ(result.m_Matches.at(0).m_Account, "");
    EXPECT_THAT(textsOf(result), HasSubstr("'1-SERVER-2' of this service"));
    Diagnosis const merchant = of(m_Confirm, m_Merchant.sign(m_Confirm));
    EXPECT_THAT(findingsOf(merchant), ElementsAre(Finding::kUnreadable, Finding::kWrongKey));
    EXPECT_EQ(merchant.m_Matches.at(0).m_Account, "demo");
    // A key of another size.
    Diagnosis const big = of(m_Text, signText(bigKey(), m_Text, Widening::kZero));
    EXPECT_THAT(findingsOf(big), ElementsAre(Finding::kWrongLength, Finding::kWrongKey));
    EXPECT_EQ(big.m_Matches.at(0).m_KeyId, "0-1002-big");
}

TEST_F(Diagnose, FindsTheKeyOfAMessageWithAnUnknownOne) {
    std::string const text = "<KVX MSGTYPE=\"PayInit\" KEYID=\"nobody\"/>";
    Diagnosis const result = of(text, m_Merchant.sign(text));
    EXPECT_THAT(findingsOf(result), ElementsAre(Finding::kKeyUnknown, Finding::kWrongKey));
}

TEST_F(Diagnose, PrefersTheNamedKeyAmongSeveral) {
    m_Keys.push_back({"0-1003-copy", "copycat", false, m_Keys[2].m_Key});
    std::string const text = "<KVX MSGTYPE=\"PayInit\" KEYID=\"0-1003-copy\"/>";
    Diagnosis const result = of(text, m_Merchant.sign(text));
    EXPECT_TRUE(result.m_Right);
    EXPECT_EQ(result.m_Matches.size(), 2u);
    EXPECT_THAT(textsOf(result), HasSubstr("copycat"));
}

// --- Another message

/// The differences as "NAME: signed, pasted", with "-" for a missing attribute.
std::vector<std::string> differencesOf(Diagnosis const& result) {
    std::vector<std::string> texts;
    for (Difference const& difference : result.m_Original.value().m_Differences) {
        texts.push_back(difference.m_Name + ": " + difference.m_InSigned.value_or("-") + ", " +
                        difference.m_InData.value_or("-"));
    }
    return texts;
}

constexpr char kOrdered[] =
    R"(<KVX MSGTYPE="PayInit" KEYID="0-1001-testkey" AMOUNT="19.90" NOTE="&lt;a b&gt;" ORDERID="A-17"/>)";

TEST_F(Diagnose, NamesTheAttributeThatWasChanged) {
    m_Seen = {m_Text, kOrdered};
    std::string const sent = sandbox::replaceAll(kOrdered, "19.90", "29.90");
    Diagnosis const result = of(sent, m_Merchant.sign(kOrdered));
    EXPECT_FALSE(result.m_Right);
    EXPECT_THAT(findingsOf(result), ElementsAre(Finding::kOtherDigest, Finding::kOtherMessage, Finding::kOtherMessage));
    EXPECT_THAT(textsOf(result), HasSubstr("SIGNATURE belongs to another message: what was seen. It was made with "
                                           "the key '0-1001-testkey' of the merchant demo."));
    EXPECT_THAT(textsOf(result), HasSubstr("DATA differs from that message in: AMOUNT."));
    EXPECT_EQ(result.m_Original.value().m_Seen.m_Text, kOrdered);
    EXPECT_EQ(result.m_Original->m_Seen.m_Page, "/seen");
    EXPECT_THAT(differencesOf(result), ElementsAre("AMOUNT: 19.90, 29.90"));
}

TEST_F(Diagnose, NamesAttributesThatWereAddedOrLost) {
    m_Seen = {kOrdered};
    std::string const sent =
        R"(<KVX NEW="" MSGTYPE="PayInit" KEYID="0-1001-testkey" NOTE="&lt;a b&gt;" ORDERID="A-17 " MORE="&amp;"/>)";
    Diagnosis const result = of(sent, m_Merchant.sign(kOrdered));
    EXPECT_THAT(differencesOf(result),
                ElementsAre("AMOUNT: 19.90, -", "ORDERID: A-17, A-17 ", "NEW: -, ", "MORE: -, &"));
    EXPECT_THAT(textsOf(result), HasSubstr("differs from that message in: AMOUNT, ORDERID, NEW, MORE."));
}

TEST_F(Diagnose, ReportsWhatDiffersWithoutAnotherAttribute) {
    m_Seen = {kOrdered};
    struct Row {
        char const* m_Sent;
        char const* m_Difference;
    };
    for (
        Row const& row : {
            Row{R"(<KVX KEYID="0-1001-testkey" MSGTYPE="PayInit" AMOUNT="19.90" NOTE="&lt;a b&gt;" ORDERID="A-17"/>)",
                "the attributes are in a different order"},
            Row{R"(<KVX  MSGTYPE="PayInit" KEYID="0-1001-testkey" AMOUNT="19.90" NOTE="&lt;a b&gt;" ORDERID="A-17" />)",
                "only white space between the attributes differs"},
            Row{R"(<KVX MSGTYPE="PayInit" KEYID="0-1001-testkey" AMOUNT="19.90" NOTE="&lt;a b>" ORDERID="A-17"/>)",
                "only the notation differs"},
            Row{R"(<KVX MSGTYPE='PayInit' KEYID="0-1001-testkey" AMOUNT="19.90" NOTE="&lt;a b&gt;" ORDERID="A-17"/>)",
                "only the notation differs"},
            Row{R"(<KVX MSGTYPE="PayInit" KEYID="0-1001-testkey" AMOUNT="19.90" NOTE="&lt;a b&gt;" ORDERID="A-17"></KVX>)",
                "only the notation differs"},
        }) {
        Diagnosis const result = of(row.m_Sent, m_Merchant.sign(kOrdered));
        EXPECT_THAT(findingsOf(result),
                    ElementsAre(Finding::kOtherDigest, Finding::kOtherMessage, Finding::kOtherMessage))
            << row.m_Sent;
        EXPECT_THAT(textsOf(result),
                    HasSubstr(std::string("No attribute was changed, added or removed: ") + row.m_Difference))
            << row.m_Sent;
        EXPECT_THAT(differencesOf(result), IsEmpty()) << row.m_Sent;
    }
}

TEST_F(Diagnose, ReportsWhichKeyAndWideningTheOtherMessageHas) {
    m_Seen = {m_Confirm, m_Text};
    std::string const otherNote = sandbox::replaceAll(m_Confirm, "Caf", "Tea");
    Diagnosis const confirm = of(otherNote, signText(serverKey(), m_Confirm, Widening::kSign));
    EXPECT_THAT(findingsOf(confirm),
                ElementsAre(Finding::kOtherDigest, Finding::kOtherMessage, Finding::kOtherMessage));
    EXPECT_THAT(textsOf(confirm), HasSubstr("with the key '1-SERVER-2' of this service."));
    EXPECT_THAT(differencesOf(confirm), ElementsAre("NOTE: Caf\xE9, Tea\xE9"));
    Diagnosis const widened = of(m_Plain, m_Merchant.sign(m_Text, true));
    EXPECT_THAT(findingsOf(widened), ElementsAre(Finding::kOtherDigest, Finding::kOtherMessage, Finding::kOtherMessage,
                                                 Finding::kWrongWidening));
    EXPECT_THAT(textsOf(widened), HasSubstr("The signature is over that message, each byte sign-extended"));
    std::string const otherKey = sandbox::replaceAll(m_Text, "0-1001-testkey", "1-SERVER-2");
    Diagnosis const named = of(otherKey, m_Merchant.sign(m_Text));
    EXPECT_THAT(findingsOf(named),
                ElementsAre(Finding::kUnreadable, Finding::kOtherMessage, Finding::kOtherMessage, Finding::kWrongKey));
    EXPECT_THAT(differencesOf(named), ElementsAre("KEYID: 0-1001-testkey, 1-SERVER-2"));
}

TEST_F(Diagnose, ShowsTheOtherMessageWhenItCannotBeCompared) {
    m_Seen = {kOrdered, "<KVX"};
    Diagnosis const cut = of(std::string(kOrdered).substr(0, 40), m_Merchant.sign(kOrdered));
    EXPECT_THAT(findingsOf(cut), ElementsAre(Finding::kNoMessage, Finding::kOtherMessage, Finding::kOtherMessage));
    EXPECT_THAT(textsOf(cut), HasSubstr("attributes cannot be compared"));
    EXPECT_EQ(cut.m_Original.value().m_Seen.m_Text, kOrdered);
    EXPECT_THAT(textsOf(of(kOrdered, m_Merchant.sign("<KVX"))), HasSubstr("attributes cannot be compared"));
}

TEST_F(Diagnose, AsksForTheOtherMessageOnlyWhenNothingFits) {
    m_Seen = {kOrdered};
    EXPECT_FALSE(of(kOrdered, m_Merchant.sign(kOrdered)).m_Original);
    EXPECT_FALSE(of(std::string(kOrdered) + "\n", m_Merchant.sign(kOrdered)).m_Original);
    Diagnosis const unseen = of(kOrdered, m_Merchant.sign(m_Text));
    EXPECT_FALSE(unseen.m_Original);
    EXPECT_THAT(findingsOf(unseen), ElementsAre(Finding::kOtherDigest, Finding::kNothingFits));
    EXPECT_THAT(textsOf(unseen), HasSubstr("Nor does it belong to another message"));
    EXPECT_THAT(textsOf(of(kOrdered, TestMerchant("nobody").sign(kOrdered))), Not(HasSubstr("Nor does it")));
}

TEST_F(Diagnose, PrefersTheNamedKeyForTheOtherMessageToo) {
    m_Keys.push_back({"0-1003-copy", "copycat", false, readPublicKeyBlob(m_Merchant.blob())});
    m_Seen = {sandbox::replaceAll(kOrdered, "0-1001-testkey", "0-1003-copy")};
    Diagnosis const result = of(sandbox::replaceAll(m_Seen[0], "19.90", "29.90"), m_Merchant.sign(m_Seen[0]));
    EXPECT_THAT(findingsOf(result), ElementsAre(Finding::kOtherDigest, Finding::kOtherMessage, Finding::kOtherMessage));
    EXPECT_THAT(textsOf(result), HasSubstr("'0-1003-copy' of the merchant copycat"));
}

TEST_F(Diagnose, ReportsWhoSignedWhat) {
    m_Seen = {kOrdered};
    struct Row {
        std::string m_Data;
        std::string m_Signature;
        char const* m_Signer;
        std::optional<std::string> m_SignedText;
    };
    std::string const order = kOrdered;
    for (Row const& row : {
             Row{m_Text, m_Merchant.sign(m_Text), "0-1001-testkey", m_Text},
             Row{m_Text + "\n", m_Merchant.sign(m_Text), "0-1001-testkey", m_Text},
             Row{m_Text, signText(serverKey(), m_Text, Widening::kSign), "1-SERVER-2", m_Text},
             Row{sandbox::replaceAll(order, "19.90", "1"), m_Merchant.sign(order), "0-1001-testkey", order},
             Row{m_Text, m_Merchant.sign("never seen"), "0-1001-testkey", std::nullopt},
             Row{m_Text, TestMerchant("nobody").sign(m_Text), "", std::nullopt},
             Row{m_Text, "", "", std::nullopt},
         }) {
        Diagnosis const result = of(row.m_Data, row.m_Signature);
        EXPECT_EQ(result.m_Signer ? result.m_Signer->m_Id : "", row.m_Signer) << textsOf(result);
        EXPECT_EQ(result.m_SignedText, row.m_SignedText) << textsOf(result);
    }
}

// --- Damaged messages

TEST_F(Diagnose, UndoesEachDamage) {
    std::string const head = "<KVX MSGTYPE=\"PayInit\" KEYID=\"0-1001-testkey\" NOTE=\"";
    struct Row {
        char const* m_Name;
        std::string m_SignedText;
        std::string m_Sent;
        char const* m_Repair;
    };
    for (Row const& row : {
             Row{"a blank became +", head + "a b\"/>",
                 "<KVX+MSGTYPE=\"PayInit\"+KEYID=\"0-1001-testkey\"+NOTE=\"a+b\"/>", "each + changed to a space"},
             {"a + became a blank", head + "a+b\"/>", head + "a b\"/>", "each space in values changed to +"},
             {"encoded twice", head + "a%b\"/>", percentEncode(head + "a%b\"/>"), "it was encoded twice"},
             {"decoded twice", head + "http://a/?x=%c3%a9%20%25\"/>", head + "http://a/?x=\xC3\xA9 %\"/>",
              "in lower case (it was decoded twice)"},
             {"decoded twice, upper case", head + "http://a/?x=%C3%A9\"/>", head + "http://a/?x=\xC3\xA9\"/>",
              "in upper case (it was decoded twice)"},
             {"line feeds became full line ends", head + "a\nb\"/>", head + "a\r\nb\"/>", "line ends changed to LF"},
             {"full line ends lost a half", head + "a\r\nb\"/>", head + "a\nb\"/>", "line ends changed to CR LF"},
             {"line feeds became carriage returns", head + "a\nb\"/>", head + "a\rb\"/>", "CR changed to LF"},
             {"a line feed came behind", head + "a\"/>", head + "a\"/>\n", "white space at the end removed"},
             {"a line end came behind", head + "a\"/>", head + "a\"/>\r\n", "white space at the end removed"},
             {"blanks came behind", head + "a\"/>", head + "a\"/> \t ", "white space at the end removed"},
             {"blanks came before", head + "a\"/>", "  " + head + "a\"/>\n", "white space at both ends removed"},
             {"a line feed was lost", head + "a\"/>\n", head + "a\"/>", "a line feed appended"},
             {"a line end was lost", head + "a\"/>\r\n", head + "a\"/>", "CR LF appended"},
             {"escaped for HTML", head + "&lt;a&gt; &amp; 'b'\"/>",
              "&lt;KVX MSGTYPE=&quot;PayInit&quot; KEYID=&quot;0-1001-testkey&quot; NOTE=&quot;&amp;lt;a&amp;gt; "
              "&amp;amp; "
              "&#39;b&#39;&quot;/&gt;",
              "HTML escapes decoded"},
             {"ampersands escaped once more", head + "a &amp; b\"/>", head + "a &amp;amp; b\"/>",
              "HTML escapes decoded"},
             {"an escape undone", head + "a &amp; b\"/>", head + "a & b\"/>", "unescaped & changed to &amp;"},
             {"Latin-1 became UTF-8", head + "Caf\xE9 \xFF\"/>", head + "Caf\xC3\xA9 \xC3\xBF\"/>",
              "from UTF-8 to Latin-1"},
             {"UTF-8 became Latin-1", head + "Caf\xC3\xA9 \xC3\xBF\"/>", head + "Caf\xE9 \xFF\"/>",
              "from Latin-1 to UTF-8"},
         }) {
        EXPECT_THAT(repairOf(afterDamage(row.m_SignedText, row.m_Sent)), HasSubstr(row.m_Repair)) << row.m_Name;
        EXPECT_TRUE(of(row.m_SignedText, m_Merchant.sign(row.m_SignedText)).m_Right) << row.m_Name;
    }
}

TEST_F(Diagnose, ReportsDamageAndWrongKeyTogether) {
    Diagnosis const result = of(m_Text + "\n", signText(serverKey(), m_Text, Widening::kSign));
    EXPECT_THAT(findingsOf(result), ElementsAre(Finding::kUnreadable, Finding::kDamaged, Finding::kWrongKey));
    EXPECT_EQ(result.m_Matches.at(0).m_KeyId, "1-SERVER-2");
}

TEST_F(Diagnose, DoesNotUndoWhatIsRight) {
    // The unchanged message verifies, so no repair is tried.
    std::string const text = "<KVX MSGTYPE=\"PayInit\" KEYID=\"0-1001-testkey\" NOTE=\"a+b%20&amp;amp;\"/>\n";
    Diagnosis const result = of(text, m_Merchant.sign(text));
    EXPECT_TRUE(result.m_Right);
    EXPECT_THAT(findingsOf(result), ElementsAre(Finding::kRight));
}

TEST(Repairs, LeaveOutWhatChangesNothing) {
    for (Repair const& repair : repairs("<KVX/>")) {
        EXPECT_NE(repair.m_Text, "<KVX/>") << repair.m_Description;
    }
    EXPECT_EQ(repairs("<KVX/>").size(), 2u);  // both append a line end
}

TEST(Repairs, SurviveAnyBytes) {
    for (int first = 0; first < 256; ++first) {
        for (int second = 0; second < 256; ++second) {
            std::string const pair{static_cast<char>(first), static_cast<char>(second)};
            ASSERT_GE(repairs(pair).size(), 2u);
        }
    }
}

TEST(Repairs, TakeNoLongerForManyDamagesThanForOne) {
    for (char const piece : {'\n', '\r', '+'}) {
        EXPECT_GE(repairs(std::string(1024 * 1024, piece)).size(), 3u);
    }
}

// --- Single changes

TEST_F(Diagnose, TriesSingleChangesOnRequestOnly) {
    std::string const order = kOrdered;
    std::string const sent = sandbox::replaceAll(order, "19.90", "1.90");
    std::string signature = m_Merchant.sign(order);
    EXPECT_THAT(findingsOf(of(sent, signature)), ElementsAre(Finding::kOtherDigest, Finding::kNothingFits));
    m_SearchesChanges = true;
    Diagnosis const changed = of(sent, signature);
    EXPECT_THAT(findingsOf(changed), ElementsAre(Finding::kOtherDigest, Finding::kDataChanged, Finding::kDataChanged));
    EXPECT_THAT(textsOf(changed), HasSubstr("after a change of DATA."));
    EXPECT_THAT(differencesOf(changed), ElementsAre("AMOUNT: 19.90, 1.90"));
    EXPECT_EQ(changed.m_SignedText, order);
    EXPECT_FALSE(changed.m_Right);
    signature[5] = signature[5] == '0' ? '1' : '0';
    Diagnosis const damaged = of(order, signature);
    EXPECT_THAT(findingsOf(damaged), ElementsAre(Finding::kUnreadable, Finding::kSignatureChanged));
    EXPECT_EQ(damaged.m_SignatureFound, m_Merchant.sign(order));
    EXPECT_EQ(damaged.m_Signer.value().m_Id, "0-1001-testkey");
    EXPECT_THAT(findingsOf(of(order, m_Merchant.sign(order).substr(1))),
                ElementsAre(Finding::kNotHexadecimal, Finding::kSignatureChanged));
    EXPECT_THAT(findingsOf(of(sent, signature)),
                ElementsAre(Finding::kUnreadable, Finding::kNothingFits, Finding::kNothingFits));
}

// --- Pasted texts

std::string shown(SignedTexts const& texts) {
    return texts.m_Data + "|" + texts.m_Signature;
}

TEST(ReadPasted, TakesDataInEveryForm) {
    struct Row {
        char const* m_Data;
        char const* m_Signature;
        char const* m_Result;
    };
    for (Row const& row : {
             Row{"<KVX A=\"%20+\"/>", "00ff", "<KVX A=\"%20+\"/>|00ff"},
             {" <KVX/>\r\n", "00", " <KVX/>\r\n|00"},  // the white space may be the damage
             {"%3cKVX%2F%3e", " 00 ", "<KVX/>|00"},
             {" %3cKVX\r\n%2f%3e\n", "0\n0\r\n", "<KVX/>|00"},
             {"a+b", "", "a+b|"},
             {"DATA=%3cKVX%2f%3e", "00", "<KVX/>|00"},
             {"DATA=%3cKVX%2f%3e&SIGNATURE=00", "", "<KVX/>|00"},
             {"DATA=%3cKVX%2f%3e&SIGNATURE=00", "00", "<KVX/>|00"},
             {"http://shop/ok?cart=7&DATA=%3c&SIGNATURE=0a#top", "", "<|0a"},
             {"http://shop/ok?SIGNATURE=0a&DATA=%3c", "", "<|0a"},
             {"http://shop/ok?DATA=%3c&amp;SIGNATURE=0a", "", "<|0a"},
             {"http://shop/ok?cart=7&amp;DATA=%3c&amp;SIGNATURE=0a", "", "<|0a"},
             {"?DATA=%3c", "", "<|"},
             {"XDATA=%3c", "", "XDATA=<|"},  // another parameter
             {"", "00", "|00"},
             {" \r\n", "", "|"},
             {"<KVX NOTE=\"http://x/?DATA=a\"/>", "", "<KVX NOTE=\"http://x/?DATA=a\"/>|"},
         }) {
        EXPECT_EQ(shown(readPasted(row.m_Data, row.m_Signature)), row.m_Result) << row.m_Data;
    }
}

TEST(ReadPasted, RefusesWhatIsAmbiguousOrBroken) {
    struct Row {
        char const* m_Data;
        char const* m_Signature;
        char const* m_Reason;
    };
    for (Row const& row : {
             Row{"%3", "", "not well-formed percent-encoding"},
             {"%zz", "", "not well-formed percent-encoding"},
             {"?DATA=%zz", "", "DATA is not well-formed"},
             {"?DATA=a&DATA=b", "", "DATA stands in the query twice"},
             {"?DATA=a&SIGNATURE=1&SIGNATURE=2", "", "SIGNATURE stands in the query twice"},
             {"?DATA=a&SIGNATURE=00", "01", "another SIGNATURE"},
         }) {
        try {
            readPasted(row.m_Data, row.m_Signature);
            ADD_FAILURE() << row.m_Data;
        } catch (HttpError const& error) {
            EXPECT_THAT(error.what(), HasSubstr(row.m_Reason)) << row.m_Data;
        }
    }
}

}  // namespace
