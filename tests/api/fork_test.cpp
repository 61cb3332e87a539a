// Children of fork() that use the library while threads of their parent are inside it.
//
// Each child must make a payment URL, or create and destroy objects, within two seconds; one that does not is killed
// and counts as a failure. KVX_FORKS sets how many children a test has (200 otherwise).

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <future>
#include <thread>

#include "tests/api/apisupport.h"
#include "tests/support/processes.h"
#include "tests/support/tlsserver.h"
#include "tests/support/waiting.h"

using namespace kvxtest;

namespace {

constexpr int kThreads = 8;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::chrono::seconds kLimit{20};  // a fork alone takes long with a sanitizer's mappings
#else
constexpr std::chrono::seconds kLimit{2};
#endif

int forksFromEnvironment() {
    char const* const text = std::getenv("KVX_FORKS");
    return text == nullptr ? 200 : static_cast<int>(std::strtol(text, nullptr, 10));
}

/// Threads that repeat `work` while this lives.
class BusyThreads {
public:
    explicit BusyThreads(std::function<void()> const& work) {
        for (int i = 0; i < kThreads; ++i) {
            m_Threads.emplace_back([this, work] {
                while (!m_IsOver) {
                    work();
                    ++m_Rounds;
                }
            });
        }
        while (m_Rounds < kThreads) {
            std::this_thread::yield();
        }
    }
    BusyThreads(BusyThreads const&) = delete;
    BusyThreads& operator=(BusyThreads const&) = delete;
    ~BusyThreads() {
        m_IsOver = true;
        for (std::thread& thread : m_Threads) {
            thread.join();
        }
    }

private:
    std::atomic<bool> m_IsOver{false};
    std::atomic<long> m_Rounds{0};
    std::vector<std::thread> m_Threads;
};

/// Forks again and again; every child must do `work` in time and return 0.
void expectChildrenSucceed(int forks, std::function<int()> const& work) {
    int late = 0;
    int failed = 0;
    for (int i = 0; i < forks; ++i) {
        int const status = inChildProcess(work, kLimit);
        late += status == 128 + SIGKILL ? 1 : 0;
        failed += status != 0 && status != 128 + SIGKILL ? 1 : 0;
    }
    EXPECT_EQ(late, 0) << "children of " << forks << " did not end in time";
    EXPECT_EQ(failed, 0) << "children of " << forks << " failed";
}

/// A whole payment URL; the result of the first call that fails, or 0.
std::int32_t makePaymentUrl(std::string const& directory) {
    FactoryHandle const factory(directory);
    MadeMessage message;
    std::int32_t result = MessageFactory_CreatePayInit(factory.get(), message.out());
    if (result == KVX_OK) {
        result = MessageObject_SetAttribute(message.get(), "AMOUNT", "12.50");
    }
    char url[4096];
    std::int32_t size = sizeof url;
    return result == KVX_OK ? MessageObject_GetURL(message.get(), &size, url) : result;
}

std::int32_t createAndDestroyAllKinds() {
    for (KindFunctions const& kind : allKinds()) {
        OwnedHandle const handle(kind.m_Create(), kind.m_Destroy);
        KVXCIMPL_MessageFactory outside;
        if (handle.get() == nullptr || MessageFactory_CreateRequest(&outside, "", nullptr) != KVX_E_NO_MESSAGE_TYPE) {
            return KVX_E_UNEXPECTED;
        }
    }
    return KVX_OK;
}

/// A TLS server in a process of its own, whose threads hold none of this process's locks.
class TlsServerProcess {
public:
    TlsServerProcess() {
        int pipe[2] = {-1, -1};
        EXPECT_EQ(::pipe(pipe), 0);
        m_Id = ::fork();
        if (m_Id == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            TlsServer const server(httpResponse("<KVX MSGTYPE=\"PayConfirm\"/>"));
            std::uint16_t const port = server.port();
            EXPECT_EQ(::write(pipe[1], &port, sizeof port), static_cast<ssize_t>(sizeof port));
            for (;;) {
                ::pause();
            }
        }
        EXPECT_EQ(::read(pipe[0], &m_Port, sizeof m_Port), static_cast<ssize_t>(sizeof m_Port));
        ::close(pipe[0]);
        ::close(pipe[1]);
    }
    TlsServerProcess(TlsServerProcess const&) = delete;
    TlsServerProcess& operator=(TlsServerProcess const&) = delete;
    ~TlsServerProcess() {
        ::kill(m_Id, SIGKILL);
        ::waitpid(m_Id, nullptr, 0);
    }

    [[nodiscard]] std::string url() const { return "https://127.0.0.1:" + std::to_string(m_Port); }

private:
    pid_t m_Id = -1;
    std::uint16_t m_Port = 0;
};

std::int32_t capture(std::string const& directory) {
    FactoryHandle const factory(directory);
    MadeMessage message;
    std::int32_t const result = MessageFactory_CreatePayComplete(factory.get(), "id", "token", message.out());
    return result == KVX_OK ? MessageObject_Capture(message.get()) : result;
}

int exitCode(std::int32_t result) {
    return result == KVX_OK ? 0 : 1;
}

class ForkedChild : public testing::Test {
protected:
    void SetUp() override {
        if (!kMayForkBesideThreads) {
            GTEST_SKIP() << "the sanitizer's own allocator stays locked in the child";
        }
    }
};

TEST_F(ForkedChild, MakesAPaymentUrlBesideThreadsThatDo) {
    AccountDirectory const account;
    std::string const path = account.path();
    BusyThreads const threads([&] { EXPECT_EQ(makePaymentUrl(path), KVX_OK); });
    expectChildrenSucceed(forksFromEnvironment(), [&] { return exitCode(makePaymentUrl(path)); });
}

TEST_F(ForkedChild, MakesAPaymentUrlBesideThreadsThatTalkTls) {
    TlsServerProcess const server;
    AccountDirectory const account;
    account.setAddress(server.url());
    std::string const path = account.path();
    BusyThreads const threads([&] { EXPECT_EQ(capture(path), KVX_OK); });
    expectChildrenSucceed(forksFromEnvironment(), [&] { return exitCode(makePaymentUrl(path)); });
}

TEST(Fork, DoesNotWaitForAThreadThatWaitsForATlsServer) {
    std::promise<void> arrived;
    std::promise<void> mayEnd;
    std::future<void> const ending = mayEnd.get_future();
    RawServer const server([&](Peer& peer) {
        peer.receive();  // the client's first message, which gets no answer
        arrived.set_value();
        EXPECT_EQ(ending.wait_for(kTimeout), std::future_status::ready);
    });
    AccountDirectory const account;
    account.setAddress("https://127.0.0.1:" + server.portText());
    std::thread waiting([&] { EXPECT_NE(capture(account.path()), KVX_OK); });
    EXPECT_EQ(arrived.get_future().wait_for(kTimeout), std::future_status::ready);
    std::atomic<bool> isDone{false};
    std::thread forking([&] {
        EXPECT_EQ(inChildProcess([&] { return exitCode(makePaymentUrl(account.path())); }, kLimit), 0);
        isDone = true;
    });
    EXPECT_TRUE(waitUntil([&] { return isDone.load(); }));
    mayEnd.set_value();
    forking.join();
    waiting.join();
}

TEST_F(ForkedChild, CreatesObjectsBesideThreadsThatCreateAndDestroyThem) {
    auto const createAndDestroy = [] { DestroyMessageFactory(CreateMessageFactory()); };
    BusyThreads const threads(createAndDestroy);
    expectChildrenSucceed(forksFromEnvironment(), [&] {
        for (int i = 0; i < 10; ++i) {
            createAndDestroy();
        }
        return 0;
    });
}

TEST_F(ForkedChild, BuildsObjectsBesideThreadsThatBuildThem) {
    BusyThreads const threads([] { EXPECT_EQ(createAndDestroyAllKinds(), KVX_OK); });
    expectChildrenSucceed(forksFromEnvironment(), [] { return exitCode(createAndDestroyAllKinds()); });
}

TEST_F(ForkedChild, ForksAgain) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer lets no child of a process with threads start one";
#endif
    BusyThreads const threads([] { EXPECT_EQ(createAndDestroyAllKinds(), KVX_OK); });
    expectChildrenSucceed(forksFromEnvironment() / 10, [] {
        BusyThreads const own([] { EXPECT_EQ(createAndDestroyAllKinds(), KVX_OK); });
        return inChildProcess([] { return exitCode(createAndDestroyAllKinds()); }, kLimit);
    });
}

}  // namespace
