// Which armed fault an exchange gets: order, count, limits by order and exchange, refused connections and their end. No
// service runs; the listener of refusals writes down its calls. One test takes faults on many threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "sandbox/faults/faultregistry.h"
#include "sandbox/text/httperror.h"

/// Which exchange a fault applies to, how often, and until when.
namespace {

using sandbox::ExchangeKind;
using sandbox::Fault;
using sandbox::FaultRegistry;
using sandbox::parseFault;
using Clock = std::chrono::steady_clock;

/// The text of the fault that the registry selects for an exchange; "none" without one.
std::string take(FaultRegistry& registry, ExchangeKind kind, std::string const& order = "") {
    std::optional<Fault> const fault = registry.take(kind, order);
    return fault ? sandbox::faultText(*fault) : "none";
}

std::string takeForConnection(FaultRegistry& registry, bool tls) {
    std::optional<Fault> const fault = registry.takeForConnection(tls);
    return fault ? sandbox::faultText(*fault) : "none";
}

TEST(FaultRegistry, BeginsEmpty) {
    FaultRegistry registry;
    EXPECT_TRUE(registry.armed().empty());
    EXPECT_EQ(take(registry, ExchangeKind::kCapture), "none");
    EXPECT_EQ(takeForConnection(registry, true), "none");
    EXPECT_FALSE(registry.lift(1));
}

TEST(FaultRegistry, GivesTheOldestThatMatches) {
    FaultRegistry registry;
    registry.arm(parseFault("drop,exchange=capture"));
    registry.arm(parseFault("reset"));
    registry.arm(parseFault("twice,exchange=capture"));
    EXPECT_EQ(take(registry, ExchangeKind::kSetup), "reset");
    EXPECT_EQ(take(registry, ExchangeKind::kCapture), "drop,exchange=capture");
    EXPECT_EQ(take(registry, ExchangeKind::kSetup), "none");
    EXPECT_EQ(take(registry, ExchangeKind::kCapture), "twice,exchange=capture");
    EXPECT_EQ(take(registry, ExchangeKind::kCapture), "none");
}

TEST(FaultRegistry, LetsExchangesPassFirst) {
    FaultRegistry registry;
    registry.arm(parseFault("reset,exchange=capture"));
    registry.arm(parseFault("drop,exchange=capture,order=A,times=2,skip=2"));
    EXPECT_EQ(take(registry, ExchangeKind::kCapture, "A"), "reset,exchange=capture") << "which the other one counts";
    EXPECT_EQ(take(registry, ExchangeKind::kCapture, "B"), "none");
    EXPECT_EQ(take(registry, ExchangeKind::kStatus, "A"), "none");
    EXPECT_EQ(take(registry, ExchangeKind::kCapture, "A"), "none");
    EXPECT_EQ(registry.armed().at(0).m_Passed, 2);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(take(registry, ExchangeKind::kCapture, "A"), "drop,exchange=capture,order=A,times=2,skip=2");
    }
    EXPECT_EQ(take(registry, ExchangeKind::kCapture, "A"), "none");
    registry.arm(parseFault("tls-abort,skip=1"));
    EXPECT_EQ(takeForConnection(registry, true), "none");
    EXPECT_EQ(takeForConnection(registry, true), "tls-abort,skip=1");
}

TEST(FaultRegistry, KeepsAFaultForItsOrder) {
    FaultRegistry registry;
    registry.arm(parseFault("drop,order=A-1"));
    EXPECT_EQ(take(registry, ExchangeKind::kCapture, "A-2"), "none");
    EXPECT_EQ(take(registry, ExchangeKind::kCapture, ""), "none");
    EXPECT_EQ(take(registry, ExchangeKind::kCapture, "A-1"), "drop,order=A-1");
    registry.arm(parseFault("drop"));
    EXPECT_EQ(take(registry, ExchangeKind::kCapture, "A-2"), "drop");
}

TEST(FaultRegistry, GivesAFaultToItsAccountOnly) {
    FaultRegistry registry;
    registry.arm(parseFault("drop,account=one,order=A-1"));
    EXPECT_FALSE(registry.take(ExchangeKind::kCapture, "A-1", "two"));
    EXPECT_FALSE(registry.take(ExchangeKind::kCapture, "A-1", ""));
    EXPECT_FALSE(registry.take(ExchangeKind::kCapture, "A-2", "one"));
    EXPECT_TRUE(registry.take(ExchangeKind::kCapture, "A-1", "one"));
    for (char const* fault : {"drop,account=one", "drop,account=two", "drop", "drop,account=one"}) {
        registry.arm(parseFault(fault));
    }
    registry.liftAll("one");
    ASSERT_EQ(registry.armed().size(), 2u);
    EXPECT_EQ(registry.armed()[0].m_Fault.m_Account, "two");
    EXPECT_EQ(registry.armed()[1].m_Fault.m_Account, "");
}

TEST(FaultRegistry, KeepsAFaultForTheExchangesItCanHappenTo) {
    FaultRegistry registry;
    registry.arm(parseFault("wrong-signature"));
    registry.arm(parseFault("error"));
    EXPECT_EQ(take(registry, ExchangeKind::kPage), "none");
    EXPECT_EQ(take(registry, ExchangeKind::kOther), "none");
    EXPECT_EQ(take(registry, ExchangeKind::kStatus), "error");
    EXPECT_EQ(take(registry, ExchangeKind::kDecision), "wrong-signature");
}

TEST(FaultRegistry, LetsAFaultHappenSoManyTimes) {
    FaultRegistry registry;
    registry.arm(parseFault("drop,times=3"));
    for (std::int64_t times = 1; times <= 3; ++times) {
        EXPECT_EQ(take(registry, ExchangeKind::kCapture), "drop,times=3");
        EXPECT_EQ(registry.armed().empty() ? 3 : registry.armed().at(0).m_Happened, times);
    }
    EXPECT_EQ(take(registry, ExchangeKind::kCapture), "none");
}

TEST(FaultRegistry, LetsAFaultHappenUntilItIsLifted) {
    FaultRegistry registry;
    std::int64_t const always = registry.arm(parseFault("drop,times=always"));
    std::int64_t const once = registry.arm(parseFault("reset"));
    EXPECT_LT(always, once);
    for (int times = 0; times < 100; ++times) {
        EXPECT_EQ(take(registry, ExchangeKind::kPage), "drop,times=always");
    }
    EXPECT_EQ(registry.armed().at(0).m_Happened, 100);
    EXPECT_TRUE(registry.lift(always));
    EXPECT_FALSE(registry.lift(always));
    EXPECT_EQ(take(registry, ExchangeKind::kPage), "reset");
    EXPECT_FALSE(registry.lift(once)) << "it has happened";
}

TEST(FaultRegistry, ForgetsAllAtOnceAndNumbersOn) {
    FaultRegistry registry;
    registry.arm(parseFault("drop"));
    std::int64_t const second = registry.arm(parseFault("refuse"));
    registry.liftAll();
    EXPECT_TRUE(registry.armed().empty());
    EXPECT_EQ(take(registry, ExchangeKind::kPage), "none");
    EXPECT_EQ(registry.arm(parseFault("drop")), second + 1);
}

TEST(FaultRegistry, RefusesWhatCannotHappen) {
    FaultRegistry registry;
    Fault fault;
    fault.m_Kind = sandbox::FaultKind::kWrongSignature;
    fault.m_Exchange = ExchangeKind::kCapture;
    EXPECT_THROW(registry.arm(fault), sandbox::HttpError);
    EXPECT_TRUE(registry.armed().empty());
}

TEST(FaultRegistry, LeavesConnectionsWithoutTlsAlone) {
    FaultRegistry registry;
    registry.arm(parseFault("drop"));
    registry.arm(parseFault("refuse"));
    registry.arm(parseFault("tls-expired"));
    registry.arm(parseFault("tls-abort"));
    EXPECT_EQ(takeForConnection(registry, false), "none");
    EXPECT_EQ(take(registry, ExchangeKind::kSetup), "drop");
    EXPECT_EQ(takeForConnection(registry, true), "tls-expired");
    EXPECT_EQ(takeForConnection(registry, true), "tls-abort");
    EXPECT_EQ(takeForConnection(registry, true), "none");
    EXPECT_EQ(registry.armed().size(), 1u) << "a refused connection is never counted";
}

TEST(FaultRegistry, CountsForManyThreadsAtOnce) {
    constexpr int kTimes = 1000;
    FaultRegistry registry;
    registry.arm(parseFault("drop,times=" + std::to_string(kTimes)));
    std::atomic<int> happened{0};
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&] {
            for (int i = 0; i < kTimes; ++i) {
                happened += registry.take(ExchangeKind::kCapture, "") ? 1 : 0;
                registry.arm(parseFault("reset,exchange=page"));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(happened, kTimes);
    EXPECT_EQ(registry.armed().size(), 4u * kTimes);
}

/// A registry, and the end of the refusal that its listener was called with.
class Refusals : public ::testing::Test {
protected:
    Refusals() {
        m_Registry.setRefusalListener(
            [this](ExchangeKind kind, FaultRegistry::Moment until) { m_Until[kind] = until; });
    }

    [[nodiscard]] bool areRefused(ExchangeKind kind = ExchangeKind::kConnection) {
        return m_Until[kind] > Clock::now();
    }

    FaultRegistry m_Registry;
    std::map<ExchangeKind, FaultRegistry::Moment> m_Until;
};

TEST_F(Refusals, LastUntilTheyAreLifted) {
    std::int64_t const id = m_Registry.arm(parseFault("refuse"));
    EXPECT_EQ(m_Until[ExchangeKind::kConnection], FaultRegistry::Moment::max());
    EXPECT_FALSE(areRefused(ExchangeKind::kProxy));
    m_Registry.lift(id);
    EXPECT_FALSE(areRefused());
    m_Registry.arm(parseFault("refuse"));
    m_Registry.liftAll();
    EXPECT_FALSE(areRefused());
}

TEST_F(Refusals, OfTheProxyAreItsOwn) {
    m_Registry.arm(parseFault("refuse,exchange=proxy"));
    EXPECT_FALSE(areRefused());
    EXPECT_TRUE(areRefused(ExchangeKind::kProxy));
}

TEST_F(Refusals, LastForSomeSeconds) {
    auto const begin = Clock::now();
    m_Registry.arm(parseFault("refuse,seconds=100"));
    EXPECT_GE(m_Until[ExchangeKind::kConnection], begin + std::chrono::seconds(100));
    EXPECT_LE(m_Until[ExchangeKind::kConnection], Clock::now() + std::chrono::seconds(100));
}

TEST_F(Refusals, EndByThemselves) {
    auto const begin = Clock::now();
    m_Registry.arm(parseFault("refuse,seconds=0.1"));
    while (!m_Registry.armed().empty()) {
        ASSERT_LT(Clock::now() - begin, std::chrono::seconds(30));
        std::this_thread::yield();
    }
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(100));
    EXPECT_FALSE(areRefused());
}

TEST_F(Refusals, LastAsLongAsTheLongest) {
    std::int64_t const hour = m_Registry.arm(parseFault("refuse,seconds=3600"));
    FaultRegistry::Moment const endOfHour = m_Until[ExchangeKind::kConnection];
    std::int64_t const minute = m_Registry.arm(parseFault("refuse,seconds=60"));
    EXPECT_EQ(m_Until[ExchangeKind::kConnection], endOfHour);
    m_Registry.lift(hour);
    EXPECT_TRUE(areRefused());
    EXPECT_LT(m_Until[ExchangeKind::kConnection], endOfHour);
    m_Registry.lift(minute);
    EXPECT_FALSE(areRefused());
}

TEST_F(Refusals, AreNotToldToAListenerThatIsGone) {
    m_Registry.setRefusalListener(nullptr);
    m_Registry.arm(parseFault("refuse"));
    EXPECT_FALSE(areRefused());
}

}  // namespace
