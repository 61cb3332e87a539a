// The fault table as a whole, its page, and faults that a result code does not show.
//
// The table has a row for every fault at every exchange, in the order of the sandbox, and docs/fault-table.md is
// generated from it. To write the page again, set KVX_WRITE_FAULT_TABLE as the failing test says.

#include "tests/flow/faulttable.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <tuple>

#include "tallowin/codes.h"
#include "tests/flow/armedrow.h"
#include "tests/support/directories.h"

using namespace kvxtest;
using sandbox::ExchangeKind;
using sandbox::FaultKind;

namespace {

bool hasRow(ExchangeKind exchange, FaultKind kind, bool tunnelled = false) {
    return std::any_of(faultTable().begin(), faultTable().end(), [&](auto const& row) {
        return row.m_Exchange == exchange && row.m_Kind == kind && row.m_Tunnelled == tunnelled;
    });
}

bool isLeftOut(ExchangeKind exchange) {
    return std::any_of(leftOutExchanges().begin(), leftOutExchanges().end(),
                       [&](auto const& leftOut) { return leftOut.m_Exchange == exchange; });
}

/// Where in the order of the sandbox a row stands.
std::tuple<unsigned, std::ptrdiff_t, bool> placeOf(FaultTableRow const& row) {
    return {static_cast<unsigned>(row.m_Exchange), &sandbox::faultRow(row.m_Kind) - sandbox::allFaultKinds().data(),
            row.m_Tunnelled};
}

/// Set-ups that receive another key than the server's.
class ForeignServerKey : public FlowTest {
protected:
    /// Sets up with that fault, then verifies a confirmation.
    std::int32_t verifyAfterSettingUpWith(char const* fault) {
        arm(fault);
        EXPECT_EQ(shop().setUp(autoUrl()), KVX_OK);
        return shop().verify(pays(shop().payment()));
    }
};

class UnsignedResponse : public FlowTest {};

TEST_F(FaultTable, HasARowForEveryFaultOfEveryExchange) {
    for (sandbox::FaultKindRow const& kind : sandbox::allFaultKinds()) {
        for (ExchangeKind const exchange : sandbox::allExchangeKinds()) {
            bool const canHappen = (kind.m_Exchanges & static_cast<unsigned>(exchange)) != 0;
            if (canHappen && !isLeftOut(exchange)) {
                EXPECT_TRUE(hasRow(exchange, kind.m_Kind)) << kind.m_Name << " at " << sandbox::exchangeName(exchange);
            }
        }
        bool const canHappenInTunnels = (kind.m_Exchanges & static_cast<unsigned>(ExchangeKind::kProxy)) != 0;
        EXPECT_EQ(hasRow(ExchangeKind::kProxy, kind.m_Kind, true), canHappenInTunnels) << kind.m_Name << " in a tunnel";
        for (ExchangeKind const exchange : merchantExchanges()) {
            EXPECT_TRUE((kind.m_Exchanges & static_cast<unsigned>(ExchangeKind::kConnection)) == 0 ||
                        hasRow(exchange, kind.m_Kind))
                << kind.m_Name << " before " << sandbox::exchangeName(exchange);
        }
    }
}

TEST_F(FaultTable, HasRowsForNothingElseAndInOrder) {
    FaultTableRow const* before = nullptr;
    for (FaultTableRow const& row : faultTable()) {
        SCOPED_TRACE(nameOf(row));
        EXPECT_FALSE(isLeftOut(row.m_Exchange));
        EXPECT_NO_THROW(faultOf(row));
        EXPECT_EQ(row.m_BrowserResult != BrowserResult::kNoShopper, isOfShopper(row.m_Exchange));
        EXPECT_TRUE(!row.m_Tunnelled || row.m_Exchange == ExchangeKind::kProxy);
        EXPECT_TRUE(before == nullptr || placeOf(*before) <= placeOf(row))
            << "rows follow allExchangeKinds(), then allFaultKinds(), forwarded before tunnelled";
        before = &row;
    }
    for (LeftOutExchange const& leftOut : leftOutExchanges()) {
        EXPECT_STRNE(leftOut.m_Reason, "") << sandbox::exchangeName(leftOut.m_Exchange);
    }
}

TEST_F(FaultTable, IsThePageThatPeopleRead) {
    std::string const page = faultTablePage();
    if (char const* const file = std::getenv("KVX_WRITE_FAULT_TABLE")) {
        std::ofstream(file, std::ios::binary) << page;
    }
    EXPECT_TRUE(contentOf(KVX_DOCS_DIR "/fault-table.md") == page)
        << "generate it again: KVX_WRITE_FAULT_TABLE=docs/fault-table.md build/release/tests/flow/flow_tests "
           "--gtest_filter=FaultTable.IsThePageThatPeopleRead";
}

TEST_F(FaultTable, KeepsACutAnswerFromBeingASuccess) {
    // The response is cut, or has a zero byte, at every seventh position and at all positions near its end.
    constexpr std::int64_t kStep = 7;
    openShop();
    Returned const returned = pays(shop().payment());
    ASSERT_EQ(shop().capture(returned.m_Data), KVX_OK);
    auto const length = static_cast<std::int64_t>(sandboxtest::exchangesOf(service()).back().m_Response.size());
    for (FaultKind const kind : {FaultKind::kTruncate, FaultKind::kNulBytes}) {
        sandbox::Fault fault;
        fault.m_Kind = kind;
        fault.m_Exchange = ExchangeKind::kCapture;
        for (std::int64_t bytes = length - 1; bytes >= 0; bytes -= bytes > length - kStep ? 1 : kStep) {
            fault.m_Bytes = bytes;
            service().services().m_Faults.arm(fault);
            EXPECT_NE(shop().capture(returned.m_Data), KVX_OK) << sandbox::faultText(fault);
        }
        fault.m_Bytes = length;
        service().services().m_Faults.arm(fault);
        EXPECT_EQ(shop().capture(returned.m_Data), KVX_OK);
    }
}

TEST_F(FaultTable, KeepsAZeroByteInALongAnswerUnnoticed) {
    // The zero byte hides the rest of the bytes received at once; the next bytes received follow directly. Here the
    // hole is in an order's identifier.
    openShop();
    FlowMessage const payment = shop().payment({std::string(5000, 'x'), "12.50", "EUR"});
    Returned const returned = pays(payment);
    arm("nul-bytes,exchange=capture,bytes=1500");
    EXPECT_EQ(shop().capture(returned.m_Data), KVX_OK);
    EXPECT_EQ(stateOf(payment), "captured");
}

TEST_F(ForeignServerKey, ShowsAtTheNextConfirmationAndGoesWithTheNextSetUp) {
    startService();
    EXPECT_EQ(verifyAfterSettingUpWith("wrong-key,exchange=keyquery"), KVX_E_INVALID_SIGNATURE);
    EXPECT_EQ(shop().setUp(""), KVX_OK);
    expectNextPaymentWorks();
}

TEST_F(ForeignServerKey, KeepsAFirstSetUpWithoutTheServersKeyASuccess) {
    // The key is stored under the identifier that the response names, even when another was requested.
    startService();
    EXPECT_EQ(verifyAfterSettingUpWith("stale-key,exchange=keyquery"), KVX_E_NOT_FOUND);
    EXPECT_FALSE(shop().dir().exists("keys/public/" + service().services().m_Keys.current()->m_Id));
    EXPECT_EQ(shop().setUp(""), KVX_OK);
    expectNextPaymentWorks();
}

TEST_F(ForeignServerKey, OfAnEarlierTimeIsTakenForTheServersAfterARotation) {
    startService();
    std::string const old = service().services().m_Keys.current()->m_Id;
    service().services().m_Keys.rotate();
    EXPECT_EQ(verifyAfterSettingUpWith("stale-key,exchange=setup"), KVX_E_NOT_FOUND);
    EXPECT_TRUE(shop().dir().exists("keys/public/" + old));
    EXPECT_EQ(shop().setUp(""), KVX_OK);
    expectNextPaymentWorks();
}

TEST_F(ForeignServerKey, KeepsAConfirmationUnderAnOldKeyVerifiable) {
    // Every key of the directory counts, and set-ups leave the old ones in it.
    openShop();
    service().services().m_Keys.rotate();
    ASSERT_EQ(shop().setUp(""), KVX_OK);
    arm("stale-key,exchange=decision");
    FlowMessage const confirmation = shop().verified(pays(shop().payment()));
    EXPECT_NE(confirmation.get("KEYID"), service().services().m_Keys.current()->m_Id);
}

TEST_F(UnsignedResponse, KeepsBeingBelieved) {
    // The response to a capture carries no signature: any server in the service's place can report success.
    openShop();
    FlowMessage const payment = shop().payment();
    Returned const returned = pays(payment);
    arm("http-status,exchange=capture,status=200,text=<KVX MSGTYPE=\"PayConfirm\"/>");
    EXPECT_EQ(shop().capture(returned.m_Data), KVX_OK);
    EXPECT_EQ(stateOf(payment), "authorised");
}

}  // namespace
