// Whole payments, from the set-up of the account to the completion.
//
// The fixture opens a shop at a running sandbox; payments are declined, cancelled, captured, completed and mixed up.
// Odd: the merchant's own PayInit verifies as a confirmation, so a shop must check the type.

#include "tallowin/codes.h"
#include "tests/flow/flowsupport.h"
#include "tests/support/encodings.h"

using namespace kvxtest;

namespace {

/// The checks of a shop before it hands the goods over.
void expectConfirms(FlowMessage const& confirmation, FlowMessage const& payment, Order const& order) {
    EXPECT_EQ(confirmation.get("MSGTYPE"), "PayConfirm");
    EXPECT_EQ(confirmation.get("TOKEN"), payment.get("TOKEN"));
    EXPECT_EQ(confirmation.get("AMOUNT"), order.m_Amount);
    EXPECT_EQ(confirmation.get("CURRENCY"), order.m_Currency);
    EXPECT_EQ(confirmation.get("ORDERID"), order.m_Id);
}

class Payment : public FlowTest {
protected:
    /// Runs one payment from its URL to its completion.
    void payInFull(Order const& order = {}) const;

    /// DATA and SIGNATURE of the payment URL, brought back by the shopper as a confirmation.
    static Returned ownMessageOf(FlowMessage const& payment);
};

void Payment::payInFull(Order const& order) const {
    FlowMessage const payment = shop().payment(order);
    Returned const returned = pays(payment);
    EXPECT_EQ(returned.m_Link, "http://shop.example/paid");

    FlowMessage const confirmation = shop().verified(returned);
    expectConfirms(confirmation, payment, order);
    EXPECT_EQ(confirmation.get("RESULT"), "authorised");
    EXPECT_EQ(stateOf(payment), "authorised");

    EXPECT_EQ(shop().capture(returned.m_Data), KVX_OK) << sandbox().lastVerdict();
    EXPECT_EQ(stateOf(payment), "captured");

    FlowMessage const completion = shop().completion(confirmation.get("ID"), payment.get("TOKEN"));
    FlowMessage const completed = responseTo(completion);
    EXPECT_EQ(completed.get("MSGTYPE"), "PayCompleteResponse");
    EXPECT_EQ(completed.get("ID"), confirmation.get("ID"));
    EXPECT_EQ(completed.get("STATE"), "completed");
    EXPECT_EQ(stateOf(payment), "completed");
}

Returned Payment::ownMessageOf(FlowMessage const& payment) {
    std::string const url = payment.url();
    return {"", percentDecoded(queryValue(url, "DATA")), queryValue(url, "SIGNATURE")};
}

TEST_F(Payment, GoesFromSetUpToCompletion) {
    openShop();
    payInFull();
}

TEST_F(Payment, GoesFromSetUpToCompletionOverTls) {
    openShop(Transport::kTls);
    EXPECT_EQ(shop().payment().url().find("https://127.0.0.1:"), 0U);
    payInFull();
}

TEST_F(Payment, CanBeMadeManyTimesFromOneDirectory) {
    openShop();
    for (int i = 0; i < 10; ++i) {
        payInFull({"B-" + std::to_string(i), std::to_string(i) + ".99", "CHF"});
    }
}

TEST_F(Payment, ThatTheShopperDeclinesIsConfirmedAsDeclined) {
    openShop();
    FlowMessage const payment = shop().payment();
    Returned const returned = declines(payment);
    EXPECT_EQ(returned.m_Link, "http://shop.example/failed");
    FlowMessage const confirmation = shop().verified(returned);
    expectConfirms(confirmation, payment, {});
    EXPECT_EQ(confirmation.get("RESULT"), "declined");
    EXPECT_EQ(shop().capture(returned.m_Data), KVX_E_SERVER_ERROR);
    EXPECT_EQ(stateOf(payment), "declined");
}

TEST_F(Payment, ThatTheShopperCancelsIsConfirmedAsCancelled) {
    openShop();
    FlowMessage const payment = shop().payment();
    Returned const returned = cancels(payment);
    EXPECT_EQ(returned.m_Link, "http://shop.example/back");
    FlowMessage const confirmation = shop().verified(returned);
    EXPECT_EQ(confirmation.get("RESULT"), "cancelled");
    FlowMessage const completion = shop().completion(confirmation.get("ID"), payment.get("TOKEN"));
    EXPECT_EQ(execute(completion), KVX_E_SERVER_ERROR);
    EXPECT_EQ(stateOf(payment), "cancelled");
}

TEST_F(Payment, OfBytesOutsideAsciiIsConfirmed) {
    // The service signs such bytes sign-extended, as confirmations are verified.
    openShop();
    for (std::string const& id : {std::string("caf\xc3\xa9"), std::string("\xe6\xb3\xa8\xe6\x96\x87 7"),
                                  std::string("\xf0\x9f\x92\xb6"), std::string("<&>\"' ;+%=?#")}) {
        FlowMessage const payment = shop().payment({id, "1.00", "EUR"});
        std::string const url = payment.url();
        EXPECT_EQ(url.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789%:/?&=."),
                  std::string::npos)
            << url;
        Returned const returned = pays(payment);
        FlowMessage const confirmation = shop().verified(returned);
        expectConfirms(confirmation, payment, {id, "1.00", "EUR"});
    }
}

TEST_F(Payment, OfBytesOutsideAsciiCannotBeVerifiedAsTheMerchantSignedIt) {
    // A merchant signs zero-extended units and verifies sign-extended ones.
    openShop();
    Returned const own = ownMessageOf(shop().payment({"caf\xc3\xa9", "1.00", "EUR"}));
    EXPECT_EQ(shop().verify(own), KVX_E_INVALID_SIGNATURE);
}

TEST_F(Payment, KeepsTheMerchantsOwnPayInitVerifiable) {
    // The shopper has seen DATA and SIGNATURE of the payment URL and can hand them in as a confirmation. Only the type
    // differs, so a shop must check it.
    openShop();
    FlowMessage const payment = shop().payment();
    FlowMessage const accepted = shop().verified(ownMessageOf(payment));
    EXPECT_EQ(accepted.get("TOKEN"), payment.get("TOKEN"));
    EXPECT_NE(accepted.get("MSGTYPE"), "PayConfirm");
}

TEST_F(Payment, IsToldFromAnotherByItsToken) {
    openShop();
    FlowMessage const cheap = shop().payment({"A-1", "0.01", "EUR"});
    FlowMessage const dear = shop().payment({"A-2", "999.00", "EUR"});
    FlowMessage const confirmation = shop().verified(pays(cheap));
    EXPECT_EQ(confirmation.get("TOKEN"), cheap.get("TOKEN"));
    EXPECT_NE(confirmation.get("TOKEN"), dear.get("TOKEN"));
    EXPECT_NE(confirmation.get("AMOUNT"), "999.00");
}

TEST_F(Payment, OfAnotherMerchantIsNotSignedByAKeyThatThisOneHas) {
    openShop();
    Sandbox const other;
    Shop const stranger;
    ASSERT_EQ(stranger.setUp(other.autoUrl()), KVX_OK);
    Returned const returned = other.shopper(stranger.payment().url(), "pay");
    EXPECT_EQ(stranger.verify(returned), KVX_OK);
    std::int32_t const result = shop().verify(returned);
    EXPECT_TRUE(result == KVX_E_NOT_FOUND || result == KVX_E_INVALID_SIGNATURE) << std::hex << result;
}

TEST_F(Payment, IsCapturedOnlyByAnObjectThatWasOpenedForSigning) {
    openShop();
    FlowMessage const payment = shop().payment();
    Returned const returned = pays(payment);
    FlowMessage const confirmation = shop().verified(returned);
    long const before = sandbox().accepted("/capture");
    EXPECT_EQ(MessageObject_Capture(confirmation.handle()), KVX_E_NOT_FOUND);
    EXPECT_EQ(stateOf(payment), "authorised");
    EXPECT_EQ(sandbox().accepted("/capture"), before) << "nothing was sent";
    EXPECT_EQ(shop().capture(returned.m_Data), KVX_OK);
    EXPECT_EQ(shop().capture(returned.m_Data), KVX_OK) << "capturing again changes nothing";
    EXPECT_EQ(stateOf(payment), "captured");
}

TEST_F(Payment, CannotBeCapturedWithAnotherAmount) {
    openShop();
    FlowMessage const payment = shop().payment();
    Returned const returned = pays(payment);
    FlowMessage const capture = shop().filled(returned.m_Data);
    capture.set("AMOUNT", "99.00");
    EXPECT_EQ(MessageObject_Capture(capture.handle()), KVX_E_SERVER_ERROR);
    EXPECT_EQ(stateOf(payment), "authorised");
}

TEST_F(Payment, StateCanBeAskedForWithARequest) {
    openShop();
    FlowMessage const payment = shop().payment();
    Returned const returned = pays(payment);
    FlowMessage const status = shop().filled("<KVX MSGTYPE=\"Status\" TOKEN=\"" + payment.get("TOKEN") + "\"/>");
    FlowMessage const response = responseTo(status);
    EXPECT_EQ(response.get("MSGTYPE"), "StatusResponse");
    EXPECT_EQ(response.get("STATE"), "authorised");
    EXPECT_EQ(shop().verified(returned).get("ID"), response.get("ID"));
}

}  // namespace
