/// A server of scripted bytes on 127.0.0.1, for tests that need a real peer.
#ifndef TALLOWIN_TESTS_SUPPORT_RAW_SERVER_H
#define TALLOWIN_TESTS_SUPPORT_RAW_SERVER_H

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kvxtest {

/// How long any one wait of the support code may last.
inline constexpr int kPatienceSeconds = 20;

/// One accepted connection, seen from the server. Owns the socket.
class Peer {
public:
    explicit Peer(int socket);
    Peer(Peer const&) = delete;
    Peer& operator=(Peer const&) = delete;
    virtual ~Peer();

    /// Some of what the client sent; empty at its end, on failure, or when patience is over.
    virtual std::string receive();

    /// Sends all. False when the client is gone.
    virtual bool send(std::string_view bytes);

    /// What the client sent, up to and including the first blank line, or up to its end.
    std::string receiveRequest();

    /// What the client sends until its end.
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

    /// Receives each client's request and sends `answer`.
    explicit RawServer(std::string answer);

    RawServer(RawServer const&) = delete;
    RawServer& operator=(RawServer const&) = delete;

    /// Ends the script's last client first.
    ~RawServer();

    [[nodiscard]] std::uint16_t port() const { return m_Port; }
    [[nodiscard]] std::string portText() const { return std::to_string(m_Port); }

    /// Keeps something for the test to look at; for use by scripts.
    void record(std::string bytes);

    /// What has been recorded; of a server with a fixed answer, the requests. Ends the server first.
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

/// A port of 127.0.0.1 that nobody listens on: connecting to it is refused while this lives.
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

}  // namespace kvxtest

#endif
