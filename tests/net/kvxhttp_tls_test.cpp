// TLS: versions, handshakes that fail at each step, closes with and without an alert, contexts that cannot be made.
//
// The peer is a scripted TLS server with a self-signed certificate. Odd: the certificate is not checked.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <pthread.h>

#include <atomic>
#include <csignal>

#include "net/kvxhttp.h"
#include "tests/net/interposed.h"
#include "tests/net/netsupport.h"
#include "tests/support/tbtext.h"
#include "tests/support/tlsserver.h"
#include "tests/support/tracerecorder.h"
#include "tests/support/waiting.h"

using namespace kvxtest;

namespace {

constexpr char kFailureLine[] = "SSL ERROR: connect failed\n";

std::int32_t tlsCode(int reason) {
    return static_cast<std::int32_t>(0x80044000U | static_cast<unsigned>(reason & 0xFFF));
}

void connectTo(RawServer const& server, KVX_Connection& connection) {
    sockaddr_in address = addressOf(server);
    ASSERT_EQ(connection.Connect(generic(address)), KVX_OK);
}

void connectSecurely(RawServer const& server, SslConnection& connection) {
    connectTo(server, connection);
    ASSERT_EQ(connection.Setup(), KVX_OK);
}

/// Connects, fails in the handshake, and returns the code; `output` receives the printed text.
std::int32_t failedSetup(RawServer const& server, std::string& output) {
    SslConnection connection;
    connectTo(server, connection);
    CapturedOutput printed;
    std::int32_t const code = connection.Setup();
    output = printed.text();
    EXPECT_EQ(connection.LastError(), code);
    endConnection(connection);
    return code;
}

TEST(SslConnection, StartsWithoutASocket) {
    SslConnection connection;
    EXPECT_EQ(connection.Detach(), -1);
}

TEST(SslConnection, ExchangesBytesInEveryProtocolVersion) {
    for (int const version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        TlsServer server("answer", TlsOptions{version, true});
        SslConnection connection;
        connectSecurely(server, connection);
        TbStringStream request("hello\r\n\r\n");
        EXPECT_EQ(connection.Write(request), 0);  // not the number of bytes
        TbStringStream answer("before ");
        EXPECT_EQ(connection.Read(answer), 6);
        EXPECT_EQ(connection.Read(answer), 0);  // closed without a notification
        EXPECT_EQ(connection.Read(answer), 0);
        endConnection(connection);
        EXPECT_EQ(bytesOf(answer), "before answer");
        EXPECT_EQ(server.records(), std::vector<std::string>{"hello\r\n\r\n"});
    }
}

TEST(SslConnection, TracesItsUse) {
    TlsServer const server("");
    TraceRecorder const trace;
    SslConnection connection;
    connectSecurely(server, connection);
    ASSERT_EQ(trace.records().size(), 1U);
    TraceRecorder::Record const& record = trace.records().front();
    EXPECT_EQ(record.m_Event, "USE SSL");
    EXPECT_EQ(record.m_Detail, "");
    EXPECT_EQ(record.m_Code, 0);
    EXPECT_EQ(record.m_File, "kvxhttp");
    EXPECT_EQ(record.m_Line, 419);
    endConnection(connection);
}

TEST(SslConnection, EndsAtACloseNotification) {
    TlsServer const server([](Peer& peer) {
        peer.receiveRequest();
        peer.send("answer");
        static_cast<TlsPeer&>(peer).notifyClose();
    });
    SslConnection connection;
    connectSecurely(server, connection);
    TbStringStream request("\r\n\r\n");
    connection.Write(request);
    TbStringStream answer;
    EXPECT_EQ(connection.Read(answer), 6);
    EXPECT_EQ(connection.Read(answer), 0);
    endConnection(connection);
}

TEST(SslConnection, ReadsAtMostOneChunk) {
    TlsServer const server(std::string(3000, 'x'));
    SslConnection connection;
    connectSecurely(server, connection);
    TbStringStream request("\r\n\r\n");
    connection.Write(request);
    TbStringStream answer;
    EXPECT_EQ(connection.Read(answer), 1024);
    EXPECT_EQ(connection.Read(answer), 1024);
    EXPECT_EQ(connection.Read(answer), 952);
    EXPECT_EQ(connection.Read(answer), 0);
    EXPECT_EQ(answer.length(), 3000U);
    endConnection(connection);
}

TEST(SslConnection, SendsZerosForWhatFollowsAZeroByte) {
    TlsServer server([&server](Peer& peer) { server.record(peer.receive()); });
    SslConnection connection;
    connectSecurely(server, connection);
    TbStringStream request(stringOf(std::string("ab\0cd", 5)));
    EXPECT_EQ(connection.Write(request), 0);
    endConnection(connection);
    EXPECT_EQ(server.records(), std::vector<std::string>{std::string("ab\0\0\0", 5)});
}

TEST(SslConnection, AdoptsAConnectedSocket) {
    TlsServer server("answer");
    SockConnection plain;
    connectTo(server, plain);
    SslConnection connection;
    connection.Attach(plain.Detach());
    EXPECT_EQ(plain.Detach(), -1);
    ASSERT_EQ(connection.Setup(), KVX_OK);
    TbStringStream request("\r\n\r\n");
    EXPECT_EQ(connection.Write(request), 0);
    TbStringStream answer;
    EXPECT_EQ(connection.Read(answer), 6);
    endConnection(connection);
}

TEST(SslConnection, GivesItsSocketUpOnce) {
    TlsServer const server("");
    SslConnection connection;
    connectSecurely(server, connection);
    int const socket = connection.Detach();
    EXPECT_NE(socket, -1);
    EXPECT_EQ(::fcntl(socket, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(connection.Detach(), -1);
    ::close(socket);
}

TEST(SslConnection, ReportsARefusedConnection) {
    ClosedPort const nobody;
    sockaddr_in address = addressOf(nobody.text());
    SslConnection connection;
    EXPECT_EQ(static_cast<std::uint32_t>(connection.Connect(generic(address))), 0x8004303DU);
    EXPECT_EQ(static_cast<std::uint32_t>(connection.LastError()), 0x8004303DU);
    endConnection(connection);
}

TEST(SslConnection, ReportsAPeerThatSpeaksNoTls) {
    RawServer const server([](Peer& peer) {
        peer.receive();
        peer.send("HTTP/1.0 400 Bad Request\r\n\r\n");
        peer.finish();
    });
    std::string output;
    EXPECT_EQ(failedSetup(server, output), tlsCode(SSL_R_WRONG_VERSION_NUMBER));
    EXPECT_EQ(output, kFailureLine);
}

TEST(SslConnection, ReportsAnAlertInTheHandshake) {
    RawServer const server([](Peer& peer) {
        TlsPeer const tls(peer, TlsOptions{TLS1_2_VERSION, false});
        peer.finish();
    });
    std::string output;
    EXPECT_EQ(failedSetup(server, output), tlsCode(SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE));
    EXPECT_EQ(output, kFailureLine);
}

TEST(SslConnection, ReportsAResetInTheHandshake) {
    RawServer const server([](Peer& peer) {
        peer.receive();
        peer.reset();
    });
    std::string output;
    EXPECT_EQ(failedSetup(server, output), tlsCode(SSL_ERROR_SYSCALL));
    EXPECT_EQ(output, kFailureLine);
}

TEST(SslConnection, ReportsASetupWithoutASocket) {
    SslConnection connection;
    CapturedOutput printed;
    std::int32_t const code = connection.Setup();
    EXPECT_EQ(printed.text(), kFailureLine);
    EXPECT_EQ(static_cast<std::uint32_t>(code) & 0xFFFFF000U, 0x80044000U);
    EXPECT_NE(static_cast<std::uint32_t>(code) & 0x00000FFFU, 0U);
    connection.Disconnect();
}

struct CleanEnd {
    char const* m_Name;
    RawServer::Script m_Script;
};

std::vector<CleanEnd> cleanEnds() {
    return {
        {"before the client's first message", [](Peer& peer) { peer.finish(); }},
        {"after the client's first message",
         [](Peer& peer) {
             peer.receive();
             peer.finish();
         }},
        {"with a close notification",
         [](Peer& peer) {
             peer.receive();
             peer.send(std::string("\x15\x03\x01\x00\x02\x01\x00", 7));
             peer.finish();
         }},
    };
}

TEST(SslConnection, KeepsTakingACleanEndInTheHandshakeForSuccess) {
    // A peer that does not want to talk says so at the first write or read.
    for (CleanEnd const& end : cleanEnds()) {
        RawServer const server(end.m_Script);
        SslConnection connection;
        connectTo(server, connection);
        CapturedOutput printed;
        EXPECT_EQ(connection.Setup(), KVX_OK) << end.m_Name;
        EXPECT_EQ(printed.text(), "") << end.m_Name;
        TbStringStream text("abc");
        EXPECT_LT(connection.Write(text), 0) << end.m_Name;
        EXPECT_EQ(static_cast<std::uint32_t>(connection.LastError()) & 0xFFFFF000U, 0x80044000U) << end.m_Name;
        EXPECT_LE(connection.Read(text), 0) << end.m_Name;
        EXPECT_EQ(bytesOf(text), "abc") << end.m_Name;
        endConnection(connection);
    }
}

TEST(SslConnection, FailsOnAClosedDirectionWithoutASignal) {
    TlsServer const server([](Peer& peer) { peer.receiveToEnd(); });
    SslConnection connection;
    connectSecurely(server, connection);
    int const socket = connection.Detach();
    ::shutdown(socket, SHUT_WR);
    connection.Attach(socket);
    TbStringStream request("abc");
    EXPECT_EQ(connection.Write(request), tlsCode(SSL_ERROR_SYSCALL));
    EXPECT_EQ(connection.LastError(), tlsCode(SSL_ERROR_SYSCALL));
    EXPECT_FALSE(isSigPipePending());
    EXPECT_FALSE(isSigPipeBlocked());
    endConnection(connection);
}

TEST(SslConnection, LeavesASignalThatWasPendingBeforePending) {
    TlsServer const server([](Peer& peer) { peer.receiveToEnd(); });
    SslConnection connection;
    connectSecurely(server, connection);
    PendingSigPipe const pending;
    int const socket = connection.Detach();
    ::shutdown(socket, SHUT_WR);
    connection.Attach(socket);
    TbStringStream request("abc");
    EXPECT_LT(connection.Write(request), 0);
    EXPECT_TRUE(isSigPipePending());
    EXPECT_TRUE(isSigPipeBlocked());
    endConnection(connection);
}

TEST(SslConnection, IgnoresWhatOthersLeftInTheErrorQueue) {
    TlsServer const server("answer");
    SslConnection connection;
    connectTo(server, connection);
    auto const leaveError = [] { ERR_raise(ERR_LIB_RSA, ERR_R_MALLOC_FAILURE); };
    leaveError();
    EXPECT_EQ(connection.Setup(), KVX_OK);
    leaveError();
    TbStringStream request("\r\n\r\n");
    EXPECT_EQ(connection.Write(request), KVX_OK);
    leaveError();
    TbStringStream answer;
    EXPECT_EQ(connection.Read(answer), 6);
    leaveError();
    EXPECT_EQ(connection.Read(answer), 0);
    endConnection(connection);
    ERR_clear_error();
}

TEST(SslConnection, ReportsTheReasonOfItsOwnFailureOnly) {
    RawServer const server([](Peer& peer) {
        peer.receive();
        peer.reset();
    });
    ERR_raise(ERR_LIB_RSA, ERR_R_MALLOC_FAILURE);
    std::string output;
    EXPECT_EQ(failedSetup(server, output), tlsCode(SSL_ERROR_SYSCALL));
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

/// Leaves an entry in the error queue, as other code on this thread may.
void leaveForeignError() {
    ERR_raise(ERR_LIB_RSA, ERR_R_MALLOC_FAILURE);
}

TEST(SslConnection, StartsWithAnEmptyErrorQueue) {
    leaveForeignError();
    SslConnection const connection;
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST(SslConnection, ReportsItsOwnFailureInTheHandshakeAfterAForeignOne) {
    RawServer const server([](Peer& peer) {
        peer.receive();
        peer.reset();
    });
    SslConnection connection;
    connectTo(server, connection);
    CapturedOutput const silenced;
    leaveForeignError();
    EXPECT_EQ(connection.Setup(), tlsCode(SSL_ERROR_SYSCALL));
    EXPECT_EQ(connection.LastError(), tlsCode(SSL_ERROR_SYSCALL));
    endConnection(connection);
}

TEST(SslConnection, TakesACleanEndAfterAForeignFailureForOne) {
    // The end has no entry of its own in the error queue.
    for (CleanEnd const& end : cleanEnds()) {
        RawServer const server(end.m_Script);
        SslConnection connection;
        connectTo(server, connection);
        CapturedOutput const silenced;
        leaveForeignError();
        EXPECT_EQ(connection.Setup(), KVX_OK) << end.m_Name;
        endConnection(connection);
    }
}

TEST(SslConnection, ReportsItsOwnFailureOfAReadAfterAForeignOne) {
    TlsServer const server("");
    SslConnection connection;
    connectSecurely(server, connection);
    // The session keeps the number, which now stands for something that cannot be read.
    int const socket = connection.Detach();
    int const unreadable = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(unreadable, socket);
    ::close(unreadable);
    connection.Attach(socket);
    leaveForeignError();
    TbStringStream answer;
    EXPECT_EQ(connection.Read(answer), -1);
    EXPECT_EQ(connection.LastError(), tlsCode(SSL_ERROR_SYSCALL));
    endConnection(connection);
}

TEST(SslConnection, ReportsItsOwnFailureOfAWriteAfterAForeignOne) {
    TlsServer const server([](Peer& peer) { peer.receiveToEnd(); });
    SslConnection connection;
    connectSecurely(server, connection);
    int const socket = connection.Detach();
    ::shutdown(socket, SHUT_WR);
    connection.Attach(socket);
    leaveForeignError();
    TbStringStream request("abc");
    EXPECT_EQ(connection.Write(request), tlsCode(SSL_ERROR_SYSCALL));
    EXPECT_EQ(connection.LastError(), tlsCode(SSL_ERROR_SYSCALL));
    endConnection(connection);
}

TEST(SslConnection, UsesSocketErrorsWithoutATlsSession) {
    TlsServer const server("");
    SslConnection connection;
    connectSecurely(server, connection);
    endConnection(connection);
    errno = ECONNREFUSED;
    EXPECT_EQ(static_cast<std::uint32_t>(connection.LastError()), 0x8004303DU);
    EXPECT_EQ(connection.Disconnect(), KVX_OK);  // again, with nothing left to free
    TbStringStream text("abc");
    EXPECT_EQ(connection.Read(text), -1);
    EXPECT_EQ(connection.Write(text), static_cast<std::int32_t>(0x80043039U));
    EXPECT_EQ(bytesOf(text), "abc");
}

TEST(SslConnection, FailsToSetUpWithoutMemoryForTls) {
    for (FailingTls::What const what : {FailingTls::What::kContext, FailingTls::What::kSession}) {
        RawServer const server([](Peer& peer) { peer.finish(); });
        FailingTls const failing(what);
        SslConnection connection;
        connectTo(server, connection);
        CapturedOutput printed;
        errno = ENOMEM;
        EXPECT_EQ(connection.Setup(), KVX_E_SOCKET_FAMILY | ENOMEM);
        EXPECT_EQ(printed.text(), kFailureLine);
        endConnection(connection);
    }
}

TEST(SslConnection, FailsToSetUpWhenTheTlsLibraryDoesNotTakeTheSocket) {
    RawServer const server([](Peer& peer) { EXPECT_EQ(peer.receive(), ""); });
    FailingTls const failing(FailingTls::What::kSocket);
    std::string output;
    EXPECT_EQ(failedSetup(server, output), tlsCode(SSL_ERROR_SSL));
    EXPECT_EQ(output, kFailureLine);
}

TEST(SslConnection, FreesWhatIsLeftWhenDestroyed) {
    TlsServer const server("");
    int socket = -1;
    {
        SslConnection connection;
        connectSecurely(server, connection);
        socket = connection.Detach();
    }
    EXPECT_NE(::fcntl(socket, F_GETFD), -1);
    ::close(socket);
}

TEST(SslConnection, CanBeSetUpAgain) {
    TlsServer server("answer");
    SslConnection connection;
    for (int round = 0; round < 2; ++round) {
        connectSecurely(server, connection);
        TbStringStream request("\r\n\r\n");
        EXPECT_EQ(connection.Write(request), KVX_OK);
        TbStringStream answer;
        EXPECT_EQ(connection.Read(answer), 6);
        ::close(connection.Detach());
    }
}

std::atomic<int> g_Signals{0};

void countSignal(int) {
    ++g_Signals;
}

TEST(SslConnection, GoesOnAfterSignals) {
    // No automatic restart: the read inside the TLS library ends with EINTR when a signal meets it, so each is sent
    // while the reader sleeps.
    struct sigaction counting = {};
    counting.sa_handler = &countSignal;
    struct sigaction before = {};
    ASSERT_EQ(sigaction(SIGUSR1, &counting, &before), 0);
    g_Signals = 0;
    constexpr int kBytes = 10;
    pthread_t const reader = pthread_self();
    pid_t const id = idOfThisThread();
    {
        TlsServer const server([reader, id](Peer& peer) {
            peer.receiveRequest();
            for (int i = 0; i < kBytes; ++i) {
                EXPECT_TRUE(waitUntil([id] { return isBlocked(id); }));
                pthread_kill(reader, SIGUSR1);
                EXPECT_TRUE(waitUntil([i] { return g_Signals > i; }));
                peer.send("x");
            }
        });
        SslConnection connection;
        connectSecurely(server, connection);
        TbStringStream request("\r\n\r\n");
        ASSERT_EQ(connection.Write(request), KVX_OK);
        TbStringStream answer;
        std::int32_t count = 0;
        do {
            count = connection.Read(answer);
        } while (count > 0);
        EXPECT_EQ(count, 0);
        EXPECT_EQ(bytesOf(answer), std::string(kBytes, 'x'));
        endConnection(connection);
    }
    EXPECT_EQ(g_Signals, kBytes);
    sigaction(SIGUSR1, &before, nullptr);
}

}  // namespace
