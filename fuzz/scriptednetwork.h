/// A network without a network: every connect succeeds, and the peer's bytes are given beforehand.
#ifndef TALLOWIN_FUZZ_SCRIPTEDNETWORK_H
#define TALLOWIN_FUZZ_SCRIPTEDNETWORK_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "tests/support/systemcalls.h"

namespace kvxfuzz {

/// The peer of one connection.
struct Peer {
    std::string m_Bytes;
    std::vector<std::size_t> m_Chunks;  ///< Sizes of the chunks it sends, over and over; none: as much as is read.
    int m_Error = 0;                    ///< The error that ends the connection; 0: the peer closes it.
    bool m_IsInterrupted = false;       ///< A signal arrives before each chunk.
    std::size_t m_MaxSend = 0;          ///< Bytes that one send takes at most; 0: all.
};

/// Replaces the system calls for sockets while it lives. One at a time. Names are unknown, addresses are not looked at.
/// The sockets are real ones, connected to nothing.
class ScriptedNetwork {
public:
    ScriptedNetwork();
    ScriptedNetwork(ScriptedNetwork const&) = delete;
    ScriptedNetwork& operator=(ScriptedNetwork const&) = delete;
    ~ScriptedNetwork();

    /// The next connection has this peer. Without one it is refused.
    void add(Peer peer) { m_Peers.push_back(std::move(peer)); }

    /// What was sent on each connection.
    [[nodiscard]] std::vector<std::string> const& sent() const { return m_Sent; }

    /// The chunks that the last connection received.
    [[nodiscard]] std::vector<std::string> const& received() const { return m_Received; }

    /// The same as the library keeps them: the text of each chunk of 1024 bytes up to its first zero byte.
    [[nodiscard]] std::string receivedText() const;

    /// Sockets made and not closed.
    [[nodiscard]] int open() const { return m_Open; }

private:
    static int makeSocket(int domain, int type, int protocol);
    static int connectSocket(int socket, sockaddr const* address, socklen_t length);
    static ssize_t sendBytes(int socket, void const* buffer, std::size_t bytes, int flags);
    static ssize_t receiveBytes(int socket, void* buffer, std::size_t bytes, int flags);
    static int closeFile(int file);
    ssize_t receive(char* buffer, std::size_t bytes);

    static ScriptedNetwork* s_Current;

    kvxtest::SystemCalls m_Calls;
    std::deque<Peer> m_Peers;  ///< Of connections to come.
    Peer m_Peer;               ///< Of the last connection.
    std::size_t m_Position = 0;
    std::size_t m_Chunk = 0;
    bool m_WasInterrupted = false;
    std::vector<std::string> m_Sent;
    std::vector<std::string> m_Received;
    std::vector<int> m_Sockets;
    int m_Open = 0;
};

/// The result code of a connection that ends with `error`.
std::int32_t codeOfSocketError(int error);

/// The body of an HTTP response, or the result code of a client that takes only responses of status 200.
struct ModelResponse {
    explicit ModelResponse(std::string const& text);

    std::int32_t m_Code;
    std::string m_Body;
};

/// A number as C programs read it: white space, a sign, digits. Numbers that do not fit become the nearest that does.
std::int32_t modelNumber(std::string const& text);

}  // namespace kvxfuzz

#endif
