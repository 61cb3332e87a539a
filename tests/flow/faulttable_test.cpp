// The fault table as a whole, and answers that are worse than their result tells.

#include "tests/flow/faulttable.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <tuple>

#include "tests/flow/armedrow.h"
#include "tests/flow/flowsupport.h"

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

}  // namespace

TEST(FaultTable, HasARowForEveryFaultOfEveryExchange) {
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

TEST(FaultTable, HasRowsForNothingElseAndInOrder) {
    FaultTableRow const* before = nullptr;
    for (FaultTableRow const& row : faultTable()) {
        SCOPED_TRACE(nameOf(row));
        EXPECT_FALSE(isLeftOut(row.m_Exchange));
        EXPECT_NO_THROW(faultOf(row));
        EXPECT_EQ(row.m_BrowserResult != BrowserResult::kNoShopper, isOfShopper(row.m_Exchange));
        EXPECT_TRUE(!row.m_Tunnelled || row.m_Exchange == ExchangeKind::kProxy);
        EXPECT_TRUE(before == nullptr || placeOf(*before) <= placeOf(row));
        before = &row;
    }
    for (LeftOutExchange const& leftOut : leftOutExchanges()) {
        EXPECT_STRNE(leftOut.m_Reason, "") << sandbox::exchangeName(leftOut.m_Exchange);
    }
}

TEST(FaultTable, IsThePageThatPeopleRead) {
    std::string const page = faultTablePage();
    if (char const* const file = std::getenv("KVX_WRITE_FAULT_TABLE")) {
        std::ofstream(file, std::ios::binary) << page;
    }
    std::ifstream in(KVX_DOCS_DIR "/fault-table.md", std::ios::binary);
    std::string const committed{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    EXPECT_TRUE(committed == page) << "write it anew: KVX_WRITE_FAULT_TABLE=docs/fault-table.md flow_tests "
                                      "--gtest_filter=FaultTable.IsThePageThatPeopleRead";
}

TEST(FaultTable, KeepsACutAnswerFromBeingASuccess) {
    // Wherever the answer is cut and wherever a zero byte stands in it, before its last byte.
    constexpr std::int64_t kStep = 7;
    Sandbox sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    Returned const returned = sandbox.shopper(shop.payment().url(), "pay");
    ASSERT_EQ(shop.capture(returned.m_Data), KVX_OK);
    auto const length = static_cast<std::int64_t>(sandbox.service().exchanges().back().m_Response.size());
    for (FaultKind const kind : {FaultKind::kTruncate, FaultKind::kNulBytes}) {
        sandbox::Fault fault;
        fault.m_Kind = kind;
        fault.m_Exchange = ExchangeKind::kCapture;
        for (std::int64_t bytes = length - 1; bytes >= 0; bytes -= bytes > length - kStep ? 1 : kStep) {
            fault.m_Bytes = bytes;
            sandbox.service().arm(fault);
            EXPECT_NE(shop.capture(returned.m_Data), KVX_OK) << sandbox::faultText(fault);
        }
        fault.m_Bytes = length;
        sandbox.service().arm(fault);
        EXPECT_EQ(shop.capture(returned.m_Data), KVX_OK);
    }
}

TEST(FaultTable, KeepsAZeroByteInALongAnswerUnnoticed) {
    // It takes the rest of what was received at once with it, and what is received next follows directly. Here the hole
    // is in an order's identifier.
    Sandbox sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    FlowMessage const payment = shop.payment({std::string(5000, 'x'), "12.50", "EUR"});
    Returned const returned = sandbox.shopper(payment.url(), "pay");
    sandbox.service().arm(sandbox::parseFault("nul-bytes,exchange=capture,bytes=1500"));
    EXPECT_EQ(shop.capture(returned.m_Data), KVX_OK);
    EXPECT_EQ(sandbox.stateOf(payment.get("TOKEN")), "captured");
}

// What a set-up that was answered with another key leads to.

namespace {

/// Sets up while the fault of that text happens, then verifies a confirmation.
std::int32_t verifyAfterSettingUpWith(char const* fault, Sandbox& sandbox, Shop const& shop) {
    sandbox.service().arm(sandbox::parseFault(fault));
    EXPECT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    return shop.verify(sandbox.shopper(shop.payment().url(), "pay"));
}

}  // namespace

TEST(ForeignServerKey, ShowsAtTheNextConfirmationAndGoesWithTheNextSetUp) {
    Sandbox sandbox;
    Shop const shop;
    EXPECT_EQ(verifyAfterSettingUpWith("wrong-key,exchange=keyquery", sandbox, shop), KVX_E_INVALID_SIGNATURE);
    EXPECT_EQ(shop.setUp(""), KVX_OK);
    EXPECT_EQ(shop.verify(sandbox.shopper(shop.payment().url(), "pay")), KVX_OK);
}

TEST(ForeignServerKey, KeepsAFirstSetUpWithoutTheServersKeyASuccess) {
    // The key is stored under the identifier that the answer names, whichever was asked for.
    Sandbox sandbox;
    Shop const shop;
    EXPECT_EQ(verifyAfterSettingUpWith("stale-key,exchange=keyquery", sandbox, shop), KVX_E_NOT_FOUND);
    EXPECT_FALSE(shop.dir().exists("keys/public/" + sandbox.service().serverKeyId()));
    EXPECT_EQ(shop.setUp(""), KVX_OK);
    EXPECT_EQ(shop.verify(sandbox.shopper(shop.payment().url(), "pay")), KVX_OK);
}

TEST(ForeignServerKey, OfAnEarlierTimeIsTakenForTheServersAfterARotation) {
    Sandbox sandbox;
    Shop const shop;
    std::string const old = sandbox.service().serverKeyId();
    sandbox.service().rotateServerKey();
    EXPECT_EQ(verifyAfterSettingUpWith("stale-key,exchange=setup", sandbox, shop), KVX_E_NOT_FOUND);
    EXPECT_TRUE(shop.dir().exists("keys/public/" + old));
    EXPECT_EQ(shop.setUp(""), KVX_OK);
    EXPECT_EQ(shop.verify(sandbox.shopper(shop.payment().url(), "pay")), KVX_OK);
}

TEST(ForeignServerKey, KeepsAConfirmationUnderAnOldKeyVerifiable) {
    // Every key of the directory counts, and set-ups leave the old ones in it.
    Sandbox sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    sandbox.service().rotateServerKey();
    ASSERT_EQ(shop.setUp(""), KVX_OK);
    sandbox.service().arm(sandbox::parseFault("stale-key,exchange=decision"));
    FlowMessage const confirmation = shop.verified(sandbox.shopper(shop.payment().url(), "pay"));
    EXPECT_NE(confirmation.get("KEYID"), sandbox.service().serverKeyId());
}

TEST(UnsignedResponse, KeepsBeingBelieved) {
    // The answer to a capture carries no signature: whoever answers in the service's place can say that it is done.
    Sandbox sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    FlowMessage const payment = shop.payment();
    Returned const returned = sandbox.shopper(payment.url(), "pay");
    sandbox.service().arm(
        sandbox::parseFault("http-status,exchange=capture,status=200,text=<KVX MSGTYPE=\"PayConfirm\"/>"));
    EXPECT_EQ(shop.capture(returned.m_Data), KVX_OK);
    EXPECT_EQ(sandbox.stateOf(payment.get("TOKEN")), "authorised");
}
