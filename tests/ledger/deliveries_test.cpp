// Reports of paid orders, with and without acknowledgement: when they come again, and when they end.
#include <gtest/gtest.h>

#include "tests/ledger/ledgersupport.h"

using namespace kvxtest;

namespace {

constexpr std::int64_t kLease = 300;

using Numbers = std::vector<std::string>;

class Deliveries : public LedgerTest {
protected:
    Deliveries() {
        m_Ledger.option("ACKNOWLEDGE", "1");
        m_Ledger.option("CAPTURE", "0");
        static_cast<void>(m_Ledger.url());
    }

    [[nodiscard]] std::int32_t deliver(std::string const& number = "A-17") const {
        return Ledger_Delivered(m_Ledger.get(), number.c_str());
    }
};

TEST_F(Deliveries, AreReportedAgainUntilAcknowledged) {
    EXPECT_EQ(outcome("authorised"), "PAID_NOW");
    setClock(kLease - 1);
    EXPECT_EQ(m_Ledger.nextPaid(), Numbers{}) << "the program that has the report may be delivering";
    EXPECT_EQ(m_Ledger.numbers("undelivered"), Numbers{"A-17"});
    setClock(kLease);
    EXPECT_EQ(outcome("authorised"), "KNOWN_ALREADY") << "messengers get it once";
    EXPECT_EQ(m_Ledger.nextPaid(), Numbers{"A-17"});
    setClock(2 * kLease - 1);
    EXPECT_EQ(m_Ledger.nextPaid(), Numbers{});
    setClock(2 * kLease);
    EXPECT_EQ(m_Ledger.nextPaid(), Numbers{"A-17"});
    EXPECT_EQ(deliver(), KVX_OK);
    setClock(10 * kLease);
    EXPECT_EQ(m_Ledger.nextPaid(), Numbers{});
    EXPECT_EQ(m_Ledger.numbers("undelivered"), Numbers{});
    EXPECT_EQ(m_Ledger.order().at("told"), m_Start) << "the first report";
    EXPECT_EQ(m_Ledger.order().at("delivered"), m_Start + 2 * kLease * 1000);
}

TEST_F(Deliveries, AreRecordedOnceWithEvidence) {
    EXPECT_EQ(outcome("authorised"), "PAID_NOW");
    EXPECT_EQ(deliver(), KVX_OK);
    setClock(5);
    EXPECT_EQ(deliver(), KVX_OK) << "said again";
    EXPECT_EQ(m_Ledger.history(), (Numbers{"opened begun waiting", "waiting confirmed_paid authorised",
                                           "authorised delivered authorised"}));
    EXPECT_EQ(m_Ledger.order().at("delivered"), m_Start);
}

TEST_F(Deliveries, NeedAPaymentOrAReport) {
    EXPECT_EQ(deliver(), KVX_E_LEDGER_STATE);
    EXPECT_EQ(deliver("none"), KVX_E_NOT_FOUND);
    EXPECT_EQ(outcome("declined"), "NOT_PAID");
    EXPECT_EQ(deliver(), KVX_E_LEDGER_STATE);
    EXPECT_EQ(m_Ledger.order().at("delivered"), nullptr);
}

TEST_F(Deliveries, AreReportedOnceWithoutAcknowledgement) {
    m_Ledger.option("ACKNOWLEDGE", "0");
    EXPECT_EQ(outcome("authorised"), "PAID_NOW");
    setClock(100 * kLease);
    EXPECT_EQ(m_Ledger.nextPaid(), Numbers{});
    EXPECT_EQ(m_Ledger.numbers("undelivered"), Numbers{});
    m_Ledger.option("ACKNOWLEDGE", "1");
    EXPECT_EQ(m_Ledger.nextPaid(), Numbers{}) << "what was reported before is not reported again";
    EXPECT_EQ(deliver(), KVX_OK) << "it may be recorded all the same";
}

TEST_F(Deliveries, AreNotReportedOfAnOrderThatTheShopDeliveredUnasked) {
    KVX_HANDLE const ledger = m_Ledger.get();
    makeKey("next");
    std::string const data = says("authorised", {{"KEYID", "next"}});
    EXPECT_EQ(confirm(data, "next").m_Outcome, "KEPT");
    publishKey("next", true);
    std::int32_t done = 0;
    ASSERT_EQ(Ledger_RunDue(ledger, 10, &done), KVX_OK);
    EXPECT_EQ(m_Ledger.numbers("untold"), Numbers{"A-17"});
    EXPECT_EQ(deliver(), KVX_OK);
    EXPECT_EQ(m_Ledger.nextPaid(), Numbers{});
    EXPECT_EQ(m_Ledger.numbers("untold"), Numbers{});
}

TEST_F(Deliveries, AreReportedAgainAfterTheClockWasSetBack) {
    setClock(1000000);
    EXPECT_EQ(outcome("authorised"), "PAID_NOW");
    setClock(0);
    EXPECT_EQ(m_Ledger.nextPaid(), Numbers{"A-17"}) << "no lease lasts a million seconds";
    EXPECT_EQ(m_Ledger.nextPaid(), Numbers{});
}

TEST_F(Deliveries, AreNotReportedAgainByAClockThatIsBehind) {
    EXPECT_EQ(outcome("authorised"), "PAID_NOW");
    for (std::int64_t const behind : {1, 3600}) {
        setClock(-behind);
        EXPECT_EQ(m_Ledger.nextPaid(), Numbers{}) << behind << " seconds";
    }
    setClock(-3601);
    EXPECT_EQ(m_Ledger.nextPaid(), Numbers{"A-17"}) << "it was set back";
}

TEST_F(Deliveries, AreReportedToOneOfManyThatAsk) {
    EXPECT_EQ(outcome("authorised"), "PAID_NOW");
    setClock(kLease);
    LedgerHandle other;
    other.option("ACKNOWLEDGE", "1");
    other.option("NOW", std::to_string(m_Start + kLease * 1000));
    openAgain(other);
    EXPECT_EQ(other.nextPaid(), Numbers{"A-17"});
    EXPECT_EQ(m_Ledger.nextPaid(), Numbers{});
}

}  // namespace
