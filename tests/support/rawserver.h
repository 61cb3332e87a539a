/// A server of scripted bytes on 127.0.0.1, for tests that need a real peer.
///
/// A script runs on the thread of the server, once for each client. Its records are read after the server has ended,
/// so no lock is needed.
#ifndef TALLOWIN_TESTS_SUPPORT_RAWSERVER_H
#define TALLOWIN_TESTS_SUPPORT_RAWSERVER_H

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kvxtest {

/// One accepted connection, on the side of the server. Owns the socket.
class Peer {
public:
    explicit Peer(int socket);
    Peer(Peer const&) = delete;
    Peer& operator=(Peer const&) = delete;
    virtual ~Peer();

    /// The next bytes from the client; empty at its end, on failure, or at the timeout.
    virtual std::string receive();

    /// Sends all. False when the client is gone.
    virtual bool send(std::string_view bytes);

    /// All bytes up to and including the first blank line, or up to the client's end.
    std::string receiveRequest();

    /// All bytes up to the client's end.
    std::string receiveToEnd();

    /// Ends this direction in good order and waits for the client to end the other one.
    void finish();

    /// Drops the connection, so that the client sees it reset.
    void reset();

    /// Closes at once.
    void close();

    [[nodiscard]] int socket() const { return m_Socket; }

private:
    int m_Socket;
};

/// Listens on a free port and plays a script with every client, one client after the other, on a thread of its own.
class RawServer {
public:
    using Script = std::function<void(Peer& peer)>;

    /// Serves clients until it is destroyed.
    explicit RawServer(Script script);

    /// Receives each client's request and sends `response`.
    explicit RawServer(std::string response);

    RawServer(RawServer const&) = delete;
    RawServer& operator=(RawServer const&) = delete;

    /// Serves the clients that have connected, then ends.
    ~RawServer();

    [[nodiscard]] std::uint16_t port() const { return m_Port; }
    [[nodiscard]] std::string portText() const { return std::to_string(m_Port); }

    /// Stores `bytes` for the test; for use by scripts.
    void record(std::string bytes);

    /// Everything recorded; for a server with a fixed response, the requests. Ends the server first.
    std::vector<std::string> const& records();

private:
    void serve();
    void stop();

    Script m_Script;
    int m_Listener = -1;
    int m_Wake[2] = {-1, -1};
    std::uint16_t m_Port = 0;
    std::vector<std::string> m_Records;
    std::thread m_Thread;
};

/// A port of 127.0.0.1 without a listener: connecting to it is refused while this lives.
class ClosedPort {
public:
    ClosedPort();
    ClosedPort(ClosedPort const&) = delete;
    ClosedPort& operator=(ClosedPort const&) = delete;
    ~ClosedPort();

    [[nodiscard]] std::string text() const { return m_Text; }

private:
    int m_Socket;
    std::string m_Text;
};

/// A whole HTTP response with status 200 and `body`.
std::string httpResponse(std::string const& body);

}  // namespace kvxtest

#endif
