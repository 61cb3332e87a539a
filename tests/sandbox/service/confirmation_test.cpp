// Faults of content: each changes what a message says and nothing else, and the signature still passes. Whatever has
// nothing to replay or to swap stays armed and says so in the exchange.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "sandbox/service/confirmation.h"
#include "sandbox/text/paymessage.h"
#include "tests/sandbox/support/sandboxfixture.h"

namespace {

using namespace sandboxtest;
using sandbox::Message;
using ::testing::HasSubstr;

class WrongContent : public SandboxTest {
protected:
    /// The message that a return link carries. Expects that its signature passes.
    [[nodiscard]] Message confirmationIn(RawResponse const& response) const {
        EXPECT_EQ(response.m_Status, 302) << response.m_Body;
        std::string const location = response.m_Headers.at("location");
        std::string const data = percentDecoded(queryValue(location, "DATA"));
        EXPECT_TRUE(verifies(m_ServerBlob, data, queryValue(location, "SIGNATURE"))) << data;
        return Message::parse(data);
    }

    [[nodiscard]] Message completion(std::string const& token) const {
        std::string const id = idOf(token);
        return Message::parse(
            askCapture(m_Merchant.message("PayCompleteRequest", " TOKEN=\"" + token + "\" ID=\"" + id + "\"")));
    }

    [[nodiscard]] std::string idOf(std::string const& token) const {
        for (sandbox::Payment const& payment : sandboxtest::paymentsOf(*m_Service)) {
            if (payment.m_Token == token) {
                return payment.m_Id;
            }
        }
        return "";
    }

    void arm(std::string const& fault) const { m_Service->services().m_Faults.arm(sandbox::parseFault(fault)); }

    /// The step that a fault left which could not happen; empty without one.
    [[nodiscard]] std::string reasonInSteps() const {
        sandbox::Exchange const last = sandboxtest::exchangesOf(*m_Service).back();
        for (sandbox::CheckStep const& step : last.m_Steps) {
            if (step.m_What.find("did not happen") != std::string::npos) {
                return step.m_What + ": " + step.m_Found;
            }
        }
        return "";
    }

    /// Expects that `wrong` differs from `right` in the value of `name` alone.
    static void expectDifference(Message const& wrong, Message const& right, std::string const& name,
                                 std::string const& value) {
        EXPECT_EQ(wrong.find(name), value);
        EXPECT_NE(right.find(name), value);
        for (auto const& [each, rightValue] : right.attributes()) {
            if (each != name) {
                EXPECT_EQ(wrong.find(each), rightValue) << each;
            }
        }
    }

    std::string m_ServerBlob = attributeOf(
        askAuto("<KVX MSGTYPE=\"KeyQueryRequest\" KEYID=\"" + m_Service->services().m_Keys.current()->m_Id + "\"/>"),
        "KEYBLOB");
};

struct KindRow {
    char const* m_Kind;
    char const* m_Name;
    char const* m_Value;
};

TEST_F(WrongContent, ChangesOneAttributeOfASignedConfirmation) {
    int number = 0;
    for (KindRow const& row : {KindRow{"wrong-amount", "AMOUNT", "22.50"}, KindRow{"wrong-currency", "CURRENCY", "USD"},
                               KindRow{"wrong-order", "ORDERID", "A-17-X"}, KindRow{"wrong-token", "TOKEN", "t30"},
                               KindRow{"wrong-result", "RESULT", "declined"}}) {
        SCOPED_TRACE(row.m_Kind);
        RawResponse const page = openPage(m_Merchant.payInit("t" + std::to_string(number++) + "1"));
        arm(std::string(row.m_Kind) + ",exchange=decision");
        Message const wrong = confirmationIn(press(page, "pay"));
        EXPECT_TRUE(m_Service->services().m_Faults.armed().empty());
        EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).back().m_Fault, std::string(row.m_Kind) + ",exchange=decision");
        Message const right = confirmationIn(press(page, "pay"));
        expectDifference(wrong, right, row.m_Name, row.m_Value);
    }
}

TEST_F(WrongContent, ReportsADeclinedPaymentAsPaid) {
    RawResponse const page = openPage(m_Merchant.payInit("t1"));
    arm("wrong-result");
    EXPECT_EQ(confirmationIn(press(page, "decline")).find("RESULT"), "authorised");
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_State, sandbox::PaymentState::kDeclined);
}

TEST_F(WrongContent, ChangesTheResponsesToCaptureAndCompletion) {
    std::string const confirmation = authorise("t1");
    for (KindRow const& row : {KindRow{"wrong-amount", "AMOUNT", "22.50"}, KindRow{"wrong-currency", "CURRENCY", "USD"},
                               KindRow{"wrong-order", "ORDERID", "A-17-X"}, KindRow{"wrong-token", "TOKEN", "t0"},
                               KindRow{"wrong-result", "RESULT", "declined"}}) {
        SCOPED_TRACE(row.m_Kind);
        arm(std::string(row.m_Kind) + ",exchange=capture");
        Message const wrong = Message::parse(askCapture(confirmation));
        expectDifference(wrong, Message::parse(askCapture(confirmation)), row.m_Name, row.m_Value);
        arm(std::string(row.m_Kind) + ",exchange=complete");
        Message const wrongEnd = completion("t1");
        std::string const name = row.m_Name == std::string("RESULT") ? "STATE" : row.m_Name;
        expectDifference(wrongEnd, completion("t1"), name, row.m_Value);
    }
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_State, sandbox::PaymentState::kCompleted);
}

TEST_F(WrongContent, ReplaysTheConfirmationOfThePaymentBefore) {
    Message const first = confirmationIn(press(openPage(m_Merchant.payInit("t1")), "pay"));
    press(openPage(m_Merchant.payInit("t2")), "decline");
    RawResponse const page = openPage(m_Merchant.payInit("t3"));
    arm("replay");
    Message const replayed = confirmationIn(press(page, "decline"));
    EXPECT_EQ(replayed.text(), first.text()) << "the declined one between them is no confirmation to replay";
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[2].m_State, sandbox::PaymentState::kDeclined);
    EXPECT_TRUE(m_Service->services().m_Faults.armed().empty());
}

TEST_F(WrongContent, ReplaysCapturesAndCompletions) {
    std::string const first = authorise("t1");
    std::string const captured = askCapture(first);
    std::string const completed = completion("t1").text();
    std::string const second = authorise("t2");
    arm("replay,exchange=capture");
    EXPECT_EQ(askCapture(second), captured);
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[1].m_State, sandbox::PaymentState::kCaptured);
    arm("replay,exchange=complete");
    EXPECT_EQ(completion("t2").text(), completed);
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[1].m_State, sandbox::PaymentState::kCompleted);
}

TEST_F(WrongContent, SwapsWithAnotherOpenPayment) {
    openPage(m_Merchant.payInit("open"));
    std::string const confirmation = authorise("t1");
    RawResponse const page = openPage(m_Merchant.payInit("t2"));
    arm("swap,exchange=decision");
    Message const wrong = confirmationIn(press(page, "pay"));
    EXPECT_EQ(wrong.find("TOKEN"), "open");
    EXPECT_EQ(wrong.find("ID"), idOf("open"));
    EXPECT_EQ(wrong.find("RESULT"), "authorised");
    arm("swap,exchange=capture");
    EXPECT_EQ(attributeOf(askCapture(confirmation), "TOKEN"), "t2") << "authorised, and newer than the open one";
    arm("swap,exchange=complete");
    Message const completed = completion("t1");
    EXPECT_EQ(completed.find("TOKEN"), "t2");
    EXPECT_EQ(completed.find("STATE"), "completed");
}

TEST_F(WrongContent, StaysArmedWithNothingToReplayOrSwap) {
    arm("replay,exchange=decision");
    arm("swap,exchange=decision");
    RawResponse const page = openPage(m_Merchant.payInit("t1"));
    Message const confirmation = confirmationIn(press(page, "pay"));
    EXPECT_EQ(confirmation.find("TOKEN"), "t1");
    EXPECT_EQ(m_Service->services().m_Faults.armed().size(), 2u);
    EXPECT_EQ(m_Service->services().m_Faults.armed()[0].m_Happened, 0);
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).back().m_Fault, "");
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).back().m_Verdict, "ok");
    EXPECT_EQ(reasonInSteps(), "The fault replay did not happen: the account has no earlier payment that was paid");
    press(openPage(m_Merchant.payInit("t2")), "cancel");
    EXPECT_EQ(m_Service->services().m_Faults.armed().size(), 1u) << "now there is a payment to replay";
}

TEST_F(WrongContent, LeavesOtherAccountsAlone) {
    authorise("t1");
    openPage(m_Merchant.payInit("t2"));
    TestMerchant const other("0-1002-other");
    std::string const body = "{\"user\": \"other\", \"password\": \"p\"}";
    RawResponse const made = parseResponse(
        exchangeRaw(m_Service->addresses().m_Control.m_Port,
                    "POST /control/accounts HTTP/1.0\r\nContent-Type: application/json\r\nContent-Length: " +
                        std::to_string(body.size()) + "\r\n\r\n" + body));
    ASSERT_EQ(made.m_Status, 201) << made.m_Body;
    askAuto("<KVX MSGTYPE=\"KeyExportRequest\" KEYID=\"0-1002-other\" KEYBLOB=\"" + other.blob() + "\"/>", "other",
            "p");
    RawResponse const page = get("/pay" + other.signedQuery(other.payInit("t1")));
    arm("replay");
    arm("swap");
    EXPECT_EQ(confirmationIn(press(page, "pay")).find("ID"), sandboxtest::paymentsOf(*m_Service)[2].m_Id);
    EXPECT_THAT(reasonInSteps(), HasSubstr("no earlier payment"));
}

TEST_F(WrongContent, NeedsAPayment) {
    arm("wrong-amount,exchange=capture");
    askCapture(m_Merchant.message("PayConfirm", " TOKEN=\"unknown\""));
    EXPECT_EQ(reasonInSteps(), "The fault wrong-amount did not happen: the request names no payment");
    EXPECT_EQ(m_Service->services().m_Faults.armed().size(), 1u);
    std::string const body = "payment=P0&key=x&decision=pay";
    arm("replay,exchange=decision");
    EXPECT_EQ(
        parseResponse(exchangeRaw(m_Service->addresses().m_Plain.m_Port, formPost("/pay/decision", body))).m_Status,
        404);
    EXPECT_EQ(m_Service->services().m_Faults.armed().size(), 2u);
}

TEST(WrongValue, HasTheFormOfTheRightOne) {
    struct Row {
        char const* m_Kind;
        char const* m_Name;
        char const* m_Right;
        char const* m_Wrong;
    };
    for (Row const& row : {Row{"wrong-amount", "AMOUNT", "0.09", "0.08"}, Row{"wrong-amount", "AMOUNT", "1000", "2000"},
                           Row{"wrong-amount", "AMOUNT", "", "1.00"}, Row{"wrong-currency", "CURRENCY", "USD", "EUR"},
                           Row{"wrong-order", "ORDERID", "", "-X"}, Row{"wrong-token", "TOKEN", "a0", "a1"},
                           Row{"wrong-token", "TOKEN", "", "0"}, Row{"wrong-result", "RESULT", "expired", "authorised"},
                           Row{"drop", "RESULT", "expired", "expired"}}) {
        sandbox::FaultEffect const effect{sandbox::parseFault(row.m_Kind)};
        Message message("PayConfirm");
        message.set("A", "1").set(row.m_Name, row.m_Right).set("B", "2");
        std::string const expected =
            std::string("<KVX MSGTYPE=\"PayConfirm\" A=\"1\" ") + row.m_Name + "=\"" + row.m_Wrong + "\" B=\"2\"/>";
        EXPECT_EQ(sandbox::withWrongContent(effect, {}, message).text(), expected);
    }
}

}  // namespace
