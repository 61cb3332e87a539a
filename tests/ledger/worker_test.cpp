// The worker: every row of the lifecycle that it causes, faults of the sandbox, leases, pauses and clocks.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "tests/ledger/atpoints.h"
#include "tests/ledger/ledgersupport.h"
#include "tests/sandbox/support/rawclient.h"

using namespace kvxtest;

namespace {

class Worker : public LedgerFlowTest {
protected:
    /// How many requests of the kind the service carried out.
    long carriedOut(sandbox::ExchangeKind kind) {
        long count = 0;
        for (sandbox::Exchange const& exchange : sandboxtest::exchangesOf(service())) {
            count += exchange.m_Kind == kind && exchange.m_Verdict == "ok" ? 1 : 0;
        }
        return count;
    }

    /// Sets the ledger's clock behind the expiry of an attempt and the pause after it.
    void passExpiry(std::size_t attempt = 1) const {
        std::int64_t const expires = m_Ledger.attempt(attempt).at("expires");
        m_Ledger.option("NOW", std::to_string(expires + 300 * 1000));
    }

    /// Runs the worker until nothing is due.
    void runAll() const {
        for (int round = 0; round < 100 && m_Ledger.run() > 0; ++round) {
        }
    }
};

using History = std::vector<std::string>;

TEST_F(Worker, CapturesWhatIsPaidAndThenRests) {
    pay();
    EXPECT_EQ(m_Ledger.run(), 1);
    EXPECT_EQ(m_Ledger.state(), "captured");
    EXPECT_EQ(stateAtService(), "captured");
    EXPECT_EQ(m_Ledger.run(), 0);
    EXPECT_EQ(m_Ledger.history(), (History{"opened begun waiting", "waiting confirmed_paid authorised",
                                           "authorised capture_sent capturing", "capturing capture_done captured"}));
}

TEST_F(Worker, CompletesWhereThatIsWanted) {
    m_Ledger.option("COMPLETE", "1");
    pay();
    EXPECT_EQ(m_Ledger.run(), 2);
    EXPECT_EQ(m_Ledger.state(), "completed");
    EXPECT_EQ(stateAtService(), "completed");
    EXPECT_EQ(m_Ledger.run(), 0);
}

TEST_F(Worker, CapturesNothingWhereTheServiceDoes) {
    m_Ledger.option("CAPTURE", "0");
    pay();
    EXPECT_EQ(m_Ledger.attempt().at("due"), nullptr) << "never overdue, also where no worker runs";
    EXPECT_EQ(m_Ledger.run(), 0);
    EXPECT_EQ(m_Ledger.state(), "authorised");
    EXPECT_EQ(m_Ledger.attempt().at("due"), nullptr);
}

TEST_F(Worker, CapturesWhatAHandleWithOtherOptionsLeftAlone) {
    LedgerHandle web;
    web.option("CAPTURE", "0");
    ASSERT_EQ(web.open(store(), shop().path()), KVX_OK);
    Returned const returned = sandbox().shopper(m_Ledger.url(), "pay");
    EXPECT_EQ(web.confirm(returned.m_Data, returned.m_Signature).m_Outcome, "PAID_NOW");
    EXPECT_EQ(m_Ledger.run(), 1);
    EXPECT_EQ(m_Ledger.state(), "captured");
}

TEST_F(Worker, DoesNoMoreJobsThanItIsGiven) {
    pay("A-1");
    pay("A-2");
    EXPECT_EQ(m_Ledger.run(1), 1);
    EXPECT_EQ(m_Ledger.numbers("authorised").size(), 1U);
    EXPECT_EQ(m_Ledger.run(1), 1);
    EXPECT_EQ(m_Ledger.run(1), 0);
    std::int32_t done = -1;
    EXPECT_EQ(Ledger_RunDue(m_Ledger.get(), 0, &done), KVX_E_LEDGER_INVALID);
    EXPECT_EQ(done, -1);
}

TEST_F(Worker, FindsOutWhatBecameOfACaptureThatFailed) {
    struct Case {
        char const* m_Fault;
        char const* m_StateAfter;
        bool m_IsCarriedOut;
    };
    Case const cases[] = {
        {"http-status,exchange=capture,status=403", "authorised", false},
        {"http-status,exchange=capture,status=500", "unknown", false},
        {"error,exchange=capture", "unknown", false},
        {"reset,exchange=capture", "unknown", false},
        {"drop,exchange=capture", "unknown", true},
        {"truncate,exchange=capture,bytes=40", "unknown", true},
        {"wrong-type,exchange=capture", "unknown", true},
    };
    for (Case const& row : cases) {
        SCOPED_TRACE(row.m_Fault);
        std::string const number = "F-" + std::to_string(&row - cases);
        pay(number);
        arm(row.m_Fault);
        long const before = carriedOut(sandbox::ExchangeKind::kCapture);
        EXPECT_EQ(m_Ledger.run(1), 1);
        EXPECT_EQ(m_Ledger.state(number), row.m_StateAfter);
        EXPECT_NE(m_Ledger.order(number).at("lastReason"), nullptr);
        runAll();
        EXPECT_EQ(m_Ledger.state(number), "captured");
        EXPECT_EQ(carriedOut(sandbox::ExchangeKind::kCapture), before + 1) << "never twice";
        EXPECT_EQ(m_Ledger.order(number).at("lastCode"), 0);
    }
}

TEST_F(Worker, FindsOutWhatBecameOfACompletionThatFailed) {
    struct Case {
        char const* m_Fault;
        char const* m_StateAfter;
    };
    Case const cases[] = {
        {"http-status,exchange=complete,status=403", "captured"},
        {"error,exchange=complete", "completion_unknown"},
        {"reset,exchange=complete", "completion_unknown"},
        {"drop,exchange=complete", "completion_unknown"},
    };
    m_Ledger.option("COMPLETE", "1");
    for (Case const& row : cases) {
        SCOPED_TRACE(row.m_Fault);
        std::string const number = "C-" + std::to_string(&row - cases);
        pay(number);
        arm(row.m_Fault);
        long const before = carriedOut(sandbox::ExchangeKind::kComplete);
        EXPECT_EQ(m_Ledger.run(2), 2);
        EXPECT_EQ(m_Ledger.state(number), row.m_StateAfter);
        runAll();
        EXPECT_EQ(m_Ledger.state(number), "completed");
        EXPECT_EQ(carriedOut(sandbox::ExchangeKind::kComplete), before + 1);
    }
}

TEST_F(Worker, LeavesWhatItCannotAskAboutToAPerson) {
    m_Ledger.option("STATUSTYPE", "");
    for (char const* fault : {"drop,exchange=capture", "drop,exchange=complete"}) {
        SCOPED_TRACE(fault);
        m_Ledger.option("COMPLETE", "1");
        std::string const number = fault;
        Purchase purchase;
        purchase.m_Number = "P-" + std::to_string(m_Ledger.numbers("").size());
        EXPECT_EQ(decide(m_Ledger.url(purchase), "pay"), "PAID_NOW");
        arm(fault);
        runAll();
        bool const isCapture = number.find("capture") != std::string::npos;
        EXPECT_EQ(m_Ledger.state(purchase.m_Number), isCapture ? "unknown" : "completion_unknown");
        EXPECT_EQ(m_Ledger.run(), 0) << "it is not sent again";
        EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{purchase.m_Number});
        EXPECT_EQ(m_Ledger.resolve("completed", "Kim: seen at the service", purchase.m_Number), KVX_OK);
        EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{});
    }
    EXPECT_EQ(carriedOut(sandbox::ExchangeKind::kCapture), 2);
}

TEST_F(Worker, SendsAgainOnlyWhereThatIsDeclaredHarmless) {
    m_Ledger.option("STATUSTYPE", "");
    m_Ledger.option("CAPTUREIDEMPOTENT", "1");
    m_Ledger.option("COMPLETE", "1");
    pay();
    arm("drop,exchange=capture");
    arm("drop,exchange=complete");
    runAll();
    EXPECT_EQ(m_Ledger.state(), "completed");
    EXPECT_EQ(m_Ledger.history(),
              (History{"opened begun waiting", "waiting confirmed_paid authorised", "authorised capture_sent capturing",
                       "capturing capture_in_doubt unknown", "unknown repeated authorised",
                       "authorised capture_sent capturing", "capturing capture_done captured",
                       "captured complete_sent completing", "completing complete_in_doubt completion_unknown",
                       "completion_unknown repeated captured", "captured complete_sent completing",
                       "completing complete_done completed"}));
}

TEST_F(Worker, AsksAboutWhatWasLeftOnceItCan) {
    m_Ledger.option("STATUSTYPE", "");
    pay();
    arm("drop,exchange=capture");
    runAll();
    EXPECT_EQ(m_Ledger.state(), "unknown");
    LedgerHandle later;
    later.option("STATUSTYPE", "Status");
    ASSERT_EQ(later.open(store(), shop().path()), KVX_OK);
    EXPECT_EQ(later.run(), 1);
    EXPECT_EQ(m_Ledger.state(), "captured");
}

TEST_F(Worker, CallsAPersonWhenTheServiceRefusesAgainAndAgain) {
    m_Ledger.option("MAXREFUSALS", "2");
    pay();
    arm("error,exchange=capture,times=2");
    runAll();
    EXPECT_EQ(m_Ledger.state(), "capture_refused");
    EXPECT_EQ(m_Ledger.history().back(), "unknown found_refused capture_refused");
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{"A-17"});
    EXPECT_EQ(m_Ledger.resolve("authorised"), KVX_OK);
    runAll();
    EXPECT_EQ(m_Ledger.state(), "captured");
}

TEST_F(Worker, CallsAPersonWhenTheServiceRefusesToCompleteAgainAndAgain) {
    m_Ledger.option("COMPLETE", "1");
    m_Ledger.option("MAXREFUSALS", "2");
    pay();
    arm("error,exchange=complete,times=2");
    runAll();
    EXPECT_EQ(m_Ledger.state(), "completion_unknown");
    EXPECT_EQ(m_Ledger.attempt().at("refusals"), 2);
    EXPECT_EQ(m_Ledger.attempt().at("due"), nullptr);
    EXPECT_EQ(m_Ledger.attempt().at("lastReason"), "the service refuses to complete, and says \"captured\"");
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{"A-17"});
    // A worker that begins anew leaves it to the person, too. One that runs as a job does so every minute.
    LedgerHandle next;
    for (auto const& [name, value] : Attributes{{"COMPLETE", "1"}, {"MAXREFUSALS", "2"}, {"STATUSTYPE", "Status"}}) {
        next.option(name, value);
    }
    ASSERT_EQ(next.open(store(), shop().path()), KVX_OK);
    EXPECT_EQ(next.run(), 0);
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{"A-17"});
    EXPECT_EQ(m_Ledger.resolve("captured"), KVX_OK);
    runAll();
    EXPECT_EQ(m_Ledger.state(), "completed");
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{});
}

TEST_F(Worker, PausesLongerWithEachCompletionThatFails) {
    m_Ledger.option("COMPLETE", "1");
    m_Ledger.option("JITTER", "0");
    m_Ledger.option("RETRYBASE", "10");
    pay();
    arm("reset,exchange=complete,times=3");
    std::int64_t now = m_Ledger.order().at("created").get<std::int64_t>() + 5000;
    for (std::int64_t const pause : {10, 20, 40}) {
        m_Ledger.option("NOW", std::to_string(now));
        EXPECT_EQ(m_Ledger.run(), 2) << "a capture or a question, and a completion";
        EXPECT_EQ(m_Ledger.state(), "completion_unknown");
        EXPECT_EQ(m_Ledger.attempt().at("due"), now + pause * 1000);
        now += pause * 1000;
    }
}

TEST_F(Worker, StopsRepeatingWhatTheServiceRefuses) {
    m_Ledger.option("STATUSTYPE", "");
    m_Ledger.option("CAPTUREIDEMPOTENT", "1");
    m_Ledger.option("MAXREFUSALS", "2");
    pay();
    arm("error,exchange=capture,times=always");
    runAll();
    EXPECT_EQ(m_Ledger.state(), "unknown");
    EXPECT_EQ(m_Ledger.attempt().at("refusals"), 2);
    EXPECT_EQ(m_Ledger.attempt().at("due"), nullptr);
    // A worker that begins anew leaves it to the person, too.
    pay("A-18");
    LedgerHandle next;
    for (auto const& [name, value] : Attributes{{"CAPTUREIDEMPOTENT", "1"}, {"MAXREFUSALS", "2"}}) {
        next.option(name, value);
    }
    ASSERT_EQ(next.open(store(), shop().path()), KVX_OK);
    EXPECT_EQ(next.run(1), 1);
    EXPECT_EQ(m_Ledger.attempt().at("due"), nullptr);
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{"A-17"});
}

TEST_F(Worker, LearnsOfAPaymentWhoseConfirmationWasLost) {
    Returned const lost = sandbox().shopper(m_Ledger.url(), "pay");
    EXPECT_EQ(m_Ledger.run(), 0) << "nobody is asked before its time";
    passExpiry();
    runAll();
    EXPECT_EQ(m_Ledger.state(), "captured");
    EXPECT_EQ(stateAtService(), "captured");
    EXPECT_EQ(m_Ledger.numbers("untold"), std::vector<std::string>{"A-17"});
    EXPECT_EQ(m_Ledger.nextPaid(), std::vector<std::string>{"A-17"});
    EXPECT_EQ(m_Ledger.nextPaid(), std::vector<std::string>{});
    EXPECT_EQ(m_Ledger.confirm(lost.m_Data, lost.m_Signature).m_Outcome, "KNOWN_ALREADY");
    EXPECT_EQ(m_Ledger.history().back(), "captured confirmed_later captured") << "the evidence has arrived";
    std::size_t const before = m_Ledger.history().size();
    EXPECT_EQ(m_Ledger.confirm(lost.m_Data, lost.m_Signature).m_Outcome, "KNOWN_ALREADY");
    EXPECT_EQ(m_Ledger.history().size(), before);
}

TEST_F(Worker, LearnsHowAWaitingPaymentEnded) {
    struct Case {
        char const* m_Decision;
        char const* m_Event;
        char const* m_State;
    };
    Case const cases[] = {{"decline", "found_declined", "declined"}, {"cancel", "found_cancelled", "cancelled"}};
    for (Case const& row : cases) {
        Purchase purchase;
        purchase.m_Number = row.m_Decision;
        static_cast<void>(sandbox().shopper(m_Ledger.url(purchase), row.m_Decision));
        std::int64_t const expires = m_Ledger.attempt(1, row.m_Decision).at("expires");
        m_Ledger.option("NOW", std::to_string(expires + 300 * 1000));
        EXPECT_EQ(m_Ledger.run(), 1);
        EXPECT_EQ(m_Ledger.history(row.m_Decision).back(), std::string("waiting ") + row.m_Event + " " + row.m_State);
        m_Ledger.option("NOW", "");
    }
}

TEST_F(Worker, CallsAPaymentExpiredThatTheServiceDoesNotKnow) {
    std::string const url = m_Ledger.url();
    passExpiry();
    m_Ledger.option("MAXASKS", "3");
    EXPECT_EQ(m_Ledger.run(2), 2);
    EXPECT_EQ(m_Ledger.state(), "waiting");
    EXPECT_EQ(m_Ledger.attempt().at("refusals"), 2);
    EXPECT_EQ(m_Ledger.run(), 1);
    EXPECT_EQ(m_Ledger.history().back(), "waiting found_nothing expired");
    EXPECT_EQ(m_Ledger.attempt().at("refusals"), 0) << "those of captures are counted from here";
    EXPECT_EQ(m_Ledger.attempt().at("tries"), 0);
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{}) << "as every abandoned check-out";
    EXPECT_EQ(decide(url, "pay"), "PAID_NOW") << "late";
}

TEST_F(Worker, CallsAPaymentExpiredAfterRefusalsInARowOnly) {
    static_cast<void>(sandbox().shopper(m_Ledger.url(), "pay"));
    passExpiry();
    m_Ledger.option("MAXASKS", "3");
    struct Trouble {
        char const* m_Fault;
        std::int32_t m_Times;
    };
    Trouble const troubles[] = {
        {"error,exchange=status,times=2", 2}, {"reset,exchange=status", 1}, {"error,exchange=status,times=2", 2}};
    for (Trouble const& trouble : troubles) {
        arm(trouble.m_Fault);
        EXPECT_EQ(m_Ledger.run(trouble.m_Times), trouble.m_Times);
    }
    EXPECT_EQ(m_Ledger.state(), "waiting");
    EXPECT_EQ(m_Ledger.attempt().at("refusals"), 2) << "since the connection that was reset";
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{"A-17"});
    runAll();
    EXPECT_EQ(m_Ledger.state(), "captured");
}

TEST_F(Worker, WaitsForAPaymentThatIsStillOpenThere) {
    m_Ledger.option("JITTER", "0");
    m_Ledger.option("RETRYBASE", "10");
    EXPECT_EQ(sandbox().statusOf(m_Ledger.url()), 200);
    passExpiry();
    EXPECT_EQ(m_Ledger.run(), 1);
    EXPECT_EQ(m_Ledger.state(), "waiting");
    EXPECT_EQ(m_Ledger.run(), 0) << "until the pause is over";
    EXPECT_EQ(m_Ledger.history().size(), 1U);
}

TEST_F(Worker, AsksAgainWhenTheServiceDoesNotAnswer) {
    static_cast<void>(sandbox().shopper(m_Ledger.url(), "pay"));
    passExpiry();
    arm("reset,exchange=status,times=3");
    EXPECT_EQ(m_Ledger.run(3), 3);
    EXPECT_EQ(m_Ledger.state(), "waiting");
    EXPECT_EQ(m_Ledger.attempt().at("tries"), 3);
    runAll();
    EXPECT_EQ(m_Ledger.state(), "captured");
}

TEST_F(Worker, BelievesNoStateItDoesNotKnow) {
    static_cast<void>(sandbox().shopper(m_Ledger.url(), "pay"));
    passExpiry();
    m_Ledger.option("AUTHORISED", "accepted");
    EXPECT_EQ(m_Ledger.run(1), 1);
    EXPECT_EQ(m_Ledger.state(), "waiting");
    EXPECT_EQ(m_Ledger.attempt().at("lastReason"), "the status response says \"authorised\"");
}

TEST_F(Worker, CallsAPersonWhenAskingDoesNotHelp) {
    static_cast<void>(sandbox().shopper(m_Ledger.url(), "pay"));
    passExpiry();
    m_Ledger.option("AUTHORISED", "accepted");
    m_Ledger.option("MAXASKS", "3");
    EXPECT_EQ(m_Ledger.run(2), 2);
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{});
    EXPECT_EQ(m_Ledger.resolve("cancelled"), KVX_E_LEDGER_STATE) << "the worker may still find out";
    EXPECT_EQ(m_Ledger.run(1), 1);
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{"A-17"});
    EXPECT_EQ(m_Ledger.attempt().at("attention"), true);
    EXPECT_EQ(m_Ledger.attempt().at("asks"), 3);
    EXPECT_EQ(m_Ledger.run(1), 1) << "it goes on asking";
    m_Ledger.option("AUTHORISED", "authorised");
    EXPECT_EQ(m_Ledger.run(1), 1);
    EXPECT_EQ(m_Ledger.state(), "authorised");
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{});
    EXPECT_EQ(m_Ledger.attempt().at("asks"), 0);
}

TEST_F(Worker, ObeysAPersonAboutAPaymentThatStaysOpen) {
    m_Ledger.option("MAXASKS", "1");
    EXPECT_EQ(sandbox().statusOf(m_Ledger.url()), 200);
    passExpiry();
    EXPECT_EQ(m_Ledger.run(1), 1);
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{"A-17"});
    EXPECT_EQ(m_Ledger.resolve("capture_refused"), KVX_E_LEDGER_STATE);
    EXPECT_EQ(m_Ledger.resolve("captured"), KVX_OK);
    EXPECT_EQ(m_Ledger.nextPaid(), std::vector<std::string>{"A-17"});
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{});
}

TEST_F(Worker, ObeysAPersonAboutAnEarlierPaymentThatStaysOpen) {
    m_Ledger.option("MAXASKS", "1");
    std::string const first = m_Ledger.url();
    EXPECT_EQ(sandbox().statusOf(first), 200);
    m_Ledger.option("NOW", std::to_string(m_Ledger.attempt().at("expires").get<std::int64_t>()));
    // The component's clock has not moved, so the second payment needs a longer time.
    std::string const defaults = shop().dir().read("default.xml");
    shop().dir().write("default.xml",
                       std::regex_replace(defaults, std::regex("PAYINITTTL=\"[0-9]+\""), "PAYINITTTL=\"9000\""));
    std::string const second = m_Ledger.url();
    passExpiry(1);
    EXPECT_EQ(m_Ledger.run(1), 1);
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{"A-17"});
    EXPECT_EQ(m_Ledger.resolve("captured"), KVX_E_LEDGER_STATE) << "that is about the second one";
    EXPECT_EQ(m_Ledger.resolve("cancelled"), KVX_OK);
    EXPECT_EQ(m_Ledger.attempt(1).at("state"), "cancelled");
    EXPECT_EQ(m_Ledger.evidence().at("transitions").back().at("cause"), "Kim: seen at the service");
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{});
    EXPECT_EQ(m_Ledger.resolve("cancelled"), KVX_E_LEDGER_STATE) << "the worker may still find out about the second";
    EXPECT_EQ(m_Ledger.state(), "waiting");
    EXPECT_EQ(decide(second, "pay"), "PAID_NOW");
    EXPECT_EQ(decide(first, "pay"), "SURPLUS") << "what was given up is noticed when it is paid";
}

TEST_F(Worker, LearnsThatAnAuthorisationHasLapsed) {
    struct Case {
        char const* m_Number;
        bool m_IsConfirmed;
        char const* m_Last;
    };
    Case const cases[] = {{"L-1", false, "waiting found_lapsed expired"},
                          {"L-2", true, "unknown found_lapsed capture_refused"}};
    for (Case const& row : cases) {
        Purchase purchase;
        purchase.m_Number = row.m_Number;
        Returned const returned = sandbox().shopper(m_Ledger.url(purchase), "pay");
        if (row.m_IsConfirmed) {
            EXPECT_EQ(m_Ledger.confirm(returned.m_Data, returned.m_Signature).m_Outcome, "PAID_NOW");
            arm("reset,exchange=capture");
            EXPECT_EQ(m_Ledger.run(1), 1);
        }
    }
    // An authorisation lasts a day.
    std::string const ahead = sandboxtest::exchangeRaw(service().addresses().m_Control.m_Port,
                                                       sandboxtest::jsonPost("/control/clock", R"({"ahead": 90000})"));
    EXPECT_EQ(sandboxtest::parseResponse(ahead).m_Status, 200) << ahead;
    std::int64_t const expires = m_Ledger.attempt(1, "L-1").at("expires");
    m_Ledger.option("NOW", std::to_string(expires + 300 * 1000));
    runAll();
    for (Case const& row : cases) {
        EXPECT_EQ(m_Ledger.history(row.m_Number).back(), row.m_Last);
    }
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{"L-2"});
}

TEST_F(Worker, CountsFailuresAnewAfterAnAnswer) {
    m_Ledger.option("COMPLETE", "1");
    pay();
    arm("drop,exchange=capture");
    EXPECT_EQ(m_Ledger.run(1), 1);
    EXPECT_EQ(m_Ledger.attempt().at("tries"), 1);
    EXPECT_EQ(m_Ledger.run(1), 1);
    EXPECT_EQ(m_Ledger.history().back(), "unknown found_captured captured");
    EXPECT_EQ(m_Ledger.attempt().at("tries"), 0);
    Purchase other;
    other.m_Number = "A-18";
    static_cast<void>(sandbox().shopper(m_Ledger.url(other), "pay"));
    std::int64_t const expires = m_Ledger.attempt(1, "A-18").at("expires");
    m_Ledger.option("NOW", std::to_string(expires + 300 * 1000));
    m_Ledger.option("CAPTURE", "0");
    arm("reset,exchange=status,times=2");
    runAll();
    EXPECT_EQ(m_Ledger.state("A-18"), "authorised");
    EXPECT_EQ(m_Ledger.attempt(1, "A-18").at("tries"), 0);
}

TEST_F(Worker, WaitsForTheLongerOfTwoPausesBeforeItAsks) {
    struct Case {
        char const* m_Settle;
        std::int64_t m_Pause;
    };
    Case const cases[] = {{"10", 100}, {"200", 200}};
    m_Ledger.option("JITTER", "0");
    m_Ledger.option("RETRYBASE", "100");
    for (Case const& row : cases) {
        std::string const number = std::string("A-") + row.m_Settle;
        pay(number);
        m_Ledger.option("SETTLESECONDS", row.m_Settle);
        std::int64_t const now = m_Ledger.order(number).at("created").get<std::int64_t>() + 5000;
        m_Ledger.option("NOW", std::to_string(now));
        arm("drop,exchange=capture");
        EXPECT_EQ(m_Ledger.run(1), 1);
        EXPECT_EQ(m_Ledger.attempt(1, number).at("due"), now + row.m_Pause * 1000);
        m_Ledger.option("NOW", "");
    }
}

TEST_F(Worker, FindsWhatOthersHaveCapturedAndCompleted) {
    Returned const returned = sandbox().shopper(m_Ledger.url(), "pay");
    EXPECT_EQ(shop().capture(returned.m_Data), KVX_OK);
    passExpiry();
    EXPECT_EQ(m_Ledger.run(), 1);
    EXPECT_EQ(m_Ledger.history().back(), "waiting found_captured captured");
    Purchase other;
    other.m_Number = "A-18";
    m_Ledger.option("NOW", "");
    Returned const second = sandbox().shopper(m_Ledger.url(other), "pay");
    FlowMessage const verified = shop().verified(second);
    EXPECT_EQ(execute(shop().completion(verified.get("ID"), verified.get("TOKEN"))), KVX_OK);
    std::int64_t const expires = m_Ledger.attempt(1, "A-18").at("expires");
    m_Ledger.option("NOW", std::to_string(expires + 300 * 1000));
    runAll();
    EXPECT_EQ(m_Ledger.history("A-18").back(), "waiting found_completed completed");
}

TEST_F(Worker, FindsASurplusThatNobodyConfirmed) {
    std::string const first = m_Ledger.url();
    static_cast<void>(sandbox().shopper(first, "pay"));
    std::int64_t const expires = m_Ledger.attempt().at("expires");
    m_Ledger.option("NOW", std::to_string(expires));
    // The component's clock has not moved, so the second payment needs a longer time.
    std::string const defaults = shop().dir().read("default.xml");
    shop().dir().write("default.xml",
                       std::regex_replace(defaults, std::regex("PAYINITTTL=\"[0-9]+\""), "PAYINITTTL=\"9000\""));
    EXPECT_EQ(decide(m_Ledger.url(), "pay"), "PAID_NOW");
    passExpiry(1);
    runAll();
    EXPECT_EQ(m_Ledger.attempt(1).at("state"), "surplus");
    EXPECT_EQ(m_Ledger.attempt(2).at("state"), "captured");
    EXPECT_EQ(stateAtService(1), "authorised") << "never captured";
}

TEST_F(Worker, TimesOutWhereItCannotAsk) {
    m_Ledger.option("STATUSTYPE", "");
    std::string const url = m_Ledger.url();
    passExpiry();
    EXPECT_EQ(m_Ledger.run(), 1);
    EXPECT_EQ(m_Ledger.history().back(), "waiting timed_out expired");
    EXPECT_EQ(decide(url, "pay"), "PAID_NOW") << "late, and the order is open";
}

TEST_F(Worker, TakesOverFromOneThatDied) {
    for (ledger::TestPoint const end : {ledger::TestPoint::kBeforeSending, ledger::TestPoint::kAfterSending}) {
        std::string const number = "D-" + std::to_string(static_cast<int>(end));
        pay(number);
        {
            AtPoints const dies([end](ledger::TestPoint point) {
                if (point == end) {
                    throw std::runtime_error("killed");
                }
            });
            std::int32_t done = -1;
            EXPECT_EQ(Ledger_RunDue(m_Ledger.get(), 1, &done), KVX_E_UNEXPECTED);
        }
        EXPECT_EQ(m_Ledger.state(number), "capturing");
        EXPECT_EQ(m_Ledger.run(), 0) << "it may be alive";
        std::int64_t const lease = m_Ledger.attempt(1, number).at("due");
        m_Ledger.option("NOW", std::to_string(lease));
        runAll();
        EXPECT_EQ(m_Ledger.state(number), "captured");
        m_Ledger.option("NOW", "");
    }
    EXPECT_EQ(carriedOut(sandbox::ExchangeKind::kCapture), 2);
}

TEST_F(Worker, TakesOverAtOnceWhenTheClockWasSetBackAndSendsNothingTwice) {
    pay();
    std::int64_t const created = m_Ledger.order().at("created");
    m_Ledger.option("NOW", std::to_string(created + 1000000000));
    {
        AtPoints const dies([](ledger::TestPoint point) {
            if (point == ledger::TestPoint::kAfterSending) {
                throw std::runtime_error("killed");
            }
        });
        std::int32_t done = -1;
        EXPECT_EQ(Ledger_RunDue(m_Ledger.get(), 1, &done), KVX_E_UNEXPECTED);
    }
    m_Ledger.option("NOW", std::to_string(created));
    runAll();
    EXPECT_EQ(m_Ledger.state(), "captured");
    EXPECT_EQ(m_Ledger.history().back(), "unknown found_captured captured");
    EXPECT_EQ(carriedOut(sandbox::ExchangeKind::kCapture), 1);
}

TEST_F(Worker, CountsASuccessThatComesAfterItsLease) {
    pay();
    LedgerHandle other;
    ASSERT_EQ(other.open(store(), shop().path()), KVX_OK);
    other.option("NOW", std::to_string(m_Ledger.order().at("created").get<std::int64_t>() + 1000000));
    bool isTaken = false;
    AtPoints const slow([&](ledger::TestPoint point) {
        if (point == ledger::TestPoint::kBeforeSending && !isTaken) {
            isTaken = true;
            EXPECT_EQ(other.run(1), 1);
            EXPECT_EQ(other.state(), "unknown");
        }
    });
    EXPECT_EQ(m_Ledger.run(1), 1);
    EXPECT_EQ(m_Ledger.state(), "captured");
    EXPECT_EQ(m_Ledger.history().back(), "unknown capture_done captured");
}

TEST_F(Worker, LeavesTheLeaseOfAWorkerWhoseClockIsAhead) {
    // The lease is as long as the longest pause, so it ends behind what the slower clock calls possible.
    pay();
    std::int64_t const now = m_Ledger.order().at("created").get<std::int64_t>() + 1000;
    LedgerHandle other;
    ASSERT_EQ(other.open(store(), shop().path()), KVX_OK);
    for (auto const& [name, value] : Attributes{{"RETRYMAX", "60"}, {"STATUSTYPE", "Status"}}) {
        m_Ledger.option(name, value);
        other.option(name, value);
    }
    m_Ledger.option("NOW", std::to_string(now));
    other.option("NOW", std::to_string(now - 1));
    AtPoints const slow([&](ledger::TestPoint point) {
        if (point == ledger::TestPoint::kBeforeSending) {
            EXPECT_EQ(other.run(1), 0);
            EXPECT_EQ(other.state(), "capturing");
        }
    });
    EXPECT_EQ(m_Ledger.run(1), 1);
    EXPECT_EQ(m_Ledger.history().back(), "capturing capture_done captured");
}

TEST_F(Worker, LetsALateFailureOfAnotherBe) {
    pay();
    arm("reset,exchange=capture");
    LedgerHandle other;
    ASSERT_EQ(other.open(store(), shop().path()), KVX_OK);
    other.option("NOW", std::to_string(m_Ledger.order().at("created").get<std::int64_t>() + 1000000));
    bool isTaken = false;
    AtPoints const slow([&](ledger::TestPoint point) {
        if (point == ledger::TestPoint::kAfterSending && !isTaken) {
            isTaken = true;
            EXPECT_EQ(other.run(1), 1);
        }
    });
    EXPECT_EQ(m_Ledger.run(1), 1);
    EXPECT_EQ(m_Ledger.history().back(), "capturing interrupted unknown");
}

TEST_F(Worker, ChangesNothingThatAMessengerChangedMeanwhile) {
    Returned const returned = sandbox().shopper(m_Ledger.url(), "pay");
    passExpiry();
    LedgerHandle web;
    ASSERT_EQ(web.open(store(), shop().path()), KVX_OK);
    bool isConfirmed = false;
    AtPoints const slow([&](ledger::TestPoint point) {
        if (point == ledger::TestPoint::kAfterSending && !isConfirmed) {
            isConfirmed = true;
            EXPECT_EQ(web.confirm(returned.m_Data, returned.m_Signature).m_Outcome, "PAID_NOW");
        }
    });
    EXPECT_EQ(m_Ledger.run(1), 1);
    EXPECT_EQ(m_Ledger.history().back(), "waiting confirmed_paid authorised");
    EXPECT_EQ(m_Ledger.nextPaid(), std::vector<std::string>{});
}

TEST_F(Worker, ObeysAPersonInTheStatesThatAllowIt) {
    struct Case {
        char const* m_From;
        char const* m_To;
        bool m_IsAllowed;
    };
    Case const cases[] = {
        {"unknown", "authorised", true},        {"unknown", "captured", true},
        {"unknown", "completed", true},         {"unknown", "capture_refused", true},
        {"unknown", "cancelled", true},         {"capture_refused", "authorised", true},
        {"capture_refused", "captured", true},  {"capture_refused", "completed", true},
        {"capture_refused", "cancelled", true}, {"capture_refused", "capture_refused", false},
        {"authorised", "captured", false},      {"captured", "authorised", false},
        {"captured", "cancelled", false},
    };
    m_Ledger.option("STATUSTYPE", "");
    for (Case const& row : cases) {
        SCOPED_TRACE(std::string(row.m_From) + " to " + row.m_To);
        std::string const number = "S-" + std::to_string(&row - cases);
        std::string const from = row.m_From;
        pay(number);
        if (from == "unknown" || from == "capture_refused") {
            arm("drop,exchange=capture");
        }
        if (from != "authorised") {
            runAll();
        }
        if (from == "capture_refused") {
            EXPECT_EQ(m_Ledger.resolve(from, "Kim: refused", number), KVX_OK);
        }
        EXPECT_EQ(m_Ledger.state(number), from);
        EXPECT_EQ(m_Ledger.resolve(row.m_To, "Kim: phoned", number), row.m_IsAllowed ? KVX_OK : KVX_E_LEDGER_STATE);
        EXPECT_EQ(m_Ledger.state(number), row.m_IsAllowed ? row.m_To : row.m_From);
        if (row.m_IsAllowed) {
            nlohmann::json const evidence = m_Ledger.evidence(number);
            EXPECT_EQ(evidence.at("transitions").back().at("cause"), "Kim: phoned");
        }
        if (m_Ledger.state(number) == "authorised") {
            runAll();
        }
    }
    EXPECT_EQ(m_Ledger.resolve("captured", ""), KVX_E_LEDGER_INVALID);
    EXPECT_EQ(m_Ledger.resolve("waiting", "x"), KVX_E_LEDGER_INVALID);
    EXPECT_EQ(m_Ledger.resolve("captured", "x", "none"), KVX_E_NOT_FOUND);
}

TEST_F(Worker, LetsAnotherAttemptPayWhatWasGivenUpWithoutSayingSoTwice) {
    m_Ledger.option("STATUSTYPE", "");
    pay();
    arm("drop,exchange=capture");
    runAll();
    EXPECT_EQ(m_Ledger.resolve("cancelled"), KVX_OK);
    EXPECT_EQ(decide(m_Ledger.url(), "pay"), "KNOWN_ALREADY");
    EXPECT_EQ(m_Ledger.attempt(2).at("state"), "authorised");
    EXPECT_EQ(m_Ledger.order().at("paidAttempt"), 2);
    EXPECT_EQ(m_Ledger.nextPaid(), std::vector<std::string>{});
}

TEST_F(Worker, StoresTheConfirmationOfAPaymentThatWasGivenUp) {
    Returned const late = sandbox().shopper(m_Ledger.url(), "pay");
    passExpiry();
    arm("drop,exchange=capture");
    EXPECT_EQ(m_Ledger.run(2), 2);
    EXPECT_EQ(m_Ledger.state(), "unknown");
    EXPECT_EQ(m_Ledger.resolve("cancelled"), KVX_OK);
    EXPECT_EQ(m_Ledger.confirm(late.m_Data, late.m_Signature).m_Outcome, "KNOWN_ALREADY");
    EXPECT_EQ(m_Ledger.history().back(), "cancelled confirmed_later cancelled");
    EXPECT_EQ(m_Ledger.evidence().at("transitions").back().at("message"), late.m_Data);
    EXPECT_EQ(m_Ledger.order().at("paidAttempt"), nullptr) << "it stays given up";
    std::size_t const before = m_Ledger.history().size();
    EXPECT_EQ(m_Ledger.confirm(late.m_Data, late.m_Signature).m_Outcome, "KNOWN_ALREADY");
    EXPECT_EQ(m_Ledger.history().size(), before) << "once";
}

TEST_F(Worker, ReportsNothingThatTheServiceWillNotCapture) {
    m_Ledger.option("STATUSTYPE", "Status");
    static_cast<void>(sandbox().shopper(m_Ledger.url(), "pay"));
    passExpiry();
    arm("drop,exchange=capture");
    EXPECT_EQ(m_Ledger.run(2), 2);
    EXPECT_EQ(m_Ledger.state(), "unknown");
    EXPECT_EQ(m_Ledger.numbers("untold"), std::vector<std::string>{"A-17"});
    LedgerHandle person;
    ASSERT_EQ(person.open(store(), shop().path()), KVX_OK);
    {
        bool isResolved = false;
        AtPoints const slow([&](ledger::TestPoint point) {
            if (point == ledger::TestPoint::kBeforeChange && !isResolved) {
                isResolved = true;
                EXPECT_EQ(person.resolve("capture_refused"), KVX_OK);
            }
        });
        EXPECT_EQ(m_Ledger.nextPaid(), std::vector<std::string>{}) << "resolved since it was seen";
        EXPECT_TRUE(isResolved);
    }
    EXPECT_EQ(m_Ledger.numbers("untold"), std::vector<std::string>{});
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{"A-17"});
    EXPECT_EQ(m_Ledger.resolve("captured"), KVX_OK);
    EXPECT_EQ(m_Ledger.numbers("untold"), std::vector<std::string>{"A-17"});
    EXPECT_EQ(m_Ledger.nextPaid(), std::vector<std::string>{"A-17"});
}

// ---- Without a service: the address of the account refuses connections, so no money can have moved ----

class WorkerClock : public LedgerTest {
protected:
    WorkerClock() {
        m_Ledger.option("JITTER", "0");
        static_cast<void>(m_Ledger.url());
        EXPECT_EQ(outcome("authorised"), "PAID_NOW");
    }

    /// Seconds from the beginning of the test until the attempt is due.
    [[nodiscard]] std::int64_t due() const {
        std::int64_t const due = m_Ledger.attempt().at("due");
        return (due - m_Start) / 1000;
    }
};

TEST_F(WorkerClock, PausesLongerWithEachFailure) {
    m_Ledger.option("RETRYMAX", "60");
    std::int64_t now = 0;
    for (std::int64_t const pause : {10, 20, 40, 60, 60}) {
        EXPECT_EQ(m_Ledger.run(), 1);
        EXPECT_EQ(m_Ledger.state(), "authorised");
        EXPECT_EQ(due(), now + pause);
        EXPECT_EQ(m_Ledger.run(), 0);
        setClock(now + pause - 1);
        EXPECT_EQ(m_Ledger.run(), 0);
        now += pause;
        setClock(now);
    }
    EXPECT_EQ(m_Ledger.order().at("lastCodeName"), "KVX_E_SOCKET_REFUSED");
    EXPECT_EQ(m_Ledger.attempt().at("tries"), 5);
}

TEST_F(WorkerClock, PausesForARandomPart) {
    m_Ledger.option("JITTER", "1");
    m_Ledger.option("RETRYBASE", "1000");
    EXPECT_EQ(m_Ledger.run(), 1);
    EXPECT_GE(due(), 500);
    EXPECT_LE(due(), 1000);
}

TEST_F(WorkerClock, GoesOnAfterTheClockWasSetBack) {
    m_Ledger.option("RETRYMAX", "60");
    setClock(1000000);
    EXPECT_EQ(m_Ledger.run(), 1);
    setClock(0);
    EXPECT_EQ(m_Ledger.run(), 1) << "due in a million seconds, which no pause is";
    EXPECT_EQ(due(), 20);
    EXPECT_EQ(outcome("authorised"), "KNOWN_ALREADY");
}

TEST_F(WorkerClock, DoesNotAskEarlyAboutAWaitingPayment) {
    Purchase other;
    other.m_Number = "A-18";
    static_cast<void>(m_Ledger.url(other));
    m_Ledger.option("CAPTURE", "0");
    m_Ledger.option("RETRYMAX", "1");
    m_Ledger.option("LEASESECONDS", "1");
    setClock(-100000);
    EXPECT_EQ(m_Ledger.run(), 0);
    EXPECT_EQ(m_Ledger.state("A-18"), "waiting");
}

TEST_F(WorkerClock, TriesAgainWhatItCouldNotPrepare) {
    ASSERT_TRUE(std::filesystem::remove(m_Dir.file("account/keys/current")));
    EXPECT_EQ(m_Ledger.run(), 1);
    EXPECT_EQ(m_Ledger.state(), "authorised");
    EXPECT_EQ(m_Ledger.history().size(), 2U) << "nothing was about to be sent";
    EXPECT_EQ(m_Ledger.attempt().at("tries"), 1);
    EXPECT_EQ(due(), 10);
}

}  // namespace
