// Captures and completions on which something goes wrong.

#include "tests/flow/armedrow.h"
#include "tests/flow/flowsupport.h"

using namespace kvxtest;
using sandbox::ExchangeKind;

namespace {

std::int32_t complete(Shop const& shop, FlowMessage const& confirmation) {
    FlowMessage const completion = shop.completion(confirmation.get("ID"), confirmation.get("TOKEN"));
    KVX_HANDLE response = nullptr;
    std::int32_t const result = MessageObject_Execute(completion.handle(), &response);
    EXPECT_EQ(response != nullptr, result == KVX_OK);
    DestroyMessageObject(response);
    return result;
}

void expectPayments(Sandbox& sandbox, Shop const& shop, std::vector<FaultTableRow> const& rows) {
    for (FaultTableRow const& row : rows) {
        SCOPED_TRACE(nameOf(row));
        bool const isCapture = row.m_Exchange != ExchangeKind::kComplete;
        std::string const done = isCapture ? "captured" : "completed";
        Order const order{"F-" + std::to_string(&row - rows.data()), "12.50", "EUR"};
        Returned const returned = sandbox.shopper(shop.payment(order).url(), "pay");
        FlowMessage const confirmation = shop.verified(returned);
        std::string const token = confirmation.get("TOKEN");
        auto const ask = [&] { return isCapture ? shop.capture(returned.m_Data) : complete(shop, confirmation); };
        if (!isCapture) {
            ASSERT_EQ(shop.capture(returned.m_Data), KVX_OK);
        }
        {
            ArmedRow const armed(sandbox.service(), row, order.m_Id);
            EXPECT_EQ(asInRows(ask()), row.m_Result);
        }
        EXPECT_EQ(sandbox.stateOf(token), row.m_Left);
        EXPECT_EQ(timesIn(sandbox.service(), token, done), row.m_CarriedOut ? 1 : 0);

        EXPECT_EQ(ask(), KVX_OK);
        EXPECT_EQ(sandbox.stateOf(token), done);
        EXPECT_EQ(timesIn(sandbox.service(), token, "captured"), 1);
        EXPECT_EQ(timesIn(sandbox.service(), token, done), 1);
    }
}

}  // namespace

TEST(FaultTable, HoldsForTheCapture) {
    Sandbox sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    expectPayments(sandbox, shop, rowsOf(ExchangeKind::kCapture));
}

TEST(FaultTable, HoldsForTheCompletion) {
    Sandbox sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    expectPayments(sandbox, shop, rowsOf(ExchangeKind::kComplete));
}

TEST(FaultTable, HoldsForConnectionsOfAPayment) {
    Sandbox sandbox(true);
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.tlsAutoUrl()), KVX_OK);
    expectPayments(sandbox, shop, rowsOfConnections(false));
}

TEST(FaultTable, HoldsForTheProxy) {
    Sandbox sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    shop.useProxy(sandbox.service().proxyPort());
    expectPayments(sandbox, shop, rowsOfProxy(false));
}

TEST(FaultTable, HoldsForTunnelsThroughTheProxy) {
    Sandbox sandbox(true);
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.tlsAutoUrl()), KVX_OK);
    shop.useProxy(sandbox.service().proxyPort());
    expectPayments(sandbox, shop, rowsOfProxy(true));
}
