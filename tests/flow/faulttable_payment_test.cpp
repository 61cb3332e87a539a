// Captures and completions on which something goes wrong.

#include "tests/flow/faulthappening.h"
#include "tests/flow/flowsupport.h"

using namespace kvxtest;
using sandbox::ExchangeKind;

namespace {

std::int32_t complete(Shop const& shop, FlowMessage const& confirmation) {
    FlowMessage const completion = shop.completion(confirmation.get("ID"), confirmation.get("TOKEN"));
    KVX_HANDLE answer = nullptr;
    std::int32_t const result = MessageObject_Execute(completion.handle(), &answer);
    EXPECT_EQ(answer != nullptr, result == KVX_OK);
    DestroyMessageObject(answer);
    return result;
}

void expectPayments(Sandbox& sandbox, Shop const& shop, std::vector<FaultTableRow> const& rows) {
    for (FaultTableRow const& row : rows) {
        SCOPED_TRACE(nameOf(row));
        bool const isCapture = row.exchange != ExchangeKind::Complete;
        std::string const done = isCapture ? "captured" : "completed";
        Order const order{"F-" + std::to_string(&row - rows.data()), "12.50", "EUR"};
        Returned const returned = sandbox.shopper(shop.payment(order).url(), "pay");
        FlowMessage const confirmation = shop.verified(returned);
        std::string const token = confirmation.get("TOKEN");
        auto const ask = [&] { return isCapture ? shop.capture(returned.data) : complete(shop, confirmation); };
        if (!isCapture) {
            ASSERT_EQ(shop.capture(returned.data), KVX_OK);
        }
        {
            HappeningRow const happening(sandbox.service(), row, order.id);
            EXPECT_EQ(asInRows(ask()), row.result);
        }
        EXPECT_EQ(sandbox.stateOf(token), row.left);
        EXPECT_EQ(timesIn(sandbox.service(), token, done), row.carriedOut ? 1 : 0);

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
    expectPayments(sandbox, shop, rowsOf(ExchangeKind::Capture));
}

TEST(FaultTable, HoldsForTheCompletion) {
    Sandbox sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    expectPayments(sandbox, shop, rowsOf(ExchangeKind::Complete));
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
