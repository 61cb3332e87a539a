// Lists of the store: filters, pages, what belongs to a payment. Two accounts use the same tokens and orders.
#include "sandbox/store/store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/directories.h"

namespace {

using namespace sandbox;
using kvxtest::TemporaryDirectory;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class StoreLists : public ::testing::Test {
protected:
    StoreLists() {
        for (char const* account : {"one", "two"}) {
            m_Store.putAccount(account, "p");
            for (char const* token : {"t1", "t2"}) {
                open(account, token);
            }
        }
    }

    void open(std::string const& account, std::string const& token) {
        StoredPayment fresh;
        fresh.m_Message = "<KVX MSGTYPE=\"PayInit\" TOKEN=\"" + token + "\" ORDERID=\"A-" + token + "\"/>";
        fresh.m_Payment.m_Id = "P-" + account + "-" + token;
        fresh.m_Payment.m_Account = account;
        fresh.m_Payment.m_Token = token;
        fresh.m_Payment.m_Attributes = Message::parse(fresh.m_Message).attributes();
        m_Store.openPayment(fresh, "then");
    }

    std::int64_t add(ExchangeKind kind, std::string const& account, std::string const& order, std::string const& token,
                     std::string const& payment = "") {
        Exchange exchange;
        exchange.m_Kind = kind;
        exchange.m_Account = account;
        exchange.m_Order = order;
        exchange.m_Token = token;
        exchange.m_Payment = payment;
        return m_Store.addExchange(exchange);
    }

    std::vector<std::string> ids(Filter const& filter, Page const& page = {}) {
        std::vector<std::string> found;
        for (Payment const& payment : m_Store.payments(filter, page).m_Rows) {
            found.push_back(payment.m_Id);
        }
        return found;
    }

    std::vector<std::int64_t> numbers(Filter const& filter, Page const& page = {}) {
        return numbersOf(m_Store.exchanges(filter, page));
    }

    static std::vector<std::int64_t> numbersOf(Listing<Exchange> const& listing) {
        std::vector<std::int64_t> found;
        for (Exchange const& exchange : listing.m_Rows) {
            found.push_back(exchange.m_Number);
        }
        return found;
    }

    TemporaryDirectory const m_Directory;
    Store m_Store{m_Directory.path() + "/sandbox.db"};
};

TEST_F(StoreLists, FindPaymentsByEachCondition) {
    Filter filter;
    EXPECT_THAT(ids(filter), ElementsAre("P-one-t1", "P-one-t2", "P-two-t1", "P-two-t2"));
    filter.m_Account = "two";
    EXPECT_THAT(ids(filter), ElementsAre("P-two-t1", "P-two-t2"));
    filter.m_Order = "A-t2";
    EXPECT_THAT(ids(filter), ElementsAre("P-two-t2"));
    filter = {};
    filter.m_Token = "t1";
    EXPECT_THAT(ids(filter), ElementsAre("P-one-t1", "P-two-t1"));
    filter = {};
    filter.m_Payment = "P-two-t1";
    EXPECT_THAT(ids(filter), ElementsAre("P-two-t1"));
    ASSERT_TRUE(m_Store.advance("P-two-t1", {PaymentState::kOpened}, {"now", PaymentState::kDeclined, ""}));
    filter = {};
    filter.m_State = PaymentState::kOpened;
    EXPECT_THAT(ids(filter), ElementsAre("P-one-t1", "P-one-t2", "P-two-t2"));
    filter.m_Payment = "P-two-t1";
    EXPECT_THAT(ids(filter), IsEmpty());
}

TEST_F(StoreLists, GoOnAfterAPageInBothDirections) {
    Page page;
    page.m_Limit = 2;
    Listing<Payment> const first = m_Store.payments({}, page);
    EXPECT_TRUE(first.m_More);
    page.m_After = first.m_Rows.back().m_Number;
    EXPECT_THAT(ids({}, page), ElementsAre("P-two-t1", "P-two-t2"));
    EXPECT_FALSE(m_Store.payments({}, page).m_More);
    page = {};
    page.m_NewestFirst = true;
    page.m_Limit = 3;
    EXPECT_THAT(ids({}, page), ElementsAre("P-two-t2", "P-two-t1", "P-one-t2"));
    page.m_Before = 2;
    EXPECT_THAT(ids({}, page), ElementsAre("P-one-t1"));
    page = {};
    page.m_After = 1;
    page.m_Before = 4;
    EXPECT_THAT(ids({}, page), ElementsAre("P-one-t2", "P-two-t1"));
}

TEST_F(StoreLists, FindExchangesByEachCondition) {
    add(ExchangeKind::kPage, "one", "A", "t1", "P-one-t1");
    add(ExchangeKind::kPage, "two", "A", "t1", "P-two-t1");
    add(ExchangeKind::kCapture, "two", "B", "t2", "P-two-t2");
    Filter filter;
    EXPECT_THAT(numbers(filter), ElementsAre(1, 2, 3));
    filter.m_Account = "two";
    EXPECT_THAT(numbers(filter), ElementsAre(2, 3));
    filter.m_Kind = ExchangeKind::kPage;
    EXPECT_THAT(numbers(filter), ElementsAre(2));
    filter = {};
    filter.m_Order = "A";
    EXPECT_THAT(numbers(filter), ElementsAre(1, 2));
    filter = {};
    filter.m_Token = "t2";
    EXPECT_THAT(numbers(filter), ElementsAre(3));
    filter = {};
    filter.m_Payment = "P-one-t1";
    EXPECT_THAT(numbers(filter), ElementsAre(1));
}

TEST_F(StoreLists, EndAPageThatIsLongEnough) {
    Exchange exchange;
    exchange.m_Response = std::string(1000, 'x');
    for (int i = 0; i < 5; ++i) {
        m_Store.addExchange(exchange);
    }
    Page page;
    page.m_MaxBytes = 2500;
    EXPECT_THAT(numbers({}, page), ElementsAre(1, 2, 3));
    EXPECT_TRUE(m_Store.exchanges({}, page).m_More);
    page.m_After = 3;
    EXPECT_THAT(numbers({}, page), ElementsAre(4, 5));
    EXPECT_FALSE(m_Store.exchanges({}, page).m_More);
    EXPECT_EQ(m_Store.exchangeSummaries({}, {}).m_Rows.at(0).m_Response, "");
}

TEST_F(StoreLists, GiveAPaymentItsExchangesAlone) {
    Payment const payment = m_Store.paymentById("P-one-t1")->m_Payment;
    std::int64_t const linked = add(ExchangeKind::kPage, "one", "A-t1", "t1", "P-one-t1");
    add(ExchangeKind::kPage, "two", "A-t1", "t1", "P-two-t1");
    std::int64_t const unknownKey = add(ExchangeKind::kPage, "", "A-t1", "t1");
    add(ExchangeKind::kPage, "two", "A-t1", "t1");
    std::int64_t const orderAlone = add(ExchangeKind::kCapture, "one", "A-t1", "");
    add(ExchangeKind::kCapture, "two", "A-t1", "");
    add(ExchangeKind::kCapture, "one", "A-t1", "t2", "P-one-t2");
    add(ExchangeKind::kOther, "", "", "");
    EXPECT_THAT(numbersOf(m_Store.exchangeSummariesOf(payment, 10)), ElementsAre(linked, unknownKey, orderAlone));
    EXPECT_TRUE(m_Store.exchangeSummariesOf(payment, 2).m_More);
}

TEST_F(StoreLists, LinkWhatAProxyCarriesToThePaymentInIt) {
    StoredPayment fresh;
    fresh.m_Payment.m_Id = "P0123456789abcdef";
    fresh.m_Payment.m_Account = "one";
    fresh.m_Payment.m_Token = "t3";
    Payment const payment = m_Store.openPayment(fresh, "then").m_Payment;
    Exchange carried;
    carried.m_Kind = ExchangeKind::kProxy;
    carried.m_Request = "GET /capture?DATA=ID%3dPP0123456789abcdefP HTTP/1.0";
    std::int64_t const number = m_Store.addExchange(carried);
    carried.m_Request = "GET /capture?DATA=ID%3dP0123456789abcdee HTTP/1.0";
    m_Store.addExchange(carried);
    EXPECT_THAT(numbersOf(m_Store.exchangeSummariesOf(payment, 10)), ElementsAre(number));
}

TEST_F(StoreLists, AreReadWhileAnotherConnectionWrites) {
    Database other(m_Directory.path() + "/sandbox.db");
    other.execute("BEGIN IMMEDIATE; UPDATE payments SET state = 'declined'");
    Filter filter;
    filter.m_State = PaymentState::kOpened;
    EXPECT_EQ(m_Store.payments(filter, {}).m_Rows.size(), 4u);
    EXPECT_EQ(m_Store.counts().m_Payments, 4);
    other.execute("COMMIT");
    EXPECT_THAT(ids(filter), IsEmpty());
}

TEST_F(StoreLists, LoseTheExchangesThatAreRemoved) {
    for (int i = 0; i < 300; ++i) {
        add(ExchangeKind::kPage, i % 3 == 0 ? "one" : "two", "A", "t1");
    }
    Filter filter;
    filter.m_Account = "one";
    EXPECT_EQ(m_Store.removeExchanges(filter, {}), 100);
    EXPECT_EQ(m_Store.counts().m_Exchanges, 200);
    EXPECT_THAT(numbers(filter), IsEmpty());
    Page page;
    page.m_Before = 4;
    EXPECT_EQ(m_Store.removeExchanges({}, page), 2);
    EXPECT_EQ(m_Store.removeExchanges({}, {}), 198);
    EXPECT_EQ(m_Store.counts().m_Exchanges, 0);
    EXPECT_EQ(add(ExchangeKind::kPage, "one", "A", "t1"), 301) << "no number is given twice";
}

TEST_F(StoreLists, LoseThePaymentsOfAnAccountAlone) {
    Notification notification;
    notification.m_Payment = "P-one-t1";
    ASSERT_TRUE(
        m_Store.advance("P-one-t1", {PaymentState::kOpened}, {"now", PaymentState::kDeclined, ""}, notification));
    EXPECT_EQ(m_Store.removePayments("one"), 2);
    EXPECT_THAT(ids({}), ElementsAre("P-two-t1", "P-two-t2"));
    EXPECT_EQ(m_Store.counts().m_Notifications, 0);
    open("one", "t1");
    EXPECT_EQ(m_Store.paymentById("P-one-t1")->m_Payment.m_Number, 5);
    EXPECT_EQ(m_Store.paymentById("P-one-t1")->m_Payment.m_History.size(), 1u);
    EXPECT_EQ(m_Store.removePayments(std::nullopt), 3);
    EXPECT_EQ(m_Store.counts().m_Payments, 0);
}

TEST_F(StoreLists, ShowWhatARequestHasChangedAtItsEnd) {
    Filter filter;
    filter.m_State = PaymentState::kDeclined;
    std::uint64_t const changes = m_Store.events().changes();
    Store::Request request(m_Store);
    request.begin({});
    ASSERT_TRUE(m_Store.advance("P-one-t1", {PaymentState::kOpened}, {"now", PaymentState::kDeclined, ""}));
    EXPECT_EQ(m_Store.paymentById("P-one-t1")->m_Payment.m_State, PaymentState::kDeclined) << "the request sees it";
    EXPECT_THAT(ids(filter), IsEmpty());
    EXPECT_EQ(m_Store.events().changes(), changes);
    EXPECT_EQ(request.end({}), 1);
    EXPECT_THAT(ids(filter), ElementsAre("P-one-t1"));
    EXPECT_EQ(m_Store.events().changes(), changes + 1);
    EXPECT_THAT(numbers({}), ElementsAre(1));
}

TEST_F(StoreLists, ShowARequestThatIsCutOffAfterItHasChangedSomething) {
    Exchange exchange;
    exchange.m_Path = "/capture";
    {
        Store::Request request(m_Store);
        request.begin(exchange);
        ASSERT_TRUE(m_Store.advance("P-one-t1", {PaymentState::kOpened}, {"now", PaymentState::kDeclined, ""}));
    }
    {
        Store::Request request(m_Store);
        request.begin(exchange);
    }
    EXPECT_THAT(numbers({}), IsEmpty());
    Store const next(m_Directory.path() + "/sandbox.db");
    ASSERT_THAT(numbers({}), ElementsAre(1));
    EXPECT_EQ(m_Store.exchange(1)->m_Verdict, "not answered: the sandbox ended before");
    EXPECT_EQ(m_Store.exchange(1)->m_Path, "/capture");
}

TEST_F(StoreLists, LeaveNoTraceOfTheBeginningOfARequestThatHasEnded) {
    Store::Request request(m_Store);
    request.begin({});
    ASSERT_TRUE(m_Store.advance("P-one-t1", {PaymentState::kOpened}, {"now", PaymentState::kDeclined, ""}));
    std::thread([this] { m_Store.setSetting("a", "b"); }).join();
    {
        Database database(m_Directory.path() + "/sandbox.db", Database::Access::kRead);
        EXPECT_TRUE(database.prepare("SELECT 1 FROM begun_exchanges").step()) << "the payment is committed";
    }
    request.end({});
    Database database(m_Directory.path() + "/sandbox.db", Database::Access::kRead);
    EXPECT_FALSE(database.prepare("SELECT 1 FROM begun_exchanges").step());
    EXPECT_EQ(m_Store.counts().m_Exchanges, 1);
}

TEST(StoredKeys, AreThoseOfTheDatabaseThatReplacedTheFormerOne) {
    TemporaryDirectory const directory;
    Store store(directory.path() + "/sandbox.db");
    store.putAccount("demo", "p");
    EXPECT_FALSE(store.merchantKey("K1"));
    store.addMerchantKey("K1", {"demo", "former"}, "then");
    EXPECT_EQ(store.merchantKey("K1")->m_Blob, "former");
    EXPECT_EQ(store.merchantKey("K1")->m_Customer, "1001") << "also when it is asked for again";
    Database other(directory.path() + "/other.db");
    {
        Store another(directory.path() + "/other.db");
        another.putAccount("demo", "p");
        another.addMerchantKey("K1", {"demo", "later"}, "then");
    }
    store.replaceBy(other);
    EXPECT_EQ(store.merchantKey("K1")->m_Blob, "later");
}

class StoreRetention : public ::testing::Test {
protected:
    /// How many payments and exchanges are there after so many of each were added.
    Counts after(int count, Retention retention, std::optional<Notification> const& notification = std::nullopt) {
        Store store(m_Path, retention);
        store.putAccount("one", "p");
        for (int i = 0; i < count; ++i) {
            StoredPayment fresh;
            fresh.m_Payment.m_Id = fresh.m_Payment.m_Token = "P" + std::to_string(++m_Last);
            fresh.m_Payment.m_Account = "one";
            store.openPayment(fresh, "then");
            if (notification && i == 0) {
                Notification pending = *notification;
                pending.m_Payment = fresh.m_Payment.m_Id;
                store.advance(pending.m_Payment, {PaymentState::kOpened}, {"now", PaymentState::kDeclined, ""},
                              pending);
            }
            store.addExchange({});
        }
        return store.counts();
    }

    TemporaryDirectory const m_Directory;
    std::string const m_Path = m_Directory.path() + "/sandbox.db";
    int m_Last = 0;
};

TEST_F(StoreRetention, RemovesNothingWithoutALimit) {
    EXPECT_EQ(after(200, {}).m_Exchanges, 200);
}

TEST_F(StoreRetention, LeavesTheNewestOnes) {
    Retention retention;
    retention.m_Newest = 50;
    Counts const counts = after(64 * 4, retention);
    EXPECT_EQ(counts.m_Exchanges, 50);
    EXPECT_EQ(counts.m_Payments, 50);
    Store store(m_Path);
    EXPECT_FALSE(store.exchange(64 * 4 - 50));
    EXPECT_TRUE(store.exchange(64 * 4));
    EXPECT_FALSE(store.paymentById("P206"));
    EXPECT_TRUE(store.paymentById("P207"));
}

TEST_F(StoreRetention, RemovesTheOldestAtTheStart) {
    after(700, {});
    Retention retention;
    retention.m_Newest = 10;
    Counts const counts = after(0, retention);
    EXPECT_EQ(counts.m_Exchanges, 10);
    EXPECT_EQ(counts.m_Payments, 10);
}

TEST_F(StoreRetention, LeavesWhatIsYoungEnough) {
    after(64, {});
    Database(m_Path).execute(
        "UPDATE exchanges SET stored = stored - 100 WHERE number <= 60; "
        "UPDATE payments SET stored = stored - 100 WHERE number <= 61");
    Retention retention;
    retention.m_Seconds = 50;
    Counts const counts = after(0, retention);
    EXPECT_EQ(counts.m_Exchanges, 4);
    EXPECT_EQ(counts.m_Payments, 3);
}

TEST_F(StoreRetention, LeavesPaymentsWhoseMerchantIsToBeNotified) {
    Retention retention;
    retention.m_Newest = 1;
    Counts const counts = after(64, retention, Notification{});
    EXPECT_EQ(counts.m_Payments, 2);
    EXPECT_EQ(counts.m_Notifications, 1);
    EXPECT_TRUE(Store(m_Path).paymentById("P1"));
}

}  // namespace
