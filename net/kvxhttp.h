/// Host addresses, connections, the HTTP/1.0 session.
///
/// Of its free functions libtallowin.so exports HttpRequest alone; the static archive has them all.
#ifndef TALLOWIN_NET_KVXHTTP_H
#define TALLOWIN_NET_KVXHTTP_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "tallowin/codes.h"
#include "tallowin/export.h"
#include "tallowin/kvxtransfer.h"
#include "tallowin/kvxurl.h"
#include "tallowin/tbstring.h"
#include "tallowin/tbstringstream.h"

class KvxDeadline;
struct KvxTlsReuse;
struct sockaddr;
struct ssl_ctx_st;
struct ssl_st;

/// Fills `address` with the IPv4 address of `host`, dotted or a name, the decimal `port` and the family. All its other
/// bytes stay as they are. Requires: room for a `sockaddr_in`.
///
/// Returns KVX_OK, or KVX_E_HTTP_NAME_LOOKUP with `address` untouched. "255.255.255.255" is such a failure. A port that
/// is no number is 0; of a port above 65535 the low 16 bits count. May run out of memory (TBFC_Exception). Blocks.
[[nodiscard]] std::int32_t MakeHostAddr(TbString const& host, TbString const& port, sockaddr* address);

/// Resolves `host` (NUL-terminated, borrowed) and returns its first IPv4 address in network byte order, or 0xFFFFFFFF.
///
/// Traces "DNS LOOKUP". Deliberate (unknown-name-untraced): an unknown name leaves no trace; a known name without an
/// address does. May run out of memory (TBFC_Exception). Blocks.
[[nodiscard]] std::uint32_t HttpHostByName(char const* host);

/// How long the operations of a connection may wait, and how it sends and prints. Every default is the plain behaviour.
struct KVX_EXPORT KVX_ConnectionLimits {
    // NOLINTBEGIN(readability-identifier-naming): as KVX_Transfer
    std::int64_t connectTimeout = 0;  ///< Milliseconds for Connect; 0: none.
    std::int64_t ioTimeout = 0;       ///< Milliseconds for each Setup, Read and Write; 0: none.
    std::int64_t deadline = 0;        ///< Milliseconds of the monotonic clock when all of them end; 0: never.
    bool sendAll = false;             ///< Continue a short send.
    bool isQuiet = false;             ///< Print nothing.
    // NOLINTEND(readability-identifier-naming)

    /// Whether any wait has an end.
    [[nodiscard]] bool hasEnd() const { return connectTimeout != 0 || ioTimeout != 0 || deadline != 0; }
};

/// A byte pipe to one peer, owned by the session that uses it.
///
/// Life: made without a socket; `Connect`, or `Attach` of another connection's socket; `Setup`; one `Write`; `Read`
/// until 0 or -1; `Disconnect`; destroyed. Destroying it does not close the socket: to end a connection, take the
/// descriptor with `Detach` and close it. Everything blocks. Without limits no wait has an end, save that the
/// keep-alive probes of the socket notice a peer whose host has vanished; with them an operation that is late fails
/// with KVX_E_SOCKET_TIMEOUT. One thread at a time. No operation throws, save for memory exhaustion (TBFC_Exception).
/// No write raises SIGPIPE.
class KVX_EXPORT KVX_Connection {
public:
    KVX_Connection() = default;
    KVX_Connection(KVX_Connection const&) = delete;
    KVX_Connection& operator=(KVX_Connection const&) = delete;

    virtual ~KVX_Connection();

    /// Takes effect with the next Connect or Attach: a socket under a limit no longer blocks by itself.
    void SetLimits(KVX_ConnectionLimits const& limits) { m_Limits = limits; }

    /// Connects a new socket to `address` (borrowed). Returns KVX_OK or a code of the socket family.
    virtual std::int32_t Connect(sockaddr* address) = 0;

    /// Ends the sending direction; the descriptor stays. Returns KVX_OK.
    virtual std::int32_t Disconnect() = 0;

    /// Receives up to 1024 bytes and appends them to `into`, as text: a zero byte cuts off the rest of the chunk.
    /// Returns how many were received, cut or not; 0 when the peer has finished; -1 on failure, `into` untouched.
    /// Deliberate (zero-byte-cuts-chunk): the count reports what was received, not what was appended.
    virtual std::int32_t Read(TbStringStream& into) = 0;

    /// Sends the whole text of `from`, read or not; bytes behind its first zero byte are sent as zeros.
    /// A negative result is a failure.
    /// Deliberate (zeros-behind-zero): the number of bytes sent stays that of the text.
    virtual std::int32_t Write(TbStringStream& from) = 0;

    /// The code of the operation that failed last. Requires: no other system call since then.
    virtual std::int32_t LastError() = 0;

    /// Adopts a connected socket. One held before is forgotten, not closed.
    virtual void Attach(int socket) = 0;

    /// Gives up the socket and returns its descriptor; -1 when there is none.
    virtual int Detach() = 0;

    /// Finishes the set-up of a connected socket. Returns KVX_OK or a code.
    virtual std::int32_t Setup() = 0;

    /// As many Reads at once, for a peer that has sent much: receives up to `most` bytes, a multiple of 1024, and
    /// appends them in chunks of 1024 bytes, each cut off by its first zero byte. Returns as Read does.
    /// A connection without a way of its own reads once.
    virtual std::int32_t ReadUpTo(TbStringStream& into, std::uint32_t most);

    /// Raise KVX_E_OUT_OF_MEMORY (TBFC_Exception) instead of std::bad_alloc.
    static void* operator new(std::size_t bytes);
    static void operator delete(void* memory) noexcept;

protected:
    KVX_ConnectionLimits m_Limits;
};

/// A TCP socket. Deliberate (socket-left-open): the destructor leaves it open.
class KVX_EXPORT SockConnection : public KVX_Connection {
public:
    SockConnection() = default;
    ~SockConnection() override;

    /// Deliberate (connect-without-socket): when no socket can be made, the connect fails on none, which is
    /// KVX_E_SOCKET_FAMILY | 9.
    std::int32_t Connect(sockaddr* address) override;
    std::int32_t Disconnect() override;
    std::int32_t Read(TbStringStream& into) override;

    /// One send: returns the number of bytes sent, which may be short, or -1.
    /// Deliberate (one-send): the rest of a short send is not sent, unless the limits say so. Under a limit a send is
    /// continued as a blocking one would be, until its end.
    std::int32_t Write(TbStringStream& from) override;

    /// KVX_E_SOCKET_FAMILY | `errno` in BSD numbering.
    std::int32_t LastError() override;
    void Attach(int socket) override;
    int Detach() override;

    /// Does nothing.
    std::int32_t Setup() override;
    std::int32_t ReadUpTo(TbStringStream& into, std::uint32_t most) override;

private:
    static constexpr std::size_t kChunk = 1024;

    std::int32_t receive(char* room, std::size_t bytes);

    int m_Socket = -1;          ///< -1 when there is none.
    int m_LastResult = 0;       ///< Of the last socket call; the code after a failed Connect.
    char m_Buffer[kChunk + 1];  ///< Received bytes and a terminator.
};

/// Statuses beside KVX_E_TLS_FAMILY that the checks of a KVX_Transfer add. Those of the TLS library itself, its reason
/// numbers and kinds of failure, are all below the first. Published. Do not change.
///
/// | Status       | The peer's certificate                                         |
/// |--------------|----------------------------------------------------------------|
/// | 0x809        | is not valid yet                                               |
/// | 0x80A        | has expired                                                    |
/// | 0x812        | is signed by itself and not trusted                            |
/// | 0x813, 0x814 | has an authority that is not trusted; the peer sent it, or not |
/// | 0x83E, 0x840 | is for another host name, for another address                  |
inline constexpr std::int32_t kKvxTlsCertificate = 0x800;  ///< Plus the TLS library's number, X509_V_ERR_...
inline constexpr std::int32_t kKvxTlsTrust = 0x900;        ///< The authorities cannot be read, or there are none.
inline constexpr std::int32_t kKvxTlsHost = 0x901;         ///< The host is no name that a certificate can have.

/// A TLS client over a TCP socket.
class KVX_EXPORT SslConnection : public KVX_Connection {
public:
    /// Deliberate (certificate-unverified): the peer's certificate is not verified.
    SslConnection();

    /// Checks the peer as `transfer` says: with `verifyPeer` its certificate must lead to a trusted authority and be
    /// for `host`, a name or dotted address, and a name is announced to it (SNI). With `reuseTls` the TLS context and
    /// the session of an earlier connection to the same `host` and `port` (decimal text) serve again. All copied as far
    /// as needed.
    SslConnection(KVX_Transfer const& transfer, TbString const& host, TbString const& port = TbString());
    ~SslConnection() override;

    /// KVX_OK, or the code with which Setup will refuse every peer: KVX_E_TLS_FAMILY | kKvxTlsTrust or kKvxTlsHost,
    /// or KVX_E_OUT_OF_MEMORY.
    [[nodiscard]] std::int32_t Readiness() const { return m_Refusal; }

    /// Deliberate (tls-connect-last-result): when no socket can be made, the result is the last one held; at first
    /// KVX_E_SOCKET_FAMILY alone.
    std::int32_t Connect(sockaddr* address) override;

    /// Also frees the TLS session; sends no close notification.
    std::int32_t Disconnect() override;
    std::int32_t Read(TbStringStream& into) override;

    /// Returns KVX_OK or `LastError()`.
    std::int32_t Write(TbStringStream& from) override;

    /// KVX_E_SOCKET_TIMEOUT after an operation that was late. KVX_E_OUT_OF_MEMORY when memory was lacking during one,
    /// whatever it then took the peer's certificate or messages for; but an alert or a close of the peer counts. Once
    /// OpenSSL has lacked memory in this process, also where algorithms may be missing for that reason: an internal
    /// error, nothing in common with the peer, a key or signature of the certificate that cannot be read. With a TLS
    /// session KVX_E_TLS_FAMILY | the low 12 bits of the reason number of the TLS library, or of its kind of failure
    /// where it gave no reason. Without one as a SockConnection.
    std::int32_t LastError() override;
    void Attach(int socket) override;
    int Detach() override;

    /// Runs the handshake. Traces "USE SSL"; a failure prints "SSL ERROR: connect failed" to standard output.
    /// Deliberate (clean-end-in-handshake): a peer that closes cleanly instead of shaking hands is no failure; the next
    /// operation fails. A connection that verifies its peer takes it for the failure it is.
    std::int32_t Setup() override;
    std::int32_t ReadUpTo(TbStringStream& into, std::uint32_t most) override;

private:
    static constexpr std::size_t kChunk = 1024;

    struct ContextReleaser {
        void operator()(ssl_ctx_st* context) const noexcept;
    };
    struct SessionReleaser {
        void operator()(ssl_st* session) const noexcept;
    };
    struct ReuseReleaser {
        void operator()(KvxTlsReuse* reuse) const noexcept;
    };

    template <class Call>
    int run(Call call);
    std::int32_t receive(char* room, std::size_t bytes);
    bool waitAsWanted(KvxDeadline const& end);
    void makeContext();
    bool expectHost();
    void keepSession();
    int refuse(int status);
    int handshake();

    int m_Socket = -1;                                       ///< -1 when there is none.
    int m_LastResult = KVX_E_SOCKET_FAMILY;                  ///< Of the last socket or TLS call.
    char m_Buffer[kChunk + 1];                               ///< Received bytes and a terminator.
    std::unique_ptr<ssl_ctx_st, ContextReleaser> m_Context;  ///< Null when memory was short.
    std::unique_ptr<ssl_st, SessionReleaser> m_Session;      ///< From Setup to Disconnect.
    int m_Kind = 0;                                          ///< Kind of the last failure, as the TLS library has it.
    int m_Reason = 0;                                        ///< Its reason number, 0 when there is none.
    bool m_IsLate = false;                                   ///< The last operation ended at a limit.
    bool m_IsShort = false;                                  ///< The last operation failed for lack of memory.
    bool m_Verifies = false;                                 ///< The peer's certificate counts.
    TbString m_Host;                                         ///< For which it must be.
    std::int32_t m_Refusal = KVX_OK;                         ///< See Readiness.
    std::unique_ptr<KvxTlsReuse, ReuseReleaser> m_Reuse;     ///< Null without reuse.
};

/// The input of one session.
struct KVX_EXPORT KVX_RequestInfo : URL_INFO {
    KVX_RequestInfo() { mark.m_IsSet = true; }
    KVX_RequestInfo(KVX_RequestInfo const& other);
    KVX_RequestInfo& operator=(KVX_RequestInfo const& other) = default;
    ~KVX_RequestInfo() = default;

    // NOLINTBEGIN(readability-identifier-naming): published names
    TbString proxyHost;     ///< Empty: no proxy.
    TbString proxyPort;     ///< Decimal text.
    TbString reserved;      ///< Not used.
    TbString traceOptions;  ///< With "rawhttp" in it request and response are printed to standard output.
    KVX_Transfer transfer;  ///< Limits and protection.
    // NOLINTEND(readability-identifier-naming)
};

/// One HTTP/1.0 GET exchange in five steps, each called once and in order.
///
/// Every step throws KVX_Exception: KVX_E_HTTP_STATE when called out of order, else its own codes. Destroying the
/// session, after any step, closes the connection. One thread at a time.
class KVX_EXPORT KVX_HttpSession {
public:
    /// `request` is borrowed for the session's life.
    explicit KVX_HttpSession(KVX_RequestInfo const& request);
    KVX_HttpSession(KVX_HttpSession const&) = delete;
    KVX_HttpSession& operator=(KVX_HttpSession const&) = delete;
    virtual ~KVX_HttpSession();

    /// Connects to the host or the proxy, tunnels and shakes hands as the scheme needs.
    /// KVX_E_HTTP_NAME_LOOKUP before KVX_E_HTTP_UNKNOWN_SCHEME, the codes of the connection, and for a tunnel
    /// KVX_E_HTTP_BAD_REPLY or KVX_E_HTTP_FAMILY | the proxy's status. KVX_E_SOCKET_TIMEOUT when a limit of the
    /// transfer ends one of these; the time of the whole exchange begins here. A proxy's reply is printed to standard
    /// error, unless the transfer is quiet.
    void ConnectNetwork();

    /// Builds the request text.
    void BuildRequest();

    /// Sends it.
    void SendRequest();

    /// Receives until the peer closes. KVX_E_BUFFER_TOO_SMALL: more than the transfer permits has arrived.
    void ReceiveResponse();

    /// Appends the body of the response to `out`, which becomes secret.
    /// KVX_E_HTTP_BAD_REPLY: no status, or no end of header in a 200 reply. KVX_E_HTTP_FAMILY | status: any but 200.
    void ExtractResponse(TbStringStream& out);

    /// The component's name in requests. On the wire. Do not change.
    static char const* const m_UserAgent;

    /// Raise KVX_E_OUT_OF_MEMORY (TBFC_Exception) instead of std::bad_alloc.
    static void* operator new(std::size_t bytes);
    static void operator delete(void* memory) noexcept;

protected:
    /// Ends a connection: shuts it down, destroys it and closes its socket.
    struct KVX_EXPORT ConnectionCloser {
        void operator()(KVX_Connection* connection) const noexcept;
    };

    using ConnectionHolder = std::unique_ptr<KVX_Connection, ConnectionCloser>;

    /// The steps done so far; each step requires its predecessor's state.
    enum State : int { kCreated = 0, kConnected = 1, kBuilt = 2, kSent = 3, kReceived = 4 };

    void ProxyConnect();

    int m_State = kCreated;
    KVX_RequestInfo const& m_Record;  ///< Borrowed.
    ConnectionHolder m_Connection;    ///< Null until ConnectNetwork.
    TbStringStream m_Request;
    TbStringStream m_Response;

private:
    void putHost(TbStringStream& out) const;
    void prepareTls();
    ConnectionHolder takeTls();
    void startLimits();
    void useConnection(ConnectionHolder connection);
    [[nodiscard]] bool usesProxy() const;
    [[nodiscard]] bool isSecure() const;
    [[nodiscard]] bool isTraced() const;
    void requireState(int state, char const* step, long line) const;
    void requireKnownScheme(long line) const;

    KVX_ConnectionLimits m_Limits;  ///< From ConnectNetwork on.
    ConnectionHolder m_Tls;         ///< Prepared before anything is sent, until it is used; null without checks.
};

/// Runs a whole session over `request` and appends the body of the response to `out`. A `request` that is part of a
/// KVX_RequestInfo counts with all of it, whatever type the caller knows it by; any other has no proxy, no trace
/// options, no limits. Throws the exceptions of the steps of KVX_HttpSession. Traces "URL OPEN". Blocks.
void HttpSession(URL_INFO const& request, TbStringStream& out);

/// Appends the text of a plain request for `path` with Basic credentials to `out`. Sends nothing.
/// The texts are NUL-terminated and borrowed; null counts as "". `out` is borrowed.
KVX_EXPORT void HttpRequest(char const* path, char const* user, char const* password, TbStringStream* out);

#endif
