// Several processes on one store: killed at every point, racing, forked.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "tests/ledger/ledgersupport.h"
#include "tests/sandbox/support/testmerchant.h"
#include "tests/support/processes.h"

extern char** environ;

using namespace kvxtest;

namespace {

/// What a process printed, and how it ended.
struct Ended {
    std::string m_Output;
    int m_Signal = 0;
    int m_Status = -1;
};

class Processes : public LedgerFlowTest {
protected:
    /// Starts the driver; its output goes to a file with that name.
    pid_t start(std::string const& output, std::vector<std::string> const& command, int killAt = 0) const {
        std::vector<std::string> words = {"/bin/sh",
                                          "-c",
                                          "out=$1; shift; exec \"$@\" >\"$out\"",
                                          "sh",
                                          m_Dir.file(output),
                                          KVX_LEDGER_DRIVER,
                                          m_Shared,
                                          shop().path(),
                                          std::to_string(killAt)};
        words.insert(words.end(), command.begin(), command.end());
        std::vector<char*> arguments;
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        pid_t process = -1;
        EXPECT_EQ(::posix_spawn(&process, arguments[0], nullptr, nullptr, arguments.data(), environ), 0);
        return process;
    }

    [[nodiscard]] Ended end(pid_t process, std::string const& output) const {
        Ended ended;
        int status = 0;
        EXPECT_EQ(::waitpid(process, &status, 0), process);
        ended.m_Signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        ended.m_Status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        ended.m_Output = m_Dir.read(output);
        return ended;
    }

    [[nodiscard]] Ended run(std::vector<std::string> const& command, int killAt = 0) const {
        return end(start("output", command, killAt), "output");
    }

    /// Writes a file of confirmations for the driver.
    std::string confirmations(std::vector<Returned> const& returned) const {
        std::string text;
        for (Returned const& each : returned) {
            text += each.m_Data + "\n" + each.m_Signature + "\n";
        }
        m_Dir.write("confirmations", text);
        return m_Dir.file("confirmations");
    }

    /// How many requests of the kind the service carried out for an order.
    long carriedOut(std::string const& order, sandbox::ExchangeKind kind) {
        long count = 0;
        for (sandbox::Exchange const& exchange : sandboxtest::exchangesOf(service())) {
            count += exchange.m_Order == order && exchange.m_Kind == kind && exchange.m_Verdict == "ok" ? 1 : 0;
        }
        return count;
    }

    std::string m_Shared = store();  ///< What the driver opens.

    static int count(std::string const& output, std::string const& word) {
        std::istringstream lines(output);
        int found = 0;
        for (std::string line; std::getline(lines, line);) {
            found += line.compare(0, word.size(), word) == 0 ? 1 : 0;
        }
        return found;
    }
};

TEST_F(Processes, LoseAndDoubleNothingWhenKilledAtAnyPoint) {
    // One order for each point. Each command is killed there once, if it comes so far, and then run again.
    int pointsMet = 0;
    for (int point = 1; point <= 12; ++point) {
        SCOPED_TRACE(point);
        std::string const number = "K-" + std::to_string(point);
        int told = 0;
        Ended const begun = run({"begin", number}, point);
        pointsMet += begun.m_Signal == SIGKILL ? 1 : 0;
        Ended const again = run({"begin", number});
        ASSERT_EQ(again.m_Status, 0);
        if (begun.m_Signal == 0) {
            EXPECT_EQ(begun.m_Output, again.m_Output);
        }
        std::string const url = again.m_Output.substr(0, again.m_Output.find('\n'));
        std::string const file = confirmations({sandbox().shopper(url, "pay")});
        Ended const confirmed = run({"confirm", file}, point);
        pointsMet += confirmed.m_Signal == SIGKILL ? 1 : 0;
        told += count(confirmed.m_Output, "PAID_NOW");
        Ended const confirmedAgain = run({"confirm", file});
        ASSERT_EQ(confirmedAgain.m_Status, 0);
        told += count(confirmedAgain.m_Output, "PAID_NOW");
        EXPECT_LE(told, 1);
        Ended const worked = run({"run"}, point);
        pointsMet += worked.m_Signal == SIGKILL ? 1 : 0;
        ASSERT_EQ(run({"run"}).m_Status, 0);
        EXPECT_EQ(m_Ledger.state(number), "completed");
        EXPECT_EQ(carriedOut(number, sandbox::ExchangeKind::kCapture), 1);
        EXPECT_EQ(carriedOut(number, sandbox::ExchangeKind::kComplete), 1);
        EXPECT_NE(m_Ledger.order(number).at("told"), nullptr);
    }
    // Begin and confirm have two points each; the worker has two exchanges with six points each.
    EXPECT_EQ(pointsMet, 2 + 2 + 12);
}

TEST_F(Processes, MayAllCreateTheStore) {
    constexpr int kProcesses = 6;
    TestStore const fresh(m_Dir.file("fresh.db"));
    m_Shared = fresh.name();
    std::vector<pid_t> processes;
    for (int process = 0; process < kProcesses; ++process) {
        std::string const name = std::to_string(process);
        processes.push_back(start("output" + name, {"begin", "N-" + name}));
    }
    for (int process = 0; process < kProcesses; ++process) {
        EXPECT_EQ(end(processes[static_cast<std::size_t>(process)], "output" + std::to_string(process)).m_Status, 0);
    }
    LedgerHandle ledger;
    ASSERT_EQ(ledger.open(m_Shared, shop().path()), KVX_OK);
    EXPECT_EQ(ledger.numbers("").size(), static_cast<std::size_t>(kProcesses));
    EXPECT_EQ(ledger.numbers("waiting").size(), static_cast<std::size_t>(kProcesses));
}

TEST_F(Processes, SayPaidNowOnceAmongThemAll) {
    constexpr int kOrders = 20;
    constexpr int kProcesses = 4;
    std::vector<Returned> returned;
    for (int order = 0; order < kOrders; ++order) {
        Purchase purchase;
        purchase.m_Number = "R-" + std::to_string(order);
        returned.push_back(sandbox().shopper(m_Ledger.url(purchase), "pay"));
    }
    std::string const file = confirmations(returned);
    std::vector<pid_t> processes;
    for (int process = 0; process < kProcesses; ++process) {
        processes.push_back(start("output" + std::to_string(process), {"confirm", file}));
    }
    std::string output;
    for (int process = 0; process < kProcesses; ++process) {
        Ended const ended = end(processes[static_cast<std::size_t>(process)], "output" + std::to_string(process));
        EXPECT_EQ(ended.m_Status, 0);
        output += ended.m_Output;
    }
    std::istringstream lines(output);
    std::map<std::string, int> told;
    for (std::string line; std::getline(lines, line);) {
        told[line] += 1;
    }
    for (int order = 0; order < kOrders; ++order) {
        EXPECT_EQ(told["PAID_NOW R-" + std::to_string(order)], 1) << order;
    }
    EXPECT_EQ(count(output, "KNOWN_ALREADY"), kOrders * (kProcesses - 1));
}

TEST_F(Processes, CaptureEachPaymentOnceHoweverManyWork) {
    constexpr int kOrders = 12;
    constexpr int kProcesses = 4;
    std::vector<std::string> numbers;
    for (int order = 0; order < kOrders; ++order) {
        numbers.push_back("W-" + std::to_string(order));
        pay(numbers.back());
    }
    std::vector<pid_t> processes;
    for (int process = 0; process < kProcesses; ++process) {
        // Their leases last: none takes over from another that is alive.
        processes.push_back(start("output" + std::to_string(process), {"run-leased"}));
    }
    for (int process = 0; process < kProcesses; ++process) {
        EXPECT_EQ(end(processes[static_cast<std::size_t>(process)], "output" + std::to_string(process)).m_Status, 0);
    }
    for (std::string const& number : numbers) {
        EXPECT_EQ(m_Ledger.state(number), "completed");
        EXPECT_EQ(carriedOut(number, sandbox::ExchangeKind::kCapture), 1) << number;
        EXPECT_EQ(carriedOut(number, sandbox::ExchangeKind::kComplete), 1) << number;
    }
}

TEST_F(Processes, LeaveAKeyThatWorksWhenKilledAtAnyPointOfARenewal) {
    int points = 0;
    for (int point = 1;; ++point) {
        SCOPED_TRACE(point);
        std::string const before = shop().dir().read("keys/current");
        service().services().m_Keys.rotate();
        Ended const killed = run({"renew", autoUrl()}, point);
        if (killed.m_Signal == 0) {
            EXPECT_EQ(killed.m_Status, 0);
            break;
        }
        ASSERT_EQ(killed.m_Signal, SIGKILL);
        ++points;
        // The shop goes on at once, with the key that is there.
        Purchase purchase;
        purchase.m_Number = "R-" + std::to_string(point);
        std::string const outcome = decide(m_Ledger.url(purchase), "pay");
        ASSERT_TRUE(outcome == "PAID_NOW" || outcome == "KEPT") << outcome;
        Ended const again = run({"renew", autoUrl()});
        ASSERT_EQ(again.m_Status, 0) << again.m_Output;
        ASSERT_EQ(again.m_Output, "1\n");
        ASSERT_NE(shop().dir().read("keys/current"), before);
        ASSERT_EQ(shop().dir().namesIn(".renewal"), (std::vector<std::string>{"generation", "id", "lock"}));
        ASSERT_TRUE(shop().dir().exists("keys/private/" + before)) << "open payments have its signatures";
        ASSERT_GE(m_Ledger.run(), 1);
        ASSERT_EQ(m_Ledger.state(purchase.m_Number), "captured");
    }
    // The service knows no key whose private half is lost.
    for (sandbox::Exchange const& exchange : sandboxtest::exchangesOf(service())) {
        if (exchange.m_Kind == sandbox::ExchangeKind::kKeyExport && exchange.m_Verdict == "ok") {
            std::string const keyId = sandboxtest::attributeOf(exchange.m_Data, "KEYID");
            EXPECT_TRUE(shop().dir().exists("keys/private/" + keyId)) << keyId;
        }
    }
    EXPECT_GT(points, 60);
}

TEST_F(Processes, RefuseTheHandlesOfTheirParent) {
    if (!kMayForkBesideThreads) {
        GTEST_SKIP() << "children of this process cannot allocate";
    }
    pay();
    int const status = inChildProcess([&] {
        std::int32_t size = 0;
        std::int32_t done = 0;
        bool const isRefused = Ledger_GetState(m_Ledger.get(), "A-17", &size, nullptr) == KVX_E_LEDGER_FORKED &&
                               Ledger_RunDue(m_Ledger.get(), 1, &done) == KVX_E_LEDGER_FORKED;
        DestroyLedger(m_Ledger.get());
        bool const isGone = Ledger_GetState(m_Ledger.get(), "A-17", &size, nullptr) == KVX_E_BAD_HANDLE;
        return isRefused && isGone ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(m_Ledger.state(), "authorised") << "the parent's handle goes on";
    EXPECT_EQ(m_Ledger.run(), 1);
    EXPECT_EQ(m_Ledger.state(), "captured");
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kEndsWithoutMemory = true;
#else
constexpr bool kEndsWithoutMemory = false;
#endif

/// Takes all memory that this process may have.
void takeAllMemory() {
    rlimit const none{0, 0};
    ::setrlimit(RLIMIT_AS, &none);
    ::setrlimit(RLIMIT_DATA, &none);
    for (std::size_t size = std::size_t{1} << 20U; size != 0; size -= size > 1024 ? size / 2 : 16) {
        while (static_cast<void*>(std::malloc(size)) != nullptr) {
        }
    }
}

TEST(ThreadWithoutMemory, HasACodeForItsFirstFailure) {
    if (kEndsWithoutMemory) {
        GTEST_SKIP() << "an instrumented process ends without memory";
    }
    int const status = inChildProcess([] {
        LedgerHandle const ledger;
        std::int32_t code = KVX_OK;
        std::thread([&code] {
            takeAllMemory();
            std::int32_t size = 0;
            code = Ledger_GetState(nullptr, "A-17", &size, nullptr);
        }).join();
        return code == KVX_E_OUT_OF_MEMORY || code == KVX_E_BAD_HANDLE ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Processes, OpenNoStoreThatWasOpenWhenTheyWereForked) {
    if (runsOnPostgresql()) {
        GTEST_SKIP() << "a new connection to a server has nothing of the parent's";
    }
    if (!kMayForkBesideThreads) {
        GTEST_SKIP() << "children of this process cannot allocate";
    }
    std::string const closed = "sqlite:" + m_Dir.file("closed.db");
    {
        LedgerHandle const ledger;
        ASSERT_EQ(ledger.open(closed, shop().path()), KVX_OK);
    }
    int const status = inChildProcess([&] {
        LedgerHandle const ledger;
        bool const isRefused = ledger.open(store(), shop().path()) == KVX_E_LEDGER_FORKED;
        DestroyLedger(m_Ledger.get());
        bool const staysRefused = ledger.open(store(), shop().path()) == KVX_E_LEDGER_FORKED;
        return isRefused && staysRefused && ledger.open(closed, shop().path()) == KVX_OK ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
    pay();
    EXPECT_EQ(m_Ledger.run(), 1) << "the parent's handle goes on";
    LedgerHandle const second;
    EXPECT_EQ(second.open(store(), shop().path()), KVX_OK) << "in the parent nothing changes";
}

}  // namespace
