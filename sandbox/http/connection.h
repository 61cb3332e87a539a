#ifndef TALLOWIN_SANDBOX_HTTP_CONNECTION_H
#define TALLOWIN_SANDBOX_HTTP_CONNECTION_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <string>

#include "sandbox/crypto/opensslholders.h"
#include "sandbox/http/endsignal.h"
#include "sandbox/http/httptext.h"

namespace sandbox {

/// One socket, plain or under TLS, that carries one request and its response. Reads and writes wait ten seconds at
/// most, and all reads together no longer than the request timeout. Used by one thread; only shutting the
/// socket down may come from another.
class Connection {
public:
    using Clock = EndSignal::Clock;

    /// How long one read or write waits.
    static constexpr std::chrono::seconds kIoTimeout{10};

    /// Borrows `socket`, which does not block and is to be closed after this. `tls` is borrowed and null for a plain
    /// connection. `ending` is borrowed; it ends pauses. The request timeout, `timeout`, counts from `accepted`.
    Connection(int socket, SSL_CTX* tls, EndSignal const& ending, Clock::duration timeout,
               Clock::time_point accepted = Clock::now());

    /// Ends the connection so that everything written arrives.
    ~Connection();
    Connection(Connection const&) = delete;
    Connection& operator=(Connection const&) = delete;

    /// The TLS handshake, if there is one to make, as a client or a server as the context says; false when it fails.
    bool open();

    /// What is wrong with the peer's certificate; empty when nothing is.
    [[nodiscard]] std::string certificateProblem() const;

    /// Bytes read, 0 at the end, negative on failure.
    ssize_t read(char* to, std::size_t size);

    /// What comes after a piece that is written.
    enum class Next { kMore, kEnd };

    /// Writes everything; false when that fails. The last piece before the end travels together with it, at the end of
    /// this object's life.
    bool write(char const* from, std::size_t size, Next next = Next::kMore);

    /// Waits that long, or until the end of the service. When the client has ended its direction, at most the request
    /// timeout: it waits for the response or has gone, which looks the same.
    void pause(double seconds) const;

    /// The same, but ends as soon as the client has ended its direction.
    void pauseWhileConnected(double seconds) const;

    /// Whether the client has ended its direction, or the service has.
    [[nodiscard]] bool isEnded() const;

    /// Makes the client find the connection reset when the socket is closed.
    void reset();

    /// Leaves the rest of what the peer sends: nothing more is expected of it.
    void leaveRest() { m_LeavesRest = true; }

    [[nodiscard]] int socket() const { return m_Socket; }
    [[nodiscard]] EndSignal const& ending() const { return m_Ending; }

    /// How many bytes were written, and whether a reset is what comes next.
    [[nodiscard]] std::size_t written() const { return m_Written; }
    [[nodiscard]] bool isReset() const { return m_Reset; }

private:
    template <class Step>
    ssize_t persist(short event, Step step);
    bool await(short event) const;
    bool wait(Clock::time_point until, short event) const;

    int m_Socket;  ///< Borrowed.
    EndSignal const& m_Ending;
    Clock::duration m_RequestTimeout;
    Clock::time_point m_RequestBy;
    TlsHolder m_Tls;  ///< Null on a plain connection.
    std::size_t m_Written = 0;
    bool m_Open = false;
    bool m_Reset = false;
    bool m_LeavesRest = false;
};

inline constexpr std::size_t kMaxRequestLine = std::size_t{4} * 1024 * 1024;  ///< Bytes.

/// Reads up to and including the first line end. What came after it is in the result as well. Without a line end the
/// result is what came before the end, a failure or more than kMaxRequestLine bytes.
std::string readFirstLine(Connection& connection);

/// A connection to another program on this machine. Throws HttpError: 403 when the host is not this machine, 502 when
/// nothing listens there, 504 when it has not come about by `deadline`, 503 when `ending` was raised before.
FileDescriptor connectLocally(HostPort const& hostPort, EndSignal::Clock::time_point deadline, EndSignal const& ending);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_CONNECTION_H
