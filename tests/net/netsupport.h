/// What the tests of the network layer share. Linking it also holds every test of the program to leaving no descriptor
/// open.
#ifndef TALLOWIN_TESTS_NET_NETSUPPORT_H
#define TALLOWIN_TESTS_NET_NETSUPPORT_H

#include <netinet/in.h>
#include <signal.h>

#include <deque>
#include <string>
#include <vector>

#include "net/kvxhttp.h"
#include "tests/support/fetch.h"
#include "tests/support/rawserver.h"

namespace kvxtest {

/// Captures standard output, or standard error, while it lives.
class CapturedOutput {
public:
    enum class Stream { kOutput, kError };
    explicit CapturedOutput(Stream stream = Stream::kOutput);
    CapturedOutput(CapturedOutput const&) = delete;
    CapturedOutput& operator=(CapturedOutput const&) = delete;
    ~CapturedOutput();

    /// Ends the capture and returns all bytes. Those still in the stream's buffer are not part of it.
    std::string text();

private:
    int m_Descriptor;
    int m_Original;
    int m_File;
};

/// A connection without a socket: scripted reads, recorded writes.
class FakeConnection : public KVX_Connection {
public:
    std::int32_t Connect(sockaddr*) override { return KVX_OK; }
    std::int32_t Disconnect() override { return KVX_OK; }
    std::int32_t Read(TbStringStream& into) override;
    std::int32_t Write(TbStringStream& from) override;
    std::int32_t LastError() override { return m_Error; }
    void Attach(int) override {}
    int Detach() override { return -1; }
    std::int32_t Setup() override { return KVX_OK; }

    /// Lets reads return `text` in chunks of at most `chunk` bytes.
    void respond(std::string const& text, std::size_t chunk);

    std::deque<std::string> m_Chunks;     ///< Not read yet.
    std::int32_t m_AfterLast = 0;         ///< The result of a read when there is nothing left.
    std::int32_t m_WriteResult = KVX_OK;  ///< The result of every write.
    std::int32_t m_Error = KVX_E_SOCKET_RESET;
    std::string m_Written;
};

/// A session whose state and connection the test sets.
class OpenSession : public KVX_HttpSession {
public:
    using KVX_HttpSession::KVX_HttpSession;
    using KVX_HttpSession::m_Request;
    using KVX_HttpSession::m_Response;
    using KVX_HttpSession::m_State;
    using KVX_HttpSession::State;

    /// Takes `connection` over and goes to `state`.
    void enter(int state, KVX_Connection* connection = nullptr);
};

/// "http://127.0.0.1:PORT" + path, and the same for "https".
std::string plainUrl(RawServer const& server, std::string const& path);
std::string secureUrl(RawServer const& server, std::string const& path);

/// The address 127.0.0.1 with the port of `server`, or any.
sockaddr_in addressOf(RawServer const& server);
sockaddr_in addressOf(std::string const& port);
inline sockaddr* generic(sockaddr_in& address) {
    return reinterpret_cast<sockaddr*>(&address);
}

/// What the calling thread's SIGPIPE is.
bool isSigPipePending();
bool isSigPipeBlocked();

/// A SIGPIPE of the calling thread that is blocked and pending while this lives. Fails the test when it was taken.
class PendingSigPipe {
public:
    PendingSigPipe();
    PendingSigPipe(PendingSigPipe const&) = delete;
    PendingSigPipe& operator=(PendingSigPipe const&) = delete;
    ~PendingSigPipe();

private:
    sigset_t m_Pipe;
    sigset_t m_Before;  ///< The signals that were blocked.
};

/// Ends a connection as a session does.
void endConnection(KVX_Connection& connection);

}  // namespace kvxtest

#endif
