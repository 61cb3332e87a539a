#include <gtest/gtest.h>

#include "tests/ledger/atpoints.h"
#include "tests/ledger/ledgersupport.h"

using namespace kvxtest;

namespace {

class Begin : public LedgerTest {};

TEST_F(Begin, StoresBeforeItReturnsTheUrl) {
    KVX_HANDLE order = nullptr;
    ASSERT_EQ(Ledger_CreateOrder(m_Ledger.get(), "A-17", "12.50", "EUR", &order), KVX_OK);
    EXPECT_EQ(m_Ledger.numbers(""), std::vector<std::string>{}) << "nothing is stored before it is begun";
    std::int32_t size = 0;
    EXPECT_EQ(LedgerOrder_Begin(order, &size, nullptr), KVX_E_BUFFER_TOO_SMALL);
    LedgerHandle other;
    openAgain(other);
    nlohmann::json const stored = other.order();
    EXPECT_EQ(stored.at("state"), "waiting");
    EXPECT_EQ(stored.at("attempts").at(0).at("url").get<std::string>().size() + 1, static_cast<std::size_t>(size));
    DestroyLedgerOrder(order);
}

TEST_F(Begin, ReturnsTheSameUrlForTheSameContentInEveryHandle) {
    std::string const url = m_Ledger.url();
    EXPECT_EQ(m_Ledger.url(), url);
    LedgerHandle other;
    openAgain(other);
    EXPECT_EQ(other.url(), url);
    EXPECT_EQ(m_Ledger.order().at("attempts").size(), 1U);
}

TEST_F(Begin, PutsEverythingIntoTheMessage) {
    Purchase purchase;
    purchase.m_Attributes["LANGID"] = "a \"b\" <c> & \xe9";
    nlohmann::json const order = (static_cast<void>(m_Ledger.url(purchase)), m_Ledger.order());
    EXPECT_EQ(order.at("attributes").at("LANGID"), "a \"b\" <c> & \u00e9");
    std::string const message = m_Ledger.evidence().at("transitions").at(0).at("message");
    for (char const* part : {" ORDERID=\"A-17\"", " AMOUNT=\"12.50\"", " CURRENCY=\"EUR\"", " MSGTYPE=\"PayInit\""}) {
        EXPECT_NE(message.find(part), std::string::npos) << message;
    }
}

TEST_F(Begin, RefusesOtherContentAndNamesTheDifference) {
    struct Case {
        char const* m_What;
        Purchase m_Purchase;
    };
    Case const cases[] = {
        {"amount 12.50, not 12.5", {"A-17", "12.5", "EUR", Purchase().m_Attributes}},
        {"currency EUR, not USD", {"A-17", "12.50", "USD", Purchase().m_Attributes}},
        {"attribute SUCCESSLINK", {"A-17", "12.50", "EUR", {{"SUCCESSLINK", "http://other.example/"}}}},
        {"attribute LANGID", {"A-17", "12.50", "EUR", {{"LANGID", "de"}, {"SUCCESSLINK", "http://shop.example/paid"}}}},
        {"more attributes", {"A-17", "12.50", "EUR", {}}},
    };
    std::string const url = m_Ledger.url();
    for (Case const& row : cases) {
        std::string other = "untouched";
        EXPECT_EQ(m_Ledger.begin(row.m_Purchase, other), KVX_E_LEDGER_CONFLICT) << row.m_What;
        EXPECT_EQ(other, "untouched");
        EXPECT_NE(lastLedgerError().find(row.m_What), std::string::npos) << lastLedgerError();
    }
    EXPECT_EQ(m_Ledger.url(), url) << "the payment is what it was";
}

TEST_F(Begin, ReturnsTheUrlThatAnotherHandleStoresInTheMeantime) {
    LedgerHandle const other;
    openAgain(other);
    std::string first;
    {
        AtPoints const meets([&](ledger::TestPoint point) {
            if (point == ledger::TestPoint::kBeforeChange && first.empty()) {
                first = "being made";
                EXPECT_EQ(other.begin({}, first), KVX_OK) << lastLedgerError();
            }
        });
        EXPECT_EQ(m_Ledger.url(), first);
    }
    EXPECT_EQ(m_Ledger.history().size(), 1U);
}

TEST_F(Begin, MakesAnotherAttemptAfterAnUnpaidEnd) {
    std::string const first = m_Ledger.url();
    EXPECT_EQ(outcome("declined"), "NOT_PAID");
    std::string const second = m_Ledger.url();
    EXPECT_NE(second, first);
    EXPECT_EQ(m_Ledger.url(), second);
    EXPECT_EQ(outcome("cancelled", 2), "NOT_PAID");
    EXPECT_NE(m_Ledger.url(), second);
    EXPECT_EQ(m_Ledger.order().at("newestAttempt"), 3);
    EXPECT_EQ(m_Ledger.attempt(1).at("state"), "declined");
    EXPECT_EQ(m_Ledger.attempt(2).at("state"), "cancelled");
    EXPECT_EQ(m_Ledger.state(), "waiting");
}

TEST_F(Begin, MakesAnotherAttemptWhenTheTimeHasRunOut) {
    std::string const first = m_Ledger.url();
    setClockAfterExpiry(-1);
    EXPECT_EQ(m_Ledger.url(), first);
    setClockAfterExpiry(0);
    EXPECT_NE(m_Ledger.url(), first);
    EXPECT_EQ(m_Ledger.attempt(1).at("state"), "waiting") << "it may still be paid";
}

TEST_F(Begin, RefusesAPaidOrder) {
    static_cast<void>(m_Ledger.url());
    EXPECT_EQ(outcome("authorised"), "PAID_NOW");
    std::string url;
    EXPECT_EQ(m_Ledger.begin({}, url), KVX_E_LEDGER_PAID);
    EXPECT_EQ(url, "");
}

TEST_F(Begin, RefusesWhatIsNoNumberAmountOrCurrency) {
    struct Case {
        char const* m_Number;
        char const* m_Amount;
        char const* m_Currency;
    };
    std::string const longest(64, 'n');
    std::string const tooLong(65, 'n');
    // clang-format off
    Case const refused[] = {
        {"",               "1",                "EUR"},
        {tooLong.c_str(),  "1",                "EUR"},
        {"A 17",           "1",                "EUR"},
        {"A\xc3\xa9",      "1",                "EUR"},
        {"A",              "",                 "EUR"},
        {"A",              "1 000",            "EUR"},
        {"A",              tooLong.c_str(),    "EUR"},
        {"A",              "1",                ""},
        {"A",              "1",                "EURODOLLAR"},
    };
    // clang-format on
    for (Case const& row : refused) {
        KVX_HANDLE order = &row == refused ? nullptr : nullptr;
        EXPECT_EQ(Ledger_CreateOrder(m_Ledger.get(), row.m_Number, row.m_Amount, row.m_Currency, &order),
                  KVX_E_LEDGER_INVALID)
            << row.m_Number << " " << row.m_Amount << " " << row.m_Currency;
        EXPECT_EQ(order, nullptr);
    }
    Purchase purchase;
    purchase.m_Number = longest;
    EXPECT_NE(m_Ledger.url(purchase), "");
}

TEST_F(Begin, RefusesAttributesThatAreNotTheShops) {
    KVX_HANDLE order = nullptr;
    ASSERT_EQ(Ledger_CreateOrder(m_Ledger.get(), "A-17", "1", "EUR", &order), KVX_OK);
    for (char const* name : {"ORDERID", "AMOUNT", "CURRENCY", "MSGTYPE", "KEYID", "TOKEN", "EXPIRATION", "CONFIGPATH",
                             "", "A B", "A=\"\" AMOUNT", "1A", "-A", ".A", "9"}) {
        EXPECT_EQ(LedgerOrder_SetAttribute(order, name, "x"), KVX_E_LEDGER_INVALID) << name;
    }
    for (char const* name : {"A.b-c_9", "_", "a"}) {
        EXPECT_EQ(LedgerOrder_SetAttribute(order, name, "x"), KVX_OK) << name;
    }
    DestroyLedgerOrder(order);
}

TEST_F(Begin, BelongsToItsLedger) {
    KVX_HANDLE const ledger = CreateLedger();
    KVX_HANDLE order = nullptr;
    ASSERT_EQ(Ledger_CreateOrder(ledger, "A-17", "1", "EUR", &order), KVX_OK);
    std::int32_t size = 0;
    EXPECT_EQ(LedgerOrder_Begin(order, &size, nullptr), KVX_E_NO_CONTEXT);
    DestroyLedger(ledger);
    EXPECT_EQ(LedgerOrder_Begin(order, &size, nullptr), KVX_E_BAD_HANDLE);
    DestroyLedgerOrder(order);
}

}  // namespace
