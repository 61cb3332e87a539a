// Limits of an exchange: time at every phase, size, and the options beside them.
//
// Each stall is met twice, once by the limit of the single operation and once by that of the whole exchange, plain,
// over TLS and through a proxy. The limits of an exchange are whole seconds, so all stalls run at the same time, one
// thread each. Odd: a connect is stalled by a listener that accepts nobody and whose queue is full.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <mutex>
#include <thread>

#include "core/kvxbase.h"
#include "foundation/tbexception.h"
#include "net/kvxhttp.h"
#include "tests/net/netsupport.h"
#include "tests/support/allocations.h"
#include "tests/support/exceptions.h"
#include "tests/support/processes.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"
#include "tests/support/tlsserver.h"
#include "tests/support/tracerecorder.h"
#include "tests/support/waiting.h"

using namespace kvxtest;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr char kResponse[] = "HTTP/1.0 200 OK\r\n\r\nbody";
constexpr char kEstablished[] = "HTTP/1.0 200 Connection established\r\n\r\n";

/// How late an exchange of one second may end.
constexpr milliseconds kTolerance{500};

/// More than two sockets buffer when the receiver takes little.
constexpr std::size_t kMuch = std::size_t{6} * 1024 * 1024;

std::uint32_t bits(std::int32_t code) {
    return static_cast<std::uint32_t>(code);
}

/// Listens, accepts nobody and has a full queue: who connects waits.
class FullQueue {
public:
    FullQueue() : m_Listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        m_Address.sin_family = AF_INET;
        m_Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof m_Address;
        EXPECT_EQ(::bind(m_Listener, generic(m_Address), length), 0);
        EXPECT_EQ(::listen(m_Listener, 0), 0);
        EXPECT_EQ(::getsockname(m_Listener, generic(m_Address), &length), 0);
        for (int& filler : m_Fillers) {
            filler = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            ::connect(filler, generic(m_Address), length);
        }
    }
    FullQueue(FullQueue const&) = delete;
    FullQueue& operator=(FullQueue const&) = delete;
    ~FullQueue() {
        for (int const filler : m_Fillers) {
            ::close(filler);
        }
        ::close(m_Listener);
    }

    [[nodiscard]] sockaddr_in address() const { return m_Address; }
    [[nodiscard]] std::string portText() const { return std::to_string(ntohs(m_Address.sin_port)); }

private:
    int m_Listener;
    int m_Fillers[4] = {};
    sockaddr_in m_Address = {};
};

/// Reads nothing for longer than the client's limit. The client's end would only be seen behind all that it has sent.
void holdWithoutReading(Peer& peer) {
    int const little = 4096;
    ::setsockopt(peer.socket(), SOL_SOCKET, SO_RCVBUF, &little, sizeof little);
    pollfd waiting = {peer.socket(), POLLRDHUP, 0};
    ::poll(&waiting, 1, 2000);
}

void hold(Peer& peer) {
    peer.receiveToEnd();
}

/// Sends a byte ten times a second until the client is gone. `socket` is that of the connection below.
void trickle(Peer& peer, int socket, std::string const& bytes) {
    for (std::size_t at = 0; peer.send(bytes.substr(at % bytes.size(), 1)); ++at) {
        pollfd waiting = {socket, POLLRDHUP, 0};
        if (::poll(&waiting, 1, 100) != 0) {
            return;
        }
    }
}

/// A server under test and the phase in which it stalls.
struct Stall {
    char const* m_Name;
    bool m_IsSecure;
    bool m_HasProxy;
    bool m_IsTooSlow;  ///< It never pauses for long: only the limit of the whole exchange counts.
    std::size_t m_PathBytes;
    RawServer::Script m_Script;  ///< None: a connect that waits.
    char const* m_Text;
    int m_Line;
};

/// `script` behind a handshake, and behind a tunnel too.
RawServer::Script overTls(std::function<void(Peer& peer, int socket)> const& script, bool hasProxy = false) {
    return [script, hasProxy](Peer& plain) {
        if (hasProxy) {
            plain.receiveRequest();
            plain.send(kEstablished);
        }
        TlsPeer peer(plain);
        if (peer.isReady()) {
            script(peer, plain.socket());
        }
    };
}

std::vector<Stall> stalls() {
    static constexpr char kConnect[] = "connection timeout (failed to connect to host)";
    static constexpr char kSetup[] = "connection timeout (failed to setup protocol)";
    static constexpr char kSend[] = "connection timeout (failed to write to host)";
    static constexpr char kReceive[] = "connection timeout (failed to receive from host)";
    auto const silentAfterRequest = [](Peer& peer) {
        peer.receiveRequest();
        hold(peer);
    };
    auto const silentInBody = [](Peer& peer) {
        peer.receiveRequest();
        peer.send("HTTP/1.0 200 OK\r\n\r\nbo");
        hold(peer);
    };
    auto const slowBody = [](Peer& peer, int socket) {
        peer.receiveRequest();
        trickle(peer, socket, "HTTP/1.0 200 OK\r\n\r\nbody and more");
    };
    auto const silentInTunnel = [](Peer& peer) {
        peer.receiveRequest();
        peer.send(kEstablished);
        hold(peer);
    };
    // A record whose length says that many bytes follow.
    auto const slowHandshake = [](Peer& peer) {
        peer.receive();
        trickle(peer, peer.socket(), std::string("\x16\x03\x03\x40\x00", 5) + std::string(100, '\x02'));
    };
    return {
        {"connect", false, false, false, 1, {}, kConnect, 666},
        {"connect for TLS", true, false, false, 1, {}, kConnect, 666},
        {"connect to a proxy", false, true, false, 1, {}, kConnect, 666},
        {"connect to a proxy for TLS", true, true, false, 1, {}, kConnect, 666},
        {"proxy exchange", true, true, false, 1, silentAfterRequest, "connection timeout", 742},
        {"handshake", true, false, false, 1, hold, kSetup, 678},
        {"slow handshake", true, false, true, 1, slowHandshake, kSetup, 678},
        {"handshake in a tunnel", true, true, false, 1, silentInTunnel, kSetup, 678},
        {"write", false, false, false, kMuch, holdWithoutReading, kSend, 809},
        {"write through a proxy", false, true, false, kMuch, holdWithoutReading, kSend, 809},
        {"write over TLS", true, false, false, kMuch, overTls([](Peer&, int socket) {
             Peer plain(::dup(socket));
             holdWithoutReading(plain);
         }),
         kSend, 809},
        {"first byte", false, false, false, 1, silentAfterRequest, kReceive, 825},
        {"first byte through a proxy", false, true, false, 1, silentAfterRequest, kReceive, 825},
        {"first byte over TLS", true, false, false, 1, overTls([=](Peer& peer, int) { silentAfterRequest(peer); }),
         kReceive, 825},
        {"body", false, false, false, 1, silentInBody, kReceive, 825},
        {"body over TLS", true, false, false, 1, overTls([=](Peer& peer, int) { silentInBody(peer); }), kReceive, 825},
        {"body in a tunnel", true, true, false, 1, overTls([=](Peer& peer, int) { silentInBody(peer); }, true),
         kReceive, 825},
        {"slow body", false, false, true, 1, [=](Peer& peer) { slowBody(peer, peer.socket()); }, kReceive, 825},
        {"slow body over TLS", true, false, true, 1, overTls(slowBody), kReceive, 825},
    };
}

/// Meets one stall with `transfer`, on the calling thread.
void meet(Stall const& stall, KVX_Transfer const& transfer) {
    std::unique_ptr<FullQueue> queue;
    std::unique_ptr<RawServer> server;
    if (stall.m_Script) {
        server = std::make_unique<RawServer>(stall.m_Script);
    } else {
        queue = std::make_unique<FullQueue>();
    }
    std::string const port = server != nullptr ? server->portText() : queue->portText();
    std::string const host = stall.m_HasProxy ? "shop.example" : "127.0.0.1:" + port;
    KVX_RequestInfo request = requestFor((stall.m_IsSecure ? "https://" : "http://") + host + "/");
    request.path = stringOf(std::string(stall.m_PathBytes, '/'));
    if (stall.m_HasProxy) {
        request.proxyHost = "127.0.0.1";
        request.proxyPort = stringOf(port);
    }
    request.transfer = transfer;
    request.transfer.isQuiet = true;

    Clock::time_point const start = Clock::now();
    Thrown const failure = thrown([&] { fetch(request); });
    auto const lasted = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    EXPECT_EQ(bits(failure.m_Code), 0x8004303CU) << stall.m_Name;
    EXPECT_EQ(failure.m_Text, stall.m_Text) << stall.m_Name;
    EXPECT_EQ(failure.m_Line, stall.m_Line) << stall.m_Name;
    EXPECT_EQ(failure.m_File, "kvxhttp") << stall.m_Name;
    EXPECT_GE(lasted, milliseconds(990)) << stall.m_Name;
    EXPECT_LE(lasted, milliseconds(1000) + kTolerance) << stall.m_Name;
}

TEST(TimeLimit, EndsEveryStallOfAnExchange) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "so many handshakes at once take longer than the limit under the sanitizer";
#endif
    TlsIdentity::shared();
    KVX_Transfer single;
    single.connectTimeout = 1;
    single.ioTimeout = 1;
    KVX_Transfer whole;
    whole.totalTimeout = 1;
    KVX_Transfer both = whole;  // each wait alone may be longer than the whole
    both.connectTimeout = 30;
    both.ioTimeout = 30;
    std::vector<Stall> const all = stalls();
    std::vector<std::thread> threads;
    for (Stall const& stall : all) {
        threads.emplace_back(meet, std::cref(stall), std::cref(whole));
        threads.emplace_back(meet, std::cref(stall), std::cref(both));
        if (!stall.m_IsTooSlow) {
            threads.emplace_back(meet, std::cref(stall), std::cref(single));
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(TimeLimit, LeavesExchangesInTimeAlone) {
    KVX_Transfer transfer;
    transfer.connectTimeout = 20;
    transfer.ioTimeout = 20;
    transfer.totalTimeout = 20;
    std::string const body(300000, 'x');
    RawServer const plain("HTTP/1.0 200 OK\r\n\r\n" + body);
    TlsServer const secure("HTTP/1.0 200 OK\r\n\r\n" + body);
    for (std::string const& url : {plainUrl(plain, "/"), secureUrl(secure, "/")}) {
        KVX_RequestInfo request = requestFor(url);
        request.transfer = transfer;
        EXPECT_EQ(fetch(request), body);
    }
}

TEST(TimeLimit, StillReportsOtherFailures) {
    KVX_Transfer transfer;
    transfer.connectTimeout = 20;
    transfer.ioTimeout = 20;
    transfer.totalTimeout = 20;
    ClosedPort const nobody;
    RawServer const resetting([](Peer& peer) {
        peer.receiveRequest();
        peer.reset();
    });
    KVX_RequestInfo request = requestFor("http://127.0.0.1:" + nobody.text() + "/");
    request.transfer = transfer;
    EXPECT_EQ(bits(thrownCode([&] { fetch(request); })), 0x8004303DU);
    request = requestFor(plainUrl(resetting, "/"));
    request.transfer = transfer;
    EXPECT_EQ(bits(thrownCode([&] { fetch(request); })), 0x80043036U);
}

TEST(TimeLimit, IsNotPolledForWithoutOne) {
    RawServer const plain(kResponse);
    TlsServer const secure(kResponse);
    SystemCalls system;
    system->poll = [](pollfd*, nfds_t, int) {
        ADD_FAILURE() << "a wait of its own";
        return -1;
    };
    system->clock_gettime = [](clockid_t, timespec*) {
        ADD_FAILURE() << "a look at the clock";
        return -1;
    };
    system->setNonBlocking = [](int) {
        ADD_FAILURE() << "a socket that does not block";
        return -1;
    };
    system->startThread = [](pthread_t*, pthread_attr_t const*, void* (*)(void*), void*) {
        ADD_FAILURE() << "a thread";
        return EAGAIN;
    };
    EXPECT_EQ(fetch("http://localhost:" + plain.portText() + "/"), "body");
    EXPECT_EQ(fetch(secureUrl(secure, "/")), "body");
}

// One connection.

KVX_ConnectionLimits ioLimit(std::int64_t timeout) {
    KVX_ConnectionLimits limits;
    limits.ioTimeout = timeout;
    return limits;
}

TEST(ConnectionLimits, EndAConnect) {
    FullQueue const queue;
    KVX_ConnectionLimits limits;
    limits.connectTimeout = 30;
    SockConnection plain;
    SslConnection secure;
    for (KVX_Connection* const connection :
         {static_cast<KVX_Connection*>(&plain), static_cast<KVX_Connection*>(&secure)}) {
        connection->SetLimits(limits);
        sockaddr_in address = queue.address();
        EXPECT_EQ(bits(connection->Connect(generic(address))), 0x8004303CU);
        endConnection(*connection);
    }
}

TEST(ConnectionLimits, EndTheReadOfAPlainConnectionAndLetItGoOn) {
    RawServer const server([](Peer& peer) {
        peer.receiveRequest();
        peer.send("late");
        hold(peer);
    });
    SockConnection connection;
    connection.SetLimits(ioLimit(30));
    sockaddr_in address = addressOf(server);
    ASSERT_EQ(connection.Connect(generic(address)), KVX_OK);
    TbStringStream answer("before ");
    EXPECT_EQ(connection.Read(answer), -1);
    EXPECT_EQ(bits(connection.LastError()), 0x8004303CU);
    EXPECT_EQ(bytesOf(answer), "before ");
    connection.SetLimits(ioLimit(20000));
    TbStringStream request("\r\n\r\n");
    EXPECT_EQ(connection.Write(request), 4);
    EXPECT_EQ(connection.Read(answer), 4);
    EXPECT_EQ(bytesOf(answer), "before late");
    endConnection(connection);
}

TEST(ConnectionLimits, EndTheReadOfATlsConnectionAndLetItGoOn) {
    TlsServer const server([](Peer& peer) {
        peer.receiveRequest();
        peer.send("late");
        hold(peer);
    });
    SslConnection connection;
    connection.SetLimits(ioLimit(20000));
    sockaddr_in address = addressOf(server);
    ASSERT_EQ(connection.Connect(generic(address)), KVX_OK);
    ASSERT_EQ(connection.Setup(), KVX_OK);
    connection.SetLimits(ioLimit(30));
    TbStringStream answer("before ");
    EXPECT_EQ(connection.Read(answer), -1);
    errno = ECONNREFUSED;  // the code is not the system's last one
    EXPECT_EQ(bits(connection.LastError()), 0x8004303CU);
    EXPECT_EQ(bytesOf(answer), "before ");
    connection.SetLimits(ioLimit(20000));
    TbStringStream request("\r\n\r\n");
    EXPECT_EQ(connection.Write(request), KVX_OK);
    EXPECT_EQ(connection.Read(answer), 4);
    EXPECT_EQ(bytesOf(answer), "before late");
    endConnection(connection);
}

TEST(ConnectionLimits, EndATlsCallWhosePeerNeverLetsItWait) {
    TlsServer const server(
        [](Peer& peer) {
            peer.send("data");
            hold(peer);
        },
        TlsOptions{TLS1_2_VERSION, true});  // sends nothing else behind the handshake
    SockConnection connected;
    sockaddr_in address = addressOf(server);
    ASSERT_EQ(connected.Connect(generic(address)), KVX_OK);
    int const socket = connected.Detach();
    SslConnection connection;
    connection.SetLimits(ioLimit(20000));
    connection.Attach(socket);
    ASSERT_EQ(connection.Setup(), KVX_OK);
    pollfd arrived = {socket, POLLIN, 0};
    ASSERT_EQ(::poll(&arrived, 1, 20000), 1);
    TbStringStream answer;
    {
        // The end is computed, the start checked, the record's head read: its body is met an hour later.
        static int s_Looks;
        s_Looks = 0;
        SystemCalls system;
        system->clock_gettime = [](clockid_t clock, timespec* now) {
            int const result = ::clock_gettime(clock, now);
            now->tv_sec += ++s_Looks > 3 ? 3600 : 0;
            return result;
        };
        EXPECT_EQ(connection.Read(answer), -1);
    }
    EXPECT_EQ(bits(connection.LastError()), 0x8004303CU);
    EXPECT_EQ(bytesOf(answer), "");
    EXPECT_EQ(connection.Read(answer), 4);
    EXPECT_EQ(bytesOf(answer), "data");
    endConnection(connection);
}

TEST(ConnectionLimits, EndOperationsWhoseTimeIsOverBeforeTheyBegin) {
    TlsServer const server(kResponse);
    KVX_ConnectionLimits over;
    over.deadline = 1;
    SockConnection plain;
    SslConnection secure;
    for (KVX_Connection* const connection :
         {static_cast<KVX_Connection*>(&plain), static_cast<KVX_Connection*>(&secure)}) {
        connection->SetLimits(over);
        sockaddr_in address = addressOf(server);
        EXPECT_EQ(bits(connection->Connect(generic(address))), 0x8004303CU);
        ::close(connection->Detach());
        connection->SetLimits({});
        ASSERT_EQ(connection->Connect(generic(address)), KVX_OK);
        ASSERT_EQ(connection->Setup(), KVX_OK);
        connection->SetLimits(over);
        TbStringStream text("x");
        EXPECT_LT(connection->Write(text), 0);
        EXPECT_EQ(bits(connection->LastError()), 0x8004303CU);
        EXPECT_EQ(connection->Read(text), -1);
        EXPECT_EQ(bits(connection->LastError()), 0x8004303CU);
        endConnection(*connection);
    }
}

/// A connected socket that blocks.
int socketTo(RawServer const& server) {
    SockConnection connection;
    sockaddr_in address = addressOf(server);
    EXPECT_EQ(connection.Connect(generic(address)), KVX_OK);
    return connection.Detach();
}

TEST(ConnectionLimits, CountForAdoptedSockets) {
    RawServer const silent(&hold);
    KVX_ConnectionLimits limits = ioLimit(30);
    limits.isQuiet = true;
    SockConnection plain;
    plain.SetLimits(limits);
    plain.Attach(socketTo(silent));
    TbStringStream answer;
    EXPECT_EQ(plain.Read(answer), -1);
    EXPECT_EQ(bits(plain.LastError()), 0x8004303CU);
    endConnection(plain);
    SslConnection secure;
    secure.SetLimits(limits);
    secure.Attach(socketTo(silent));
    EXPECT_EQ(bits(secure.Setup()), 0x8004303CU);
    endConnection(secure);
}

TEST(ConnectionLimits, GoOnAfterSignals) {
    RawServer const silent(&hold);
    SockConnection connection;
    connection.SetLimits(ioLimit(30));
    sockaddr_in address = addressOf(silent);
    ASSERT_EQ(connection.Connect(generic(address)), KVX_OK);
    SystemCalls system;
    static int s_Polls;
    s_Polls = 0;
    system->poll = [](pollfd* files, nfds_t count, int timeout) {
        if (++s_Polls < 3) {
            errno = EINTR;
            return -1;
        }
        return ::poll(files, count, timeout);
    };
    TbStringStream answer;
    EXPECT_EQ(connection.Read(answer), -1);
    EXPECT_EQ(bits(connection.LastError()), 0x8004303CU);
    EXPECT_EQ(s_Polls, 3);
    system->poll = [](pollfd*, nfds_t, int) {
        errno = ENOBUFS;
        return -1;
    };
    EXPECT_EQ(connection.Read(answer), -1);
    EXPECT_EQ(bits(connection.LastError()), 0x80043037U);
    endConnection(connection);
}

TEST(ConnectionLimits, MayBeLongerThanTheSystemCanWaitAtOnce) {
    RawServer const silent(&hold);
    SockConnection connection;
    connection.SetLimits(ioLimit(std::int64_t{INT_MAX} + 60000));
    sockaddr_in address = addressOf(silent);
    ASSERT_EQ(connection.Connect(generic(address)), KVX_OK);
    SystemCalls system;
    static int s_Polls;
    s_Polls = 0;
    system->poll = [](pollfd*, nfds_t, int timeout) {
        EXPECT_EQ(timeout, INT_MAX);
        errno = ENOBUFS;
        return ++s_Polls < 3 ? 0 : -1;  // time passes twice
    };
    TbStringStream answer;
    EXPECT_EQ(connection.Read(answer), -1);
    EXPECT_EQ(bits(connection.LastError()), 0x80043037U) << "the failure, not the end of the time";
    EXPECT_EQ(s_Polls, 3);
    endConnection(connection);
}

TEST(ConnectionLimits, AreNotHeldByASocketThatMustBlock) {
    RawServer const server(kResponse);
    SystemCalls system;
    system->setNonBlocking = [](int) {
        errno = EACCES;
        return -1;
    };
    SockConnection connection;
    connection.SetLimits(ioLimit(30));
    sockaddr_in address = addressOf(server);
    EXPECT_EQ(connection.Connect(generic(address)), KVX_E_SOCKET_FAMILY | EACCES);
    endConnection(connection);
}

// Names.

/// A resolver that does not answer before it is released.
class StuckResolver {
public:
    StuckResolver() {
        s_IsReleased = false;
        s_Inside = 0;
        m_Calls->gethostbyname_r = [](char const* host, hostent* entry, char* memory, std::size_t bytes,
                                      hostent** result, int* reason) {
            std::unique_lock<std::mutex> lock(s_Mutex);
            ++s_Inside;
            sigset_t mask;
            pthread_sigmask(SIG_BLOCK, nullptr, &mask);
            s_BlocksSignals = sigismember(&mask, SIGTERM) == 1 && sigismember(&mask, SIGUSR1) == 1;
            s_Release.wait(lock, [] { return s_IsReleased; });
            --s_Inside;
            s_Release.notify_all();
            return ::gethostbyname_r(host, entry, memory, bytes, result, reason);
        };
    }
    StuckResolver(StuckResolver const&) = delete;
    StuckResolver& operator=(StuckResolver const&) = delete;

    /// Waits until no thread is inside any more and the helpers have ended.
    ~StuckResolver() {
        {
            std::unique_lock<std::mutex> lock(s_Mutex);
            s_IsReleased = true;
            s_Release.notify_all();
            s_Release.wait(lock, [] { return s_Inside == 0; });
        }
        EXPECT_TRUE(waitUntil([this] { return threadsOfThisProcess() == m_Threads; }));
    }

    static std::ptrdiff_t threadsOfThisProcess() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    }

    /// Counted when one has come and gone: a sanitizer starts one of its own beside the first.
    static std::ptrdiff_t threadsAfterAThread() {
        std::thread([] {}).join();
        return threadsOfThisProcess();
    }

    static inline std::atomic<bool> s_BlocksSignals = false;

private:
    static inline std::mutex s_Mutex;
    static inline std::condition_variable s_Release;
    static inline bool s_IsReleased = false;
    static inline int s_Inside = 0;
    std::ptrdiff_t const m_Threads = threadsAfterAThread();
    SystemCalls m_Calls;
};

KVX_RequestInfo limitedRequest(std::string const& url, std::uint32_t total = 1) {
    KVX_RequestInfo request = requestFor(url);
    request.transfer.totalTimeout = total;
    return request;
}

void expectLate(KVX_RequestInfo const& request, char const* text, int line) {
    Clock::time_point const start = Clock::now();
    Thrown const failure = thrown([&] { fetch(request); });
    auto const lasted = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    EXPECT_EQ(bits(failure.m_Code), 0x8004303CU);
    EXPECT_EQ(failure.m_Text, text);
    EXPECT_EQ(failure.m_Line, line);
    EXPECT_GE(lasted, milliseconds(990));
    EXPECT_LE(lasted, milliseconds(1000) + kTolerance);
}

TEST(LookupLimit, EndsALookupThatHangs) {
    StuckResolver const resolver;
    TraceRecorder const trace;
    expectLate(limitedRequest("http://gateway/x"),
               "connection timeout (the host address is invalid or could not be resolved)", 645);
    EXPECT_TRUE(StuckResolver::s_BlocksSignals);
    EXPECT_TRUE(trace.of("DNS LOOKUP").empty());
}

TEST(LookupLimit, EndsTheLookupOfAProxy) {
    StuckResolver const resolver;
    KVX_RequestInfo request = limitedRequest("https://127.0.0.1/x");
    request.proxyHost = "gateway";
    expectLate(request, "connection timeout (the proxy address is invalid or could not be resolved)", 624);
}

TEST(LookupLimit, WorksInAChildProcessWhileALookupOfTheParentHangs) {
    StuckResolver const resolver;
    EXPECT_EQ(bits(thrownCode([] { fetch(limitedRequest("http://gateway/x")); })), 0x8004303CU);
    int const status = inChildProcess([] {
        SystemCalls system;
        system->gethostbyname_r = &::gethostbyname_r;
        RawServer const server(kResponse);
        return fetch(limitedRequest("http://localhost:" + server.portText() + "/", 20)) == "body" ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
}

TEST(LookupLimit, FindsNamesInTime) {
    RawServer const server(kResponse);
    TraceRecorder const trace;
    EXPECT_EQ(fetch(limitedRequest("http://localhost:" + server.portText() + "/", 20)), "body");
    ASSERT_EQ(trace.of("DNS LOOKUP").size(), 1U);
    EXPECT_EQ(trace.of("DNS LOOKUP").at(0).m_Detail, "localhost -> 127.0.0.1");
    EXPECT_EQ(trace.of("DNS LOOKUP").at(0).m_Line, 347);
}

TEST(LookupLimit, ReportsUnknownNamesAndNamesWithoutAnAddress) {
    TraceRecorder const trace;
    SystemCalls system;
    system->gethostbyname_r = [](char const*, hostent*, char*, std::size_t, hostent** result, int*) {
        *result = nullptr;
        return ENOENT;
    };
    EXPECT_EQ(bits(thrownCode([] { fetch(limitedRequest("http://gateway/x", 20)); })), 0x80042021U);
    EXPECT_TRUE(trace.of("DNS LOOKUP").empty());
    system->gethostbyname_r = [](char const*, hostent* entry, char*, std::size_t, hostent** result, int*) {
        static char* s_None[] = {nullptr};
        *entry = {};
        entry->h_addr_list = s_None;
        *result = entry;
        return 0;
    };
    EXPECT_EQ(bits(thrownCode([] { fetch(limitedRequest("http://gateway/x", 20)); })), 0x80042021U);
    ASSERT_EQ(trace.of("DNS LOOKUP").size(), 1U);
    EXPECT_EQ(trace.of("DNS LOOKUP").at(0).m_Line, 338);
}

TEST(LookupLimit, TellsAResolverWithoutMemoryFromAnUnknownName) {
    // A resolver says so by its result, or by `errno` beside a reason of any kind.
    static int s_Result = 0;
    static int s_Errno = 0;
    static int s_Reason = 0;
    SystemCalls system;
    system->gethostbyname_r = [](char const*, hostent*, char*, std::size_t, hostent** result, int* reason) {
        *result = nullptr;
        *reason = s_Reason;
        errno = s_Errno;
        return s_Result;
    };
    struct {
        int m_Result;
        int m_Errno;
        int m_Reason;
        std::uint32_t m_Code;
    } const rows[] = {
        {ENOMEM, 0, NETDB_INTERNAL, 0x80040217U},       {EAGAIN, ENOMEM, TRY_AGAIN, 0x80040217U},
        {-1, ENOMEM, NETDB_INTERNAL, 0x80040217U},      {0, ENOMEM, HOST_NOT_FOUND, 0x80040217U},
        {EAGAIN, ECONNREFUSED, TRY_AGAIN, 0x80042021U}, {0, 0, HOST_NOT_FOUND, 0x80042021U},
        {-1, EMFILE, NETDB_INTERNAL, 0x80042021U},
    };
    for (auto const& row : rows) {
        s_Result = row.m_Result;
        s_Errno = row.m_Errno;
        s_Reason = row.m_Reason;
        for (std::uint32_t const seconds : {0U, 20U}) {  // on this thread, on a helper
            errno = ENOMEM;                              // of an earlier call
            std::uint32_t code = 0;
            try {
                fetch(limitedRequest("http://gateway/x", seconds));
            } catch (KVX_Exception const& failure) {
                code = bits(failure.code());
            } catch (TBFC_Exception const& failure) {
                code = bits(failure.code());
            }
            EXPECT_EQ(code, row.m_Code) << row.m_Result << " " << row.m_Errno << " " << row.m_Reason << ", " << seconds;
        }
    }
}

TEST(LookupLimit, NeedsNoThreadForAnAddress) {
    RawServer const server(kResponse);
    SystemCalls system;
    system->startThread = [](pthread_t*, pthread_attr_t const*, void* (*)(void*), void*) {
        ADD_FAILURE() << "a thread";
        return EAGAIN;
    };
    KVX_RequestInfo request = limitedRequest(plainUrl(server, "/"), 20);
    EXPECT_EQ(fetch(request), "body");
    // Nor do the other limits start one.
    request = requestFor("http://localhost:" + server.portText() + "/");
    request.transfer.connectTimeout = 20;
    request.transfer.ioTimeout = 20;
    EXPECT_EQ(fetch(request), "body");
}

TEST(LookupLimit, IsLackOfMemoryWithoutAThread) {
    SystemCalls system;
    system->startThread = [](pthread_t*, pthread_attr_t const*, void* (*)(void*), void*) { return EAGAIN; };
    EXPECT_EQ(bits(thrownCode([] { fetch(limitedRequest("http://localhost/x", 20)); })), 0x80040217U);
}

TEST(LookupLimit, IsLackOfMemoryWithoutAttributesForTheThread) {
    SystemCalls system;
    system->pthread_attr_init = [](pthread_attr_t*) { return ENOMEM; };
    system->startThread = [](pthread_t*, pthread_attr_t const*, void* (*)(void*), void*) {
        ADD_FAILURE() << "a thread";
        return EAGAIN;
    };
    EXPECT_EQ(bits(thrownCode([] { fetch(limitedRequest("http://localhost/x", 20)); })), 0x80040217U);
}

TEST(LookupLimit, SurvivesFailingAllocations) {
    RawServer const server(kResponse);
    KVX_RequestInfo const request = limitedRequest("http://localhost:" + server.portText() + "/", 20);
    survivesEveryFailingAllocation([&] { EXPECT_EQ(fetch(request), "body"); });
}

// Size and options.

TEST(MaxResponse, StopsReadingBehindTheLastByte) {
    std::string const response = "HTTP/1.0 200 OK\r\n\r\n" + std::string(5000, 'x');
    auto const size = static_cast<std::uint32_t>(response.size());
    RawServer const plain(response);
    TlsServer const secure(response);
    for (std::string const& url : {plainUrl(plain, "/"), secureUrl(secure, "/")}) {
        KVX_RequestInfo request = requestFor(url);
        request.transfer.maxResponse = size;
        EXPECT_EQ(fetch(request).size(), 5000U);
        for (std::uint32_t const most : {size - 1, 1U}) {
            request.transfer.maxResponse = most;
            Thrown const failure = thrown([&] { fetch(request); });
            EXPECT_EQ(bits(failure.m_Code), 0x80040205U) << most;
            EXPECT_NE(failure.m_Text.find("failed to receive from host"), std::string::npos) << failure.m_Text;
            EXPECT_EQ(failure.m_Line, 829);
        }
    }
}

TEST(MaxResponse, EndsAResponseWithoutEnd) {
    RawServer const server([](Peer& peer) {
        peer.receiveRequest();
        while (peer.send(std::string(65536, 'x'))) {
        }
    });
    KVX_RequestInfo request = requestFor(plainUrl(server, "/"));
    request.transfer.maxResponse = 100000;
    EXPECT_EQ(bits(thrownCode([&] { fetch(request); })), 0x80040205U);
}

TEST(MaxResponse, CountsWhatAZeroByteCutsOff) {
    RawServer const server(std::string(3000, '\0'));
    KVX_RequestInfo request = requestFor(plainUrl(server, "/"));
    request.transfer.maxResponse = 2000;
    EXPECT_EQ(bits(thrownCode([&] { fetch(request); })), 0x80040205U);
}

TEST(SendAll, ContinuesAShortSend) {
    RawServer server(kResponse);
    SystemCalls system;
    system->send = [](int socket, void const* buffer, std::size_t bytes, int flags) {
        return ::send(socket, buffer, std::min<std::size_t>(bytes, 5), flags);
    };
    KVX_RequestInfo request = requestFor(plainUrl(server, "/x"));
    request.transfer.sendAll = true;
    EXPECT_EQ(fetch(request), "body");
    request.transfer.sendAll = false;
    request.transfer.ioTimeout = 20;  // what a blocking send would do
    EXPECT_EQ(fetch(request), "body");
    std::string const whole =
        "GET /x HTTP/1.0\r\nAuthorization: Basic OgAA\r\nUserAgent: Tallowin Application Component 1.0\r\n\r\n";
    EXPECT_EQ(server.records(), (std::vector<std::string>{whole, whole}));
}

TEST(SendAll, ReportsAFailureOfTheRest) {
    RawServer const server(&hold);
    SystemCalls system;
    static int s_Sends;
    s_Sends = 0;
    system->send = [](int socket, void const* buffer, std::size_t, int flags) -> ssize_t {
        if (++s_Sends == 2) {
            errno = ECONNRESET;
            return -1;
        }
        return ::send(socket, buffer, 5, flags);
    };
    KVX_RequestInfo request = requestFor(plainUrl(server, "/x"));
    request.transfer.sendAll = true;
    EXPECT_EQ(bits(thrownCode([&] { fetch(request); })), 0x80043036U);
    EXPECT_EQ(s_Sends, 2);
}

/// The request that a server gets for `url` with a Host header.
std::string requestWithHost(RawServer& server, KVX_RequestInfo request) {
    request.transfer.sendHost = true;
    EXPECT_EQ(fetch(request), "body");
    return server.records().at(0);
}

TEST(SendHost, NamesHostAndPortBehindTheRequestLine) {
    RawServer server(kResponse);
    EXPECT_EQ(requestWithHost(server, requestFor(plainUrl(server, "/x"))),
              "GET /x HTTP/1.0\r\nHost: 127.0.0.1:" + server.portText() +
                  "\r\nAuthorization: Basic OgAA\r\nUserAgent: Tallowin Application Component 1.0\r\n\r\n");
}

TEST(SendHost, LeavesTheDefaultPortOut) {
    struct {
        char const* m_Url;
        char const* m_Start;
    } const cases[] = {
        {"http://shop.example/x", "GET http://shop.example:80/x HTTP/1.0\r\nHost: shop.example\r\n"},
        {"http://shop.example:80/x", "GET http://shop.example:80/x HTTP/1.0\r\nHost: shop.example\r\n"},
        {"http://shop.example:443/x", "GET http://shop.example:443/x HTTP/1.0\r\nHost: shop.example:443\r\n"},
    };
    for (auto const& row : cases) {
        RawServer proxy(kResponse);
        KVX_RequestInfo request = requestFor(row.m_Url);
        request.proxyHost = "127.0.0.1";
        request.proxyPort = stringOf(proxy.portText());
        std::string const seen = requestWithHost(proxy, request);
        EXPECT_EQ(seen.substr(0, std::strlen(row.m_Start)), row.m_Start);
    }
}

TEST(SendHost, GoesToAProxyToo) {
    for (char const* const port : {"", ":8443"}) {
        std::vector<std::string> seen;
        RawServer proxy([&seen](Peer& peer) {
            seen.push_back(peer.receiveRequest());
            peer.send(kEstablished);
            TlsPeer inside(peer);
            seen.push_back(inside.receiveRequest());
            inside.send(kResponse);
        });
        KVX_RequestInfo request = requestFor(std::string("https://shop.example") + port + "/x");
        request.proxyHost = "127.0.0.1";
        request.proxyPort = stringOf(proxy.portText());
        request.transfer.sendHost = true;
        request.transfer.isQuiet = true;
        EXPECT_EQ(fetch(request), "body");
        proxy.records();
        std::string const host = std::string("Host: shop.example") + port + "\r\n";
        ASSERT_EQ(seen.size(), 2U);
        EXPECT_EQ(seen.at(0), "CONNECT shop.example" + std::string(*port == '\0' ? ":443" : port) + " HTTP/1.0\r\n" +
                                  host + "Pragma: no-cache\r\nUserAgent: Tallowin Application Component 1.0\r\n\r\n");
        EXPECT_EQ(seen.at(1), "GET /x HTTP/1.0\r\n" + host +
                                  "Authorization: Basic OgAA\r\nUserAgent: Tallowin Application Component 1.0\r\n\r\n");
    }
}

TEST(Quiet, PrintsNothingAtAll) {
    RawServer const plain(kResponse);
    RawServer const noTls([](Peer& peer) {
        peer.receive();
        peer.send("no TLS here at all");
        peer.finish();
    });
    RawServer const proxy([](Peer& peer) {
        peer.receiveRequest();
        peer.send(kEstablished);
        TlsPeer inside(peer);
        inside.receiveRequest();
        inside.send(kResponse);
    });
    CapturedOutput output;
    CapturedOutput error(CapturedOutput::Stream::kError);
    KVX_RequestInfo request = requestFor(plainUrl(plain, "/"));
    request.traceOptions = "rawhttp";
    request.transfer.isQuiet = true;
    EXPECT_EQ(fetch(request), "body");
    KVX_RequestInfo refused = requestFor(secureUrl(noTls, "/"));
    refused.transfer.isQuiet = true;
    EXPECT_NE(thrownCode([&] { fetch(refused); }), 0);
    KVX_RequestInfo tunnelled = requestFor("https://shop.example/x");
    tunnelled.proxyHost = "127.0.0.1";
    tunnelled.proxyPort = stringOf(proxy.portText());
    tunnelled.traceOptions = "rawhttp";
    tunnelled.transfer.isQuiet = true;
    EXPECT_EQ(fetch(tunnelled), "body");
    EXPECT_EQ(error.text(), "");
    EXPECT_EQ(output.text(), "");
}

}  // namespace
