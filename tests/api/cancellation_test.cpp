// Threads that are cancelled while they wait for a server: the cancellation ends the thread and nothing else, and the
// process can fork afterwards.
//
// Each case runs in a process of its own, which an alarm ends when something hangs.

#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "tests/api/apisupport.h"
#include "tests/support/processes.h"
#include "tests/support/rawserver.h"

using namespace kvxtest;

namespace {

constexpr unsigned kSecondsUntilItHangs = 20;

/// Takes a client's first bytes, reports them, and answers nothing.
class SilentServer {
public:
    SilentServer()
        : m_Server([this](Peer& peer) {
              peer.receive();
              static_cast<void>(!::write(m_Pipe[1], "r", 1));
              peer.receiveToEnd();
          }) {}
    SilentServer(SilentServer const&) = delete;
    SilentServer& operator=(SilentServer const&) = delete;

    /// Waits until a client has sent something. False at the timeout.
    bool waitForAClient() const {
        pollfd waiting = {m_Pipe[0], POLLIN, 0};
        char byte = 0;
        return ::poll(&waiting, 1, kSecondsUntilItHangs * 1000) == 1 && ::read(m_Pipe[0], &byte, 1) == 1;
    }

    [[nodiscard]] std::string url(std::string const& scheme) const {
        return scheme + "://127.0.0.1:" + m_Server.portText() + "/";
    }

private:
    struct Pipe {
        Pipe() { EXPECT_EQ(::pipe(m_Ends), 0); }
        Pipe(Pipe const&) = delete;
        Pipe& operator=(Pipe const&) = delete;
        ~Pipe() {
            ::close(m_Ends[0]);
            ::close(m_Ends[1]);
        }
        int operator[](int end) const { return m_Ends[end]; }

        int m_Ends[2] = {-1, -1};
    };

    Pipe m_Pipe;
    RawServer m_Server;
};

void* capture(void* message) {
    MessageObject_Capture(message);
    return nullptr;
}

/// Cancels a thread that waits for `server`, then forks. The number of the step that failed, or 0.
int cancelAndFork(SilentServer const& server, KVX_HANDLE message) {
    ::alarm(kSecondsUntilItHangs);
    pthread_t thread = {};
    if (::pthread_create(&thread, nullptr, &capture, message) != 0 || !server.waitForAClient()) {
        return 1;
    }
    void* result = nullptr;
    if (::pthread_cancel(thread) != 0 || ::pthread_join(thread, &result) != 0 || result != PTHREAD_CANCELED) {
        return 2;
    }
    pid_t const child = ::fork();
    if (child == 0) {
        ::_exit(0);
    }
    int status = 1;
    return child > 0 && ::waitpid(child, &status, 0) == child && status == 0 ? 0 : 3;
}

TEST(CancelledThread, EndsAloneWhereverItWaits) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "a cancellation leaves the sanitizer's marks on the stack that it unwinds";
#elif defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer keeps the number of a cancelled thread, which a child's thread may get again";
#endif
    for (char const* scheme : {"http", "https"}) {
        for (char const* settings :
             {"<KVX/>", "<KVX CONNECTTIMEOUT=\"100\"/>", "<KVX IOTIMEOUT=\"100\"/>", "<KVX TOTALTIMEOUT=\"100\"/>",
              "<KVX SENDALL=\"1\"/>", "<KVX PROFILE=\"strict\" TLSVERIFY=\"0\"/>"}) {
            SilentServer const server;
            AccountDirectory const account;
            account.setAddress(server.url(scheme));
            account.write("settings.xml", settings);
            FactoryHandle const factory(account.path());
            MadeMessage message;
            ASSERT_EQ(MessageFactory_CreatePayComplete(factory.get(), "id", "token", message.out()), KVX_OK);
            EXPECT_EQ(inChildProcess([&] { return cancelAndFork(server, message.get()); }), 0)
                << scheme << " " << settings;
        }
    }
}

}  // namespace
