// Confirmations: every outcome and every reason, over a service whose key the test has.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/ledger/atpoints.h"
#include "tests/ledger/ledgersupport.h"
#include "tests/ledger/stranger.h"

using namespace kvxtest;

namespace {

class Confirm : public LedgerTest {
protected:
    Confirm() { static_cast<void>(m_Ledger.url()); }

    /// Confirms and expects a refusal that leaves the order as it was.
    void expectRefused(char const* reason, std::string const& data, std::string const& signature) const {
        std::size_t const before = m_Ledger.history().size();
        Confirmed const confirmed = m_Ledger.confirm(data, signature);
        EXPECT_EQ(confirmed.m_Code, KVX_OK) << reason << ": " << lastLedgerError();
        EXPECT_EQ(confirmed.m_Outcome, "REFUSED") << reason << ": " << data;
        EXPECT_EQ(confirmed.m_Reason, reason) << data;
        EXPECT_NE(confirmed.m_Sentence, "") << reason;
        EXPECT_EQ(m_Ledger.history().size(), before) << reason;
    }
};

TEST_F(Confirm, SaysPaidOnceAndKnownEverAfter) {
    Confirmed const first = confirm(says("authorised"));
    EXPECT_EQ(first.m_Outcome, "PAID_NOW");
    EXPECT_EQ(first.m_Reason, "NONE");
    EXPECT_EQ(first.m_Number, "A-17");
    for (char const* messenger : {"return", "notification", ""}) {
        EXPECT_EQ(confirm(says("authorised"), "server", messenger).m_Outcome, "KNOWN_ALREADY");
    }
    LedgerHandle other;
    openAgain(other);
    EXPECT_EQ(other.confirm(says("authorised"), m_Signer.sign(says("authorised"))).m_Outcome, "KNOWN_ALREADY");
    EXPECT_EQ(m_Ledger.history(),
              (std::vector<std::string>{"opened begun waiting", "waiting confirmed_paid authorised"}));
    EXPECT_EQ(m_Ledger.nextPaid(), std::vector<std::string>{});
}

TEST_F(Confirm, KnowsWhatAnotherHandleRecordsInTheMeantime) {
    static_cast<void>(m_Ledger.url());
    LedgerHandle const other;
    openAgain(other);
    std::string const data = says("authorised");
    std::string first;
    {
        AtPoints const meets([&](ledger::TestPoint point) {
            if (point == ledger::TestPoint::kBeforeChange && first.empty()) {
                first = "being recorded";
                first = other.confirm(data, m_Signer.sign(data)).m_Outcome;
            }
        });
        EXPECT_EQ(confirm(data).m_Outcome, "KNOWN_ALREADY");
    }
    EXPECT_EQ(first, "PAID_NOW");
    EXPECT_EQ(m_Ledger.history().size(), 2U);
}

TEST_F(Confirm, WaitsForAWriterThatItMeetsAfterReading) {
    if (runsOnPostgresql()) {
        GTEST_SKIP() << "a stranger to a server's store has other locks";
    }
    static_cast<void>(m_Ledger.url());
    Stranger const stranger(m_Dir.file("orders.db"));
    int points = 0;
    {
        AtPoints const meets([&](ledger::TestPoint point) {
            if (point == ledger::TestPoint::kBeforeChange) {
                EXPECT_EQ(stranger.run(++points == 1 ? "BEGIN IMMEDIATE" : "ROLLBACK"), SQLITE_OK);
            }
        });
        EXPECT_EQ(outcome("authorised"), "PAID_NOW");
    }
    EXPECT_EQ(points, 2) << "once more, from the beginning";
    EXPECT_EQ(m_Ledger.history().size(), 2U);
}

TEST_F(Confirm, KnowsThatTheLogBeganAgainAfterReading) {
    if (runsOnPostgresql()) {
        GTEST_SKIP() << "the store has no log of SQLite's";
    }
    static_cast<void>(m_Ledger.url());
    Stranger const stranger(m_Dir.file("orders.db"));
    // What is read next is read from the tables alone, so that it keeps no place in the log.
    ASSERT_EQ(stranger.run("PRAGMA wal_checkpoint(RESTART)"), SQLITE_OK);
    std::uintmax_t const size = std::filesystem::file_size(m_Dir.file("orders.db-wal"));
    int points = 0;
    {
        AtPoints const begins([&](ledger::TestPoint point) {
            if (point == ledger::TestPoint::kBeforeChange && ++points == 1) {
                EXPECT_EQ(stranger.run("UPDATE orders SET created_at = created_at + 1"), SQLITE_OK);
            }
        });
        EXPECT_EQ(outcome("authorised"), "PAID_NOW");
    }
    EXPECT_EQ(points, 2) << "once more, from the beginning";
    EXPECT_EQ(std::filesystem::file_size(m_Dir.file("orders.db-wal")), size) << "old pages were overwritten";
    EXPECT_EQ(m_Ledger.history().size(), 2U);
    EXPECT_EQ(stranger.column("PRAGMA integrity_check"), std::vector<std::string>{"ok"});
}

TEST_F(Confirm, KnowsAReplayWhileAnotherWrites) {
    if (runsOnPostgresql()) {
        GTEST_SKIP() << "a stranger to a server's store has other locks";
    }
    EXPECT_EQ(outcome("authorised"), "PAID_NOW");
    Stranger const stranger(m_Dir.file("orders.db"));
    ASSERT_EQ(stranger.run("BEGIN IMMEDIATE"), SQLITE_OK);
    EXPECT_EQ(outcome("authorised"), "KNOWN_ALREADY");
    EXPECT_EQ(outcome("declined"), "REFUSED");
    ASSERT_EQ(stranger.run("ROLLBACK"), SQLITE_OK);
}

TEST_F(Confirm, KnowsAReplayWithoutWriting) {
    if (runsOnPostgresql()) {
        GTEST_SKIP() << "the store is no file whose size can be seen";
    }
    EXPECT_EQ(outcome("authorised"), "PAID_NOW");
    struct stat before {};
    std::string const log = m_Dir.file("orders.db-wal");
    ASSERT_EQ(::stat(log.c_str(), &before), 0);
    EXPECT_EQ(outcome("authorised"), "KNOWN_ALREADY");
    struct stat after {};
    ASSERT_EQ(::stat(log.c_str(), &after), 0);
    EXPECT_EQ(after.st_size, before.st_size);
}

TEST_F(Confirm, RecordsWhatIsNotPaid) {
    struct Case {
        char const* m_Result;
        char const* m_Event;
    };
    Case const cases[] = {
        {"declined", "confirmed_declined"}, {"cancelled", "confirmed_cancelled"}, {"expired", "confirmed_expired"}};
    std::size_t attempt = 1;
    for (Case const& row : cases) {
        EXPECT_EQ(outcome(row.m_Result, attempt), "NOT_PAID");
        EXPECT_EQ(m_Ledger.state(), row.m_Result);
        EXPECT_EQ(outcome(row.m_Result, attempt), "KNOWN_ALREADY");
        EXPECT_EQ(m_Ledger.history().back(), std::string("waiting ") + row.m_Event + " " + row.m_Result);
        static_cast<void>(m_Ledger.url());
        ++attempt;
    }
    EXPECT_EQ(outcome("cancelled", 1), "NOT_PAID") << "another end than the one that is recorded";
    EXPECT_EQ(m_Ledger.attempt(1).at("state"), "declined");
}

TEST_F(Confirm, LetsALatePaymentPayAnOpenOrder) {
    std::size_t attempt = 1;
    for (char const* end : {"declined", "cancelled", "expired"}) {
        Purchase purchase;
        purchase.m_Number = std::string("late-") + end;
        static_cast<void>(m_Ledger.url(purchase));
        std::string const token = m_Ledger.attempt(1, purchase.m_Number).at("token");
        Attributes const changes = {{"ORDERID", purchase.m_Number}, {"TOKEN", token}};
        EXPECT_EQ(confirm(says(end, changes)).m_Outcome, "NOT_PAID");
        EXPECT_EQ(confirm(says("authorised", changes)).m_Outcome, "PAID_NOW") << end;
        EXPECT_EQ(confirm(says(end, changes)).m_Outcome, "KNOWN_ALREADY");
        EXPECT_EQ(m_Ledger.state(purchase.m_Number), "authorised");
        ++attempt;
    }
}

TEST_F(Confirm, ListsTheSurplusOfTwoPaidAttempts) {
    EXPECT_EQ(outcome("declined"), "NOT_PAID");
    static_cast<void>(m_Ledger.url());
    EXPECT_EQ(outcome("authorised", 1), "PAID_NOW") << "an earlier attempt can still pay";
    EXPECT_EQ(outcome("authorised", 2), "SURPLUS");
    EXPECT_EQ(outcome("authorised", 2), "KNOWN_ALREADY");
    EXPECT_EQ(outcome("authorised", 1), "KNOWN_ALREADY");
    EXPECT_EQ(m_Ledger.state(), "authorised");
    EXPECT_EQ(m_Ledger.attempt(2).at("state"), "surplus");
    EXPECT_EQ(m_Ledger.attempt(2).at("due"), nullptr) << "it is never captured";
    EXPECT_EQ(m_Ledger.numbers("surplus"), std::vector<std::string>{"A-17"});
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{"A-17"});
}

TEST_F(Confirm, ListsASurplusUntilAPersonHasSettledIt) {
    EXPECT_EQ(m_Ledger.resolve("surplus_settled"), KVX_E_LEDGER_STATE);
    EXPECT_EQ(outcome("declined"), "NOT_PAID");
    static_cast<void>(m_Ledger.url());
    EXPECT_EQ(outcome("authorised", 1), "PAID_NOW");
    EXPECT_EQ(outcome("authorised", 2), "SURPLUS");
    EXPECT_EQ(m_Ledger.resolve("surplus_settled", ""), KVX_E_LEDGER_INVALID);
    EXPECT_EQ(m_Ledger.resolve("surplus_settled", "Kim: voided"), KVX_OK);
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{});
    EXPECT_EQ(m_Ledger.numbers("surplus"), std::vector<std::string>{});
    EXPECT_EQ(m_Ledger.attempt(2).at("state"), "cancelled");
    EXPECT_EQ(m_Ledger.evidence().at("transitions").back().at("cause"), "Kim: voided");
    EXPECT_EQ(m_Ledger.order().at("paidAttempt"), 1) << "the payment that counts stays as it is";
    EXPECT_EQ(m_Ledger.state(), "authorised");
    EXPECT_EQ(outcome("authorised", 2), "KNOWN_ALREADY") << "settled for good";
    EXPECT_EQ(m_Ledger.resolve("surplus_settled"), KVX_E_LEDGER_STATE);
}

TEST_F(Confirm, RefusesWhatSaysSomethingElse) {
    struct Case {
        char const* m_Reason;
        Attributes m_Changes;
    };
    Case const cases[] = {
        {"WRONG_TYPE", {{"MSGTYPE", "PayInit"}}},   {"WRONG_TYPE", {{"MSGTYPE", "PayCompleteResponse"}}},
        {"WRONG_TYPE", {{"MSGTYPE", ""}}},          {"UNKNOWN_TOKEN", {{"TOKEN", "1"}}},
        {"UNKNOWN_TOKEN", {{"TOKEN", ""}}},         {"WRONG_ORDER", {{"ORDERID", "A-18"}}},
        {"WRONG_ORDER", {{"ORDERID", ""}}},         {"WRONG_AMOUNT", {{"AMOUNT", "12.5"}}},
        {"WRONG_AMOUNT", {{"AMOUNT", "1250"}}},     {"WRONG_AMOUNT", {{"AMOUNT", ""}}},
        {"WRONG_CURRENCY", {{"CURRENCY", "eur"}}},  {"WRONG_CURRENCY", {{"CURRENCY", ""}}},
        {"WRONG_RESULT", {{"RESULT", "captured"}}}, {"WRONG_RESULT", {{"RESULT", ""}}},
    };
    for (Case const& row : cases) {
        std::string const data = says("authorised", row.m_Changes);
        expectRefused(row.m_Reason, data, m_Signer.sign(data));
    }
    EXPECT_EQ(m_Ledger.state(), "waiting");
    EXPECT_EQ(outcome("authorised"), "PAID_NOW") << "nothing of that has used it up";
}

TEST_F(Confirm, RefusesWhatIsNotSignedByTheService) {
    std::string const data = says("authorised");
    std::string const signature = m_Signer.sign(data);
    std::string altered = data;
    altered.replace(altered.find("12.50"), 5, "12.51");
    expectRefused("BAD_SIGNATURE", altered, signature);
    expectRefused("BAD_SIGNATURE", data, m_Signer.sign(data + " "));
    expectRefused("BAD_SIGNATURE", data, "no signature");
    expectRefused("NO_SIGNATURE", data, "");
    expectRefused("NO_KEY_ID", says("authorised", {{"KEYID", ""}}), signature);
    expectRefused("FORMAT", "no message", signature);
    expectRefused("FORMAT", "", signature);
    std::string const own = says("authorised", {{"KEYID", "own"}});
    expectRefused("OWN_KEY", own, m_Signer.sign(own, "own"));
    expectRefused("OWN_KEY", own, signature);
}

TEST_F(Confirm, RefusesSignaturesOfEveryLength) {
    std::string const data = says("authorised");
    for (std::size_t const length : {1U, 2U, 3U, 127U, 128U, 129U, 130U, 1024U, 4095U, 4096U}) {
        for (char const digit : {'0', 'f'}) {
            expectRefused("BAD_SIGNATURE", data, std::string(length, digit));
        }
    }
}

TEST_F(Confirm, RefusesWhatIsTooLarge) {
    std::string const data = says("authorised", {{"NOTE", std::string(20001, 'x')}});
    expectRefused("TOO_LARGE", data, m_Signer.sign(data));
    expectRefused("TOO_LARGE", says("authorised"), std::string(4097, 'a'));
    m_Ledger.option("MAXDATA", "30000");
    EXPECT_EQ(confirm(data).m_Outcome, "PAID_NOW");
}

TEST_F(Confirm, RefusesTheMerchantsOwnPaymentMessage) {
    std::string const url = m_Ledger.url();
    Returned const own = takeApart(url);
    expectRefused("OWN_KEY", own.m_Data, own.m_Signature);
}

TEST_F(Confirm, RefusesAKeyOfTheDirectoryThatIsNotTheServices) {
    makeKey("stranger");
    publishKey("stranger", false);
    std::string const data = says("authorised", {{"KEYID", "stranger"}});
    expectRefused("NOT_SERVICE_KEY", data, m_Signer.sign(data, "stranger"));
}

TEST_F(Confirm, AcceptsAnEarlierKeyOfTheServiceForTheStatedTime) {
    makeKey("next");
    publishKey("next", true);
    setClock(10);
    std::string const next = says("declined", {{"KEYID", "next"}});
    EXPECT_EQ(confirm(next, "next").m_Outcome, "NOT_PAID");
    setClock(10 + 604800);
    EXPECT_EQ(outcome("authorised"), "PAID_NOW") << "the earlier key";
    setClock(10 + 604801);
    expectRefused("NOT_SERVICE_KEY", says("authorised"), m_Signer.sign(says("authorised")));
    setClock(0);
    EXPECT_EQ(outcome("authorised"), "KNOWN_ALREADY") << "a clock that was set back";
}

TEST_F(Confirm, AcceptsAKeyOfTheServiceUnderEachIdThatItHad) {
    m_Signer.write("keys/public/renamed", m_Signer.read("keys/public/server"));
    m_Signer.write("keys/private/renamed", m_Signer.read("keys/private/server"));
    makeKey("next");
    publishKey("renamed", true);
    EXPECT_EQ(confirm(says("declined", {{"KEYID", "renamed"}}), "renamed").m_Outcome, "NOT_PAID");
    EXPECT_EQ(m_Ledger.evidence().at("keys").at(0).at("keyId"), "renamed");
    publishKey("next", true);
    for (char const* keyId : {"next", "renamed", "server"}) {
        EXPECT_EQ(confirm(says("declined", {{"KEYID", keyId}}), keyId).m_Outcome, "KNOWN_ALREADY") << keyId;
    }
}

TEST_F(Confirm, RefusesWhatComesTooLate) {
    setClockAfterExpiry(2592001);
    expectRefused("TOO_LATE", says("authorised"), m_Signer.sign(says("authorised")));
    expectRefused("TOO_LATE", says("declined"), m_Signer.sign(says("declined")));
    m_Ledger.option("ACCEPTSECONDS", "0");
    EXPECT_EQ(outcome("authorised"), "PAID_NOW");
    m_Ledger.option("ACCEPTSECONDS", "1");
    EXPECT_EQ(outcome("authorised"), "KNOWN_ALREADY") << "what is recorded is known for ever";
}

TEST_F(Confirm, RefusesWhatContradictsAPayment) {
    EXPECT_EQ(outcome("authorised"), "PAID_NOW");
    expectRefused("CONTRADICTS", says("declined"), m_Signer.sign(says("declined")));
    std::string const other = says("authorised", {{"ID", "P9"}});
    expectRefused("OTHER_PAYMENT", other, m_Signer.sign(other));
}

TEST_F(Confirm, StoresWhatAKeySignedThatIsNotHereYet) {
    makeKey("next");
    std::string const data = says("authorised", {{"KEYID", "next"}});
    for (int time = 0; time < 2; ++time) {
        Confirmed const confirmed = confirm(data, "next", "notification");
        EXPECT_EQ(confirmed.m_Outcome, "KEPT");
        EXPECT_EQ(confirmed.m_Reason, "UNKNOWN_KEY");
        EXPECT_EQ(confirmed.m_Number, "");
    }
    EXPECT_EQ(m_Ledger.run(), 0) << "the key is not here yet";
    EXPECT_EQ(m_Ledger.state(), "waiting");
    m_Ledger.option("CAPTURE", "0");
    publishKey("next", true);
    EXPECT_EQ(m_Ledger.run(), 1);
    EXPECT_EQ(m_Ledger.state(), "authorised");
    EXPECT_EQ(m_Ledger.evidence().at("transitions").at(1).at("cause"), "kept notification");
    EXPECT_EQ(m_Ledger.nextPaid(), std::vector<std::string>{"A-17"}) << "it has not been reported";
    EXPECT_EQ(m_Ledger.nextPaid(), std::vector<std::string>{});
    EXPECT_EQ(confirm(data, "next").m_Outcome, "KNOWN_ALREADY");
    EXPECT_EQ(m_Ledger.run(), 0) << "it is kept no longer";
}

TEST_F(Confirm, StoresWhatNamesAKeyInAnyForm) {
    makeKey("next");
    std::string const plain = says("authorised", {{"KEYID", "next"}});
    std::string const name = " KEYID=\"next\"";
    int form = 0;
    for (std::string const other : {" KEYID='next'", "\nKEYID=\"next\"", "\tKEYID = \"next\"", " KEYID=\r\n'next'"}) {
        m_Ledger.option("KEPTEACH", std::to_string(++form));
        std::string data = plain;
        data.replace(data.find(name), name.size(), other);
        EXPECT_EQ(confirm(data, "next").m_Reason, "UNKNOWN_KEY") << other;
    }
    // What stands in a value or is part of another name names no key.
    for (std::string const other : {" NOTE=' KEYID=\"next\"'", " OLDKEYID=\"next\"", ""}) {
        std::string data = plain;
        data.replace(data.find(name), name.size(), other);
        expectRefused("NO_KEY_ID", data, m_Signer.sign(data, "next"));
    }
    m_Ledger.option("CAPTURE", "0");
    publishKey("next", true);
    EXPECT_EQ(m_Ledger.run(), form);
    EXPECT_EQ(m_Ledger.state(), "authorised");
}

TEST_F(Confirm, StoresUntilTheKeyIsTheServices) {
    // A set-up writes the key's file first and the configuration that names it afterwards.
    makeKey("next");
    std::string const data = says("authorised", {{"KEYID", "next"}});
    EXPECT_EQ(confirm(data, "next").m_Outcome, "KEPT");
    publishKey("next", false);
    static_cast<void>(m_Ledger.run());
    publishKey("next", true);
    m_Ledger.option("CAPTURE", "0");
    EXPECT_EQ(m_Ledger.run(), 1);
    EXPECT_EQ(m_Ledger.state(), "authorised");
}

TEST_F(Confirm, TellsAMessengerOfAPaymentThatTheWorkerLearnedOf) {
    makeKey("next");
    std::string const data = says("authorised", {{"KEYID", "next"}});
    EXPECT_EQ(confirm(data, "next").m_Outcome, "KEPT");
    m_Ledger.option("CAPTURE", "0");
    publishKey("next", true);
    EXPECT_EQ(m_Ledger.run(), 1);
    EXPECT_EQ(confirm(data, "next").m_Outcome, "PAID_NOW");
    EXPECT_EQ(confirm(data, "next").m_Outcome, "KNOWN_ALREADY");
    EXPECT_EQ(m_Ledger.nextPaid(), std::vector<std::string>{});
}

TEST_F(Confirm, StoresNoMoreThanAStrangerMayFill) {
    std::string const data = says("authorised", {{"KEYID", "unheard-of"}});
    for (int index = 0; index < 4; ++index) {
        EXPECT_EQ(m_Ledger.confirm(data, std::to_string(10 + index)).m_Reason, "UNKNOWN_KEY");
    }
    Confirmed const fifth = m_Ledger.confirm(data, "99");
    EXPECT_EQ(fifth.m_Outcome, "KEPT");
    EXPECT_EQ(fifth.m_Reason, "KEPT_FULL");
    m_Ledger.option("KEPTEACH", "100");
    m_Ledger.option("MAXKEPT", "4");
    EXPECT_EQ(m_Ledger.confirm(data, "99").m_Reason, "KEPT_FULL");
    // Only what could be of an order of this shop takes room.
    struct Case {
        char const* m_Reason;
        Attributes m_Changes;
    };
    Case const cases[] = {
        {"UNKNOWN_TOKEN", {{"TOKEN", "1"}}},
        {"WRONG_AMOUNT", {{"AMOUNT", "1"}}},
        {"WRONG_TYPE", {{"MSGTYPE", "X"}}},
        {"NO_KEY_ID", {{"KEYID", "../x"}}},
        {"NO_KEY_ID", {{"KEYID", std::string(256, 'k')}}},
        {"WRONG_RESULT", {{"RESULT", "x"}}},
    };
    for (Case const& row : cases) {
        Attributes changes = row.m_Changes;
        changes.insert({"KEYID", "unheard-of"});
        expectRefused(row.m_Reason, says("authorised", changes), "77");
    }
    setClock(604801);
    static_cast<void>(m_Ledger.run());
    EXPECT_EQ(m_Ledger.confirm(data, "99").m_Reason, "UNKNOWN_KEY") << "the old ones have been dropped";
}

TEST_F(Confirm, DropsKeptOnesThatTurnOutToBeForged) {
    makeKey("next");
    std::string const data = says("authorised", {{"KEYID", "next"}});
    EXPECT_EQ(m_Ledger.confirm(data, m_Signer.sign(data, "own")).m_Outcome, "KEPT");
    publishKey("next", true);
    EXPECT_EQ(m_Ledger.run(), 1);
    EXPECT_EQ(m_Ledger.state(), "waiting");
    EXPECT_EQ(m_Ledger.run(), 0);
}

TEST_F(Confirm, DoesNotStopTheWorkerWithAKeyThatIsBroken) {
    makeKey("next");
    std::string const data = says("authorised", {{"KEYID", "next"}});
    EXPECT_EQ(confirm(data, "next").m_Outcome, "KEPT");
    m_Dir.write("account/keys/public/next", "no key");
    EXPECT_EQ(m_Ledger.run(), 0);
    publishKey("next", true);
    m_Ledger.option("CAPTURE", "0");
    EXPECT_EQ(m_Ledger.run(), 1);
    EXPECT_EQ(m_Ledger.state(), "authorised");
}

TEST_F(Confirm, ChangesNothingWhenTheNumberDoesNotFit) {
    std::string const data = says("authorised");
    std::string const signature = m_Signer.sign(data);
    std::int32_t outcome = -1;
    std::int32_t size = 4;
    char number[8] = "before";
    EXPECT_EQ(Ledger_Confirm(m_Ledger.get(), "return", data.c_str(), signature.c_str(), &outcome, &size, number),
              KVX_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 5);
    EXPECT_EQ(outcome, -1);
    EXPECT_STREQ(number, "before");
    EXPECT_EQ(m_Ledger.state(), "waiting");
    EXPECT_EQ(Ledger_Confirm(m_Ledger.get(), "return", data.c_str(), signature.c_str(), &outcome, nullptr, number),
              KVX_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(Ledger_Confirm(m_Ledger.get(), "return", data.c_str(), signature.c_str(), &outcome, &size, number),
              KVX_OK);
    EXPECT_EQ(outcome, KVX_LEDGER_PAID_NOW);
    EXPECT_STREQ(number, "A-17");
}

TEST_F(Confirm, SaysNothingWhenItsOwnFilesAreBroken) {
    std::string const data = says("authorised");
    std::string const signature = m_Signer.sign(data);
    struct Case {
        char const* m_File;
        char const* m_Content;
        std::int32_t m_Code;
    };
    Case const cases[] = {
        {"account/settings.xml", "no document", KVX_E_INVALID_FORMAT},
        {"account/keys/public/server", "no key", KVX_E_INVALID_KEY},
        {"account/config.xml", "<KVX/>", KVX_E_NO_CONFIGURATION},
    };
    for (Case const& row : cases) {
        std::string const before = m_Dir.exists(row.m_File) ? m_Dir.read(row.m_File) : "<KVX/>";
        m_Dir.write(row.m_File, row.m_Content);
        EXPECT_EQ(m_Ledger.confirm(data, signature).m_Code, row.m_Code) << row.m_File;
        m_Dir.write(row.m_File, before);
    }
    EXPECT_EQ(m_Ledger.confirm(data, signature).m_Outcome, "PAID_NOW");
}

TEST_F(Confirm, HasNoReasonAfterOneThatFailed) {
    EXPECT_EQ(m_Ledger.confirm("no message", "00").m_Outcome, "REFUSED");
    std::string const keyFile = m_Dir.read("account/keys/public/server");
    m_Dir.write("account/keys/public/server", "no key");
    EXPECT_EQ(confirm(says("authorised")).m_Code, KVX_E_INVALID_KEY);
    m_Dir.write("account/keys/public/server", keyFile);
    std::int32_t reason = -1;
    std::int32_t size = -1;
    EXPECT_EQ(Ledger_GetReason(m_Ledger.get(), &reason, &size, nullptr), KVX_E_NOT_FOUND);
    EXPECT_EQ(reason, -1);
}

TEST_F(Confirm, HasNoReasonBeforeTheFirst) {
    std::int32_t reason = -1;
    std::int32_t size = -1;
    EXPECT_EQ(Ledger_GetReason(m_Ledger.get(), &reason, &size, nullptr), KVX_E_NOT_FOUND);
    EXPECT_EQ(reason, -1);
    EXPECT_EQ(size, -1);
}

TEST(OutcomeNames, AreEmptyForOtherNumbers) {
    EXPECT_STREQ(Ledger_GetOutcomeName(KVX_LEDGER_PAID_NOW), "PAID_NOW");
    EXPECT_STREQ(Ledger_GetOutcomeName(6), "");
    EXPECT_STREQ(Ledger_GetReasonName(KVX_LEDGER_REASON_KEPT_FULL), "KEPT_FULL");
    EXPECT_STREQ(Ledger_GetReasonName(19), "");
    EXPECT_STREQ(Ledger_GetReasonName(-1), "");
}

}  // namespace
