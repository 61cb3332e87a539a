// Captures and completions with a fault, one payment for each row of the table.
//
// Each payment is captured, or completed, with the fault of its row and then once more without. In the end the service
// has done it exactly once, whatever happened the first time.

#include "tallowin/codes.h"
#include "tests/flow/armedrow.h"

using namespace kvxtest;
using sandbox::ExchangeKind;

void FaultTable::expectPayments(std::vector<FaultTableRow> const& rows) {
    // One that stays open to swap with. Those to replay come of the rows before.
    EXPECT_EQ(sandbox().statusOf(shop().payment().url()), 200);
    for (FaultTableRow const& plain : rows) {
        FaultTableRow const row = expected(plain);
        SCOPED_TRACE(nameOf(row));
        bool const isCapture = row.m_Exchange != ExchangeKind::kComplete;
        std::string const done = isCapture ? "captured" : "completed";
        Order const order{"F-" + std::to_string(&plain - rows.data()), "12.50", "EUR"};
        Returned const returned = pays(shop().payment(order));
        FlowMessage const confirmation = shop().verified(returned);
        std::string const token = confirmation.get("TOKEN");
        auto const settle = [&] {
            return isCapture ? shop().capture(returned.m_Data)
                             : execute(shop().completion(confirmation.get("ID"), token));
        };
        if (!isCapture) {
            ASSERT_EQ(shop().capture(returned.m_Data), KVX_OK);
        }
        {
            ArmedRow const armed(service(), row, order.m_Id, faultSize());
            EXPECT_EQ(asInRows(settle()), row.m_Result);
        }
        EXPECT_EQ(stateOf(confirmation), row.m_Left);
        EXPECT_EQ(timesIn(service(), token, done), row.m_CarriedOut ? 1 : 0);

        if (row.m_Kind == sandbox::FaultKind::kRefuseCapture) {
            EXPECT_EQ(settle(), row.m_Result) << "without the fault too";
            EXPECT_EQ(timesIn(service(), token, done), 0);
            continue;
        }
        EXPECT_EQ(settle(), KVX_OK);
        EXPECT_EQ(stateOf(confirmation), done);
        EXPECT_EQ(timesIn(service(), token, "captured"), 1);
        EXPECT_EQ(timesIn(service(), token, done), 1);
    }
}

TEST_F(FaultTable, HoldsForTheCapture) {
    openShop();
    expectPayments(rowsOf(ExchangeKind::kCapture));
}

TEST_F(FaultTable, HoldsForTheCompletion) {
    openShop();
    expectPayments(rowsOf(ExchangeKind::kComplete));
}

TEST_F(FaultTable, HoldsForConnectionsOfAPayment) {
    openShop(Transport::kTls);
    expectPayments(rowsOfConnections(false));
}

TEST_F(FaultTable, HoldsForTheProxy) {
    openShop();
    shop().useProxy(service().addresses().m_Proxy.m_Port);
    expectPayments(rowsOfProxy(false));
}

TEST_F(FaultTable, HoldsForTunnelsThroughTheProxy) {
    openShop(Transport::kTls);
    shop().useProxy(service().addresses().m_Proxy.m_Port);
    expectPayments(rowsOfProxy(true));
}

// The same under strict settings.

class StrictPayments : public FaultTable {
protected:
    void openStrictShop(Transport transport = Transport::kPlain, bool usesProxy = false) {
        openShop(transport);
        makeStrict(shop(), usesProxy ? service().addresses().m_Proxy.m_Port : std::uint16_t{0});
        beStrict();
    }
};

TEST_F(StrictPayments, HoldsForTheCapture) {
    openStrictShop();
    expectPayments(rowsOf(ExchangeKind::kCapture));
}

TEST_F(StrictPayments, HoldsForTheCompletion) {
    openStrictShop();
    expectPayments(rowsOf(ExchangeKind::kComplete));
}

TEST_F(StrictPayments, HoldsForConnectionsOfAPayment) {
    openStrictShop(Transport::kTls);
    expectPayments(rowsOfConnections(false));
}

TEST_F(StrictPayments, HoldsForTheProxy) {
    openStrictShop(Transport::kPlain, true);
    expectPayments(rowsOfProxy(false));
}

TEST_F(StrictPayments, HoldsForTunnelsThroughTheProxy) {
    openStrictShop(Transport::kTls, true);
    expectPayments(rowsOfProxy(true));
}
