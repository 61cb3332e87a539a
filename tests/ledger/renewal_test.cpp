// Renewals of the key in one directory: what changes, what does not, and what a failure leaves.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "tests/ledger/renewalsupport.h"
#include "tests/sandbox/support/testmerchant.h"

using namespace kvxtest;

namespace {

using Renewal = RenewalTest;

mode_t modeOf(std::string const& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

TEST_F(Renewal, SignsWithTheNewKeyAndKeepsTheOldOne) {
    std::string const before = currentKey();
    Purchase open;
    open.m_Number = "OPEN";
    std::string const url = m_Ledger.url(open);
    ASSERT_EQ(::chmod(shop().dir().file("keys/private/" + before).c_str(), 0640), 0);
    renew();
    std::string const after = currentKey();
    EXPECT_NE(after, before);
    EXPECT_TRUE(shop().dir().exists("keys/private/" + before));
    EXPECT_EQ(modeOf(shop().dir().file("keys/private/" + after)), 0640U) << "readable for the same users";
    EXPECT_EQ(newestRenewal(), "done " + after);
    EXPECT_EQ(shop().dir().namesIn(".renewal"), (std::vector<std::string>{"generation", "id", "lock"}));
    EXPECT_EQ(modeOf(shop().dir().file(".renewal")), 0700U);
    EXPECT_EQ(decide(url, "pay"), "PAID_NOW") << "a payment that was open is signed by the old key";
    pay();
    EXPECT_NE(sandboxtest::percentDecoded(m_Ledger.attempt().at("url")).find(after), std::string::npos);
    EXPECT_EQ(m_Ledger.run(), 2);
    EXPECT_EQ(m_Ledger.state(), "captured");
}

TEST_F(Renewal, LeavesDefaultsAndSettingsOfTheMerchant) {
    shop().dir().write("settings.xml", "<KVX SYNCFILES=\"0\"/>");
    shop().dir().write("default.xml", "<KVX KVX.ISVALID=\"yes\" PAYINITTTL=\"77\"/>");
    renew();
    EXPECT_EQ(shop().dir().read("settings.xml"), "<KVX SYNCFILES=\"0\"/>");
    EXPECT_EQ(shop().dir().read("default.xml"), "<KVX KVX.ISVALID=\"yes\" PAYINITTTL=\"77\"/>");
}

TEST_F(Renewal, LogsWhereTheMerchantLooksForIt) {
    shop().dir().write("settings.xml", "<KVX LOGFILE=\"calls.log\"/>");
    EXPECT_EQ(renew(m_Ledger, "", "wrong").m_Code, KVX_E_SERVER_ERROR);
    EXPECT_NE(shop().dir().read("calls.log").find("KVX_E_SERVER_ERROR"), std::string::npos);
    EXPECT_EQ(shop().dir().read("settings.xml"), "<KVX LOGFILE=\"calls.log\"/>");
}

TEST_F(Renewal, IsNotInDoubtBeforeAnythingWasPublished) {
    shop().dir().write("settings.xml", "no document");
    Renewed const renewed = renew(m_Ledger);
    EXPECT_EQ(renewed.m_Code, KVX_E_INVALID_FORMAT);
    EXPECT_EQ(renewed.m_Outcome, KVX_LEDGER_RENEWAL_UNCHANGED);
    EXPECT_EQ(newestRenewal(), "unchanged -") << "no other server waits for it";
    EXPECT_FALSE(shop().dir().exists(".renewal/next"));
}

TEST_F(Renewal, FetchesDefaultsThatAreNotValid) {
    shop().dir().write("default.xml", "<KVX KVX.ISVALID=\"no\" PAYINITTTL=\"77\"/>");
    renew();
    EXPECT_NE(shop().dir().read("default.xml").find("PAYINITTTL=\"3600\""), std::string::npos);
}

TEST_F(Renewal, TakesAnAddress) {
    EXPECT_EQ(renew(m_Ledger, autoUrl()).m_Outcome, KVX_LEDGER_RENEWAL_DONE);
    std::string const before = currentKey();
    Renewed const renewed = renew(m_Ledger, "http://127.0.0.1:1/auto");
    EXPECT_EQ(renewed.m_Code, KVX_E_SOCKET_REFUSED);
    EXPECT_EQ(renewed.m_Outcome, KVX_LEDGER_RENEWAL_UNCHANGED);
    EXPECT_EQ(currentKey(), before);
}

TEST_F(Renewal, ChangesNothingWhenTheServiceRefuses) {
    for (char const* exchange : {"setup", "keyquery", "keyexport"}) {
        for (char const* fault : {"error,exchange=", "http-status,status=403,exchange="}) {
            SCOPED_TRACE(std::string(fault) + exchange);
            AccountContent const before = content();
            arm(std::string(fault) + exchange);
            Renewed const renewed = renew(m_Ledger);
            EXPECT_NE(renewed.m_Code, KVX_OK);
            EXPECT_EQ(renewed.m_Outcome, KVX_LEDGER_RENEWAL_UNCHANGED) << lastLedgerError();
            EXPECT_EQ(content(), before);
            EXPECT_EQ(newestRenewal(), "unchanged -");
        }
    }
    AccountContent const before = content();
    EXPECT_EQ(renew(m_Ledger, "", "wrong").m_Code, KVX_E_SERVER_ERROR);
    EXPECT_EQ(content(), before);
    EXPECT_EQ(lastLedgerError().find("wrong"), std::string::npos) << "no password in a reason";
    pay();
    renew();
}

TEST_F(Renewal, IsInDoubtWhenTheAnswerIsLost) {
    int payments = 0;
    for (char const* fault : {"drop", "reset", "truncate,bytes=30", "wrong-type", "no-blank-line"}) {
        SCOPED_TRACE(fault);
        AccountContent const before = content();
        std::string const key = currentKey();
        arm(std::string(fault) + ",exchange=keyexport");
        Renewed const renewed = renew(m_Ledger);
        EXPECT_NE(renewed.m_Code, KVX_OK);
        EXPECT_EQ(renewed.m_Outcome, KVX_LEDGER_RENEWAL_IN_DOUBT);
        AccountContent after = content();
        EXPECT_EQ(currentKey(), key) << "the old key signs";
        EXPECT_EQ(after.size(), before.size() + 2) << "the new pair is kept";
        std::string const doubtful = newestRenewal();
        EXPECT_EQ(doubtful.compare(0, 9, "doubtful "), 0) << doubtful;
        EXPECT_EQ(after.erase("keys/private/" + doubtful.substr(9)), 1U);
        EXPECT_EQ(after.erase("keys/public/" + doubtful.substr(9)), 1U);
        EXPECT_EQ(after, before);
        pay("D-" + std::to_string(++payments));
        renew();
        EXPECT_EQ(newestRenewal(), "done " + currentKey());
        pay("D-" + std::to_string(++payments));
    }
}

TEST_F(Renewal, RefusesAnotherKeyUnderAnIdThatIsKnown) {
    AccountContent const before = content();
    arm("wrong-key,exchange=keyquery");
    Renewed const renewed = renew(m_Ledger);
    EXPECT_EQ(renewed.m_Code, KVX_E_INVALID_KEY) << lastLedgerError();
    EXPECT_EQ(renewed.m_Outcome, KVX_LEDGER_RENEWAL_IN_DOUBT) << "the service has the new key all the same";
    EXPECT_EQ(content().at("keys/public/" + service().services().m_Keys.current()->m_Id),
              before.at("keys/public/" + service().services().m_Keys.current()->m_Id));
    pay();
    renew();
}

TEST_F(Renewal, IsFinishedByTheWorker) {
    // A set-up that was answered and not installed, as a kill leaves it.
    std::string const before = currentKey();
    renew();
    std::string const after = currentKey();
    AccountContent const files = content();
    for (char const* name : {"config.xml", "default.xml"}) {
        shop().dir().write(std::string(".renewal/next/") + name, files.at(name));
    }
    for (std::string const& name : {"keys/public/" + service().services().m_Keys.current()->m_Id,
                                    "keys/public/" + after, "keys/private/" + after, std::string("keys/current")}) {
        shop().dir().write(".renewal/next/" + name, files.at(name));
    }
    shop().dir().write(".renewal/next/generation", "1");
    shop().dir().write("keys/current", before);
    EXPECT_EQ(m_Ledger.run(), 0);
    EXPECT_EQ(currentKey(), after);
    EXPECT_FALSE(shop().dir().exists(".renewal/next"));
    pay();
}

TEST_F(Renewal, DoesNotKeepTheWorkerFromItsJobs) {
    pay();
    shop().dir().write(".renewal/next/generation", "no number");
    std::int32_t done = -1;
    EXPECT_EQ(Ledger_RunDue(m_Ledger.get(), 10, &done), KVX_E_INVALID_FORMAT) << "reported at the end";
    EXPECT_EQ(m_Ledger.state(), "captured");
}

TEST_F(Renewal, WorksOnAStoreOfVersion2) {
    if (runsOnPostgresql()) {
        GTEST_SKIP() << "a server never had that version";
    }
    runSql("DROP TABLE renewals; DROP TABLE account; PRAGMA user_version = 2");
    ASSERT_EQ(m_Ledger.open(store(), shop().path()), KVX_OK) << lastLedgerError();
    renew();
    EXPECT_EQ(newestRenewal(), "done " + currentKey());
}

TEST_F(Renewal, AcceptsConfirmationsUnderBothKeysOfTheService) {
    Returned const old = paid(m_Ledger, "OLD");
    service().services().m_Keys.rotate();
    Returned const early = paid(m_Ledger, "EARLY");
    Confirmed const kept = m_Ledger.confirm(early.m_Data, early.m_Signature);
    EXPECT_EQ(kept.m_Outcome, "KEPT") << "to be answered with 503";
    renew();
    EXPECT_EQ(m_Ledger.confirm(old.m_Data, old.m_Signature).m_Outcome, "PAID_NOW") << "signed by the replaced key";
    EXPECT_GE(m_Ledger.run(), 1);
    EXPECT_EQ(m_Ledger.nextPaid(), std::vector<std::string>{"EARLY"});
    EXPECT_EQ(m_Ledger.confirm(early.m_Data, early.m_Signature).m_Outcome, "KNOWN_ALREADY");
}

TEST_F(Renewal, EndsTheOldKeyOfTheServiceAfterOldKeySeconds) {
    Returned const returned = paid(m_Ledger, "LATE");
    std::int64_t const start = m_Ledger.attempt(1, "LATE").at("created");
    service().services().m_Keys.rotate();
    m_Ledger.option("NOW", std::to_string(start + 1000));
    renew();
    m_Ledger.option("OLDKEYSECONDS", "60");
    m_Ledger.option("NOW", std::to_string(start + 62000));
    EXPECT_EQ(m_Ledger.confirm(returned.m_Data, returned.m_Signature).m_Reason, "NOT_SERVICE_KEY");
    m_Ledger.option("NOW", std::to_string(start + 61000));
    EXPECT_EQ(m_Ledger.confirm(returned.m_Data, returned.m_Signature).m_Outcome, "PAID_NOW");
}

TEST_F(Renewal, DisturbsNoPayment) {
    constexpr int kThreads = 4;
    constexpr int kRenewals = 20;
    std::atomic<bool> hasEnded = false;
    std::atomic<int> payments = 0;
    std::mutex mutex;
    std::vector<std::string> failures;
    auto const sell = [&](int thread) {
        LedgerHandle ledger;
        std::string failure = ledger.open(store(), shop().path()) == KVX_OK ? "" : "open: " + lastLedgerError();
        for (int order = 0; !hasEnded && failure.empty(); ++order) {
            Purchase purchase;
            purchase.m_Number = "T" + std::to_string(thread) + "-" + std::to_string(order);
            std::string url;
            if (ledger.begin(purchase, url) != KVX_OK) {
                failure = "begin: " + lastLedgerError();
                break;
            }
            Returned const returned = sandbox().shopper(url, "pay");
            Confirmed const confirmed = ledger.confirm(returned.m_Data, returned.m_Signature);
            // A key of the service that is younger than the last set-up is not here yet.
            if (confirmed.m_Outcome != "PAID_NOW" && confirmed.m_Outcome != "KEPT") {
                failure = "confirm: " + confirmed.m_Outcome + " " + confirmed.m_Sentence;
            }
            ++payments;
        }
        std::lock_guard<std::mutex> const lock(mutex);
        if (!failure.empty()) {
            failures.push_back(failure);
        }
    };
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back(sell, thread);
    }
    for (int renewal = 0; renewal < kRenewals; ++renewal) {
        if (renewal % 2 == 0) {
            service().services().m_Keys.rotate();
        }
        renew();
        int const seen = payments;
        while (payments < seen + kThreads && failures.empty()) {
            std::this_thread::yield();
        }
    }
    hasEnded = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, std::vector<std::string>{});
    EXPECT_GE(payments, kRenewals * kThreads);
    EXPECT_GE(m_Ledger.run(1000000), 1);
    EXPECT_EQ(m_Store.one("SELECT count(*) FROM orders WHERE paid_attempt IS NOT NULL"), std::to_string(payments))
        << "kept confirmations were accepted after the set-up";
}

}  // namespace
