// Renewals among servers that share an account and a store, each with a directory of its own.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <thread>

#include "tests/ledger/renewalsupport.h"

using namespace kvxtest;

namespace {

constexpr char kSecret[] = "sixteen bytes or more";

class RenewalServers : public RenewalTest {
protected:
    RenewalServers() {
        std::filesystem::copy(shop().path(), second(), std::filesystem::copy_options::recursive);
        for (LedgerHandle const* ledger : {&m_Ledger, &m_Second}) {
            ledger->option("KEYSECRET", kSecret);
        }
        m_Second.option("STATUSTYPE", "Status");
        EXPECT_EQ(m_Second.open(store(), second()), KVX_OK) << lastLedgerError();
    }

    [[nodiscard]] std::string second() const { return m_Dir.file("second"); }
    [[nodiscard]] std::string secondKey() const { return currentKey(second()); }

    LedgerHandle m_Second;
};

TEST_F(RenewalServers, TakeTheKeyOverInTheirNextRun) {
    std::string const before = currentKey();
    renew();
    EXPECT_EQ(secondKey(), before);
    EXPECT_EQ(m_Second.run(), 0);
    EXPECT_EQ(secondKey(), currentKey());
    EXPECT_EQ(contentOf(second()), content());
    Returned const returned = paid(m_Second, "B");
    EXPECT_EQ(m_Second.confirm(returned.m_Data, returned.m_Signature).m_Outcome, "PAID_NOW");
    m_Dir.write("second/keys/current", before);
    EXPECT_EQ(m_Second.run(), 1);
    EXPECT_EQ(secondKey(), before) << "a set-up is taken over once: what a person changes afterwards stays";
}

TEST_F(RenewalServers, AcceptConfirmationsUnderTheOldAndTheNewKeyOfTheService) {
    Returned const old = paid(m_Ledger, "OLD");
    service().services().m_Keys.rotate();
    Returned const early = paid(m_Ledger, "EARLY");
    for (LedgerHandle const* ledger : {&m_Ledger, &m_Second}) {
        EXPECT_EQ(ledger->confirm(early.m_Data, early.m_Signature).m_Outcome, "KEPT");
    }
    renew();
    EXPECT_EQ(m_Second.confirm(early.m_Data, early.m_Signature).m_Outcome, "KEPT") << "it has not taken over yet";
    EXPECT_EQ(m_Second.confirm(old.m_Data, old.m_Signature).m_Outcome, "PAID_NOW");
    EXPECT_EQ(m_Ledger.confirm(old.m_Data, old.m_Signature).m_Outcome, "KNOWN_ALREADY");
    EXPECT_GE(m_Second.run(), 1);
    EXPECT_EQ(m_Second.nextPaid(), std::vector<std::string>{"EARLY"});
    for (LedgerHandle const* ledger : {&m_Ledger, &m_Second}) {
        EXPECT_EQ(ledger->confirm(early.m_Data, early.m_Signature).m_Outcome, "KNOWN_ALREADY");
        EXPECT_EQ(ledger->confirm(old.m_Data, old.m_Signature).m_Outcome, "KNOWN_ALREADY");
    }
}

TEST_F(RenewalServers, AgreeWhenTheyRaceToRenew) {
    constexpr int kRounds = 6;
    for (int round = 0; round < kRounds; ++round) {
        std::array<Renewed, 2> renewed;
        std::thread other([&] { renewed[1] = RenewalTest::renew(m_Second); });
        renewed[0] = RenewalTest::renew(m_Ledger);
        other.join();
        int done = 0;
        for (Renewed const& each : renewed) {
            bool const isDone = each.m_Code == KVX_OK && each.m_Outcome == KVX_LEDGER_RENEWAL_DONE;
            bool const isLater = each.m_Code == KVX_E_LEDGER_BUSY && each.m_Outcome == KVX_LEDGER_RENEWAL_UNCHANGED;
            EXPECT_TRUE(isDone || isLater) << std::hex << each.m_Code << " " << each.m_Outcome;
            done += isDone ? 1 : 0;
        }
        EXPECT_GE(done, 1);
        EXPECT_EQ(m_Ledger.run(), 0);
        EXPECT_EQ(m_Second.run(), 0);
        EXPECT_EQ(currentKey(), secondKey());
        EXPECT_EQ(newestRenewal(), "done " + currentKey());
    }
}

TEST_F(RenewalServers, WaitForTheLeaseOfAnotherAndNoLonger) {
    constexpr std::int64_t kNow = 1600000000000;
    constexpr std::int64_t kLongest = (4 * 300 + 3600) * 1000;  // a lease, by a clock that is an hour ahead
    m_Ledger.option("NOW", std::to_string(kNow));
    runSql(
        "INSERT INTO renewals (generation, state, owner, begun_at, lease_until)"
        " VALUES (1, 'running', 'another', 0, " +
        std::to_string(kNow + kLongest) + ")");
    Renewed const refused = RenewalTest::renew(m_Ledger);
    EXPECT_EQ(refused.m_Code, KVX_E_LEDGER_BUSY);
    EXPECT_EQ(refused.m_Outcome, KVX_LEDGER_RENEWAL_UNCHANGED);
    for (std::int64_t const end : {kNow, kNow + kLongest + 1}) {
        runSql("UPDATE renewals SET state = 'running', owner = 'another', lease_until = " + std::to_string(end) +
               " WHERE generation = (SELECT max(generation) FROM renewals)");
        EXPECT_EQ(RenewalTest::renew(m_Ledger).m_Code, KVX_OK) << "over, or of a clock that has been set back";
        EXPECT_EQ(newestRenewal(), "done " + currentKey());
    }
}

TEST_F(RenewalServers, GiveNothingWithoutTheSecret) {
    renew();
    std::string const before = secondKey();
    pay();
    m_Second.option("KEYSECRET", "another secret of sixteen");
    std::int32_t done = -1;
    EXPECT_EQ(Ledger_RunDue(m_Second.get(), 10, &done), KVX_E_CRYPTO);
    EXPECT_EQ(lastLedgerError().find("secret of"), std::string::npos);
    EXPECT_EQ(secondKey(), before);
    EXPECT_EQ(m_Second.state(), "captured") << "the worker has done its jobs all the same";
    m_Second.option("KEYSECRET", "");
    EXPECT_EQ(m_Second.run(), 0);
    EXPECT_EQ(secondKey(), before) << "each server has a key of its own";
    EXPECT_EQ(Ledger_SetOption(m_Second.get(), "KEYSECRET", "fifteen bytes.."), KVX_E_INVALID_OPTION);
}

TEST_F(RenewalServers, RefuseASealedSetUpThatWasChanged) {
    renew();
    std::string const before = secondKey();
    runSql(
        "UPDATE renewals SET sealed = substr(sealed, 1, 200) || CASE substr(sealed, 201, 1) WHEN '0' THEN '1' ELSE"
        " '0' END || substr(sealed, 202)");
    std::int32_t done = -1;
    EXPECT_EQ(Ledger_RunDue(m_Second.get(), 10, &done), KVX_E_CRYPTO);
    runSql("UPDATE renewals SET sealed = 'x'");
    EXPECT_EQ(Ledger_RunDue(m_Second.get(), 10, &done), KVX_E_CRYPTO);
    EXPECT_EQ(secondKey(), before);
}

TEST_F(RenewalServers, StoreOneSealedSetUpAndNoPrivateKey) {
    renew();
    renew();
    std::string const key = shop().dir().read("keys/private/" + currentKey());
    std::string const store = runsOnPostgresql() ? m_Store.one("SELECT string_agg(sealed, '') FROM renewals")
                                                 : m_Dir.read("orders.db") + m_Dir.read("orders.db-wal");
    EXPECT_NE(store, "");
    EXPECT_EQ(store.find(key), std::string::npos);
    EXPECT_EQ(store.find(key.substr(20, 40)), std::string::npos);
    EXPECT_EQ(store.find(kSecret), std::string::npos);
    EXPECT_EQ(m_Store.one("SELECT count(*) FROM renewals WHERE sealed IS NOT NULL"), "1");
}

}  // namespace
