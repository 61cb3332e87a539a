// Two threads, each on its own objects, beside one: whether anything that they share holds them up.
//
// The result is how many times as much two threads do in the same wall time. It needs two idle processors: the peer's
// row shows what the machine has to give.
//
// Times faster in one run:
//   two threads, payment URLs          1.86
//   two threads, messages              1.87
//   two threads, payment URLs of peer  1.83

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "bench/account.h"
#include "bench/bench_support.h"
#include "bench/merchant.h"
#include "bench/peer.h"
#include "tallowin/tallowin.h"

namespace {

using kvxbench::kNoGoal;
using kvxbench::Merchant;
using kvxbench::require;

constexpr double kGoal = 1.9;

// So many that the start of the second thread hardly counts: with 500 messages it is a tenth of the time.
constexpr int kUrls = 500;
constexpr int kMessages = 5000;

using Rounds = std::function<void()>;  ///< The work of one thread.

std::string const& directory() {
    static kvxbench::Account const s_Account;
    return s_Account.path();
}

double secondsOf(Rounds const& rounds, int threads) {
    auto const begin = std::chrono::steady_clock::now();
    std::thread first(rounds);
    std::thread second;
    if (threads == 2) {
        second = std::thread(rounds);
        second.join();
    }
    first.join();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

void addRounds(std::string const& name, Rounds const& rounds, double goal) {
    kvxbench::addTimed(name + "/one", [rounds] { return secondsOf(rounds, 1); });
    kvxbench::addTimed(name + "/two", [rounds] { return secondsOf(rounds, 2); });
    kvxbench::Comparison comparison;
    comparison.m_Goal = goal;
    comparison.m_Clock = kvxbench::Clock::kWall;
    comparison.m_TimesTheWork = 2;
    kvxbench::compare("two threads, " + name, name + "/two", name + "/one", comparison);
}

std::string textOfMessage() {
    KVX_HANDLE message = Merchant(directory()).payment();
    char text[4096];
    std::int32_t size = sizeof text;
    require(MessageObject_ToString(message, &size, text) == KVX_OK, "no text");
    DestroyMessageObject(message);
    return text;
}

/// Reads, changes and writes messages.
void useMessages(std::string const& text) {
    for (int i = 0; i < kMessages; ++i) {
        KVX_HANDLE message = CreateMessageObject();
        char copy[4096];
        std::int32_t size = sizeof copy;
        bool const isDone = MessageObject_FromString(message, text.c_str()) == KVX_OK &&
                            MessageObject_SetAttribute(message, "LANGID", "fr") == KVX_OK &&
                            MessageObject_ToString(message, &size, copy) == KVX_OK;
        DestroyMessageObject(message);
        require(isDone, "a message is refused");
    }
}

void setUp() {
    addRounds(
        "payment URLs",
        [] {
            Merchant const merchant(directory());
            for (int i = 0; i < kUrls; ++i) {
                require(!merchant.paymentUrl().empty(), "no URL");
            }
        },
        kGoal);
    addRounds(
        "messages", [text = textOfMessage()] { useMessages(text); }, kGoal);
    addRounds(
        "payment URLs of peer",
        [] {
            for (int i = 0; i < kUrls; ++i) {
                require(!kvxbench::peer::paymentUrl(directory()).empty(), "no URL");
            }
        },
        kNoGoal);
}

}  // namespace

int main(int argc, char** argv) {
    return kvxbench::benchMain(argc, argv, &setUp);
}
