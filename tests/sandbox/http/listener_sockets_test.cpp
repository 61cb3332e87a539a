// A listener and the connections it serves, over loopback sockets. It accepts, refuses and accepts again, keeps
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

using sandbox::Connection;
using sandboxtest::DescriptorLimit;
using sandboxtest::RawConnection;
using Clock = sandbox::Listener::Clock;

constexpr std::chrono::seconds kTimeout{30};

/// A plain one without faults.
class Listener : public sandbox::Listener {
public:
    explicit Listener(std::uint16_t port, std::chrono::milliseconds timeout = kTimeout)
        : sandbox::Listener(port, nullptr, nullptr, timeout, {}) {}

    [[nodiscard]] std::uint16_t port() const { return address().m_Port; }
};

/// Echoes every byte until the peer closes.
void echo(Connection& connection) {
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

bool isServed(Listener const& listener) {
    return isServed(RawConnection(listener.port()));
}

bool isRefused(std::uint16_t port) {
    try {
        RawConnection const connection(port);
        return false;
    } catch (std::runtime_error const&) {
        return true;
    }
}

TEST(Listener, TakesAFreePortOrTheOneThatIsAskedFor) {
    std::uint16_t port = 0;
    {
        Listener listener(0);
        listener.start(&echo);
        port = listener.port();
        EXPECT_NE(port, 0);
        EXPECT_TRUE(isServed(listener));
        EXPECT_THROW(Listener(listener.port()), std::runtime_error);
    }
    EXPECT_TRUE(isRefused(port));
    Listener again(port);
    again.start(&echo);
    EXPECT_TRUE(isServed(again));
}

TEST(Listener, KeepsConnectionsWaitingUntilItStarts) {
    Listener listener(0);
    RawConnection const early(listener.port());
    listener.start(&echo);
    EXPECT_TRUE(isServed(early));
}

TEST(Listener, NeedsNoStart) {
    Listener const listener(0);
    EXPECT_NE(listener.port(), 0);
}

TEST(Listener, RefusesAndAcceptsAgainOnTheSamePort) {
    Listener listener(0);
    listener.start(&echo);
    for (int round = 0; round < 20; ++round) {
        EXPECT_TRUE(isServed(listener)) << round;
        listener.refuseUntil(Clock::time_point::max());
        EXPECT_TRUE(isRefused(listener.port())) << round;
        listener.refuseUntil(Clock::time_point::max());
        EXPECT_TRUE(isRefused(listener.port())) << round;
        listener.refuseUntil({});
    }
    EXPECT_TRUE(isServed(listener));
}

TEST(Listener, RefusesBeforeItStarts) {
    Listener listener(0);
    listener.refuseUntil(Clock::time_point::max());
    EXPECT_TRUE(isRefused(listener.port()));
    listener.start(&echo);
    EXPECT_TRUE(isRefused(listener.port()));
    listener.refuseUntil({});
    EXPECT_TRUE(isServed(listener));
}

TEST(Listener, KeepsConnectionsWhileItRefusesOthers) {
    Listener listener(0);
    listener.start(&echo);
    RawConnection const connection(listener.port());
    EXPECT_TRUE(isServed(connection));
    listener.refuseUntil(Clock::time_point::max());
    EXPECT_TRUE(isServed(connection));
    EXPECT_TRUE(isRefused(listener.port()));
    EXPECT_TRUE(isServed(connection));
}

TEST(Listener, AcceptsAgainByItselfWhenTheTimeHasCome) {
    Listener listener(0);
    listener.start(&echo);
    Clock::time_point const end = Clock::now() + std::chrono::milliseconds(200);
    listener.refuseUntil(end);
    while (isRefused(listener.port())) {
        ASSERT_LT(Clock::now(), end + kTimeout);
        std::this_thread::yield();
    }
    EXPECT_GE(Clock::now(), end);
    EXPECT_TRUE(isServed(listener));
}

TEST(Listener, StopsWhileItRefuses) {
    Listener listener(0);
    listener.start(&echo);
    listener.refuseUntil(Clock::time_point::max());
    auto const begin = Clock::now();
    listener.stop();
    EXPECT_LT(Clock::now() - begin, kTimeout);
    EXPECT_TRUE(isRefused(listener.port()));
    listener.refuseUntil({});
    EXPECT_TRUE(isRefused(listener.port())) << "it has stopped for good";
    listener.stop();
}

using Connections = std::vector<std::unique_ptr<RawConnection>>;

Connections connect(Listener const& listener, std::size_t count) {
    Connections connections;
    while (connections.size() < count) {
        connections.push_back(std::make_unique<RawConnection>(listener.port()));
    }
    return connections;
}

std::ptrdiff_t countThreads() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

TEST(Listener, WatchesThousandsOfSilentClientsWithoutThreads) {
    constexpr std::size_t kMany = 2000;
    DescriptorLimit const limit;
    ASSERT_TRUE(limit.set(2 * kMany + 200));
    Listener listener(0);
    std::ptrdiff_t const before = countThreads();
    listener.start(&echo);
    Connections const silent = connect(listener, kMany);
    for (int round = 0; round < 20; ++round) {
        EXPECT_TRUE(isServed(listener)) << round;
    }
    // One that accepts; a connection may come while the thread of the one before it is not idle yet.
    EXPECT_LE(countThreads() - before, 5);
    for (std::unique_ptr<RawConnection> const& connection : silent) {
        ASSERT_TRUE(isServed(*connection));
        ::shutdown(connection->get(), SHUT_WR);
    }
}

TEST(Listener, ServesHundredsAtOnce) {
    Listener listener(0);
    listener.start(&echo);
    Connections const slow = connect(listener, 300);
    for (int round = 0; round < 3; ++round) {
        for (std::unique_ptr<RawConnection> const& connection : slow) {
            ASSERT_TRUE(isServed(*connection)) << round;
        }
        EXPECT_TRUE(isServed(listener)) << "beside those that go on sending, round " << round;
    }
}

TEST(Listener, EndsTheDirectionOfClientsThatStaySilent) {
    constexpr std::chrono::milliseconds kSilence{100};
    Listener listener(0);
    auto const greet = [](Connection& connection) {
        char piece[1];
        EXPECT_EQ(connection.read(piece, sizeof piece), 0);
        EXPECT_TRUE(connection.write("late", 4));
    };
    listener.start(greet, kSilence);
    auto const begin = Clock::now();
    Connections const silent = connect(listener, 10);
    for (std::unique_ptr<RawConnection> const& connection : silent) {
        EXPECT_EQ(connection->readToEnd(), "late");
    }
    EXPECT_GE(Clock::now() - begin, kSilence);
}

TEST(Listener, ServesClientsThatCloseWithoutAByte) {
    Listener listener(0);
    std::promise<ssize_t> end;
    listener.start([&](Connection& connection) {
        char piece[1];
        end.set_value(connection.read(piece, sizeof piece));
    });
    { RawConnection const gone(listener.port()); }
    std::future<ssize_t> read = end.get_future();
    ASSERT_EQ(read.wait_for(kTimeout), std::future_status::ready);
    EXPECT_EQ(read.get(), 0);
}

TEST(Listener, TakesTheFaultOfAConnectionBeforeItsClientSends) {
    sandbox::FaultRegistry faults;
    sandbox::TlsIdentity const identity;
    sandbox::Listener listener(0, &identity, &faults, kTimeout, {});
    listener.start(&echo);
    faults.arm(sandbox::parseFault("tls-abort"));
    RawConnection const connection(listener.address().m_Port);
    EXPECT_TRUE(kvxtest::waitUntil([&faults] { return faults.armed().empty(); }, kTimeout));
}

TEST(Listener, ReusesThreads) {
    Listener listener(0);
    std::mutex mutex;
    std::set<pid_t> threads;
    listener.start([&](Connection& connection) {
        {
            std::lock_guard<std::mutex> const lock(mutex);
            threads.insert(kvxtest::idOfThisThread());
        }
        echo(connection);
    });
    for (int round = 0; round < 100; ++round) {
        EXPECT_TRUE(isServed(listener));
    }
    listener.stop();
    // A connection may come while the thread of the one before it is not idle yet.
    EXPECT_LE(threads.size(), 10u);
}

TEST(Listener, PausesWithoutDescriptors) {
    constexpr std::chrono::milliseconds kWatched{300};
    Listener listener(0);
    listener.start(&echo);
    RawConnection const earlier(listener.port());
    EXPECT_TRUE(isServed(earlier));
    ::shutdown(earlier.get(), SHUT_WR);
    EXPECT_EQ(earlier.readToEnd(), "") << "no descriptor of it is given back later";
    RawConnection const open(listener.port());
    EXPECT_TRUE(isServed(open));
    DescriptorLimit const limit;
    int const next = ::dup(open.get());
    ::close(next);
    // The next client takes the last descriptor, so none is left for the other end of its connection.
    ASSERT_TRUE(limit.set(static_cast<rlim_t>(next) + 1));
    RawConnection const waiting(listener.port());
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

TEST(Listener, StopsPromptlyWithHundredsOfSilentClients) {
    Listener listener(0);
    listener.start(&echo);
    Connections const silent = connect(listener, 500);
    EXPECT_TRUE(isServed(listener)) << "and so all before it are accepted";
    auto const begin = Clock::now();
    listener.stop();
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(4)) << "those that do not end are cut after five seconds";
    for (std::unique_ptr<RawConnection> const& connection : silent) {
        ASSERT_EQ(connection->readToEnd(), "");
    }
    EXPECT_TRUE(isRefused(listener.port()));
}

TEST(Listener, StopsUnderLoad) {
    constexpr int kClients = 4;
    for (int round = 0; round < 5; ++round) {
        Listener listener(0);
        listener.start(&echo);
        std::atomic<int> served{0};
        std::vector<std::thread> clients;
        for (int number = 0; number < kClients; ++number) {
            clients.emplace_back([&] {
                try {
                    while (isServed(listener)) {
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
        listener.stop();
        for (std::thread& client : clients) {
            client.join();
        }
        EXPECT_TRUE(isRefused(listener.port()));
    }
}

TEST(Listener, LetsWhatIsServedFinish) {
    Listener listener(0);
    std::promise<void> reading;
    listener.start([&](Connection& connection) {
        char piece[1];
        EXPECT_EQ(connection.read(piece, sizeof piece), 1);
        reading.set_value();
        EXPECT_EQ(connection.read(piece, sizeof piece), 0) << "stopping ends the incoming direction";
        EXPECT_TRUE(connection.write("bye", 3));
    });
    RawConnection const connection(listener.port());
    connection.send("x");
    ASSERT_EQ(reading.get_future().wait_for(kTimeout), std::future_status::ready);
    listener.stop();
    EXPECT_EQ(connection.readToEnd(), "bye");
}

TEST(Listener, CutsWhatDoesNotFinish) {
    Listener listener(0);
    std::promise<void> writing;
    listener.start([&](Connection& connection) {
        std::string const piece(1024 * 1024, 'x');
        writing.set_value();
        while (connection.write(piece.data(), piece.size())) {
        }
    });
    RawConnection const connection(listener.port());
    connection.send("x");
    ASSERT_EQ(writing.get_future().wait_for(kTimeout), std::future_status::ready);
    // A client that reads slowly, so that no single write waits for long.
    std::atomic<bool> stopped{false};
    std::thread reader([&] {
        std::string piece(64 * 1024, '\0');
        while (!stopped && ::recv(connection.get(), piece.data(), piece.size(), 0) > 0) {
        }
    });
    listener.stop();
    stopped = true;
    ::shutdown(connection.get(), SHUT_RDWR);
    reader.join();
}

/// Starts a pause of an hour for a client that calls `leave` at once; whether it ends within the timeout.
template <class Leave>
bool endsEarly(void (Connection::*pause)(double) const, Leave leave) {
    Listener listener(0);
    std::promise<void> pausing;
    std::promise<void> over;
    listener.start([&](Connection const& connection) {
        pausing.set_value();
        (connection.*pause)(3600);
        over.set_value();
    });
    RawConnection const connection(listener.port());
    connection.send("x");
    EXPECT_EQ(pausing.get_future().wait_for(kTimeout), std::future_status::ready);
    leave(listener, connection);
    return over.get_future().wait_for(kTimeout) == std::future_status::ready;
}

void stopListener(Listener& listener, RawConnection const& /*connection*/) {
    listener.stop();
}

void endSending(Listener& /*listener*/, RawConnection const& connection) {
    ::shutdown(connection.get(), SHUT_WR);
}

TEST(Connection, PausesUntilTheServiceEnds) {
    EXPECT_TRUE(endsEarly(&Connection::pause, stopListener));
    EXPECT_TRUE(endsEarly(&Connection::pauseWhileConnected, stopListener));
}

TEST(Connection, PausesUntilTheOtherSideLeaves) {
    EXPECT_TRUE(endsEarly(&Connection::pauseWhileConnected, endSending));
}

TEST(Connection, PausesForWhoWaitsForAnAnswerAndSaysNothingMore) {
    Listener listener(0);
    listener.start([&](Connection& connection) {
        char piece[1];
        EXPECT_EQ(connection.read(piece, sizeof piece), 0);
        auto const begin = Clock::now();
        connection.pause(0.05);
        EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(50));
        connection.write("late", 4);
    });
    RawConnection const connection(listener.port());
    ::shutdown(connection.get(), SHUT_WR);
    EXPECT_EQ(connection.readToEnd(), "late");
}

TEST(Connection, DoesNotPauseForEverForWhoMayHaveGone) {
    Listener listener(0, std::chrono::milliseconds(50));
    std::promise<void> over;
    listener.start([&](Connection const& connection) {
        connection.pause(3600);
        over.set_value();
    });
    { RawConnection const gone(listener.port()); }
    EXPECT_EQ(over.get_future().wait_for(kTimeout), std::future_status::ready);
}

TEST(Connection, ReadsNoLongerThanTheTimeoutSinceItWasAccepted) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    sandbox::FileDescriptor const client(ends[0]);
    sandbox::FileDescriptor const server(ends[1]);
    ASSERT_EQ(::send(client.get(), "x", 1, MSG_NOSIGNAL), 1);
    sandbox::EndSignal const never;
    Connection connection(server.get(), nullptr, never, kTimeout, Clock::now() - kTimeout);
    connection.leaveRest();
    auto const begin = Clock::now();
    char piece[1];
    EXPECT_EQ(connection.read(piece, sizeof piece), 1) << "that is there already";
    EXPECT_EQ(connection.read(piece, sizeof piece), -1);
    EXPECT_LT(Clock::now() - begin, Connection::kIoTimeout / 2);
}

TEST(Connection, GivesUpAClientThatNeverComesToAnEnd) {
    Listener listener(0, std::chrono::milliseconds(200));
    std::promise<void> over;
    listener.start([&](Connection& connection) {
        char piece[1];
        while (connection.read(piece, sizeof piece) > 0) {
        }
        over.set_value();
    });
    RawConnection const connection(listener.port());
    auto ended = over.get_future();
    auto const deadline = Clock::now() + kTimeout;
    while (ended.wait_for(std::chrono::milliseconds(5)) != std::future_status::ready && Clock::now() < deadline) {
        ::send(connection.get(), "x", 1, MSG_NOSIGNAL);
    }
    EXPECT_LT(Clock::now(), deadline);
}

}  // namespace
