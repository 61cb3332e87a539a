// One connection, plain and TLS: connect, read, write, disconnect, and the errors of sockets.
//
// The peer is a scripted server, or a port without a listener. Odd: a broken connection must not raise SIGPIPE,
// whatever the signal mask of the caller.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>

#include <csignal>
#include <cstring>

#include "net/kvxhttp.h"
#include "tests/net/netsupport.h"
#include "tests/support/allocations.h"
#include "tests/support/tbtext.h"
#include "tests/support/waiting.h"

using namespace kvxtest;

namespace {

/// Connects to `server`; fails the test when that does not work.
void connectTo(RawServer const& server, KVX_Connection& connection) {
    sockaddr_in address = addressOf(server);
    ASSERT_EQ(connection.Connect(generic(address)), KVX_OK);
}

/// Waits until the client's side has noticed that the peer is gone.
void waitForEnd(KVX_Connection& connection) {
    int const socket = connection.Detach();
    pollfd waiting = {socket, POLLIN, 0};
    ASSERT_EQ(::poll(&waiting, 1, static_cast<int>(std::chrono::milliseconds(kTimeout).count())), 1);
    connection.Attach(socket);
}

TEST(SockConnection, StartsWithoutASocket) {
    SockConnection connection;
    EXPECT_EQ(connection.Detach(), -1);
}

TEST(SockConnection, ExchangesBytes) {
    RawServer server("answer");
    SockConnection connection;
    connectTo(server, connection);
    EXPECT_EQ(connection.Setup(), KVX_OK);
    TbStringStream request("hello\r\n\r\n");
    EXPECT_EQ(connection.Write(request), 9);
    TbStringStream answer("before ");
    EXPECT_EQ(connection.Read(answer), 6);
    EXPECT_EQ(connection.Read(answer), 0);
    endConnection(connection);
    EXPECT_EQ(bytesOf(answer), "before answer");
    EXPECT_EQ(server.records(), std::vector<std::string>{"hello\r\n\r\n"});
}

TEST(SockConnection, ReadsAtMostOneChunk) {
    RawServer server(std::string(3000, 'x'));
    SockConnection connection;
    connectTo(server, connection);
    TbStringStream request("\r\n\r\n");
    connection.Write(request);
    TbStringStream answer;
    std::int32_t total = 0;
    for (std::int32_t count = connection.Read(answer); count != 0; count = connection.Read(answer)) {
        ASSERT_GT(count, 0);
        EXPECT_LE(count, 1024);
        total += count;
        EXPECT_EQ(answer.length(), static_cast<std::uint32_t>(total));
    }
    EXPECT_EQ(total, 3000);
    endConnection(connection);
}

TEST(SockConnection, ReadsNothingFromAPeerThatClosesAtOnce) {
    RawServer const server([](Peer& peer) { peer.close(); });
    SockConnection connection;
    connectTo(server, connection);
    TbStringStream answer;
    EXPECT_EQ(connection.Read(answer), 0);
    EXPECT_EQ(answer.length(), 0U);
    endConnection(connection);
}

TEST(SockConnection, SendsZerosForWhatFollowsAZeroByte) {
    RawServer server([&server](Peer& peer) { server.record(peer.receiveToEnd()); });
    SockConnection connection;
    connectTo(server, connection);
    TbStringStream request(stringOf(std::string("ab\0cd", 5)));
    EXPECT_EQ(connection.Write(request), 5);
    endConnection(connection);
    EXPECT_EQ(server.records(), std::vector<std::string>{std::string("ab\0\0\0", 5)});
}

TEST(SockConnection, WritesTheWholeTextWhateverHasBeenRead) {
    RawServer server([&server](Peer& peer) { server.record(peer.receiveToEnd()); });
    SockConnection connection;
    connectTo(server, connection);
    TbStringStream request("abc");
    char skipped = '\0';
    request.get(skipped);
    EXPECT_EQ(connection.Write(request), 3);
    endConnection(connection);
    EXPECT_EQ(server.records(), std::vector<std::string>{"abc"});
}

TEST(SockConnection, GivesItsSocketUpOnce) {
    RawServer const server("");
    SockConnection connection;
    connectTo(server, connection);
    int const socket = connection.Detach();
    EXPECT_NE(socket, -1);
    EXPECT_EQ(connection.Detach(), -1);
    connection.Attach(socket);
    EXPECT_EQ(connection.Detach(), socket);
    ::close(socket);
}

TEST(SockConnection, KeepsTheSocketOpenWhenDestroyed) {
    // A caller that wants the socket closed takes it first.
    RawServer const server("");
    int socket = -1;
    {
        SockConnection connection;
        connectTo(server, connection);
        socket = connection.Detach();
        connection.Attach(socket);
    }
    EXPECT_NE(::fcntl(socket, F_GETFD), -1);
    ::close(socket);
}

TEST(SockConnection, DisconnectEndsTheSendingDirectionAlone) {
    RawServer const server([](Peer& peer) {
        std::string const all = peer.receiveToEnd();
        peer.send("got " + all);
    });
    SockConnection connection;
    connectTo(server, connection);
    TbStringStream request("abc");
    connection.Write(request);
    EXPECT_EQ(connection.Disconnect(), KVX_OK);
    TbStringStream answer;
    EXPECT_EQ(connection.Read(answer), 7);
    EXPECT_EQ(bytesOf(answer), "got abc");
    endConnection(connection);
}

TEST(SockConnection, ClosesItsSocketInProgramsThatAreStarted) {
    RawServer const server("");
    SockConnection connection;
    connectTo(server, connection);
    int const socket = connection.Detach();
    EXPECT_EQ(::fcntl(socket, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    ::close(socket);
}

TEST(SockConnection, ReportsARefusedConnection) {
    ClosedPort const nobody;
    sockaddr_in address = addressOf(nobody.text());
    SockConnection connection;
    EXPECT_EQ(static_cast<std::uint32_t>(connection.Connect(generic(address))), 0x8004303DU);
    EXPECT_EQ(static_cast<std::uint32_t>(connection.LastError()), 0x8004303DU);
    endConnection(connection);
}

TEST(SockConnection, FailsOnAClosedPeerWithoutASignal) {
    RawServer const server([](Peer& peer) { peer.reset(); });
    SockConnection connection;
    connectTo(server, connection);
    waitForEnd(connection);
    TbStringStream request("abc");
    EXPECT_EQ(connection.Write(request), -1);
    // The first write took the news; this one meets the closed pipe.
    EXPECT_EQ(connection.Write(request), -1);
    EXPECT_EQ(connection.LastError(), KVX_E_SOCKET_FAMILY | EPIPE);
    EXPECT_FALSE(isSigPipePending());
    EXPECT_FALSE(isSigPipeBlocked());
    endConnection(connection);
}

TEST(SockConnection, FailsOnItsOwnClosedDirectionWithoutASignal) {
    RawServer const server([](Peer& peer) { peer.finish(); });
    SockConnection connection;
    connectTo(server, connection);
    connection.Disconnect();
    TbStringStream request("abc");
    EXPECT_EQ(connection.Write(request), -1);
    EXPECT_EQ(connection.LastError(), KVX_E_SOCKET_FAMILY | EPIPE);
    EXPECT_FALSE(isSigPipePending());
    EXPECT_FALSE(isSigPipeBlocked());
    endConnection(connection);
}

TEST(SockConnection, LeavesASignalThatWasPendingBeforePending) {
    PendingSigPipe const pending;
    RawServer const server([](Peer& peer) { peer.finish(); });
    SockConnection connection;
    connectTo(server, connection);
    connection.Disconnect();
    TbStringStream request("abc");
    EXPECT_EQ(connection.Write(request), -1);
    EXPECT_TRUE(isSigPipePending());
    EXPECT_TRUE(isSigPipeBlocked());
    endConnection(connection);
}

TEST(SockConnection, FailsWithoutASocket) {
    SockConnection connection;
    TbStringStream text("abc");
    EXPECT_EQ(connection.Write(text), -1);
    EXPECT_EQ(connection.LastError(), KVX_E_SOCKET_FAMILY | EBADF);
    EXPECT_EQ(connection.Read(text), -1);
    EXPECT_EQ(connection.LastError(), KVX_E_SOCKET_FAMILY | EBADF);
    EXPECT_EQ(bytesOf(text), "abc");
    EXPECT_EQ(connection.Disconnect(), KVX_OK);
}

TEST(SockConnection, IsDestroyedThroughItsBase) {
    KVX_Connection* const connection = new SockConnection;
    delete connection;
}

TEST(SockConnection, IsAllocatedThroughTheLibrary) {
    survivesEveryFailingAllocation([] { delete new SockConnection; });
    survivesEveryFailingAllocation([] { delete new SslConnection; });
}

}  // namespace
