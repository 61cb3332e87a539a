// The acceptor and the connections it serves, over loopback sockets. It accepts, refuses and accepts again, serves
// hundreds at once, and stops under load. The last part tests how a pause in a connection ends. Clients are threads of
// the test.
#include "sandbox/http/acceptor.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "sandbox/http/connection.h"
#include "tests/sandbox/support/rawclient.h"

/// The port under the service: which connections are accepted or refused, and how it stops.
namespace {

using sandbox::Acceptor;
using sandbox::Connection;
using sandboxtest::RawConnection;
using Clock = Acceptor::Clock;

constexpr std::chrono::seconds kTimeout{30};

/// Echoes every byte until the peer closes.
void echo(int socket) {
    sandbox::EndSignal const never;
    Connection connection(socket, nullptr, never, kTimeout);
    char piece[256];
    for (ssize_t count = connection.read(piece, sizeof piece); count > 0;
         count = connection.read(piece, sizeof piece)) {
        connection.write(piece, static_cast<std::size_t>(count));
    }
}

/// Whether `connection` is answered.
bool isServed(RawConnection const& connection) {
    char back = '\0';
    return ::send(connection.get(), "x", 1, MSG_NOSIGNAL) == 1 && ::recv(connection.get(), &back, 1, 0) == 1 &&
           back == 'x';
}

bool isServed(Acceptor const& acceptor) {
    return isServed(RawConnection(acceptor.port()));
}

bool isRefused(std::uint16_t port) {
    try {
        RawConnection const connection(port);
        return false;
    } catch (std::runtime_error const&) {
        return true;
    }
}

TEST(Acceptor, TakesAFreePortOrTheOneThatIsAskedFor) {
    std::uint16_t port = 0;
    {
        Acceptor acceptor(0);
        acceptor.start(&echo);
        port = acceptor.port();
        EXPECT_NE(port, 0);
        EXPECT_TRUE(isServed(acceptor));
        EXPECT_THROW(Acceptor(acceptor.port()), std::runtime_error);
    }
    EXPECT_TRUE(isRefused(port));
    Acceptor again(port);
    again.start(&echo);
    EXPECT_TRUE(isServed(again));
}

TEST(Acceptor, KeepsConnectionsWaitingUntilItStarts) {
    Acceptor acceptor(0);
    RawConnection const early(acceptor.port());
    acceptor.start(&echo);
    EXPECT_TRUE(isServed(early));
}

TEST(Acceptor, NeedsNoStart) {
    Acceptor const acceptor(0);
    EXPECT_NE(acceptor.port(), 0);
}

TEST(Acceptor, RefusesAndAcceptsAgainOnTheSamePort) {
    Acceptor acceptor(0);
    acceptor.start(&echo);
    for (int round = 0; round < 20; ++round) {
        EXPECT_TRUE(isServed(acceptor)) << round;
        acceptor.refuseUntil(Clock::time_point::max());
        EXPECT_TRUE(isRefused(acceptor.port())) << round;
        acceptor.refuseUntil(Clock::time_point::max());
        EXPECT_TRUE(isRefused(acceptor.port())) << round;
        acceptor.refuseUntil({});
    }
    EXPECT_TRUE(isServed(acceptor));
}

TEST(Acceptor, RefusesBeforeItStarts) {
    Acceptor acceptor(0);
    acceptor.refuseUntil(Clock::time_point::max());
    EXPECT_TRUE(isRefused(acceptor.port()));
    acceptor.start(&echo);
    EXPECT_TRUE(isRefused(acceptor.port()));
    acceptor.refuseUntil({});
    EXPECT_TRUE(isServed(acceptor));
}

TEST(Acceptor, KeepsConnectionsWhileItRefusesOthers) {
    Acceptor acceptor(0);
    acceptor.start(&echo);
    RawConnection const connection(acceptor.port());
    EXPECT_TRUE(isServed(connection));
    acceptor.refuseUntil(Clock::time_point::max());
    EXPECT_TRUE(isServed(connection));
    EXPECT_TRUE(isRefused(acceptor.port()));
    EXPECT_TRUE(isServed(connection));
}

TEST(Acceptor, AcceptsAgainByItselfWhenTheTimeHasCome) {
    Acceptor acceptor(0);
    acceptor.start(&echo);
    Clock::time_point const end = Clock::now() + std::chrono::milliseconds(200);
    acceptor.refuseUntil(end);
    while (isRefused(acceptor.port())) {
        ASSERT_LT(Clock::now(), end + kTimeout);
        std::this_thread::yield();
    }
    EXPECT_GE(Clock::now(), end);
    EXPECT_TRUE(isServed(acceptor));
}

TEST(Acceptor, StopsWhileItRefuses) {
    Acceptor acceptor(0);
    acceptor.start(&echo);
    acceptor.refuseUntil(Clock::time_point::max());
    auto const begin = Clock::now();
    acceptor.stop();
    EXPECT_LT(Clock::now() - begin, kTimeout);
    EXPECT_TRUE(isRefused(acceptor.port()));
    acceptor.refuseUntil({});
    EXPECT_TRUE(isRefused(acceptor.port())) << "it has stopped for good";
    acceptor.stop();
}

/// More connections than threads; the rest waits in the listen queue.
std::vector<std::unique_ptr<RawConnection>> connectHundreds(Acceptor const& acceptor) {
    constexpr std::size_t kMany = 300;
    std::vector<std::unique_ptr<RawConnection>> connections;
    for (std::size_t number = 0; number < kMany; ++number) {
        connections.push_back(std::make_unique<RawConnection>(acceptor.port()));
    }
    return connections;
}

TEST(Acceptor, ServesHundredsAtOnce) {
    Acceptor acceptor(0);
    acceptor.start(&echo);
    std::vector<std::unique_ptr<RawConnection>> connections = connectHundreds(acceptor);
    for (std::unique_ptr<RawConnection>& connection : connections) {
        EXPECT_TRUE(isServed(*connection));
        connection.reset();
    }
}

TEST(Acceptor, StopsWithHundredsAtOnce) {
    Acceptor acceptor(0);
    acceptor.start(&echo);
    std::vector<std::unique_ptr<RawConnection>> const connections = connectHundreds(acceptor);
    auto const begin = Clock::now();
    acceptor.stop();
    EXPECT_LT(Clock::now() - begin, 2 * kTimeout);
    EXPECT_TRUE(isRefused(acceptor.port()));
}

TEST(Acceptor, StopsUnderLoad) {
    constexpr int kClients = 4;
    for (int round = 0; round < 5; ++round) {
        Acceptor acceptor(0);
        acceptor.start(&echo);
        std::atomic<int> served{0};
        std::vector<std::thread> clients;
        for (int number = 0; number < kClients; ++number) {
            clients.emplace_back([&] {
                try {
                    while (isServed(acceptor)) {
                        ++served;
                    }
                } catch (std::runtime_error const&) {
                    // The port is closed.
                }
            });
        }
        auto const begin = Clock::now();
        while (served < 10 * kClients && Clock::now() - begin < kTimeout) {
            std::this_thread::yield();
        }
        EXPECT_GE(served, 10 * kClients);
        acceptor.stop();
        for (std::thread& client : clients) {
            client.join();
        }
        EXPECT_TRUE(isRefused(acceptor.port()));
    }
}

TEST(Acceptor, LetsWhatIsServedFinish) {
    Acceptor acceptor(0);
    std::promise<void> reading;
    acceptor.start([&](int socket) {
        Connection connection(socket, nullptr, acceptor.ending(), kTimeout);
        char piece[1];
        reading.set_value();
        EXPECT_EQ(connection.read(piece, sizeof piece), 0) << "stopping ends the incoming direction";
        EXPECT_TRUE(connection.write("bye", 3));
    });
    RawConnection const connection(acceptor.port());
    ASSERT_EQ(reading.get_future().wait_for(kTimeout), std::future_status::ready);
    acceptor.stop();
    EXPECT_EQ(connection.readToEnd(), "bye");
}

TEST(Acceptor, CutsWhatDoesNotFinish) {
    Acceptor acceptor(0);
    std::promise<void> writing;
    acceptor.start([&](int socket) {
        Connection connection(socket, nullptr, acceptor.ending(), kTimeout);
        std::string const piece(1024 * 1024, 'x');
        writing.set_value();
        while (connection.write(piece.data(), piece.size())) {
        }
    });
    RawConnection const connection(acceptor.port());
    ASSERT_EQ(writing.get_future().wait_for(kTimeout), std::future_status::ready);
    // A client that reads slowly, so that no single write waits for long.
    std::atomic<bool> stopped{false};
    std::thread reader([&] {
        std::string piece(64 * 1024, '\0');
        while (!stopped && ::recv(connection.get(), piece.data(), piece.size(), 0) > 0) {
        }
    });
    acceptor.stop();
    stopped = true;
    ::shutdown(connection.get(), SHUT_RDWR);
    reader.join();
}

/// Starts a pause of an hour for a client that calls `leave` at once; whether it ends within the timeout.
template <class Leave>
bool endsEarly(void (Connection::*pause)(double) const, Leave leave) {
    Acceptor acceptor(0);
    std::promise<void> pausing;
    std::promise<void> over;
    acceptor.start([&](int socket) {
        Connection const connection(socket, nullptr, acceptor.ending(), kTimeout);
        pausing.set_value();
        (connection.*pause)(3600);
        over.set_value();
    });
    RawConnection const connection(acceptor.port());
    EXPECT_EQ(pausing.get_future().wait_for(kTimeout), std::future_status::ready);
    leave(acceptor, connection);
    return over.get_future().wait_for(kTimeout) == std::future_status::ready;
}

void stopAcceptor(Acceptor& acceptor, RawConnection const& /*connection*/) {
    acceptor.stop();
}

void endSending(Acceptor& /*acceptor*/, RawConnection const& connection) {
    ::shutdown(connection.get(), SHUT_WR);
}

TEST(Connection, PausesUntilTheServiceEnds) {
    EXPECT_TRUE(endsEarly(&Connection::pause, stopAcceptor));
    EXPECT_TRUE(endsEarly(&Connection::pauseWhileConnected, stopAcceptor));
}

TEST(Connection, PausesUntilTheOtherSideLeaves) {
    EXPECT_TRUE(endsEarly(&Connection::pauseWhileConnected, endSending));
}

TEST(Connection, PausesForWhoWaitsForAnAnswerAndSaysNothingMore) {
    Acceptor acceptor(0);
    acceptor.start([&](int socket) {
        Connection connection(socket, nullptr, acceptor.ending(), kTimeout);
        char piece[1];
        EXPECT_EQ(connection.read(piece, sizeof piece), 0);
        auto const begin = Clock::now();
        connection.pause(0.05);
        EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(50));
        connection.write("late", 4);
    });
    RawConnection const connection(acceptor.port());
    ::shutdown(connection.get(), SHUT_WR);
    EXPECT_EQ(connection.readToEnd(), "late");
}

TEST(Connection, DoesNotPauseForEverForWhoMayHaveGone) {
    Acceptor acceptor(0);
    std::promise<void> over;
    acceptor.start([&](int socket) {
        Connection const connection(socket, nullptr, acceptor.ending(), std::chrono::milliseconds(50));
        connection.pause(3600);
        over.set_value();
    });
    { RawConnection const gone(acceptor.port()); }
    EXPECT_EQ(over.get_future().wait_for(kTimeout), std::future_status::ready);
}

TEST(Connection, GivesUpAClientThatNeverComesToAnEnd) {
    Acceptor acceptor(0);
    std::promise<void> over;
    acceptor.start([&](int socket) {
        Connection connection(socket, nullptr, acceptor.ending(), std::chrono::milliseconds(200));
        char piece[1];
        while (connection.read(piece, sizeof piece) > 0) {
        }
        over.set_value();
    });
    RawConnection const connection(acceptor.port());
    auto ended = over.get_future();
    auto const deadline = Clock::now() + kTimeout;
    while (ended.wait_for(std::chrono::milliseconds(5)) != std::future_status::ready && Clock::now() < deadline) {
        ::send(connection.get(), "x", 1, MSG_NOSIGNAL);
    }
    EXPECT_LT(Clock::now(), deadline);
}

}  // namespace
