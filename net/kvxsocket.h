/// Sockets, and the signal that writing to them may raise. Internal: not installed.
#ifndef TALLOWIN_NET_KVXSOCKET_H
#define TALLOWIN_NET_KVXSOCKET_H

#include "foundation/tbmemory.h"
#include "foundation/tbsigpipe.h"
#include "foundation/tbstring.h"
#include "net/kvxhttp.h"

struct sockaddr;

/// A new TCP socket, closed on exec; -1 and `errno` on failure. Keep-alive probes find a peer whose host has vanished:
/// after two minutes without a reply the connection fails with ETIMEDOUT.
[[nodiscard]] int MakeSocket() noexcept;

/// Connects `socket` to `address`; -1 and `errno` on failure. Continues after a signal. Under a limit the socket does
/// not block from now on, and the failure may be ETIMEDOUT.
[[nodiscard]] int ConnectSocket(int socket, sockaddr const* address, KVX_ConnectionLimits const& limits);

/// The bytes to send for a text: all of it, with zeros from its first zero byte on. Borrows the text. A copy, which
/// only a text with a zero byte needs, is wiped at the end, because requests hold credentials. Leaves `errno` alone.
class KvxBytesToSend {
public:
    /// Raises KVX_E_OUT_OF_MEMORY (TBFC_Exception).
    explicit KvxBytesToSend(TbString const& text);
    KvxBytesToSend(KvxBytesToSend const&) = delete;
    KvxBytesToSend& operator=(KvxBytesToSend const&) = delete;
    ~KvxBytesToSend();

    [[nodiscard]] char const* data() const noexcept { return m_Bytes; }
    [[nodiscard]] std::size_t size() const noexcept { return m_Size; }

private:
    std::size_t m_Size;
    char const* m_Bytes;
    TbMemoryHolder m_Copy;  ///< Null when the text can be sent as it is.
};

#endif
