// The network layer over an operating system that fails.
//
// Single system calls are replaced: they fail with one error, are interrupted by a signal, or do a part of the work.
// The published number of each error is compared.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include <cerrno>
#include <cstring>

#include "net/kvxhttp.h"
#include "tests/net/netsupport.h"
#include "tests/support/exceptions.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"
#include "tests/support/tlsserver.h"

using namespace kvxtest;

namespace {

constexpr char kResponse[] = "HTTP/1.0 200 OK\r\n\r\nbody";

std::uint32_t bits(std::int32_t code) {
    return static_cast<std::uint32_t>(code);
}

int g_Calls = 0;
int g_Errno = 0;

/// Starts a connect and is interrupted before it is over.
int interruptedConnect(int socket, sockaddr const* address, socklen_t length) {
    int const flags = ::fcntl(socket, F_GETFL);
    ::fcntl(socket, F_SETFL, flags | O_NONBLOCK);
    ::connect(socket, address, length);
    ::fcntl(socket, F_SETFL, flags);
    errno = EINTR;
    return -1;
}

TEST(SocketFaults, KeepsConnectingWithoutASocket) {
    // No check of the socket: the connect that follows fails on none.
    SystemCalls system;
    system->socket = [](int, int, int) {
        errno = EMFILE;
        return -1;
    };
    sockaddr_in address = addressOf("1");
    SockConnection connection;
    EXPECT_EQ(bits(connection.Connect(generic(address))), 0x80043009U);
    EXPECT_EQ(bits(connection.LastError()), 0x80043009U);
    EXPECT_EQ(connection.Detach(), -1);
}

TEST(SocketFaults, KeepsTheLastResultOfATlsConnectionWithoutASocket) {
    SystemCalls system;
    system->socket = [](int, int, int) {
        errno = EMFILE;
        return -1;
    };
    sockaddr_in address = addressOf("1");
    SslConnection connection;
    EXPECT_EQ(bits(connection.Connect(generic(address))), 0x80043000U);
    EXPECT_EQ(connection.Detach(), -1);
}

TEST(SocketFaults, ReportsThemThroughTheSession) {
    SystemCalls system;
    system->socket = [](int, int, int) {
        errno = EMFILE;
        return -1;
    };
    Thrown const plain = thrown([] { fetch("http://127.0.0.1:1/x"); });
    EXPECT_EQ(bits(plain.m_Code), 0x80043009U);
    EXPECT_EQ(plain.m_Text, "ErrorCode = 0x80043009 (failed to connect to host)");
    Thrown const secure = thrown([] { fetch("https://127.0.0.1:1/x"); });
    EXPECT_EQ(bits(secure.m_Code), 0x80043000U);
}

TEST(ConnectFaults, AsksForAStreamSocketAndPassesSixteenBytes) {
    SystemCalls system;
    static int s_Domain;
    static int s_Type;
    static int s_Protocol;
    static socklen_t s_Length;
    system->socket = [](int domain, int type, int protocol) {
        s_Domain = domain;
        s_Type = type;
        s_Protocol = protocol;
        return ::socket(domain, type, protocol);
    };
    system->connect = [](int, sockaddr const*, socklen_t length) {
        s_Length = length;
        errno = ENETUNREACH;
        return -1;
    };
    SockConnection plain;
    SslConnection secure;
    for (KVX_Connection* const connection :
         {static_cast<KVX_Connection*>(&plain), static_cast<KVX_Connection*>(&secure)}) {
        sockaddr_in address = addressOf("1");
        EXPECT_EQ(bits(connection->Connect(generic(address))), 0x80043033U);
        EXPECT_EQ(s_Domain, AF_INET);
        EXPECT_EQ(s_Type, SOCK_STREAM | SOCK_CLOEXEC);
        EXPECT_EQ(s_Protocol, 0);
        EXPECT_EQ(s_Length, 16U);
        endConnection(*connection);
    }
}

int optionOf(int socket, int level, int option) {
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(::getsockopt(socket, level, option, &value, &length), 0);
    return value;
}

TEST(KeepAlive, IsOnForEverySocket) {
    RawServer const server("");
    SockConnection plain;
    SslConnection secure;
    for (KVX_Connection* const connection :
         {static_cast<KVX_Connection*>(&plain), static_cast<KVX_Connection*>(&secure)}) {
        sockaddr_in address = addressOf(server);
        ASSERT_EQ(connection->Connect(generic(address)), KVX_OK);
        int const socket = connection->Detach();
        EXPECT_EQ(optionOf(socket, SOL_SOCKET, SO_KEEPALIVE), 1);
        EXPECT_EQ(optionOf(socket, IPPROTO_TCP, TCP_KEEPIDLE), 60);
        EXPECT_EQ(optionOf(socket, IPPROTO_TCP, TCP_KEEPINTVL), 10);
        EXPECT_EQ(optionOf(socket, IPPROTO_TCP, TCP_KEEPCNT), 6);
        ::close(socket);
    }
}

TEST(KeepAlive, IsNotNeeded) {
    RawServer const plain(kResponse);
    TlsServer const secure(kResponse);
    SystemCalls system;
    system->setsockopt = [](int, int, int, void const*, socklen_t) {
        errno = ENOPROTOOPT;
        return -1;
    };
    EXPECT_EQ(fetch(plainUrl(plain, "/")), "body");
    EXPECT_EQ(fetch(secureUrl(secure, "/")), "body");
}

TEST(KeepAlive, LeavesTheErrorOfAConnectAlone) {
    SystemCalls system;
    static int s_Options;
    s_Options = 0;
    system->setsockopt = [](int, int, int, void const*, socklen_t) {
        ++s_Options;
        errno = ENOPROTOOPT;
        return -1;
    };
    system->connect = [](int, sockaddr const*, socklen_t) {
        EXPECT_EQ(errno, 0);
        return -1;
    };
    sockaddr_in address = addressOf("1");
    SockConnection connection;
    errno = 0;
    EXPECT_EQ(connection.Connect(generic(address)), KVX_E_SOCKET_FAMILY);
    EXPECT_EQ(s_Options, 4);
    endConnection(connection);
}

TEST(KeepAlive, IsNotAskedForWithoutASocket) {
    SystemCalls system;
    system->socket = [](int, int, int) {
        errno = EMFILE;
        return -1;
    };
    system->setsockopt = [](int, int, int, void const*, socklen_t) {
        ADD_FAILURE() << "an option without a socket";
        return 0;
    };
    sockaddr_in address = addressOf("1");
    SockConnection connection;
    EXPECT_EQ(bits(connection.Connect(generic(address))), 0x80043009U);
}

TEST(ConnectFaults, ReportsTheFiveThatHaveTexts) {
    struct {
        int m_Errno;
        std::uint32_t m_Code;
        char const* m_Text;
    } const cases[] = {
        {ENETUNREACH, 0x80043033U, "network not reachable (failed to connect to host)"},
        {ECONNABORTED, 0x80043035U, "connection aborted (failed to connect to host)"},
        {ECONNRESET, 0x80043036U, "connection reset (failed to connect to host)"},
        {ETIMEDOUT, 0x8004303CU, "connection timeout (failed to connect to host)"},
        {ECONNREFUSED, 0x8004303DU, "connection refused (failed to connect to host)"},
    };
    SystemCalls system;
    system->connect = [](int, sockaddr const*, socklen_t) {
        errno = g_Errno;
        return -1;
    };
    for (auto const& row : cases) {
        for (char const* const url : {"http://127.0.0.1:1/x", "https://127.0.0.1:1/x"}) {
            g_Errno = row.m_Errno;
            Thrown const failure = thrown([url] { fetch(url); });
            EXPECT_EQ(bits(failure.m_Code), row.m_Code);
            EXPECT_EQ(failure.m_Text, row.m_Text);
        }
    }
}

TEST(ConnectFaults, AreReportedAtOnceWhereAConnectMayTakeTime) {
    SystemCalls system;
    system->connect = [](int, sockaddr const*, socklen_t) {
        errno = ENETUNREACH;
        return -1;
    };
    system->poll = [](pollfd*, nfds_t, int) {
        ADD_FAILURE() << "a wait";
        return -1;
    };
    KVX_RequestInfo request = requestFor("http://127.0.0.1:1/x");
    request.transfer.connectTimeout = 20;
    EXPECT_EQ(bits(thrownCode([&] { fetch(request); })), 0x80043033U);
}

TEST(ConnectFaults, FinishesAConnectThatASignalInterrupts) {
    RawServer const plain(kResponse);
    TlsServer const secure(kResponse);
    SystemCalls system;
    system->connect = &interruptedConnect;
    EXPECT_EQ(fetch(plainUrl(plain, "/")), "body");
    EXPECT_EQ(fetch(secureUrl(secure, "/")), "body");
}

TEST(ConnectFaults, ReportsHowAnInterruptedConnectEnds) {
    ClosedPort const nobody;
    SystemCalls system;
    system->connect = &interruptedConnect;
    for (char const* const scheme : {"http", "https"}) {
        Thrown const failure = thrown([&] { fetch(std::string(scheme) + "://127.0.0.1:" + nobody.text() + "/x"); });
        EXPECT_EQ(bits(failure.m_Code), 0x8004303DU);
    }
}

TEST(ConnectFaults, ReportsAnInterruptedConnectWithoutASocket) {
    SystemCalls system;
    system->connect = [](int, sockaddr const*, socklen_t) {
        errno = EINTR;
        return -1;
    };
    system->socket = [](int, int, int) { return ::open("/dev/null", O_RDWR | O_CLOEXEC); };
    sockaddr_in address = addressOf("1");
    SockConnection connection;
    EXPECT_EQ(bits(connection.Connect(generic(address))), 0x80043026U);  // not a socket, 38
    endConnection(connection);
}

TEST(ConnectFaults, ReportsThatTheEndOfAnInterruptedConnectCannotBeFound) {
    RawServer const server(kResponse);
    {
        SystemCalls system;
        system->connect = &interruptedConnect;
        system->poll = [](pollfd*, nfds_t, int) {
            errno = ENOBUFS;
            return -1;
        };
        EXPECT_EQ(bits(thrown([&] { fetch(plainUrl(server, "/")); }).m_Code), 0x80043037U);
    }
    SystemCalls system;
    system->connect = &interruptedConnect;
    system->getsockopt = [](int, int, int, void*, socklen_t*) {
        errno = ENOPROTOOPT;
        return -1;
    };
    EXPECT_EQ(bits(thrown([&] { fetch(plainUrl(server, "/")); }).m_Code), 0x8004302AU);
}

TEST(SendFaults, ReportsEveryErrorByItsPublishedNumber) {
    struct {
        int m_Errno;
        unsigned m_Bsd;
    } const cases[] = {
        {EAGAIN, 35},       {EINPROGRESS, 36},  {EALREADY, 37},     {ENOTSOCK, 38},        {EDESTADDRREQ, 39},
        {EMSGSIZE, 40},     {EPROTOTYPE, 41},   {ENOPROTOOPT, 42},  {EPROTONOSUPPORT, 43}, {ESOCKTNOSUPPORT, 44},
        {EOPNOTSUPP, 45},   {EPFNOSUPPORT, 46}, {EAFNOSUPPORT, 47}, {EADDRINUSE, 48},      {EADDRNOTAVAIL, 49},
        {ENETDOWN, 50},     {ENETUNREACH, 51},  {ENETRESET, 52},    {ECONNABORTED, 53},    {ECONNRESET, 54},
        {ENOBUFS, 55},      {EISCONN, 56},      {ENOTCONN, 57},     {ESHUTDOWN, 58},       {ETOOMANYREFS, 59},
        {ETIMEDOUT, 60},    {ECONNREFUSED, 61}, {ELOOP, 62},        {ENAMETOOLONG, 63},    {EHOSTDOWN, 64},
        {EHOSTUNREACH, 65}, {EPIPE, 32},        {EBADF, 9},         {ENOMEM, 12},          {EACCES, 13},
    };
    RawServer const server(kResponse);
    SystemCalls system;
    system->send = [](int, void const*, std::size_t, int) -> ssize_t {
        errno = g_Errno;
        return -1;
    };
    for (auto const& row : cases) {
        g_Errno = row.m_Errno;
        Thrown const failure = thrown([&] { fetch(plainUrl(server, "/")); });
        EXPECT_EQ(bits(failure.m_Code), 0x80043000U | row.m_Bsd) << std::strerror(row.m_Errno);
        EXPECT_NE(failure.m_Text.find(" (failed to write to host)"), std::string::npos) << failure.m_Text;
    }
}

TEST(SendFaults, ReportsThemFromAProxy) {
    RawServer const proxy(kResponse);
    KVX_RequestInfo request = requestFor("https://shop.example/x");
    request.proxyHost = "127.0.0.1";
    request.proxyPort = stringOf(proxy.portText());
    SystemCalls system;
    system->send = [](int, void const*, std::size_t, int) -> ssize_t {
        errno = ECONNABORTED;
        return -1;
    };
    Thrown const failure = thrown([&] {
        TbStringStream out;
        HttpSession(request, out);
    });
    EXPECT_EQ(bits(failure.m_Code), 0x80043035U);
    EXPECT_EQ(failure.m_Text, "connection aborted");
}

TEST(SendFaults, SendsAgainAfterASignal) {
    RawServer server(kResponse);
    SystemCalls system;
    g_Calls = 0;
    system->send = [](int socket, void const* buffer, std::size_t bytes, int flags) -> ssize_t {
        EXPECT_EQ(flags, MSG_NOSIGNAL);
        if (g_Calls++ < 2) {
            errno = EINTR;
            return -1;
        }
        return ::send(socket, buffer, bytes, flags);
    };
    EXPECT_EQ(fetch(plainUrl(server, "/")), "body");
    EXPECT_EQ(g_Calls, 3);
    EXPECT_EQ(server.records().at(0).substr(0, 6), "GET / ");
}

TEST(SendFaults, KeepsAShortSendShort) {
    RawServer server([&server](Peer& peer) {
        server.record(peer.receive());
        peer.send(kResponse);
    });
    SystemCalls system;
    g_Calls = 0;
    system->send = [](int socket, void const* buffer, std::size_t, int flags) {
        ++g_Calls;
        return ::send(socket, buffer, 5, flags);
    };
    EXPECT_EQ(fetch(plainUrl(server, "/")), "body");
    EXPECT_EQ(g_Calls, 1);
    EXPECT_EQ(server.records(), std::vector<std::string>{"GET /"});
}

TEST(ReceiveFaults, ReceivesAgainAfterASignal) {
    RawServer const server(kResponse);
    SystemCalls system;
    g_Calls = 0;
    system->recv = [](int socket, void* buffer, std::size_t bytes, int flags) -> ssize_t {
        EXPECT_EQ(bytes % 1024, 0U);
        EXPECT_EQ(flags, 0);
        if (g_Calls++ % 3 != 2) {
            errno = EINTR;
            return -1;
        }
        return ::recv(socket, buffer, bytes, flags);
    };
    EXPECT_EQ(fetch(plainUrl(server, "/")), "body");
    EXPECT_GE(g_Calls, 6);
}

TEST(ReceiveFaults, ReadsAChunkAgainAfterASignal) {
    RawServer const server("answer");
    SockConnection connection;
    sockaddr_in address = addressOf(server);
    ASSERT_EQ(connection.Connect(generic(address)), KVX_OK);
    TbStringStream request("\r\n\r\n");
    EXPECT_EQ(connection.Write(request), 4);
    SystemCalls system;
    g_Calls = 0;
    system->recv = [](int socket, void* buffer, std::size_t bytes, int flags) -> ssize_t {
        EXPECT_EQ(bytes, 1024U);
        EXPECT_EQ(flags, 0);
        if (g_Calls++ < 2) {
            errno = EINTR;
            return -1;
        }
        return ::recv(socket, buffer, bytes, flags);
    };
    TbStringStream answer;
    EXPECT_EQ(connection.Read(answer), 6);
    EXPECT_EQ(g_Calls, 3);
    endConnection(connection);
}

TEST(ReceiveFaults, AreReported) {
    RawServer const server(kResponse);
    SystemCalls system;
    system->recv = [](int, void*, std::size_t, int) -> ssize_t {
        errno = ETIMEDOUT;
        return -1;
    };
    Thrown const failure = thrown([&] { fetch(plainUrl(server, "/")); });
    EXPECT_EQ(bits(failure.m_Code), 0x8004303CU);
    EXPECT_EQ(failure.m_Text, "connection timeout (failed to receive from host)");
}

TEST(ShutdownFaults, ChangeNothing) {
    RawServer const server(kResponse);
    SystemCalls system;
    system->shutdown = [](int, int) {
        errno = ENOTCONN;
        return -1;
    };
    EXPECT_EQ(fetch(plainUrl(server, "/")), "body");
}

TEST(CloseFaults, EverySocketIsShutDownAndClosedOnce) {
    RawServer const plain(kResponse);
    TlsServer const secure(kResponse);
    static std::vector<int> s_Shut;
    static std::vector<int> s_Closed;
    s_Shut.clear();
    s_Closed.clear();
    SystemCalls system;
    system->shutdown = [](int socket, int how) {
        EXPECT_EQ(how, SHUT_WR);
        s_Shut.push_back(socket);
        return ::shutdown(socket, how);
    };
    system->close = [](int file) {
        s_Closed.push_back(file);
        return ::close(file);
    };
    fetch(plainUrl(plain, "/"));
    fetch(secureUrl(secure, "/"));
    EXPECT_EQ(s_Closed.size(), 2U);
    EXPECT_EQ(s_Shut, s_Closed);
}

}  // namespace
