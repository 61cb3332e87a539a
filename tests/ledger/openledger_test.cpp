// The store: what cannot be opened, written or trusted, versions, options, handles, and the table of the lifecycle.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <optional>
#include <set>
#include <thread>

#include "ledger/lifecycle.h"
#include "ledger/moneytable.h"
#include "ledger/sqlitedatabase.h"
#include "tests/ledger/atpoints.h"
#include "tests/ledger/flushes.h"
#include "tests/ledger/ledgersupport.h"
#include "tests/ledger/stranger.h"

using namespace kvxtest;

namespace {

class StoreFile : public LedgerTest {
protected:
    void SetUp() override {
        if (runsOnPostgresql()) {
            GTEST_SKIP() << "the store is no file";
        }
    }

    [[nodiscard]] std::string path() const { return m_Dir.file("orders.db"); }
};

TEST_F(StoreFile, IsForItsOwnerAlone) {
    struct stat status {};
    ASSERT_EQ(::stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(StoreFile, IsRefusedWhenItCannotBeOpened) {
    struct Case {
        std::string m_Store;
        std::int32_t m_Code;
    };
    m_Dir.write("text",
                "this is no database, and it is long enough to be one of another kind, for a hundred bytes and more");
    m_Dir.write("folder/file", "");
    Case const cases[] = {
        {"sqlite:" + m_Dir.file("none/orders.db"), KVX_E_LEDGER_CANNOT_OPEN},
        {"sqlite:" + m_Dir.file("folder"), KVX_E_LEDGER_CANNOT_OPEN},
        {"sqlite:", KVX_E_LEDGER_CANNOT_OPEN},
        {"oracle:x", KVX_E_LEDGER_CANNOT_OPEN},
        {"", KVX_E_LEDGER_CANNOT_OPEN},
        {"sqlite:" + m_Dir.file("text"), KVX_E_LEDGER_DAMAGED},
    };
    for (Case const& row : cases) {
        LedgerHandle ledger;
        EXPECT_EQ(ledger.open(row.m_Store, account()), row.m_Code) << row.m_Store << ": " << lastLedgerError();
        std::int32_t size = 0;
        EXPECT_EQ(Ledger_GetState(ledger.get(), "A", &size, nullptr), KVX_E_NO_CONTEXT);
    }
    LedgerHandle ledger;
    EXPECT_EQ(ledger.open(store(), m_Dir.file("none")), KVX_E_CANNOT_OPEN);
    EXPECT_FALSE(m_Dir.exists("none")) << "a directory that was never set up is not created";
}

TEST_F(StoreFile, OfANewerReleaseIsRefused) {
    ASSERT_EQ(Stranger(path()).run("PRAGMA user_version = 99"), SQLITE_OK);
    LedgerHandle ledger;
    EXPECT_EQ(ledger.open(store(), account()), KVX_E_LEDGER_VERSION);
    EXPECT_NE(lastLedgerError().find("version 99"), std::string::npos) << lastLedgerError();
}

TEST_F(StoreFile, OfAnOlderReleaseIsMigratedWithWhatItHolds) {
    std::string const old = m_Dir.file("old.db");
    ASSERT_EQ(Stranger(old).run(ledger::kSqliteSchemas[0]), SQLITE_OK);
    ASSERT_EQ(Stranger(old).run("INSERT INTO orders VALUES (1, 'A-1', '1.00', 'EUR', '{}', 1, 1, 1, NULL);"
                                "INSERT INTO attempts (order_id, attempt, token, state, message, url, created_at,"
                                " expires_at, paid_at) VALUES (1, 1, 'T', 'captured', 'm', 'u', 1, 2, 3);"
                                "INSERT INTO transitions VALUES (7, 1, 1, 'opened', 'waiting', 'begun', 'merchant', 1,"
                                " NULL, 'm', NULL, NULL), (9, 1, 1, 'waiting', 'captured', 'found_captured', 'worker',"
                                " 3, 0, 'c', 's', 'f');"
                                "PRAGMA user_version = 1"),
              SQLITE_OK);
    LedgerHandle ledger;
    ledger.option("ACKNOWLEDGE", "1");
    ASSERT_EQ(ledger.open("sqlite:" + old, account()), KVX_OK) << lastLedgerError();
    EXPECT_EQ(ledger.state("A-1"), "captured");
    EXPECT_EQ(ledger.nextPaid(), std::vector<std::string>{"A-1"});
    EXPECT_EQ(ledger.numbers("undelivered"), std::vector<std::string>{"A-1"});
    EXPECT_EQ(ledger.numbers("captured"), std::vector<std::string>{"A-1"});
    EXPECT_EQ(ledger.open("sqlite:" + old, account()), KVX_OK) << "once";
    EXPECT_EQ(Stranger(old).column("SELECT sequence || ' ' || order_id || ' ' || attempt || ' ' || from_state || ' ' ||"
                                   " to_state || ' ' || event || ' ' || cause || ' ' || at || ' ' || COALESCE(code, '')"
                                   " || message || COALESCE(signature || key_fingerprint, '') FROM transitions"
                                   " WHERE sequence < 10 ORDER BY sequence"),
              (std::vector<std::string>{"7 1 1 opened waiting begun merchant 1 m",
                                        "9 1 1 waiting captured found_captured worker 3 0csf"}));
    EXPECT_NE(Stranger(old).run("UPDATE transitions SET cause = ''"), SQLITE_OK);
    EXPECT_NE(Stranger(old).run("DELETE FROM transitions"), SQLITE_OK);
    EXPECT_EQ(Stranger(old).column("PRAGMA foreign_key_check"), std::vector<std::string>());
}

TEST_F(StoreFile, IsMigratedBesideViewsAndTablesOfTheMerchantsOwn) {
    std::string const old = m_Dir.file("old.db");
    Stranger const merchant(old);
    for (int version = 0; version < 4; ++version) {
        ASSERT_EQ(merchant.run(ledger::kSqliteSchemas[version]), SQLITE_OK);
    }
    ASSERT_EQ(merchant.run("INSERT INTO orders VALUES (1, 'A-1', '1.00', 'EUR', '{}', 1, 1, NULL, NULL, NULL, NULL);"
                           "INSERT INTO transitions VALUES (3, 1, 1, 'opened', 'waiting', 'begun', 'merchant', 1, NULL,"
                           " 'm', NULL, NULL);"  // of an attempt that somebody has deleted
                           "CREATE VIEW report AS SELECT number, event FROM orders JOIN transitions ON order_id = id;"
                           "CREATE TABLE seen (sequence REFERENCES transitions (sequence));"
                           "INSERT INTO seen VALUES (3);"
                           "CREATE TRIGGER told AFTER UPDATE ON orders BEGIN INSERT INTO seen SELECT sequence FROM"
                           " transitions WHERE order_id = new.id; END;"
                           "PRAGMA user_version = 4"),
              SQLITE_OK);
    LedgerHandle const ledger;
    ASSERT_EQ(ledger.open("sqlite:" + old, account()), KVX_OK) << lastLedgerError();
    EXPECT_EQ(merchant.column("SELECT number || ' ' || event FROM report"), std::vector<std::string>{"A-1 begun"});
    EXPECT_EQ(merchant.run("UPDATE orders SET told_at = 1"), SQLITE_OK);
    EXPECT_EQ(merchant.column("SELECT sequence FROM seen"), (std::vector<std::string>{"3", "3"}));
}

TEST_F(StoreFile, GetsFewPagesWithACommit) {
    constexpr std::uintmax_t kFrame = 24 + 4096;  // a page in the log
    auto const logged = [&] { return std::filesystem::file_size(path() + "-wal"); };
    static_cast<void>(m_Ledger.url());
    std::string const paid = says("authorised");
    std::uintmax_t const begun = logged();
    EXPECT_EQ(confirm(paid).m_Outcome, "PAID_NOW");
    EXPECT_GE(logged(), begun + 3 * kFrame) << "the log is at its end, so that its size says what was written";
    EXPECT_LE(logged(), begun + 6 * kFrame) << "order, attempt and evidence, two indexes, and the first page";
    Purchase next;
    next.m_Number = "A-18";
    std::uintmax_t const confirmed = logged();
    static_cast<void>(m_Ledger.url(next));
    EXPECT_GE(logged(), confirmed + 3 * kFrame);
    EXPECT_LE(logged(), confirmed + 11 * kFrame);
}

TEST_F(StoreFile, GetsACommitAtOnce) {
    static_cast<void>(m_Ledger.url());
    std::string const data = says("authorised");
    std::string const signature = m_Signer.sign(data);
    std::optional<long> const before = writeCalls();
    if (!before) {
        GTEST_SKIP() << "the system counts no writes";
    }
    EXPECT_EQ(m_Ledger.confirm(data, signature).m_Outcome, "PAID_NOW");
    EXPECT_EQ(writeCalls(), *before + 1);
}

TEST_F(StoreFile, IsTidiedByTheWorkerAndOnlyLateByOthers) {
    constexpr std::uintmax_t kFrame = 24 + 4096;
    auto const logPages = [&] { return std::filesystem::file_size(path() + "-wal") / kFrame; };
    std::uintmax_t const size = std::filesystem::file_size(path());
    int number = 0;
    auto const beginUntil = [&](auto const& isEnough) {
        constexpr int kTooMany = 2000;
        for (; number < kTooMany && !isEnough(); ++number) {
            Purchase purchase;
            purchase.m_Number = "T-" + std::to_string(number);
            static_cast<void>(m_Ledger.url(purchase));
        }
    };
    LedgerHandle const worker;
    openAgain(worker);
    beginUntil([&] { return logPages() > 1000; });
    EXPECT_EQ(std::filesystem::file_size(path()), size) << "no shopper has waited for it";
    EXPECT_EQ(worker.run(), 0);
    std::uintmax_t const tidied = std::filesystem::file_size(path());
    EXPECT_GT(tidied, size) << "a worker without commits of its own";
    EXPECT_LE(logPages(), 1100U);
    beginUntil([&] { return std::filesystem::file_size(path()) > tidied; });
    EXPECT_GT(logPages(), 3900U) << "without a worker";
    EXPECT_LE(logPages(), 4100U);
    EXPECT_EQ(Stranger(path()).column("PRAGMA integrity_check"), std::vector<std::string>{"ok"});
}

TEST_F(StoreFile, IsNotUsedWithAnAttemptThatHasLostItsOrder) {
    static_cast<void>(m_Ledger.url());
    std::string const paid = says("authorised");
    ASSERT_EQ(Stranger(path()).run("DELETE FROM orders"), SQLITE_OK);
    EXPECT_EQ(confirm(paid).m_Code, KVX_E_LEDGER_DAMAGED);
    EXPECT_NE(lastLedgerError().find("has lost order 1"), std::string::npos) << lastLedgerError();
}

TEST_F(StoreFile, BelongsToOneAccount) {
    struct Case {
        char const* m_Config;  ///< Beside VTKEYID.
        std::int32_t m_Code;
    };
    Case const cases[] = {
        {"VTURL=\"http://127.0.0.1:1/pay\"", KVX_OK},
        {"VTURL=\"http://127.0.0.1:2/pay\"", KVX_E_LEDGER_CONFLICT},
        {"VTURL=\"http://127.0.0.1:2/pay\" CUSTOMERID=\"4711\"", KVX_E_LEDGER_CONFLICT},
        {"VTURL=\"http://127.0.0.1:1/pay\" CUSTOMERID=\"4711\"", KVX_OK},  // learns the name
        {"VTURL=\"http://127.0.0.1:2/pay\" CUSTOMERID=\"4711\"", KVX_OK},  // the service has moved
        {"VTURL=\"http://127.0.0.1:1/pay\" CUSTOMERID=\"4712\"", KVX_E_LEDGER_CONFLICT},
        {"VTURL=\"http://127.0.0.1:1/pay\"", KVX_OK},
    };
    for (Case const& row : cases) {
        m_Dir.write("account/config.xml", std::string("<KVX VTKEYID=\"server\" ") + row.m_Config + "/>");
        LedgerHandle ledger;
        EXPECT_EQ(ledger.open(store(), account()), row.m_Code) << row.m_Config << ": " << lastLedgerError();
    }
    m_Dir.write("account/config.xml", "<KVX VTKEYID=\"server\" CUSTOMERID=\"4712\"/>");
    LedgerHandle ledger;
    EXPECT_EQ(ledger.open(store(), account()), KVX_E_LEDGER_CONFLICT);
    EXPECT_NE(lastLedgerError().find("belongs to the account \"4711\""), std::string::npos) << lastLedgerError();
}

TEST_F(StoreFile, HoldsAConfirmationInLittleMoreThanItsRoom) {
    static_cast<void>(m_Ledger.url());
    m_Ledger.option("KEPTEACH", "1000");
    std::string const data = says("authorised", {{"KEYID", "next"}, {"NOTE", std::string(19000, 'x')}});
    auto const close = [&] { ASSERT_EQ(m_Ledger.open("sqlite:" + m_Dir.file("other.db"), account()), KVX_OK); };
    close();
    std::uintmax_t const before = std::filesystem::file_size(path());
    openAgain(m_Ledger);
    constexpr std::uintmax_t kKept = 40;
    for (std::uintmax_t index = 0; index < kKept; ++index) {
        EXPECT_EQ(m_Ledger.confirm(data, std::to_string(10 + index)).m_Reason, "UNKNOWN_KEY");
    }
    EXPECT_EQ(m_Ledger.confirm(data, "10").m_Reason, "UNKNOWN_KEY") << "it is there";
    close();
    EXPECT_LT(std::filesystem::file_size(path()) - before, kKept * data.size() * 14 / 10);
}

TEST_F(StoreFile, OfAnotherProgramIsLeftAlone) {
    std::string const other = m_Dir.file("other.db");
    ASSERT_EQ(Stranger(other).run("CREATE TABLE mine (x)"), SQLITE_OK);
    LedgerHandle ledger;
    EXPECT_EQ(ledger.open("sqlite:" + other, account()), KVX_E_LEDGER_DAMAGED);
    EXPECT_EQ(Stranger(other).run("SELECT x FROM mine"), SQLITE_OK);
    EXPECT_NE(Stranger(other).run("SELECT id FROM orders"), SQLITE_OK);
}

TEST_F(StoreFile, OfAnotherProgramKeepsItsBytes) {
    std::string const other = m_Dir.file("other.db");
    for (char const* version : {"PRAGMA user_version = 0", "PRAGMA user_version = 99", "PRAGMA user_version = -1"}) {
        ASSERT_EQ(Stranger(other).run((std::string("CREATE TABLE IF NOT EXISTS mine (x);") + version).c_str()),
                  SQLITE_OK);
        std::string const before = contentOf(other);
        LedgerHandle const ledger;
        EXPECT_NE(ledger.open("sqlite:" + other, account()), KVX_OK) << version;
        EXPECT_EQ(contentOf(other), before) << version;
    }
}

TEST_F(StoreFile, WithANameThatSqliteWouldInterpretIsAFile) {
    WorkingDirectory const here(m_Dir.path());
    for (std::string const name : {":memory:", "file:one.db", "file:two.db?mode=memory", "file::memory:"}) {
        Purchase purchase;
        {
            LedgerHandle const ledger;
            ASSERT_EQ(ledger.open("sqlite:" + name, account()), KVX_OK) << name << ": " << lastLedgerError();
            EXPECT_NE(ledger.url(purchase), "");
        }
        struct stat status {};
        ASSERT_EQ(::stat(name.c_str(), &status), 0) << name;
        EXPECT_EQ(status.st_mode & 0777U, 0600U) << name;
        LedgerHandle const again;
        ASSERT_EQ(again.open("sqlite:" + name, account()), KVX_OK) << name;
        EXPECT_EQ(again.state(), "waiting") << name;
    }
}

TEST_F(StoreFile, ThatWasRemovedOrReplacedAcceptsNothing) {
    for (bool const isReplaced : {false, true}) {
        std::string const file = m_Dir.file(isReplaced ? "replaced.db" : "removed.db");
        LedgerHandle const ledger;
        ASSERT_EQ(ledger.open("sqlite:" + file, account()), KVX_OK);
        static_cast<void>(m_Ledger.url());
        Purchase purchase;
        EXPECT_NE(ledger.url(purchase), "");
        std::string const token = ledger.attempt().at("token");
        std::string const data = says("authorised", {{"TOKEN", token}});
        if (isReplaced) {
            m_Dir.write("other.db", "");
            std::filesystem::rename(m_Dir.file("other.db"), file);
        } else {
            std::filesystem::remove(file);
        }
        EXPECT_EQ(ledger.confirm(data, m_Signer.sign(data)).m_Code, KVX_E_LEDGER_STORE) << file;
        EXPECT_NE(lastLedgerError().find("removed or replaced"), std::string::npos) << lastLedgerError();
        purchase.m_Number = "A-18";
        std::string url;
        EXPECT_EQ(ledger.begin(purchase, url), KVX_E_LEDGER_STORE) << file;
    }
}

TEST_F(StoreFile, ThatIsRemovedAfterReadingAcceptsNothing) {
    static_cast<void>(m_Ledger.url());
    std::string const data = says("authorised");
    AtPoints const loses([&](ledger::TestPoint point) {
        if (point == ledger::TestPoint::kBeforeChange) {
            std::filesystem::remove(path());
        }
    });
    EXPECT_EQ(m_Ledger.confirm(data, m_Signer.sign(data)).m_Code, KVX_E_LEDGER_STORE);
    EXPECT_NE(lastLedgerError().find("removed or replaced"), std::string::npos) << lastLedgerError();
}

TEST_F(StoreFile, ThatIsLockedMeansNothingAboutAnOrder) {
    static_cast<void>(m_Ledger.url());
    std::string const data = says("authorised");
    LedgerHandle impatient;
    impatient.option("BUSYSECONDS", "0");
    openAgain(impatient);
    Stranger const stranger(path());
    ASSERT_EQ(stranger.run("BEGIN IMMEDIATE"), SQLITE_OK);
    EXPECT_EQ(impatient.confirm(data, m_Signer.sign(data)).m_Code, KVX_E_LEDGER_BUSY);
    Purchase other;
    other.m_Number = "A-18";
    std::string url;
    EXPECT_EQ(impatient.begin(other, url), KVX_E_LEDGER_BUSY);
    EXPECT_EQ(impatient.state(), "waiting") << "reading goes on";
    ASSERT_EQ(stranger.run("ROLLBACK"), SQLITE_OK);
    EXPECT_EQ(impatient.confirm(data, m_Signer.sign(data)).m_Outcome, "PAID_NOW");
}

TEST_F(StoreFile, ThatCannotGrowChangesNothing) {
    static_cast<void>(m_Ledger.url());
    std::string const data = says("authorised");
    std::string const signature = m_Signer.sign(data);
    // A file that may not grow ends a write with EFBIG, which the ledger reports as a full disk.
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    auto* const handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit const none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &none), 0);
    Confirmed const confirmed = m_Ledger.confirm(data, signature);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(confirmed.m_Code, KVX_E_LEDGER_FULL) << lastLedgerError();
    EXPECT_EQ(m_Ledger.state(), "waiting");
    EXPECT_EQ(m_Ledger.confirm(data, signature).m_Outcome, "PAID_NOW");
}

TEST_F(StoreFile, ThatCannotBeFlushedChangesNothing) {
    static_cast<void>(m_Ledger.url());
    std::string const data = says("authorised");
    std::string const signature = m_Signer.sign(data);
    {
        FailingFlushes const failing;
        EXPECT_EQ(m_Ledger.confirm(data, signature).m_Code, KVX_E_LEDGER_STORE) << lastLedgerError();
    }
    EXPECT_EQ(m_Ledger.state(), "waiting");
    long const flushes = flushCalls();
    EXPECT_EQ(m_Ledger.confirm(data, signature).m_Outcome, "PAID_NOW");
    EXPECT_EQ(flushCalls(), flushes + 1);
}

TEST_F(StoreFile, ThatIsDamagedSaysSo) {
    static_cast<void>(m_Ledger.url());
    { LedgerHandle const closed; }
    std::string const copy = m_Dir.file("copy.db");
    ASSERT_EQ(Stranger(path()).run(("VACUUM INTO '" + copy + "'").c_str()), SQLITE_OK);
    std::string bytes = contentOf(copy);
    for (std::size_t at = 4096; at < bytes.size(); ++at) {
        bytes[at] = static_cast<char>(0x5A);
    }
    m_Dir.write("copy.db", bytes);
    LedgerHandle ledger;
    std::int32_t code = ledger.open("sqlite:" + copy, account());
    if (code == KVX_OK) {
        std::int32_t size = 0;
        code = Ledger_GetState(ledger.get(), "A-17", &size, nullptr);
    }
    EXPECT_EQ(code, KVX_E_LEDGER_DAMAGED) << lastLedgerError();
}

TEST_F(StoreFile, LetsNobodyChangeItsEvidence) {
    static_cast<void>(m_Ledger.url());
    Stranger const stranger(path());
    EXPECT_NE(stranger.run("UPDATE transitions SET cause = 'nothing'"), SQLITE_OK);
    EXPECT_NE(stranger.run("DELETE FROM transitions"), SQLITE_OK);
}

TEST_F(StoreFile, SurvivesAnOpenOfMany) {
    for (int index = 0; index < 20; ++index) {
        LedgerHandle ledger;
        openAgain(ledger);
    }
    EXPECT_NE(m_Ledger.url(), "");
}

TEST(LedgerHandles, AreRefusedWhenTheyAreNone) {
    std::int32_t number = 0;
    std::int32_t size = 0;
    KVX_HANDLE out = nullptr;
    KVX_HANDLE const destroyed = CreateLedger();
    DestroyLedger(destroyed);
    KVX_HANDLE const setup = CreateConfigurationSetup();
    for (KVX_HANDLE const handle : {KVX_HANDLE{nullptr}, destroyed, setup, static_cast<KVX_HANDLE>(&number)}) {
        EXPECT_EQ(Ledger_SetOption(handle, "CAPTURE", "1"), KVX_E_BAD_HANDLE);
        EXPECT_EQ(Ledger_Open(handle, "sqlite:x", "."), KVX_E_BAD_HANDLE);
        EXPECT_EQ(Ledger_CreateOrder(handle, "A", "1", "EUR", &out), KVX_E_BAD_HANDLE);
        EXPECT_EQ(LedgerOrder_SetAttribute(handle, "A", "1"), KVX_E_BAD_HANDLE);
        EXPECT_EQ(LedgerOrder_Begin(handle, &size, nullptr), KVX_E_BAD_HANDLE);
        EXPECT_EQ(Ledger_Confirm(handle, "", "", "", &number, &size, nullptr), KVX_E_BAD_HANDLE);
        EXPECT_EQ(Ledger_GetReason(handle, &number, &size, nullptr), KVX_E_BAD_HANDLE);
        EXPECT_EQ(Ledger_NextPaid(handle, &size, nullptr), KVX_E_BAD_HANDLE);
        EXPECT_EQ(Ledger_Delivered(handle, "A"), KVX_E_BAD_HANDLE);
        EXPECT_EQ(Ledger_RunDue(handle, 1, &number), KVX_E_BAD_HANDLE);
        EXPECT_EQ(Ledger_RenewKeys(handle, "", "", "", &number), KVX_E_BAD_HANDLE);
        EXPECT_EQ(Ledger_Resolve(handle, "A", "captured", "x"), KVX_E_BAD_HANDLE);
        EXPECT_EQ(Ledger_GetState(handle, "A", &size, nullptr), KVX_E_BAD_HANDLE);
        EXPECT_EQ(Ledger_GetOrder(handle, "A", &size, nullptr), KVX_E_BAD_HANDLE);
        EXPECT_EQ(Ledger_ListOrders(handle, "", "", 1, &size, nullptr), KVX_E_BAD_HANDLE);
        EXPECT_EQ(Ledger_ExportOrder(handle, "A", &size, nullptr), KVX_E_BAD_HANDLE);
        DestroyLedger(handle);
        DestroyLedgerOrder(handle);
    }
    DestroyConfigurationSetup(setup);
}

TEST(LedgerHandles, NeverMeanALaterObject) {
    LedgerHandle const ledger;
    std::set<KVX_HANDLE> seen;
    for (int round = 0; round < 100; ++round) {
        KVX_HANDLE order = nullptr;
        ASSERT_EQ(Ledger_CreateOrder(ledger.get(), "A", "1", "EUR", &order), KVX_OK);
        EXPECT_TRUE(seen.insert(order).second) << round;
        for (KVX_HANDLE const earlier : seen) {
            if (earlier != order) {
                DestroyLedgerOrder(earlier);
                EXPECT_EQ(LedgerOrder_SetAttribute(earlier, "A", "1"), KVX_E_BAD_HANDLE) << round;
            }
        }
        EXPECT_EQ(LedgerOrder_SetAttribute(order, "A", "1"), KVX_OK) << round;
        DestroyLedgerOrder(order);
    }
    KVX_HANDLE const first = CreateLedger();
    DestroyLedger(first);
    KVX_HANDLE const second = CreateLedger();
    DestroyLedger(first);
    EXPECT_EQ(Ledger_SetOption(second, "CAPTURE", "1"), KVX_OK);
    DestroyLedger(second);
}

TEST(LedgerHandles, NeedAStoreForEverythingButOptions) {
    LedgerHandle const ledger;
    std::int32_t number = 0;
    std::int32_t size = 0;
    EXPECT_EQ(Ledger_Confirm(ledger.get(), "", "", "", &number, &size, nullptr), KVX_E_NO_CONTEXT);
    EXPECT_EQ(Ledger_NextPaid(ledger.get(), &size, nullptr), KVX_E_NO_CONTEXT);
    EXPECT_EQ(Ledger_Delivered(ledger.get(), "A"), KVX_E_NO_CONTEXT);
    EXPECT_EQ(Ledger_RunDue(ledger.get(), 1, &number), KVX_E_NO_CONTEXT);
    EXPECT_EQ(Ledger_RenewKeys(ledger.get(), "", "", "", &number), KVX_E_NO_CONTEXT);
    EXPECT_EQ(Ledger_Resolve(ledger.get(), "A", "captured", "x"), KVX_E_NO_CONTEXT);
    EXPECT_EQ(Ledger_GetOrder(ledger.get(), "A", &size, nullptr), KVX_E_NO_CONTEXT);
    EXPECT_EQ(Ledger_ListOrders(ledger.get(), "", "", 1, &size, nullptr), KVX_E_NO_CONTEXT);
    EXPECT_EQ(Ledger_ExportOrder(ledger.get(), "A", &size, nullptr), KVX_E_NO_CONTEXT);
}

TEST(LedgerHandles, HaveAReasonForEachThread) {
    std::thread([] {
        std::int32_t size = -7;
        EXPECT_EQ(Ledger_GetLastErrorText(&size, nullptr), KVX_E_NOT_FOUND);
        EXPECT_EQ(size, -7);
        EXPECT_EQ(Ledger_SetOption(nullptr, "CAPTURE", "1"), KVX_E_BAD_HANDLE);
        EXPECT_EQ(lastLedgerError().find("KVX_E_BAD_HANDLE: "), 0U);
        LedgerHandle const ledger;
        EXPECT_EQ(Ledger_SetOption(ledger.get(), "CAPTURE", "1"), KVX_OK);
        EXPECT_EQ(lastLedgerError().find("KVX_E_BAD_HANDLE: "), 0U) << "calls that succeed leave it alone";
        size = 3;
        char text[] = "ab";
        EXPECT_EQ(Ledger_GetLastErrorText(&size, text), KVX_E_BUFFER_TOO_SMALL);
        EXPECT_STREQ(text, "ab");
        EXPECT_EQ(Ledger_GetLastErrorText(nullptr, text), KVX_E_BUFFER_TOO_SMALL);
    }).join();
}

TEST(LedgerOptions, TakeTheirValuesOnly) {
    struct Case {
        char const* m_Name;
        char const* m_Value;
        bool m_IsTaken;
    };
    Case const cases[] = {
        {"CAPTURE", "0", true},
        {"CAPTURE", "2", false},
        {"CAPTURE", "", false},
        {"COMPLETE", "1", true},
        {"CAPTUREIDEMPOTENT", "1", true},
        {"JITTER", "yes", false},
        {"ACKNOWLEDGE", "1", true},
        {"ACKNOWLEDGE", "2", false},
        {"STATUSTYPE", "", true},
        {"STATUSATTRIBUTE", "", false},
        {"AUTHORISED", "ok", true},
        {"AUTHORISED", "", false},
        {"RETRYBASE", "0", true},
        {"RETRYBASE", "-1", false},
        {"RETRYBASE", "1.5", false},
        {"RETRYBASE", "", false},
        {"RETRYMAX", "2147483647", true},
        {"RETRYMAX", "2147483648", false},
        {"NOW", "", true},
        {"NOW", "1700000000000", true},
        {"NOW", "soon", false},
        {"NOW", "99999999999999999999", false},
        {"capture", "1", false},
        {"", "", false},
        {"NOSUCH", "1", false},
    };
    LedgerHandle const ledger;
    for (Case const& row : cases) {
        EXPECT_EQ(Ledger_SetOption(ledger.get(), row.m_Name, row.m_Value),
                  row.m_IsTaken ? KVX_OK : KVX_E_INVALID_OPTION)
            << row.m_Name << "=" << row.m_Value;
    }
}

TEST(LifecycleTable, HasOneStateForAStateAndAnEvent) {
    int rows = 0;
    for (ledger::StateRow const& from : ledger::kStates) {
        EXPECT_EQ(ledger::stateNamed(from.m_Name), from.m_State);
        for (ledger::EventRow const& event : ledger::kEvents) {
            rows += ledger::stateAfter(from.m_State, event.m_Event) ? 1 : 0;
        }
    }
    EXPECT_EQ(rows, static_cast<int>(std::size(ledger::kTransitions)));
    EXPECT_EQ(ledger::stateNamed("nowhere"), std::nullopt);
}

TEST(LifecycleTable, NeverCapturesTwiceWithoutKnowing) {
    // From every state in which a capture may have been sent, a capture is sent again only after the service, a person
    // or the merchant's declaration has said that it may be.
    for (ledger::TransitionRow const& row : ledger::kTransitions) {
        bool const isInDoubt = row.m_From == ledger::State::kUnknown || row.m_From == ledger::State::kCapturing;
        if (isInDoubt && row.m_To == ledger::State::kAuthorised) {
            EXPECT_TRUE(row.m_Event == ledger::Event::kCaptureFailed ||
                        row.m_Event == ledger::Event::kFoundAuthorised || row.m_Event == ledger::Event::kRepeated ||
                        row.m_Event == ledger::Event::kResolvedAuthorised)
                << ledger::nameOf(row.m_Event);
        }
    }
}

TEST(MoneyTable, SaysWhatTheCatalogueSays) {
    struct Case {
        std::int32_t m_Code;
        bool m_MayHaveMoved;
    };
    Case const cases[] = {
        {KVX_E_SOCKET_REFUSED, false},
        {KVX_E_SOCKET_RESET, true},
        {KVX_E_SERVER_ERROR, true},
        {KVX_E_HTTP_NOT_FOUND, false},
        {KVX_E_HTTP_FAMILY | 403, false},
        {KVX_E_HTTP_FAMILY | 500, true},
        {KVX_E_HTTP_FAMILY | 599, true},
        {KVX_E_TLS_FAMILY | 0x800, true},
        {KVX_E_TLS_FAMILY | 0x10B, true},  // bytes that are not TLS may follow the request
        {KVX_E_TLS_FAMILY | 0x438, true},
        {KVX_E_TLS_FAMILY | 0x102, false},
        {KVX_E_CANNOT_OPEN, false},
        {2, false},
        {static_cast<std::int32_t>(0x80049999), true},
        {5000, true},
        {KVX_OK, true},
    };
    for (Case const& row : cases) {
        EXPECT_EQ(ledger::mayHaveMovedMoney(row.m_Code), row.m_MayHaveMoved) << std::hex << row.m_Code;
    }
}

}  // namespace
