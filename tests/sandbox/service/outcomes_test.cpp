// Outcomes of another kind: decisions that are pending at first, authorisations that lapse, captures that are refused
// for good. The clock is the test's own, so nothing waits for time to pass.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "sandbox/service/notifier.h"
#include "sandbox/service/paymentmoves.h"
#include "tests/sandbox/support/sandboxfixture.h"

namespace {

using namespace sandboxtest;
using sandbox::PaymentState;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr std::time_t kStart = 1700000000;

class Outcomes : public SandboxTest {
protected:
    void arm(std::string const& fault) const { m_Service->services().m_Faults.arm(sandbox::parseFault(fault)); }

    [[nodiscard]] PaymentState state() const { return sandboxtest::paymentsOf(*m_Service).at(0).m_State; }

    [[nodiscard]] std::string askStatus() const {
        return attributeOf(askCapture(m_Merchant.message("StatusRequest", " TOKEN=\"t1\"")), "STATE");
    }

    /// Pays the only payment, whose page is `page`, and returns the RESULT of the confirmation.
    [[nodiscard]] std::string resultOf(RawResponse const& page, std::string const& decision) const {
        RawResponse const back = press(page, decision);
        EXPECT_EQ(back.m_Status, 302) << back.m_Body;
        return attributeOf(percentDecoded(queryValue(back.m_Headers.at("location"), "DATA")), "RESULT");
    }

    /// Authorises a payment whose authorisation is valid for `validity`, and returns what captures it.
    [[nodiscard]] std::string authoriseFor(std::string const& validity) const {
        RawResponse const page = openPage(m_Merchant.payInit("t1", " DEFAULTVALIDITY=\"" + validity + "\""));
        EXPECT_EQ(resultOf(page, "pay"), "authorised");
        return m_Merchant.message("PayConfirm", " TOKEN=\"t1\"");
    }

    void moveTo(std::time_t moment) {
        m_Now = moment;
        m_Service->services().m_Notifier.wake();
    }
};

TEST_F(Outcomes, ArePendingUntilTheSecondsHavePassed) {
    arm("pending,seconds=30");
    RawResponse const page = openPage(m_Merchant.payInit("t1"));
    RawResponse const back = press(page, "pay");
    EXPECT_THAT(back.m_Headers.at("location"), StartsWith("http://shop.example/ok?DATA="));
    EXPECT_EQ(state(), PaymentState::kPending);
    EXPECT_EQ(resultOf(page, "pay"), "pending") << "a second click changes nothing";
    EXPECT_EQ(press(page, "decline").m_Status, 409);
    EXPECT_EQ(reasonOf(askCapture(m_Merchant.message("PayConfirm", " TOKEN=\"t1\""))),
              "the payment is pending, it cannot be captured");
    m_Now = kStart + 29;
    EXPECT_EQ(askStatus(), "pending");
    m_Now = kStart + 30;
    EXPECT_EQ(askStatus(), "authorised");
    EXPECT_EQ(resultOf(page, "pay"), "authorised");
    EXPECT_EQ(reasonOf(askCapture(m_Merchant.message("PayConfirm", " TOKEN=\"t1\""))), "");
    EXPECT_EQ(state(), PaymentState::kCaptured);
}

TEST_F(Outcomes, PendAfterEveryDecision) {
    RawResponse const declined = openPage(m_Merchant.payInit("t1"));
    RawResponse const cancelled = openPage(m_Merchant.payInit("t2"));
    arm("pending,times=2");
    EXPECT_EQ(resultOf(declined, "decline"), "pending");
    EXPECT_EQ(resultOf(cancelled, "cancel"), "pending");
    EXPECT_THAT(openPage(m_Merchant.payInit("t1")).m_Body, HasSubstr("which is pending"));
    moveTo(kStart + 5);
    EXPECT_TRUE(
        comesTrue([this] { return sandboxtest::paymentsOf(*m_Service)[1].m_State == PaymentState::kCancelled; }));
    EXPECT_EQ(state(), PaymentState::kDeclined);
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_History.back().m_Time, "2023-11-14T22:13:25Z");
}

TEST_F(Outcomes, AreNotifiedWhenTheyAreFinal) {
    arm("pending,exchange=decision,seconds=30");
    RawResponse const page = openPage(m_Merchant.payInit("t1", " NOTIFYADDRESS=\"shop@example\""));
    EXPECT_EQ(resultOf(page, "pay"), "pending");
    EXPECT_TRUE(sandboxtest::notificationsOf(*m_Service).empty());
    moveTo(kStart + 30);
    ASSERT_TRUE(comesTrue([this] { return sandboxtest::notificationsOf(*m_Service).size() == 1; }));
    EXPECT_EQ(sandboxtest::notificationsOf(*m_Service)[0].m_Result, "authorised");
}

TEST_F(Outcomes, StayPendingOverARestart) {
    arm("pending,seconds=30");
    EXPECT_EQ(resultOf(openPage(m_Merchant.payInit("t1")), "pay"), "pending");
    m_Service->stop();
    m_Now = kStart + 31;
    restart();
    EXPECT_TRUE(comesTrue([this] { return state() == PaymentState::kAuthorised; }));
}

TEST_F(Outcomes, PendOnlyOnOpenPayments) {
    RawResponse const page = openPage(m_Merchant.payInit("t1"));
    EXPECT_EQ(resultOf(page, "pay"), "authorised");
    arm("pending");
    EXPECT_EQ(resultOf(page, "pay"), "authorised");
    EXPECT_EQ(m_Service->services().m_Faults.armed().size(), 1u);
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).back().m_Steps.at(0).m_Found, "the payment is authorised");
}

TEST_F(Outcomes, AuthorisationsLapseAfterTheirValidity) {
    std::string const capture = authoriseFor("86400");
    m_Now = kStart + 86400;
    EXPECT_EQ(state(), PaymentState::kAuthorised);
    moveTo(kStart + 86401);
    EXPECT_TRUE(comesTrue([this] { return state() == PaymentState::kLapsed; }));
    EXPECT_EQ(reasonOf(askCapture(capture)),
              "the authorisation has lapsed: it was given at 2023-11-14T22:13:20Z, DEFAULTVALIDITY is 86400 seconds, "
              "now is 2023-11-15T22:13:21Z");
    EXPECT_THAT(reasonOf(askCapture(m_Merchant.message(
                    "PayCompleteRequest", " TOKEN=\"t1\" ID=\"" + sandboxtest::paymentsOf(*m_Service)[0].m_Id + "\""))),
                StartsWith("the authorisation has lapsed"));
    EXPECT_EQ(askStatus(), "lapsed");
    m_Now = kStart;
    EXPECT_EQ(askStatus(), "lapsed") << "what has lapsed stays so";
    EXPECT_TRUE(sandboxtest::notificationsOf(*m_Service).empty());
    EXPECT_THAT(openPage(m_Merchant.payInit("t1", " DEFAULTVALIDITY=\"86400\"")).m_Body,
                HasSubstr("http://shop.example/ok?DATA="));
}

TEST_F(Outcomes, AuthorisationsCapturedInTimeDoNotLapse) {
    std::string const capture = authoriseFor("60");
    m_Now = kStart + 60;
    EXPECT_EQ(reasonOf(askCapture(capture)), "");
    m_Now = kStart + 100;
    EXPECT_EQ(reasonOf(askCapture(capture)), "");
    EXPECT_EQ(state(), PaymentState::kCaptured);
}

TEST_F(Outcomes, AuthorisationsWithoutAReadableValidityDoNotLapse) {
    for (char const* const validity : {"", "a day", "-1", "1.5", "99999999999"}) {
        sandbox::Payment payment;
        payment.m_Attributes = {{"DEFAULTVALIDITY", validity}};
        EXPECT_EQ(sandbox::validityOf(payment), std::nullopt) << validity;
    }
    EXPECT_EQ(sandbox::validityOf({}), std::nullopt);
    std::string const capture = authorise("t1");
    m_Now = 4'000'000'000;
    EXPECT_EQ(reasonOf(askCapture(capture)), "");
}

TEST_F(Outcomes, CapturesAreRefusedForGood) {
    arm("refuse-capture,text=Card stolen");
    std::string const capture = authorise("t1");
    EXPECT_EQ(reasonOf(askCapture(capture)), "Card stolen");
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).back().m_Fault, "refuse-capture,text=Card stolen");
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).back().m_Verdict, "Card stolen");
    EXPECT_TRUE(m_Service->services().m_Faults.armed().empty());
    EXPECT_EQ(reasonOf(askCapture(capture)), "Card stolen") << "without the fault too";
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).back().m_Fault, "");
    EXPECT_EQ(reasonOf(askCapture(m_Merchant.message(
                  "PayCompleteRequest", " TOKEN=\"t1\" ID=\"" + sandboxtest::paymentsOf(*m_Service)[0].m_Id + "\""))),
              "Card stolen");
    restart();
    EXPECT_EQ(reasonOf(askCapture(capture)), "Card stolen");
    EXPECT_EQ(state(), PaymentState::kAuthorised);
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_History.back().m_Note, "capture refused for good");
    EXPECT_EQ(reasonOf(askCapture(authorise("t2"))), "") << "it is for one payment";
}

TEST_F(Outcomes, CapturesThatWereMadeAreNotRefused) {
    std::string const capture = authorise("t1");
    EXPECT_EQ(reasonOf(askCapture(capture)), "");
    arm("refuse-capture");
    EXPECT_EQ(reasonOf(askCapture(capture)), "");
    EXPECT_EQ(m_Service->services().m_Faults.armed().size(), 1u);
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).back().m_Steps.at(0).m_Found, "the payment is captured");
}

TEST_F(Outcomes, CapturesAreNotRefusedToStrangers) {
    authorise("t1");
    arm("refuse-capture");
    std::string const text = m_Merchant.message("PayConfirm", " TOKEN=\"t1\"");
    std::string const query = "?DATA=" + percentEncoded(text) + "&SIGNATURE=" + m_Merchant.sign(text + " ");
    EXPECT_THAT(reasonOf(get("/capture" + query).m_Body), StartsWith("SIGNATURE is not one of DATA"));
    EXPECT_EQ(reasonOf(askCapture(text)), "") << "no mark was left";
}

}  // namespace
