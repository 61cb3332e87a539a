// The acceptor and the connections it serves, over loopback sockets. It accepts, refuses and accepts again, keeps
// thousands of silent clients without a thread, serves hundreds at once, and stops under load. The last part tests how
// a pause in a connection ends. Clients are threads of the test.
#include "sandbox/http/listener.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "sandbox/http/connection.h"
#include "tests/sandbox/support/descriptorlimit.h"
#include "tests/sandbox/support/rawclient.h"
#include "tests/support/waiting.h"

/// The port under the service: which connections are accepted or refused, and how it stops.
namespace {

using sandbox::Acceptor;
using sandbox::Connection;
using sandboxtest::DescriptorLimit;
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

/// Starts with the same server for all connections.
void start(Acceptor& acceptor, Acceptor::Serve const& serve, Clock::duration silence = kTimeout) {
    acceptor.start([serve] { return serve; }, silence);
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
        start(acceptor, &echo);
        port = acceptor.port();
        EXPECT_NE(port, 0);
        EXPECT_TRUE(isServed(acceptor));
        EXPECT_THROW(Acceptor(acceptor.port()), std::runtime_error);
    }
    EXPECT_TRUE(isRefused(port));
    Acceptor again(port);
    start(again, &echo);
    EXPECT_TRUE(isServed(again));
}

TEST(Acceptor, KeepsConnectionsWaitingUntilItStarts) {
    Acceptor acceptor(0);
    RawConnection const early(acceptor.port());
    start(acceptor, &echo);
    EXPECT_TRUE(isServed(early));
}

TEST(Acceptor, NeedsNoStart) {
    Acceptor const acceptor(0);
    EXPECT_NE(acceptor.port(), 0);
}

TEST(Acceptor, RefusesAndAcceptsAgainOnTheSamePort) {
    Acceptor acceptor(0);
    start(acceptor, &echo);
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
    start(acceptor, &echo);
    EXPECT_TRUE(isRefused(acceptor.port()));
    acceptor.refuseUntil({});
    EXPECT_TRUE(isServed(acceptor));
}

TEST(Acceptor, KeepsConnectionsWhileItRefusesOthers) {
    Acceptor acceptor(0);
    start(acceptor, &echo);
    RawConnection const connection(acceptor.port());
    EXPECT_TRUE(isServed(connection));
    acceptor.refuseUntil(Clock::time_point::max());
    EXPECT_TRUE(isServed(connection));
    EXPECT_TRUE(isRefused(acceptor.port()));
    EXPECT_TRUE(isServed(connection));
}

TEST(Acceptor, AcceptsAgainByItselfWhenTheTimeHasCome) {
    Acceptor acceptor(0);
    start(acceptor, &echo);
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
    start(acceptor, &echo);
    acceptor.refuseUntil(Clock::time_point::max());
    auto const begin = Clock::now();
    acceptor.stop();
    EXPECT_LT(Clock::now() - begin, kTimeout);
    EXPECT_TRUE(isRefused(acceptor.port()));
    acceptor.refuseUntil({});
    EXPECT_TRUE(isRefused(acceptor.port())) << "it has stopped for good";
    acceptor.stop();
}

using Connections = std::vector<std::unique_ptr<RawConnection>>;

Connections connect(Acceptor const& acceptor, std::size_t count) {
    Connections connections;
    while (connections.size() < count) {
        connections.push_back(std::make_unique<RawConnection>(acceptor.port()));
    }
    return connections;
}

std::ptrdiff_t countThreads() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

TEST(Acceptor, WatchesThousandsOfSilentClientsWithoutThreads) {
    constexpr std::size_t kMany = 2000;
    DescriptorLimit const limit;
    ASSERT_TRUE(limit.set(2 * kMany + 200));
    Acceptor acceptor(0);
    std::ptrdiff_t const before = countThreads();
    start(acceptor, &echo);
    Connections const silent = connect(acceptor, kMany);
    for (int round = 0; round < 20; ++round) {
        EXPECT_TRUE(isServed(acceptor)) << round;
    }
    // One that accepts; a connection may come while the thread of the one before it is not idle yet.
    EXPECT_LE(countThreads() - before, 5);
    for (std::unique_ptr<RawConnection> const& connection : silent) {
        ASSERT_TRUE(isServed(*connection));
        ::shutdown(connection->get(), SHUT_WR);
    }
}

TEST(Acceptor, ServesHundredsAtOnce) {
    Acceptor acceptor(0);
    start(acceptor, &echo);
    Connections const slow = connect(acceptor, 300);
    for (int round = 0; round < 3; ++round) {
        for (std::unique_ptr<RawConnection> const& connection : slow) {
            ASSERT_TRUE(isServed(*connection)) << round;
        }
        EXPECT_TRUE(isServed(acceptor)) << "beside those that go on sending, round " << round;
    }
}

TEST(Acceptor, EndsTheDirectionOfClientsThatStaySilent) {
    constexpr std::chrono::milliseconds kSilence{100};
    Acceptor acceptor(0);
    auto const greet = [](int socket) {
        char piece[1];
        EXPECT_EQ(::recv(socket, piece, sizeof piece, 0), 0);
        EXPECT_EQ(::send(socket, "late", 4, MSG_NOSIGNAL), 4);
    };
    start(acceptor, greet, kSilence);
    auto const begin = Clock::now();
    Connections const silent = connect(acceptor, 10);
    for (std::unique_ptr<RawConnection> const& connection : silent) {
        EXPECT_EQ(connection->readToEnd(), "late");
    }
    EXPECT_GE(Clock::now() - begin, kSilence);
}

TEST(Acceptor, ServesClientsThatCloseWithoutAByte) {
    Acceptor acceptor(0);
    std::promise<ssize_t> end;
    start(acceptor, [&](int socket) {
        char piece[1];
        end.set_value(::recv(socket, piece, sizeof piece, 0));
    });
    { RawConnection const gone(acceptor.port()); }
    std::future<ssize_t> read = end.get_future();
    ASSERT_EQ(read.wait_for(kTimeout), std::future_status::ready);
    EXPECT_EQ(read.get(), 0);
}

TEST(Acceptor, AdmitsConnectionsBeforeTheirClientsSend) {
    Acceptor acceptor(0);
    std::promise<void> admitted;
    acceptor.start(
        [&]() -> Acceptor::Serve {
            admitted.set_value();
            return &echo;
        },
        kTimeout);
    RawConnection const connection(acceptor.port());
    EXPECT_EQ(admitted.get_future().wait_for(kTimeout), std::future_status::ready);
    EXPECT_TRUE(isServed(connection));
}

TEST(Acceptor, ReusesThreads) {
    Acceptor acceptor(0);
    std::mutex mutex;
    std::set<pid_t> threads;
    start(acceptor, [&](int socket) {
        {
            std::lock_guard<std::mutex> const lock(mutex);
            threads.insert(kvxtest::idOfThisThread());
        }
        echo(socket);
    });
    for (int round = 0; round < 100; ++round) {
        EXPECT_TRUE(isServed(acceptor));
    }
    acceptor.stop();
    // A connection may come while the thread of the one before it is not idle yet.
    EXPECT_LE(threads.size(), 10u);
}

TEST(Acceptor, PausesWithoutDescriptors) {
    constexpr std::chrono::milliseconds kWatched{300};
    Acceptor acceptor(0);
    start(acceptor, &echo);
    RawConnection const earlier(acceptor.port());
    EXPECT_TRUE(isServed(earlier));
    ::shutdown(earlier.get(), SHUT_WR);
    EXPECT_EQ(earlier.readToEnd(), "") << "no descriptor of it is given back later";
    RawConnection const open(acceptor.port());
    EXPECT_TRUE(isServed(open));
    DescriptorLimit const limit;
    int const next = ::dup(open.get());
    ::close(next);
    // The next client takes the last descriptor, so none is left for the other end of its connection.
    ASSERT_TRUE(limit.set(static_cast<rlim_t>(next) + 1));
    RawConnection const waiting(acceptor.port());
    timeval const timeout{0, std::chrono::microseconds(kWatched).count()};
    ::setsockopt(waiting.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    std::clock_t const before = std::clock();
    EXPECT_FALSE(isServed(waiting));
    EXPECT_LT(std::chrono::duration<double>(static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC), kWatched / 3)
        << "it tries again all the time";
    EXPECT_TRUE(isServed(open));
    ASSERT_TRUE(limit.set(static_cast<rlim_t>(next) + 100));
    timeval const longer{kTimeout.count(), 0};
    ::setsockopt(waiting.get(), SOL_SOCKET, SO_RCVTIMEO, &longer, sizeof longer);
    EXPECT_TRUE(isServed(waiting));
}

TEST(Acceptor, StopsPromptlyWithHundredsOfSilentClients) {
    Acceptor acceptor(0);
    start(acceptor, &echo);
    Connections const silent = connect(acceptor, 500);
    EXPECT_TRUE(isServed(acceptor)) << "and so all before it are accepted";
    auto const begin = Clock::now();
    acceptor.stop();
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(4)) << "those that do not end are cut after five seconds";
    for (std::unique_ptr<RawConnection> const& connection : silent) {
        ASSERT_EQ(connection->readToEnd(), "");
    }
    EXPECT_TRUE(isRefused(acceptor.port()));
}

TEST(Acceptor, StopsUnderLoad) {
    constexpr int kClients = 4;
    for (int round = 0; round < 5; ++round) {
        Acceptor acceptor(0);
        start(acceptor, &echo);
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
    start(acceptor, [&](int socket) {
        Connection connection(socket, nullptr, acceptor.ending(), kTimeout);
        char piece[1];
        EXPECT_EQ(connection.read(piece, sizeof piece), 1);
        reading.set_value();
        EXPECT_EQ(connection.read(piece, sizeof piece), 0) << "stopping ends the incoming direction";
        EXPECT_TRUE(connection.write("bye", 3));
    });
    RawConnection const connection(acceptor.port());
    connection.send("x");
    ASSERT_EQ(reading.get_future().wait_for(kTimeout), std::future_status::ready);
    acceptor.stop();
    EXPECT_EQ(connection.readToEnd(), "bye");
}

TEST(Acceptor, CutsWhatDoesNotFinish) {
    Acceptor acceptor(0);
    std::promise<void> writing;
    start(acceptor, [&](int socket) {
        Connection connection(socket, nullptr, acceptor.ending(), kTimeout);
        std::string const piece(1024 * 1024, 'x');
        writing.set_value();
        while (connection.write(piece.data(), piece.size())) {
        }
    });
    RawConnection const connection(acceptor.port());
    connection.send("x");
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
    start(acceptor, [&](int socket) {
        Connection const connection(socket, nullptr, acceptor.ending(), kTimeout);
        pausing.set_value();
        (connection.*pause)(3600);
        over.set_value();
    });
    RawConnection const connection(acceptor.port());
    connection.send("x");
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
    start(acceptor, [&](int socket) {
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
    start(acceptor, [&](int socket) {
        Connection const connection(socket, nullptr, acceptor.ending(), std::chrono::milliseconds(50));
        connection.pause(3600);
        over.set_value();
    });
    { RawConnection const gone(acceptor.port()); }
    EXPECT_EQ(over.get_future().wait_for(kTimeout), std::future_status::ready);
}

TEST(Connection, ReadsNoLongerThanTheTimeoutSinceItWasAccepted) {
    Acceptor acceptor(0);
    std::promise<void> over;
    acceptor.start(
        [&]() -> Acceptor::Serve {
            return [&, accepted = Clock::now() - kTimeout](int socket) {
                Connection connection(socket, nullptr, acceptor.ending(), kTimeout, accepted);
                char piece[1];
                EXPECT_EQ(connection.read(piece, sizeof piece), 1) << "that is there already";
                EXPECT_EQ(connection.read(piece, sizeof piece), -1);
                over.set_value();
            };
        },
        kTimeout);
    RawConnection const connection(acceptor.port());
    connection.send("x");
    EXPECT_EQ(over.get_future().wait_for(Connection::kIoTimeout / 2), std::future_status::ready);
}

TEST(Connection, GivesUpAClientThatNeverComesToAnEnd) {
    Acceptor acceptor(0);
    std::promise<void> over;
    start(acceptor, [&](int socket) {
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
