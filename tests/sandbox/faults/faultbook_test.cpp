#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "sandbox/faults/faultbook.h"
#include "sandbox/text/httperror.h"

/// Which fault happens to whom, how often and until when.
namespace {

using sandbox::ExchangeKind;
using sandbox::Fault;
using sandbox::FaultBook;
using sandbox::parseFault;
using Clock = std::chrono::steady_clock;

/// The text of what the book takes for an exchange; "none" without.
std::string take(FaultBook& book, ExchangeKind kind, std::string const& order = "") {
    std::optional<Fault> const fault = book.take(kind, order);
    return fault ? sandbox::faultText(*fault) : "none";
}

std::string takeForConnection(FaultBook& book, bool tls) {
    std::optional<Fault> const fault = book.takeForConnection(tls);
    return fault ? sandbox::faultText(*fault) : "none";
}

TEST(FaultBook, BeginsEmpty) {
    FaultBook book;
    EXPECT_TRUE(book.armed().empty());
    EXPECT_EQ(take(book, ExchangeKind::kCapture), "none");
    EXPECT_EQ(takeForConnection(book, true), "none");
    EXPECT_FALSE(book.lift(1));
}

TEST(FaultBook, GivesTheOldestThatMatches) {
    FaultBook book;
    book.arm(parseFault("drop,exchange=capture"));
    book.arm(parseFault("reset"));
    book.arm(parseFault("twice,exchange=capture"));
    EXPECT_EQ(take(book, ExchangeKind::kSetup), "reset");
    EXPECT_EQ(take(book, ExchangeKind::kCapture), "drop,exchange=capture");
    EXPECT_EQ(take(book, ExchangeKind::kSetup), "none");
    EXPECT_EQ(take(book, ExchangeKind::kCapture), "twice,exchange=capture");
    EXPECT_EQ(take(book, ExchangeKind::kCapture), "none");
}

TEST(FaultBook, KeepsAFaultForItsOrder) {
    FaultBook book;
    book.arm(parseFault("drop,order=A-1"));
    EXPECT_EQ(take(book, ExchangeKind::kCapture, "A-2"), "none");
    EXPECT_EQ(take(book, ExchangeKind::kCapture, ""), "none");
    EXPECT_EQ(take(book, ExchangeKind::kCapture, "A-1"), "drop,order=A-1");
    book.arm(parseFault("drop"));
    EXPECT_EQ(take(book, ExchangeKind::kCapture, "A-2"), "drop");
}

TEST(FaultBook, KeepsAFaultForTheExchangesItCanHappenTo) {
    FaultBook book;
    book.arm(parseFault("wrong-signature"));
    book.arm(parseFault("error"));
    EXPECT_EQ(take(book, ExchangeKind::kPage), "none");
    EXPECT_EQ(take(book, ExchangeKind::kOther), "none");
    EXPECT_EQ(take(book, ExchangeKind::kStatus), "error");
    EXPECT_EQ(take(book, ExchangeKind::kDecision), "wrong-signature");
}

TEST(FaultBook, LetsAFaultHappenSoManyTimes) {
    FaultBook book;
    book.arm(parseFault("drop,times=3"));
    for (std::int64_t times = 1; times <= 3; ++times) {
        EXPECT_EQ(take(book, ExchangeKind::kCapture), "drop,times=3");
        EXPECT_EQ(book.armed().empty() ? 3 : book.armed().at(0).m_Happened, times);
    }
    EXPECT_EQ(take(book, ExchangeKind::kCapture), "none");
}

TEST(FaultBook, LetsAFaultHappenUntilItIsLifted) {
    FaultBook book;
    std::int64_t const always = book.arm(parseFault("drop,times=always"));
    std::int64_t const once = book.arm(parseFault("reset"));
    EXPECT_LT(always, once);
    for (int times = 0; times < 100; ++times) {
        EXPECT_EQ(take(book, ExchangeKind::kPage), "drop,times=always");
    }
    EXPECT_EQ(book.armed().at(0).m_Happened, 100);
    EXPECT_TRUE(book.lift(always));
    EXPECT_FALSE(book.lift(always));
    EXPECT_EQ(take(book, ExchangeKind::kPage), "reset");
    EXPECT_FALSE(book.lift(once)) << "it has happened";
}

TEST(FaultBook, ForgetsAllAtOnceAndNumbersOn) {
    FaultBook book;
    book.arm(parseFault("drop"));
    std::int64_t const second = book.arm(parseFault("refuse"));
    book.liftAll();
    EXPECT_TRUE(book.armed().empty());
    EXPECT_EQ(take(book, ExchangeKind::kPage), "none");
    EXPECT_EQ(book.arm(parseFault("drop")), second + 1);
}

TEST(FaultBook, RefusesWhatCannotHappen) {
    FaultBook book;
    Fault fault;
    fault.m_Kind = sandbox::FaultKind::kWrongSignature;
    fault.m_Exchange = ExchangeKind::kCapture;
    EXPECT_THROW(book.arm(fault), sandbox::HttpError);
    EXPECT_TRUE(book.armed().empty());
}

TEST(FaultBook, LeavesConnectionsWithoutTlsAlone) {
    FaultBook book;
    book.arm(parseFault("drop"));
    book.arm(parseFault("refuse"));
    book.arm(parseFault("tls-expired"));
    book.arm(parseFault("tls-abort"));
    EXPECT_EQ(takeForConnection(book, false), "none");
    EXPECT_EQ(take(book, ExchangeKind::kSetup), "drop");
    EXPECT_EQ(takeForConnection(book, true), "tls-expired");
    EXPECT_EQ(takeForConnection(book, true), "tls-abort");
    EXPECT_EQ(takeForConnection(book, true), "none");
    EXPECT_EQ(book.armed().size(), 1u) << "refused connections happen to nobody who is heard of";
}

TEST(FaultBook, CountsForManyThreadsAtOnce) {
    constexpr int kTimes = 1000;
    FaultBook book;
    book.arm(parseFault("drop,times=" + std::to_string(kTimes)));
    std::atomic<int> happened{0};
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&] {
            for (int i = 0; i < kTimes; ++i) {
                happened += book.take(ExchangeKind::kCapture, "") ? 1 : 0;
                book.arm(parseFault("reset,exchange=page"));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(happened, kTimes);
    EXPECT_EQ(book.armed().size(), 4u * kTimes);
}

/// A book and until when its listener was told that connections are refused.
class Refusals : public ::testing::Test {
protected:
    Refusals() {
        m_Book.tellRefusals([this](ExchangeKind kind, FaultBook::Moment until) { m_Until[kind] = until; });
    }

    [[nodiscard]] bool areRefused(ExchangeKind kind = ExchangeKind::kConnection) {
        return m_Until[kind] > Clock::now();
    }

    FaultBook m_Book;
    std::map<ExchangeKind, FaultBook::Moment> m_Until;
};

TEST_F(Refusals, LastUntilTheyAreLifted) {
    std::int64_t const id = m_Book.arm(parseFault("refuse"));
    EXPECT_EQ(m_Until[ExchangeKind::kConnection], FaultBook::Moment::max());
    EXPECT_FALSE(areRefused(ExchangeKind::kProxy));
    m_Book.lift(id);
    EXPECT_FALSE(areRefused());
    m_Book.arm(parseFault("refuse"));
    m_Book.liftAll();
    EXPECT_FALSE(areRefused());
}

TEST_F(Refusals, OfTheProxyAreItsOwn) {
    m_Book.arm(parseFault("refuse,exchange=proxy"));
    EXPECT_FALSE(areRefused());
    EXPECT_TRUE(areRefused(ExchangeKind::kProxy));
}

TEST_F(Refusals, LastForSomeSeconds) {
    auto const begin = Clock::now();
    m_Book.arm(parseFault("refuse,seconds=100"));
    EXPECT_GE(m_Until[ExchangeKind::kConnection], begin + std::chrono::seconds(100));
    EXPECT_LE(m_Until[ExchangeKind::kConnection], Clock::now() + std::chrono::seconds(100));
}

TEST_F(Refusals, EndByThemselves) {
    auto const begin = Clock::now();
    m_Book.arm(parseFault("refuse,seconds=0.1"));
    while (!m_Book.armed().empty()) {
        ASSERT_LT(Clock::now() - begin, std::chrono::seconds(30));
        std::this_thread::yield();
    }
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(100));
    EXPECT_FALSE(areRefused());
}

TEST_F(Refusals, LastAsLongAsTheLongest) {
    std::int64_t const hour = m_Book.arm(parseFault("refuse,seconds=3600"));
    FaultBook::Moment const endOfHour = m_Until[ExchangeKind::kConnection];
    std::int64_t const minute = m_Book.arm(parseFault("refuse,seconds=60"));
    EXPECT_EQ(m_Until[ExchangeKind::kConnection], endOfHour);
    m_Book.lift(hour);
    EXPECT_TRUE(areRefused());
    EXPECT_LT(m_Until[ExchangeKind::kConnection], endOfHour);
    m_Book.lift(minute);
    EXPECT_FALSE(areRefused());
}

TEST_F(Refusals, AreNotToldToAListenerThatIsGone) {
    m_Book.tellRefusals(nullptr);
    m_Book.arm(parseFault("refuse"));
    EXPECT_FALSE(areRefused());
}

}  // namespace
