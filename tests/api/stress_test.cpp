// Many threads and processes on one directory: create, pay, verify, destroy, while one thread rewrites the files.
//
// Every thread has objects of its own; the directory is common. Sizes come from the environment, so that the same tests
// run for long: KVX_STRESS_ROUNDS (rounds of each thread, 20 otherwise) and KVX_STRESS_THREADS (threads of the large
// test, 64 otherwise). A payment counts only when its URL holds what was set and its confirmation verifies.

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "tests/api/apisupport.h"
#include "tests/support/processes.h"

using namespace kvxtest;

namespace {

int fromEnvironment(char const* name, int otherwise) {
    char const* const text = std::getenv(name);
    return text == nullptr ? otherwise : static_cast<int>(std::strtol(text, nullptr, 10));
}

int rounds() {
    return fromEnvironment("KVX_STRESS_ROUNDS", 20);
}

/// One directory and the calls of a merchant on it. Its calls return 0, or the number of the step that failed.
class Shop {
public:
    Shop() : m_Path(m_Account.path()), m_Signature(m_Account.sign(kConfirmation)) {
        m_Account.setDefaults(R"( LANGID="aa")");
    }

    /// A factory, a payment, its URL, a confirmation; all destroyed again.
    [[nodiscard]] int payOnce() const {
        FactoryHandle const factory(m_Path);
        MadeMessage payment;
        if (MessageFactory_CreatePayInit(factory.get(), payment.out()) != KVX_OK ||
            MessageObject_SetAttribute(payment.get(), "AMOUNT", "1250") != KVX_OK) {
            return 1;
        }
        char language[64] = "";
        std::int32_t size = sizeof language;
        if (MessageObject_GetAttribute(payment.get(), "LANGID", &size, language) != KVX_OK || !isValue(language)) {
            return 2;
        }
        char url[4096] = "";
        size = sizeof url;
        if (MessageObject_GetURL(payment.get(), &size, url) != KVX_OK ||
            std::string(url).find("1250") == std::string::npos) {
            return 3;
        }
        MadeMessage confirmation;
        if (MessageFactory_VerifyPayConfirm(factory.get(), kConfirmation, m_Signature.c_str(), confirmation.out()) !=
            KVX_OK) {
            return 4;
        }
        MadeMessage forged;
        if (MessageFactory_VerifyPayConfirm(factory.get(), R"(<KVX KEYID="server"/>)", m_Signature.c_str(),
                                            forged.out()) != KVX_E_INVALID_SIGNATURE) {
            return 5;
        }
        return 0;
    }

    [[nodiscard]] int payOften(int times) const {
        int failure = 0;
        for (int i = 0; i < times && failure == 0; ++i) {
            failure = payOnce();
        }
        return failure;
    }

    /// Rewrites both files; `round` chooses the values, whose lengths differ.
    [[nodiscard]] int rewriteOnce(int round) const {
        SetupHandle const setup;
        std::string const value(static_cast<std::size_t>(round % 40) + 1, 'a');
        bool const done =
            ConfigurationSetup_SetConfiguration(setup.get(), m_Path.c_str()) == KVX_OK &&
            ConfigurationSetup_SetAttribute(setup.get(), "config.xml", "VTURL", ("http://h/" + value).c_str()) ==
                KVX_OK &&
            ConfigurationSetup_SetAttribute(setup.get(), "default.xml", "LANGID", value.c_str()) == KVX_OK;
        return done ? 0 : 6;
    }

    /// Whether the directory is whole and holds no file that a writer left behind.
    void expectInOrder() const {
        EXPECT_EQ(payOnce(), 0);
        for (auto const& entry : std::filesystem::recursive_directory_iterator(m_Path)) {
            std::string const name = entry.path().filename();
            static std::set<std::string> const known = {"keys",   "private", "public",     "own",
                                                        "server", "current", "config.xml", "default.xml"};
            EXPECT_EQ(known.count(name), 1U) << name;
        }
    }

private:
    /// Whether a writer has written `text`: "a" once or more, and nothing else.
    [[nodiscard]] static bool isValue(std::string const& text) {
        return !text.empty() && text.find_first_not_of('a') == std::string::npos;
    }

    AccountDirectory m_Account;
    std::string m_Path;
    std::string m_Signature;
};

/// Runs `count` payers and one rewriter at once, until the payers have had their rounds; `beside` runs meanwhile.
void expectAllPay(
    Shop const& shop, int count, int times, std::function<void()> const& beside = [] {}) {
    std::atomic<int> living{count};
    std::atomic<int> failure{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&] {
            if (int const failed = shop.payOften(times)) {
                failure = failed;
            }
            --living;
        });
    }
    threads.emplace_back([&] {
        for (int round = 0; living > 0; ++round) {
            if (int const failed = shop.rewriteOnce(round)) {
                failure = failed;
            }
        }
    });
    beside();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failure, 0) << "the step that failed";
    shop.expectInOrder();
}

TEST(Stress, SixteenThreadsPayWhileAnotherRewritesTheFiles) {
    Shop const shop;
    expectAllPay(shop, 16, rounds());
}

TEST(Stress, ManyThreadsPayWhileAnotherRewritesTheFiles) {
    Shop const shop;
    expectAllPay(shop, fromEnvironment("KVX_STRESS_THREADS", 64), rounds() / 4 + 1);
}

TEST(Stress, StaleHandlesAreRefusedWhileOtherThreadsCreateAndDestroy) {
    // A slot is reused once more than a thousand other objects have been destroyed, which is soon where many threads
    // work, so all the threads of a wave together stay below.
    constexpr int kThreads = 16;
    constexpr int kObjectsOfEach = 60;
    std::atomic<int> accepted{0};
    for (int wave = 0; wave < rounds(); ++wave) {
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&accepted] {
                for (int object = 0; object < kObjectsOfEach; ++object) {
                    KVX_HANDLE const stale = CreateMessageObject();
                    DestroyMessageObject(stale);
                    accepted += MessageObject_Capture(stale) != KVX_E_BAD_HANDLE ? 1 : 0;
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(accepted, 0);
}

TEST(Stress, FourProcessesPayAndRewriteOnOneDirectory) {
    constexpr int kProcesses = 4;
    Shop const shop;
    std::vector<pid_t> processes;
    for (int number = 0; number < kProcesses; ++number) {
        pid_t const child = ::fork();
        if (child == 0) {
            int failure = 0;
            for (int round = 0; round < rounds() && failure == 0; ++round) {
                failure = shop.rewriteOnce(round * (number + 1));
                failure = failure == 0 ? shop.payOften(2) : failure;
            }
            ::_exit(failure);
        }
        processes.push_back(child);
    }
    for (pid_t const child : processes) {
        int status = -1;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << (WIFEXITED(status) ? "the step that failed: " : "signal: ")
                             << (WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status));
    }
    shop.expectInOrder();
}

TEST(Stress, ThreadsPayBesideForkedChildrenThatPayAndRewrite) {
    Shop const shop;
    expectAllPay(shop, 8, rounds(), [&] {
        for (int i = 0; i < rounds(); ++i) {
            EXPECT_EQ(inChildProcess(
                          [&] {
                              int const failure = shop.rewriteOnce(i);
                              return failure == 0 ? shop.payOnce() : failure;
                          },
                          std::chrono::seconds{20}),
                      0);
        }
    });
}

}  // namespace
