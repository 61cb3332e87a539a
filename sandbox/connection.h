#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "sandbox/opensslholders.h"

namespace sandbox {

/// One accepted socket, plain or under TLS. Reads and writes wait ten seconds at most. Used by one thread; only
/// shutting the incoming direction of the socket down may come from another.
class Connection {
public:
    /// Borrows `socket`, which is to be closed after this. `tls` is borrowed and null for a plain connection.
    Connection(int socket, SSL_CTX* tls);

    /// Ends the conversation so that what was written arrives.
    ~Connection();
    Connection(Connection const&) = delete;
    Connection& operator=(Connection const&) = delete;

    /// The TLS handshake, if there is one to make; false when it fails.
    bool open();

    /// Bytes read, 0 at the end, negative on failure.
    ssize_t read(char* to, std::size_t size);

    /// Writes everything; false when that fails.
    bool write(char const* from, std::size_t size);

    /// Waits that long, or until the other side ends or the socket's incoming direction is shut down.
    void pause(double seconds) const;

    /// Sees to it that the other side finds the connection reset when the socket is closed.
    void reset();

    [[nodiscard]] int socket() const { return m_Socket; }

private:
    int m_Socket;     ///< Borrowed.
    TlsHolder m_Tls;  ///< Null on a plain connection.
    bool m_Open = false;
    bool m_Reset = false;
};

}  // namespace sandbox
