// Capture, completion and status at /capture over a real socket. A payment is brought to "authorised" through the page
// first. Each test sends a signed message and compares the response and the payment's state.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/sandbox/support/sandboxfixture.h"

/// Capture, completion and status, from server to server over a real socket.
namespace {

using namespace sandboxtest;
using sandbox::PaymentState;
using ::testing::HasSubstr;

class CaptureService : public SandboxTest {
protected:
    [[nodiscard]] sandbox::Payment payment() const { return sandboxtest::paymentsOf(*m_Service).at(0); }

    [[nodiscard]] std::string named(std::string const& type, std::string const& more = "") const {
        return m_Merchant.message(type, " ID=\"" + payment().m_Id + "\" TOKEN=\"" + payment().m_Token + "\"" + more);
    }
};

TEST_F(CaptureService, CapturesAnAuthorisedPayment) {
    std::string const response = askCapture(authorise("t1"));
    EXPECT_EQ(response, "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"" + m_Service->services().m_Keys.current()->m_Id +
                            "\" ID=\"" + payment().m_Id +
                            "\" TOKEN=\"t1\" AMOUNT=\"12.50\" CURRENCY=\"EUR\" ORDERID=\"A-17\" RESULT=\"captured\"/>");
    EXPECT_EQ(payment().m_State, PaymentState::kCaptured);
    EXPECT_EQ(lastVerdict(), "ok");
}

TEST_F(CaptureService, AnswersARepeatedCaptureAlike) {
    std::string const confirm = authorise("t1");
    std::string const first = askCapture(confirm);
    EXPECT_EQ(askCapture(confirm), first);
    EXPECT_EQ(payment().m_History.size(), 3u);
}

TEST_F(CaptureService, CapturesOnceWhenAskedAtTheSameTime) {
    std::string const confirm = authorise("t1");
    std::vector<std::string> responses(8);
    std::vector<std::thread> threads;
    for (std::string& response : responses) {
        threads.emplace_back([this, &response, &confirm] { response = askCapture(confirm); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (std::string const& response : responses) {
        EXPECT_EQ(attributeOf(response, "RESULT"), "captured") << response;
    }
    EXPECT_EQ(payment().m_History.size(), 3u);
}

TEST_F(CaptureService, RefusesToCaptureWhatIsNotAuthorised) {
    RawResponse const page = openPage(m_Merchant.payInit("t1"));
    std::string const capture = m_Merchant.message("PayConfirm", " TOKEN=\"t1\"");
    EXPECT_THAT(reasonOf(askCapture(capture)), HasSubstr("is opened, it cannot be captured"));
    press(page, "decline");
    EXPECT_THAT(reasonOf(askCapture(capture)), HasSubstr("is declined, it cannot be captured"));
    EXPECT_EQ(payment().m_State, PaymentState::kDeclined);
}

TEST_F(CaptureService, RefusesAWrongAmountCurrencyOrIdentifier) {
    authorise("t1");
    auto const reason = [this](std::string const& more) {
        return reasonOf(askCapture(m_Merchant.message("PayConfirm", " TOKEN=\"t1\"" + more)));
    };
    EXPECT_THAT(reason(" AMOUNT=\"12.51\""), HasSubstr("AMOUNT is '12.51', the payment has '12.50'"));
    EXPECT_THAT(reason(" AMOUNT=\"\""), HasSubstr("AMOUNT is ''"));
    EXPECT_THAT(reason(" AMOUNT=\"12.50\" CURRENCY=\"USD\""), HasSubstr("CURRENCY is 'USD'"));
    EXPECT_THAT(reason(" ID=\"P0\""), HasSubstr("ID and TOKEN name different payments"));
    EXPECT_THAT(reason(" ORDERID=\"A-18\""), HasSubstr("ORDERID is 'A-18', the payment has 'A-17'"));
    EXPECT_THAT(reason(" RESULT=\"declined\""), HasSubstr("RESULT is 'declined', the payment is authorised"));
    EXPECT_EQ(payment().m_State, PaymentState::kAuthorised);
    EXPECT_EQ(reason(" AMOUNT=\"12.50\""), "");
}

TEST_F(CaptureService, RefusesAMissingOrUnknownToken) {
    EXPECT_THAT(reasonOf(askCapture(m_Merchant.message("PayConfirm", ""))), HasSubstr("needs the attribute TOKEN"));
    EXPECT_THAT(reasonOf(askCapture(m_Merchant.message("PayConfirm", " TOKEN=\"t9\""))),
                HasSubstr("no payment with the TOKEN 't9'"));
}

TEST_F(CaptureService, RefusesAMessageUnderTheServersKey) {
    authorise("t1");
    std::string const text =
        "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"" + m_Service->services().m_Keys.current()->m_Id + "\" TOKEN=\"t1\"/>";
    EXPECT_THAT(reasonOf(askCapture(text)), HasSubstr("KEYID names no merchant key"));
}

TEST_F(CaptureService, RefusesMissingAndWrongSignatures) {
    std::string const text = authorise("t1");
    EXPECT_THAT(reasonOf(get("/capture?DATA=" + percentEncoded(text)).m_Body), HasSubstr("SIGNATURE is missing"));
    EXPECT_THAT(
        reasonOf(get("/capture?DATA=" + percentEncoded(text) + "&SIGNATURE=" + m_Merchant.sign(text + "x")).m_Body),
        HasSubstr("not one of DATA"));
    EXPECT_THAT(reasonOf(get("/capture").m_Body), HasSubstr("DATA is missing"));
    EXPECT_EQ(payment().m_State, PaymentState::kAuthorised);
}

TEST_F(CaptureService, CompletesAnAuthorisedOrCapturedPayment) {
    for (bool const captureFirst : {false, true}) {
        std::string const token = captureFirst ? "t2" : "t1";
        std::string const confirm = authorise(token);
        if (captureFirst) {
            askCapture(confirm);
        }
        std::string const id = sandboxtest::paymentsOf(*m_Service).back().m_Id;
        std::string const text =
            m_Merchant.message("PayCompleteRequest", " CONFIGPATH=\"/x\" ID=\"" + id + "\" TOKEN=\"" + token + "\"");
        std::string const expected =
            "<KVX MSGTYPE=\"PayCompleteResponse\" ID=\"" + id + "\" TOKEN=\"" + token + "\" STATE=\"completed\"/>";
        EXPECT_EQ(askCapture(text), expected);
        EXPECT_EQ(askCapture(text), expected) << "repeated";
        EXPECT_EQ(sandboxtest::paymentsOf(*m_Service).back().m_State, PaymentState::kCompleted);
        EXPECT_EQ(attributeOf(askCapture(confirm), "RESULT"), "captured") << "captured after completion";
    }
}

TEST_F(CaptureService, RefusesToCompleteWithoutIdentifierOrAuthorisation) {
    openPage(m_Merchant.payInit("t1"));
    EXPECT_THAT(reasonOf(askCapture(m_Merchant.message("PayCompleteRequest", " TOKEN=\"t1\""))),
                HasSubstr("needs the attribute ID"));
    EXPECT_THAT(reasonOf(askCapture(named("PayCompleteRequest"))), HasSubstr("is opened, it cannot be completed"));
}

TEST_F(CaptureService, RefusesToCompleteAnotherAmountCurrencyOrOrder) {
    authorise("t1");
    std::string const id = " TOKEN=\"t1\" ID=\"" + payment().m_Id + "\"";
    auto const reason = [&](std::string const& more) {
        return reasonOf(askCapture(m_Merchant.message("PayCompleteRequest", id + more)));
    };
    EXPECT_THAT(reason(" AMOUNT=\"12.51\""), HasSubstr("AMOUNT is '12.51', the payment has '12.50'"));
    EXPECT_THAT(reason(" CURRENCY=\"USD\""), HasSubstr("CURRENCY is 'USD'"));
    EXPECT_THAT(reason(" ORDERID=\"A-18\""), HasSubstr("ORDERID is 'A-18'"));
    EXPECT_THAT(reason(" RESULT=\"AUTHORISED\""), HasSubstr("RESULT is 'AUTHORISED', the payment is authorised"));
    EXPECT_EQ(payment().m_State, PaymentState::kAuthorised);
    EXPECT_EQ(reason(" AMOUNT=\"12.50\" CURRENCY=\"EUR\" ORDERID=\"A-17\""), "");
}

TEST_F(CaptureService, ReportsTheStatus) {
    openPage(m_Merchant.payInit("t1"));
    EXPECT_EQ(askCapture(m_Merchant.message("StatusRequest", " TOKEN=\"t1\"")),
              "<KVX MSGTYPE=\"StatusResponse\" ID=\"" + payment().m_Id + "\" TOKEN=\"t1\" STATE=\"opened\"/>");
}

TEST_F(CaptureService, RefusesUnknownTypes) {
    EXPECT_THAT(reasonOf(askCapture(m_Merchant.message("RefundRequest", ""))),
                HasSubstr("knows no request 'RefundRequest'"));
    EXPECT_THAT(reasonOf(askCapture(m_Merchant.message("", ""))), HasSubstr("knows no request ''"));
}

TEST_F(CaptureService, AcceptsHighBytesSignedAsAMerchantDoes) {
    authorise("t1");
    std::string const text = m_Merchant.message("PayConfirm", " TOKEN=\"t1\" NOTE=\"Caf\xE9 \xFF\x80\"");
    EXPECT_EQ(attributeOf(askCapture(text), "RESULT"), "captured");
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).back().m_Data, text);
}

TEST_F(CaptureService, KeepsMerchantsApart) {
    authorise("t1");
    sandbox::Options second = options();
    second.m_AccountUser = "eve";
    second.m_AccountPassword = "e";
    m_Service.reset();
    m_Service = std::make_unique<sandbox::Service>(second);
    m_Service->start();
    TestMerchant const eve("0-1002-eve");
    ASSERT_EQ(
        reasonOf(askAuto("<KVX MSGTYPE=\"KeyExportRequest\" KEYID=\"0-1002-eve\" KEYBLOB=\"" + eve.blob() + "\"/>",
                         "eve", "e")),
        "");
    std::string const text = eve.message("PayConfirm", " TOKEN=\"t1\"");
    EXPECT_THAT(reasonOf(get("/capture" + eve.signedQuery(text)).m_Body), HasSubstr("no payment with the TOKEN"));
    EXPECT_EQ(payment().m_State, PaymentState::kAuthorised);
}

}  // namespace
