// The exchanges at /auto over a real socket: set-up, defaults, key query, key export, and every refusal with its text.
// The merchant of the tests encodes and signs with its own code. The last tests compare the stored exchanges.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "tests/sandbox/support/sandboxfixture.h"

/// The set-up service at /auto, over a real socket.
namespace {

using namespace sandboxtest;
using ::testing::HasSubstr;
using ::testing::Not;

class AutoService : public SandboxTest {
protected:
    [[nodiscard]] std::string exportReason(std::string const& keyId, std::string const& blob) const {
        return reasonOf(
            askAuto("<KVX MSGTYPE=\"KeyExportRequest\" KEYID=\"" + keyId + "\" KEYBLOB=\"" + blob + "\"/>"));
    }
};

TEST_F(AutoService, AnswersSetupWithItsAddressesAndKey) {
    std::string const body = askAuto("<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>");
    std::string const base = m_Service->addresses().m_Plain.m_Url;
    EXPECT_EQ(body, "<KVX MSGTYPE=\"SetupResponse\" VERSION=\"1\" VTURL=\"" + base + "/pay\" CAPTUREURL=\"" + base +
                        "/capture\" KVX.VTAUTOURL=\"" + base + "/auto\" VTKEYID=\"" +
                        m_Service->services().m_Keys.current()->m_Id + "\" CUSTOMERID=\"1001\"/>");
    EXPECT_EQ(base, "http://127.0.0.1:" + std::to_string(m_Service->addresses().m_Plain.m_Port));
}

TEST_F(AutoService, AnswersLoadDefaultsWithEveryDefault) {
    std::string const body = askAuto("<KVX MSGTYPE=\"LoadDefaultsRequest\"/>");
    EXPECT_EQ(attributeOf(body, "MSGTYPE"), "LoadDefaultsResponse");
    EXPECT_EQ(attributeOf(body, "KVX.ISVALID"), "yes");
    for (char const* name : {"PAYINITTTL", "ALLOWCOLLECT", "DELIVERY", "LANGID", "SUCCESSLINK", "NOTIFYADDRESS",
                             "DEFAULTVALIDITY", "BACKLINK", "FAILLINK"}) {
        EXPECT_NE(attributeOf(body, name), "") << name;
    }
}

TEST_F(AutoService, HandsOutTheKeyThatSignsConfirmations) {
    std::string const body =
        askAuto("<KVX MSGTYPE=\"KeyQueryRequest\" KEYID=\"" + m_Service->services().m_Keys.current()->m_Id + "\"/>");
    EXPECT_EQ(attributeOf(body, "MSGTYPE"), "KeyQueryResponse");
    EXPECT_EQ(attributeOf(body, "KEYID"), m_Service->services().m_Keys.current()->m_Id);
    std::string const blob = attributeOf(body, "KEYBLOB");
    EXPECT_EQ(blob.substr(0, 8), "30480241");
    EXPECT_EQ(blob.size(), 148u);
    EXPECT_EQ(m_Service->services().m_Keys.current()->m_Id.find('/'), std::string::npos);
}

TEST_F(AutoService, RefusesToHandOutAnUnknownKey) {
    EXPECT_THAT(reasonOf(askAuto("<KVX MSGTYPE=\"KeyQueryRequest\" KEYID=\"9-NONE\"/>")),
                HasSubstr("has no key '9-NONE'"));
}

TEST_F(AutoService, StoresAKeyOnceAndAcceptsItsRepetition) {
    EXPECT_EQ(exportReason(m_Merchant.keyId(), m_Merchant.blob()), "");
    EXPECT_EQ(exportReason("0-1001-second", m_Merchant.blob()), "");
}

TEST_F(AutoService, RefusesAnotherKeyUnderAKnownIdentifier) {
    TestMerchant const other("other");
    EXPECT_THAT(exportReason(m_Merchant.keyId(), other.blob()), HasSubstr("another key already"));
    EXPECT_THAT(exportReason(m_Service->services().m_Keys.current()->m_Id, other.blob()),
                HasSubstr("another key already"));
    // The private key that the next rotation needs.
    EXPECT_THAT(exportReason("1-SERVER-2", other.blob()), HasSubstr("another key already"));
}

TEST_F(AutoService, RefusesUnusableKeys) {
    std::string const blob = m_Merchant.blob();
    EXPECT_THAT(exportReason("k", "xyz"), HasSubstr("not lower-case hexadecimal"));
    EXPECT_THAT(exportReason("k", "00ff"), HasSubstr("not an RSAPublicKey"));
    EXPECT_THAT(exportReason("k", blob + "\n"), HasSubstr("not lower-case hexadecimal"));
    EXPECT_THAT(exportReason("k", blob + "00"), HasSubstr("bytes after"));
    EXPECT_THAT(exportReason("../k", blob), HasSubstr("KEYID holds"));
    EXPECT_THAT(exportReason("k\xE9", blob), HasSubstr("KEYID holds"));
    EXPECT_THAT(exportReason(".", blob), HasSubstr("name of a directory"));
    EXPECT_THAT(exportReason("..", blob), HasSubstr("name of a directory"));
    EXPECT_THAT(exportReason(std::string(201, 'k'), blob), HasSubstr("KEYID is longer"));
}

TEST_F(AutoService, RefusesMissingAttributes) {
    EXPECT_THAT(reasonOf(askAuto("<KVX MSGTYPE=\"SetupRequest\"/>")), HasSubstr("needs the attribute VERSION"));
    EXPECT_THAT(reasonOf(askAuto("<KVX MSGTYPE=\"KeyQueryRequest\"/>")), HasSubstr("needs the attribute KEYID"));
    EXPECT_THAT(reasonOf(askAuto("<KVX MSGTYPE=\"KeyExportRequest\" KEYID=\"k\"/>")),
                HasSubstr("needs the attribute KEYBLOB"));
    EXPECT_THAT(exportReason("", m_Merchant.blob()), HasSubstr("needs the attribute KEYID"));
}

TEST_F(AutoService, RefusesUnknownTypesAndMalformedMessages) {
    EXPECT_THAT(reasonOf(askAuto("<KVX MSGTYPE=\"TeaRequest\"/>")), HasSubstr("knows no request 'TeaRequest'"));
    EXPECT_THAT(reasonOf(askAuto("<KVX MSGTYPE=\"SetupRequest\"")), HasSubstr("not well-formed"));
    EXPECT_THAT(reasonOf(askAuto("hello")), HasSubstr("not exactly one element"));
    EXPECT_THAT(reasonOf(get("/auto").m_Body), HasSubstr("DATA is missing"));
    EXPECT_THAT(reasonOf(get("/auto?DATA=%3").m_Body), HasSubstr("not well-formed percent-encoding"));
}

TEST_F(AutoService, ReportsWhatIsWrongWithTheCredentials) {
    std::string const setup = "<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>";
    EXPECT_THAT(reasonOf(askAuto(setup, "demo", "Demo")), HasSubstr("password of the account 'demo'"));
    EXPECT_THAT(reasonOf(askAuto(setup, "demo", "")), HasSubstr("password of the account 'demo'"));
    EXPECT_THAT(reasonOf(askAuto(setup, "<eve>", "demo")), HasSubstr("no account '<eve>'"));
    EXPECT_THAT(reasonOf(askAuto(setup, "", "")), HasSubstr("name no user"));
}

TEST_F(AutoService, ReportsWhatIsWrongWithTheAuthorizationHeader) {
    auto const reasonWith = [this](std::string const& header) {
        std::string const request = "GET /auto?DATA=x HTTP/1.0\r\n" + header + "\r\n";
        return reasonOf(parseResponse(exchangeRaw(m_Service->addresses().m_Plain.m_Port, request)).m_Body);
    };
    EXPECT_THAT(reasonWith(""), HasSubstr("no Authorization header"));
    EXPECT_THAT(reasonWith("Authorization: Bearer x\r\n"), HasSubstr("not of the scheme Basic"));
    EXPECT_THAT(reasonWith("Authorization: Basic !!!!\r\n"), HasSubstr("not Base64"));
    EXPECT_THAT(reasonWith("Authorization: Basic YWJj\r\n"), HasSubstr("no colon"));
}

TEST_F(AutoService, AnswersBytesThatANarrowParserReads) {
    std::string const body = askAuto("<KVX MSGTYPE=\"a&quot;&lt;&amp;\n\xE9\"/>");
    EXPECT_EQ(body.substr(0, 5), "<KVX ");
    EXPECT_THAT(body, Not(HasSubstr("<?")));
    EXPECT_THAT(body, Not(HasSubstr("&#")));
    EXPECT_THAT(body, HasSubstr("&apos;a&quot;&lt;&amp;\n\xE9&apos;"));
}

TEST_F(AutoService, ClosesTheConnectionAndTellsTheLength) {
    std::string const text = "<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>";
    RawResponse const response = get("/auto?DATA=" + percentEncoded(text), "demo", "demo");
    EXPECT_EQ(response.m_Headers.at("content-length"), std::to_string(response.m_Body.size()));
    EXPECT_EQ(response.m_Headers.at("connection"), "close");
    EXPECT_EQ(response.m_Headers.count("transfer-encoding"), 0u);
}

TEST_F(AutoService, RecordsEveryExchangeWithItsVerdict) {
    std::size_t const before = sandboxtest::exchangesOf(*m_Service).size();
    std::string const text = "<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>";
    askAuto(text);
    askAuto(text, "demo", "wrong");
    std::vector<sandbox::Exchange> const exchanges = sandboxtest::exchangesOf(*m_Service);
    ASSERT_EQ(exchanges.size(), before + 2);
    EXPECT_EQ(exchanges[before].m_Path, "/auto");
    EXPECT_EQ(exchanges[before].m_Data, text);
    EXPECT_EQ(exchanges[before].m_Verdict, "ok");
    EXPECT_EQ(exchanges[before].m_Time, "2023-11-14T22:13:20Z");
    EXPECT_THAT(exchanges[before + 1].m_Verdict, HasSubstr("password"));
}

}  // namespace
