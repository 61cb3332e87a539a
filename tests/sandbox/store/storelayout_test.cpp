// Files of an earlier layout: what is in them is still there afterwards, and can be searched for.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "sandbox/store/store.h"
#include "tests/support/directories.h"

namespace {

using namespace sandbox;
using kvxtest::TemporaryDirectory;
using ::testing::ElementsAre;

constexpr char kLayout3[] = R"(
    CREATE TABLE accounts (user TEXT PRIMARY KEY, salt TEXT NOT NULL, hash TEXT NOT NULL,
        customer INTEGER NOT NULL UNIQUE);
    CREATE TABLE server_keys (number INTEGER PRIMARY KEY, id TEXT NOT NULL UNIQUE, private_der BLOB NOT NULL,
        time TEXT NOT NULL);
    CREATE TABLE merchant_keys (id TEXT PRIMARY KEY, account TEXT NOT NULL REFERENCES accounts (user),
        blob TEXT NOT NULL, time TEXT NOT NULL);
    CREATE TABLE payments (number INTEGER PRIMARY KEY, id TEXT NOT NULL UNIQUE,
        account TEXT NOT NULL REFERENCES accounts (user), token TEXT NOT NULL, state TEXT NOT NULL,
        form_key TEXT NOT NULL, message BLOB NOT NULL, UNIQUE (account, token));
    CREATE TABLE payment_attributes (payment TEXT NOT NULL REFERENCES payments (id), position INTEGER NOT NULL,
        name TEXT NOT NULL, value BLOB NOT NULL, PRIMARY KEY (payment, position));
    CREATE TABLE history (number INTEGER PRIMARY KEY, payment TEXT NOT NULL REFERENCES payments (id),
        time TEXT NOT NULL, state TEXT NOT NULL, note TEXT NOT NULL);
    CREATE TABLE notifications (number INTEGER PRIMARY KEY, payment TEXT NOT NULL REFERENCES payments (id),
        address BLOB NOT NULL, result TEXT NOT NULL, attempts INTEGER NOT NULL, pending INTEGER NOT NULL,
        time TEXT NOT NULL, outcome BLOB NOT NULL);
    CREATE TABLE exchanges (number INTEGER PRIMARY KEY, time TEXT NOT NULL, kind TEXT NOT NULL,
        order_id BLOB NOT NULL, path TEXT NOT NULL, data BLOB NOT NULL, signature BLOB NOT NULL,
        verdict BLOB NOT NULL, steps TEXT NOT NULL, request BLOB NOT NULL, answer BLOB NOT NULL,
        fault BLOB NOT NULL, delivery TEXT NOT NULL DEFAULT '', microseconds INTEGER NOT NULL);
    CREATE TABLE begun_exchanges (number INTEGER PRIMARY KEY, time TEXT NOT NULL, kind TEXT NOT NULL,
        order_id BLOB NOT NULL, path TEXT NOT NULL, data BLOB NOT NULL, request BLOB NOT NULL);
    CREATE INDEX history_of_payment ON history (payment, number);
    PRAGMA user_version = 3;

    INSERT INTO accounts VALUES ('one', 's', 'h', 1001), ('two', 's', 'h', 1002);
    INSERT INTO merchant_keys VALUES ('key-1', 'one', '00', '2023-11-14T22:13:20Z'), ('key-2', 'two', '01', 'then');
    INSERT INTO payments VALUES
        (1, 'P1', 'one', 't1', 'opened', 'f',
         '<KVX MSGTYPE="PayInit" TOKEN="t1" ORDERID="A-17" EXPIRATION="20231114 22:13:20"/>'),
        (2, 'P2', 'two', 't1', 'captured', 'f', '<KVX MSGTYPE="PayInit" TOKEN="t1" EXPIRATION="soon"/>');
    INSERT INTO payment_attributes VALUES ('P1', 0, 'MSGTYPE', 'PayInit');
    INSERT INTO history VALUES (1, 'P1', '2023-11-14T22:13:20Z', 'opened', 'payment page asked for');
    INSERT INTO notifications VALUES (7, 'P2', 'http://127.0.0.1/', 'captured', 1, 0, '', '');
    INSERT INTO exchanges VALUES
        (3, '2023-11-14T22:13:20Z', 'page', 'A-17', '/pay', '<KVX MSGTYPE="PayInit" KEYID="key-1" TOKEN="t1"/>', '', 'ok',
         '[]', 'GET', '', '', '', 1),
        (4, '2023-11-14T22:13:20Z', 'decision', '', '/pay/decision', '', '', 'ok', '[]',
         CAST('POST' || char(13, 10, 13, 10) || 'payment=P2&key=f&decision=pay' AS BLOB), '', '', '', 1),
        (5, '2023-11-14T22:13:20Z', 'notification', '', '/shop',
         '<KVX MSGTYPE="PayConfirm" KEYID="1-SERVER-1" ID="P2" TOKEN="t1"/>', '', 'ok', '[]', 'GET', '', '', '', 1),
        (6, '2023-11-14T22:13:20Z', 'page', '', '/pay', '<KVX MSGTYPE="PayInit" KEYID="key-3" TOKEN="t1"/>', '', 'no',
         '[]', 'GET', '', '', '', 1),
        (9, '2023-11-14T22:13:20Z', 'other', '', '/capture', 'no message', '', 'no', '[]', 'GET', '', '', '', 1);
    INSERT INTO begun_exchanges VALUES (1, 'then', 'capture', '', '/capture', '', 'GET'), (2, 'then', 'other', '', '', '', '');
)";

class EarlierLayout : public ::testing::Test {
protected:
    EarlierLayout() { Database(m_Path).execute(kLayout3); }

    std::vector<std::int64_t> numbers(Filter const& filter) {
        std::vector<std::int64_t> found;
        for (Exchange const& exchange : Store(m_Path).exchanges(filter, {}).m_Rows) {
            found.push_back(exchange.m_Number);
        }
        return found;
    }

    TemporaryDirectory const m_Directory;
    std::string const m_Path = m_Directory.path() + "/sandbox.db";
};

TEST_F(EarlierLayout, LeavesPaymentsAndFindsThemByWhatTheyAreAbout) {
    Store store(m_Path);
    Filter filter;
    filter.m_Order = "A-17";
    std::vector<Payment> const found = store.payments(filter, {}).m_Rows;
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].m_Id, "P1");
    EXPECT_EQ(found[0].attribute("EXPIRATION"), "20231114 22:13:20");
    ASSERT_EQ(found[0].m_History.size(), 1u);
    EXPECT_EQ(found[0].m_History[0].m_Note, "payment page asked for");
    EXPECT_TRUE(store.paymentsToExpire(1700000000, 10, {}).empty()) << "in time until the last second";
    ASSERT_EQ(store.paymentsToExpire(1700000001, 10, {}).size(), 1u);
    EXPECT_EQ(store.merchantKey("key-1")->m_Customer, "1001");
    EXPECT_EQ(store.notificationsOf("P2").size(), 1u);
}

TEST_F(EarlierLayout, LinksExchangesToWhatTheyAreAbout) {
    Filter filter;
    EXPECT_THAT(numbers(filter), ElementsAre(3, 4, 5, 6, 9, 10, 11)) << "the begun ones have ended";
    filter.m_Payment = "P1";
    EXPECT_THAT(numbers(filter), ElementsAre(3));
    filter.m_Payment = "P2";
    EXPECT_THAT(numbers(filter), ElementsAre(4, 5));
    filter = {};
    filter.m_Account = "two";
    EXPECT_THAT(numbers(filter), ElementsAre(4, 5));
    filter.m_Account = "";
    EXPECT_THAT(numbers(filter), ElementsAre(6, 9, 10, 11));
    filter.m_Token = "t1";
    EXPECT_THAT(numbers(filter), ElementsAre(6));
}

TEST_F(EarlierLayout, CountsWhatIsThere) {
    Counts const counts = Store(m_Path).counts();
    EXPECT_EQ(counts.m_Accounts, 2);
    EXPECT_EQ(counts.m_Payments, 2);
    EXPECT_EQ(counts.m_Notifications, 1);
    EXPECT_EQ(counts.m_Exchanges, 7);
    EXPECT_EQ(counts.m_MerchantKeys, 2);
    // The second start finds the present layout.
    EXPECT_EQ(Store(m_Path).counts().m_Exchanges, 7);
}

TEST(FormerLayout, IsKeptButForIndexes) {
    TemporaryDirectory const directory;
    std::string const path = directory.path() + "/sandbox.db";
    {
        Store store(path);
        store.putAccount("one", "p");
        StoredPayment fresh;
        fresh.m_Payment.m_Id = "P1";
        fresh.m_Payment.m_Account = "one";
        fresh.m_Payment.m_Token = "t1";
        store.openPayment(fresh, "then");
        store.addExchange({});
        Database(path).execute(
            "CREATE INDEX payments_of_token ON payments (token, number);"
            "CREATE INDEX payments_of_account_in_state ON payments (account, state, number);"
            "CREATE INDEX exchanges_of_account_and_kind ON exchanges (account, kind, number);"
            "PRAGMA user_version = 4");
    }
    Store store(path);
    Filter filter;
    filter.m_Token = "t1";
    EXPECT_EQ(store.newestPayment(filter)->m_Id, "P1");
    EXPECT_EQ(store.counts().m_Exchanges, 1);
    Database database(path, Database::Access::kRead);
    Statement version = database.prepare("PRAGMA user_version");
    ASSERT_TRUE(version.step());
    EXPECT_EQ(version.numberColumn(0), 5);
    EXPECT_FALSE(database.prepare("SELECT 1 FROM sqlite_schema WHERE name = 'payments_of_token'").step());
}

TEST_F(EarlierLayout, CountsOnFromTheNumbersThatWereGiven) {
    Store store(m_Path);
    EXPECT_EQ(store.addExchange({}), 12);
    EXPECT_EQ(store.counts().m_Exchanges, 8);
}

}  // namespace
