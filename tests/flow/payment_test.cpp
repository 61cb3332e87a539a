// Whole payments, from the set-up of the account to the completion.

#include "tests/flow/flowsupport.h"
#include "tests/sandbox/support/testmerchant.h"

using namespace kvxtest;

namespace {

/// What a shop does between a confirmation and handing the goods over.
void expectConfirms(FlowMessage const& confirmation, FlowMessage const& payment, Order const& order) {
    EXPECT_EQ(confirmation.get("MSGTYPE"), "PayConfirm");
    EXPECT_EQ(confirmation.get("TOKEN"), payment.get("TOKEN"));
    EXPECT_EQ(confirmation.get("AMOUNT"), order.m_Amount);
    EXPECT_EQ(confirmation.get("CURRENCY"), order.m_Currency);
    EXPECT_EQ(confirmation.get("ORDERID"), order.m_Id);
}

/// Runs one payment from its URL to its completion.
void payInFull(Sandbox const& sandbox, Shop const& shop, Order const& order) {
    FlowMessage const payment = shop.payment(order);
    Returned const returned = sandbox.shopper(payment.url(), "pay");
    EXPECT_EQ(returned.m_Link, "http://shop.example/paid");

    FlowMessage const confirmation = shop.verified(returned);
    expectConfirms(confirmation, payment, order);
    EXPECT_EQ(confirmation.get("RESULT"), "authorised");
    EXPECT_EQ(sandbox.stateOf(payment.get("TOKEN")), "authorised");

    EXPECT_EQ(shop.capture(returned.m_Data), KVX_OK) << sandbox.lastVerdict();
    EXPECT_EQ(sandbox.stateOf(payment.get("TOKEN")), "captured");

    FlowMessage const completion = shop.completion(confirmation.get("ID"), payment.get("TOKEN"));
    KVX_HANDLE response = nullptr;
    ASSERT_EQ(MessageObject_Execute(completion.handle(), &response), KVX_OK) << sandbox.lastVerdict();
    FlowMessage const completed(response);
    EXPECT_EQ(completed.get("MSGTYPE"), "PayCompleteResponse");
    EXPECT_EQ(completed.get("ID"), confirmation.get("ID"));
    EXPECT_EQ(completed.get("STATE"), "completed");
    EXPECT_EQ(sandbox.stateOf(payment.get("TOKEN")), "completed");
}

}  // namespace

TEST(Payment, GoesFromSetUpToCompletion) {
    Sandbox const sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    payInFull(sandbox, shop, {});
}

TEST(Payment, GoesFromSetUpToCompletionOverTls) {
    Sandbox const sandbox(true);
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.tlsAutoUrl()), KVX_OK);
    EXPECT_EQ(shop.payment().url().find("https://127.0.0.1:"), 0U);
    payInFull(sandbox, shop, {});
}

TEST(Payment, CanBeMadeManyTimesFromOneDirectory) {
    Sandbox const sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    for (int i = 0; i < 10; ++i) {
        payInFull(sandbox, shop, {"B-" + std::to_string(i), std::to_string(i) + ".99", "CHF"});
    }
}

TEST(Payment, ThatTheShopperDeclinesIsConfirmedAsDeclined) {
    Sandbox const sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    FlowMessage const payment = shop.payment();
    Returned const returned = sandbox.shopper(payment.url(), "decline");
    EXPECT_EQ(returned.m_Link, "http://shop.example/failed");
    FlowMessage const confirmation = shop.verified(returned);
    expectConfirms(confirmation, payment, {});
    EXPECT_EQ(confirmation.get("RESULT"), "declined");
    EXPECT_EQ(shop.capture(returned.m_Data), KVX_E_SERVER_ERROR);
    EXPECT_EQ(sandbox.stateOf(payment.get("TOKEN")), "declined");
}

TEST(Payment, ThatTheShopperCancelsIsConfirmedAsCancelled) {
    Sandbox const sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    FlowMessage const payment = shop.payment();
    Returned const returned = sandbox.shopper(payment.url(), "cancel");
    EXPECT_EQ(returned.m_Link, "http://shop.example/back");
    FlowMessage const confirmation = shop.verified(returned);
    EXPECT_EQ(confirmation.get("RESULT"), "cancelled");
    FlowMessage const completion = shop.completion(confirmation.get("ID"), payment.get("TOKEN"));
    KVX_HANDLE response = nullptr;
    EXPECT_EQ(MessageObject_Execute(completion.handle(), &response), KVX_E_SERVER_ERROR);
    EXPECT_EQ(response, nullptr);
    EXPECT_EQ(sandbox.stateOf(payment.get("TOKEN")), "cancelled");
}

TEST(Payment, OfBytesOutsideAsciiIsConfirmed) {
    // The service signs such bytes sign-extended, as confirmations are verified.
    Sandbox const sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    for (std::string const& id : {std::string("caf\xc3\xa9"), std::string("\xe6\xb3\xa8\xe6\x96\x87 7"),
                                  std::string("\xf0\x9f\x92\xb6"), std::string("<&>\"' ;+%=?#")}) {
        FlowMessage const payment = shop.payment({id, "1.00", "EUR"});
        std::string const url = payment.url();
        EXPECT_EQ(url.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789%:/?&=."),
                  std::string::npos)
            << url;
        Returned const returned = sandbox.shopper(url, "pay");
        FlowMessage const confirmation = shop.verified(returned);
        expectConfirms(confirmation, payment, {id, "1.00", "EUR"});
    }
}

TEST(Payment, OfBytesOutsideAsciiCannotBeVerifiedAsTheMerchantSignedIt) {
    // A merchant signs zero-extended units and verifies sign-extended ones.
    Sandbox const sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    std::string const url = shop.payment({"caf\xc3\xa9", "1.00", "EUR"}).url();
    Returned const own{"", sandboxtest::decode(sandboxtest::queryValue(url, "DATA")),
                       sandboxtest::queryValue(url, "SIGNATURE")};
    EXPECT_EQ(shop.verify(own), KVX_E_INVALID_SIGNATURE);
}

TEST(Payment, KeepsTheMerchantsOwnPayInitVerifiable) {
    // The shopper has seen DATA and SIGNATURE of the payment URL and can hand them in as a confirmation. Only the type
    // tells: so a shop must look at it.
    Sandbox const sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    FlowMessage const payment = shop.payment();
    std::string const url = payment.url();
    Returned const own{"", sandboxtest::decode(sandboxtest::queryValue(url, "DATA")),
                       sandboxtest::queryValue(url, "SIGNATURE")};
    FlowMessage const accepted = shop.verified(own);
    EXPECT_EQ(accepted.get("TOKEN"), payment.get("TOKEN"));
    EXPECT_NE(accepted.get("MSGTYPE"), "PayConfirm");
}

TEST(Payment, IsToldFromAnotherByItsToken) {
    Sandbox const sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    FlowMessage const cheap = shop.payment({"A-1", "0.01", "EUR"});
    FlowMessage const dear = shop.payment({"A-2", "999.00", "EUR"});
    FlowMessage const confirmation = shop.verified(sandbox.shopper(cheap.url(), "pay"));
    EXPECT_EQ(confirmation.get("TOKEN"), cheap.get("TOKEN"));
    EXPECT_NE(confirmation.get("TOKEN"), dear.get("TOKEN"));
    EXPECT_NE(confirmation.get("AMOUNT"), "999.00");
}

TEST(Payment, OfAnotherMerchantIsNotSignedByAKeyThatThisOneHas) {
    Sandbox const one;
    Sandbox const other;
    Shop const shop;
    Shop const stranger;
    ASSERT_EQ(shop.setUp(one.autoUrl()), KVX_OK);
    ASSERT_EQ(stranger.setUp(other.autoUrl()), KVX_OK);
    Returned const returned = other.shopper(stranger.payment().url(), "pay");
    EXPECT_EQ(stranger.verify(returned), KVX_OK);
    std::int32_t const result = shop.verify(returned);
    EXPECT_TRUE(result == KVX_E_NOT_FOUND || result == KVX_E_INVALID_SIGNATURE) << std::hex << result;
}

TEST(Payment, IsCapturedOnlyByAnObjectThatWasOpenedForSigning) {
    Sandbox const sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    FlowMessage const payment = shop.payment();
    Returned const returned = sandbox.shopper(payment.url(), "pay");
    FlowMessage const confirmation = shop.verified(returned);
    long const before = sandbox.accepted("/capture");
    EXPECT_EQ(MessageObject_Capture(confirmation.handle()), KVX_E_NOT_FOUND);
    EXPECT_EQ(sandbox.stateOf(payment.get("TOKEN")), "authorised");
    EXPECT_EQ(sandbox.accepted("/capture"), before) << "nothing was sent";
    EXPECT_EQ(shop.capture(returned.m_Data), KVX_OK);
    EXPECT_EQ(shop.capture(returned.m_Data), KVX_OK) << "capturing again changes nothing";
    EXPECT_EQ(sandbox.stateOf(payment.get("TOKEN")), "captured");
}

TEST(Payment, CannotBeCapturedWithAnotherAmount) {
    Sandbox const sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    FlowMessage const payment = shop.payment();
    Returned const returned = sandbox.shopper(payment.url(), "pay");
    FlowMessage const capture = shop.filled(returned.m_Data);
    capture.set("AMOUNT", "99.00");
    EXPECT_EQ(MessageObject_Capture(capture.handle()), KVX_E_SERVER_ERROR);
    EXPECT_EQ(sandbox.stateOf(payment.get("TOKEN")), "authorised");
}

TEST(Payment, StateCanBeAskedForWithARequest) {
    Sandbox const sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    FlowMessage const payment = shop.payment();
    Returned const returned = sandbox.shopper(payment.url(), "pay");
    FlowMessage const status = shop.filled("<KVX MSGTYPE=\"Status\" TOKEN=\"" + payment.get("TOKEN") + "\"/>");
    KVX_HANDLE response = nullptr;
    ASSERT_EQ(MessageObject_Execute(status.handle(), &response), KVX_OK) << sandbox.lastVerdict();
    FlowMessage const reported(response);
    EXPECT_EQ(reported.get("MSGTYPE"), "StatusResponse");
    EXPECT_EQ(reported.get("STATE"), "authorised");
    EXPECT_EQ(shop.verified(returned).get("ID"), reported.get("ID"));
}
