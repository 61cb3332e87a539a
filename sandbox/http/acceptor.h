#ifndef TALLOWIN_SANDBOX_HTTP_ACCEPTOR_H
#define TALLOWIN_SANDBOX_HTTP_ACCEPTOR_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sandbox/http/endsignal.h"

namespace sandbox {

/// One port of 127.0.0.1, or of another address, and the connections to it, each served by a thread of its own.
///
/// Unlike the sockets of the HTTP library it can refuse connections for a while without letting go of its port.
class Acceptor {
public:
    using Clock = std::chrono::steady_clock;

    /// Serves one connection; the socket is borrowed. Called by several threads at once. Exceptions are printed to
    /// standard error and end the connection.
    using Serve = std::function<void(int socket)>;

    /// Takes the port (0 picks one) of the IPv4 address; connections wait until start(). Throws std::runtime_error.
    explicit Acceptor(std::uint16_t port, std::string const& address = "127.0.0.1");

    /// Stops.
    ~Acceptor();
    Acceptor(Acceptor const&) = delete;
    Acceptor& operator=(Acceptor const&) = delete;

    [[nodiscard]] std::uint16_t port() const { return m_Port; }

    /// Accepts connections until stop(). Throws std::runtime_error.
    void start(Serve serve);

    /// Refuses connections from now on until `moment`. A moment in the past accepts again. Open connections stay open.
    void refuseUntil(Clock::time_point moment);

    /// Accepts no more connections, raises ending(), and shuts open connections down for reading.
    void beginStop();

    /// As beginStop(), then waits. Connections still open five seconds after the first of these calls are closed.
    void stop();

    /// Raised by beginStop(). Ends waits of threads that serve a connection.
    [[nodiscard]] EndSignal const& ending() const { return m_Ending; }

private:
    void run();
    void listen();
    void shutDownServing(int direction);
    bool awaitClient();
    void serveOne(int socket);
    void joinFinished();
    void wake() const;

    int m_Listener = -1;
    int m_Wake[2] = {-1, -1};  ///< A pipe: what is written to it ends the wait of the thread.
    std::uint16_t m_Port = 0;
    EndSignal m_Ending;
    Serve m_Serve;
    std::thread m_Thread;
    std::mutex m_Mutex;               ///< Guards all below.
    std::condition_variable m_Ended;  ///< A connection has ended.
    Clock::time_point m_RefusesUntil{};
    bool m_Listening = false;
    bool m_Stopping = false;
    Clock::time_point m_CutAt{};           ///< Once it is stopping.
    std::map<int, std::thread> m_Serving;  ///< By socket.
    std::vector<std::thread> m_Finished;   ///< Have served and are to be joined.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_ACCEPTOR_H
