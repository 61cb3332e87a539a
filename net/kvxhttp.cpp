// The HTTP/1.0 session.
//
// Five steps in a fixed order: connect, build, send, receive, extract; each checks the state that its predecessor left.
// Connecting goes to the host or the proxy, tunnels through a proxy for https, then shakes hands. The response ends
// where the server closes; nothing reads a length. Odd: a proxy's reply to a tunnel is always printed to standard
// error, and the header that names the component is "UserAgent", without a hyphen.

#include "net/kvxhttp.h"

#include <netinet/in.h>

#include <cstdio>
#include <cstring>

#include "core/kvxlog.h"
#include "foundation/tbsystem.h"
#include "net/kvxdecimal.h"
#include "net/kvxhttp_address.h"
#include "net/kvxhttp_cause.h"
#include "net/kvxlines_net.h"
#include "net/kvxresponse.h"
#include "net/kvxsocket.h"
#include "net/kvxwait.h"

namespace {

constexpr std::int32_t kStatusOk = 200;
constexpr std::int64_t kMillisecondsPerSecond = 1000;
constexpr std::uint64_t kOrdinaryRequest = 1024;  // bytes
constexpr char kEndOfHeader[] = "\r\n\r\n";

/// Prints foreign text between fixed texts and flushes: the host program may have buffers of its own. The reader may
/// have closed its end.
void print(FILE* stream, char const* before, TbString const& text, char const* after) {
    SigPipeGuard const guard;
    static_cast<void>(std::fputs(before, stream));
    static_cast<void>(std::fputs(text.c_str(), stream));
    static_cast<void>(std::fputs(after, stream));
    static_cast<void>(std::fflush(stream));
}

/// "user:password" in Base64, as Basic authorisation has it. `out` becomes secret.
template <class Text>
void putCredentials(Text const& user, Text const& password, TbStringStream& out) {
    TbStringStream credentials;
    credentials.keepSecret();
    credentials.put(user);
    credentials.put(':');
    credentials.put(password);
    Base64Encode(&credentials, &out);
}

/// The status in a proxy's reply: digits behind the first space, nothing but spaces and tabs between. 0 without one.
std::int32_t proxyStatus(TbString const& reply) {
    char const* const protocol = std::strstr(reply.c_str(), "HTTP/1");
    char const* const space = protocol == nullptr ? nullptr : std::strchr(protocol, ' ');
    if (space == nullptr) {
        return 0;
    }
    char const* const number = space + std::strspn(space, " \t");
    return *number < '0' || *number > '9' ? 0 : DecimalNumber(number);
}

[[noreturn]] void failExchange(KVX_RequestInfo const& request, std::int32_t code, long line, char const* detail) {
    kvx::kSourceHttp.failBecause(kvxExchangeCause(request, code), code, line, detail);
}

[[noreturn]] void failReply(KVX_RequestInfo const& request, TbString const& reply, std::int32_t code, long line) {
    kvx::kSourceHttp.failBecause(kvxReplyCause(request, reply), code, line);
}

void runSession(KVX_RequestInfo const& request, TbStringStream& out) {
    KVX_HttpSession session(request);
    TbStringStream server;
    // Parts of a URL with credentials are secret; the log may show them unless they are cut in the wrong place.
    bool const isShown = kvxLogIsOn() && kvxShowsAddress(request);
    auto const put = [&](TbString const& part) { isShown ? server.put(part.c_str()) : server.put(part); };
    put(request.scheme);
    server.put("://");
    put(request.host);
    server.put(":");
    put(request.port);
    kvx::kSourceHttp.trace(kvx::kLineUrlOpen, "URL OPEN", server);
    session.ConnectNetwork();
    session.BuildRequest();
    session.SendRequest();
    session.ReceiveResponse();
    session.ExtractResponse(out);
}

}  // namespace

KVX_RequestInfo::KVX_RequestInfo(KVX_RequestInfo const& other)
    : URL_INFO(other),
      proxyHost(other.proxyHost),
      proxyPort(other.proxyPort),
      reserved(other.reserved),
      traceOptions(other.traceOptions),
      transfer(other.transfer) {
    mark.m_IsSet = true;
}

char const* const KVX_HttpSession::m_UserAgent = "Tallowin Application Component 1.0";

void KVX_HttpSession::ConnectionCloser::operator()(KVX_Connection* connection) const noexcept {
    connection->Disconnect();
    int const socket = connection->Detach();
    delete connection;
    if (socket != -1) {
        tbSystem().close(socket);
    }
}

KVX_HttpSession::KVX_HttpSession(KVX_RequestInfo const& request) : m_Record(request) {
    m_Response.keepSecret();  // a server may put credentials into the addresses that it sends
}

KVX_HttpSession::~KVX_HttpSession() = default;

void* KVX_HttpSession::operator new(std::size_t bytes) {
    return TbRefCounter::operator new(bytes);
}

void KVX_HttpSession::operator delete(void* memory) noexcept {
    TbRefCounter::operator delete(memory);
}

bool KVX_HttpSession::usesProxy() const {
    return !m_Record.proxyHost.isEmpty();
}

bool KVX_HttpSession::isSecure() const {
    return m_Record.scheme == "https";
}

bool KVX_HttpSession::isTraced() const {
    return !m_Record.transfer.isQuiet && m_Record.traceOptions.find("rawhttp") != TbString::npos;
}

void KVX_HttpSession::requireState(int state, char const* step, long line) const {
    if (m_State != state) {
        kvx::kSourceHttp.fail(KVX_E_HTTP_STATE, line, TbString("invalid session state during ") + step);
    }
}

void KVX_HttpSession::requireKnownScheme(long line) const {
    if (!isSecure() && m_Record.scheme != "http") {
        kvx::kSourceHttp.failBecause(kvxAddressCause(m_Record), KVX_E_HTTP_UNKNOWN_SCHEME, line,
                                     "the protocol type of the URL is unknown");
    }
}

/// The Host header, when the transfer wants one.
void KVX_HttpSession::putHost(TbStringStream& out) const {
    if (!m_Record.transfer.sendHost) {
        return;
    }
    out.put("Host: ");
    out.put(m_Record.host);
    if (m_Record.port != (isSecure() ? "443" : "80")) {
        out.put(":");
        out.put(m_Record.port);
    }
    out.put("\r\n");
}

/// The time of the whole exchange begins here.
void KVX_HttpSession::startLimits() {
    KVX_Transfer const& transfer = m_Record.transfer;
    m_Limits.connectTimeout = transfer.connectTimeout * kMillisecondsPerSecond;
    m_Limits.ioTimeout = transfer.ioTimeout * kMillisecondsPerSecond;
    m_Limits.deadline = transfer.totalTimeout == 0 ? 0 : kvxNow() + transfer.totalTimeout * kMillisecondsPerSecond;
    m_Limits.sendAll = transfer.sendAll;
    m_Limits.isQuiet = transfer.isQuiet;
}

/// What the transfer wants checked must be there before a name is looked up or anything is sent.
void KVX_HttpSession::prepareTls() {
    KVX_Transfer const& transfer = m_Record.transfer;
    bool const isPlain = !transfer.verifyPeer && !transfer.reuseTls && transfer.minimumVersion == KVX_TlsVersion::Any;
    if (!isSecure() || isPlain) {
        return;
    }
    auto* const connection = new SslConnection(transfer, m_Record.host, m_Record.port);
    m_Tls.reset(connection);
    if (connection->Readiness() != KVX_OK) {
        failExchange(m_Record, connection->Readiness(), kvx::kLineTlsNotReady, "failed to setup protocol");
    }
}

KVX_HttpSession::ConnectionHolder KVX_HttpSession::takeTls() {
    return m_Tls != nullptr ? std::move(m_Tls) : ConnectionHolder(new SslConnection);
}

void KVX_HttpSession::useConnection(ConnectionHolder connection) {
    connection->SetLimits(m_Limits);
    m_Connection = std::move(connection);
}

void KVX_HttpSession::ConnectNetwork() {
    requireState(kCreated, "ConnectNetwork", kvx::kLineConnectState);
    startLimits();
    prepareTls();
    sockaddr_in address = {};
    auto* const target = reinterpret_cast<sockaddr*>(&address);
    if (usesProxy()) {
        std::int32_t const code = kvxMakeHostAddr(m_Record.proxyHost, m_Record.proxyPort, m_Limits.deadline, target);
        if (code != KVX_OK) {
            failExchange(m_Record, code, kvx::kLineProxyAddress,
                         "the proxy address is invalid or could not be resolved");
        }
        kvx::kSourceHttp.trace(kvx::kLineUseProxy, "USE PROXY", m_Record.proxyHost + ":" + m_Record.proxyPort);
        requireKnownScheme(kvx::kLineProxyScheme);
        useConnection(ConnectionHolder(new SockConnection));
    } else {
        std::int32_t const code = kvxMakeHostAddr(m_Record.host, m_Record.port, m_Limits.deadline, target);
        if (code != KVX_OK) {
            failExchange(m_Record, code, kvx::kLineHostAddress, "the host address is invalid or could not be resolved");
        }
        requireKnownScheme(kvx::kLineScheme);
        if (isSecure()) {
            useConnection(takeTls());
        } else {
            useConnection(ConnectionHolder(new SockConnection));
        }
    }
    std::int32_t const connected = m_Connection->Connect(target);
    if (connected != KVX_OK) {
        failExchange(m_Record, connected, kvx::kLineConnect, "failed to connect to host");
    }
    if (usesProxy() && isSecure()) {
        ProxyConnect();
    }
    std::int32_t const ready = m_Connection->Setup();
    if (ready != KVX_OK) {
        failExchange(m_Record, ready, kvx::kLineSetup, "failed to setup protocol");
    }
    m_State = kConnected;
}

void KVX_HttpSession::ProxyConnect() {
    kvx::kSourceHttp.trace(kvx::kLineHttpConnect, "HTTP CONNECT");
    TbStringStream request;
    request.put("CONNECT ");
    request.put(m_Record.host);
    request.put(":");
    request.put(m_Record.port);
    request.put(" HTTP/1.0\r\n");
    putHost(request);
    request.put("Pragma: no-cache\r\nUserAgent: ");
    request.put(m_UserAgent);
    request.put(kEndOfHeader);
    if (m_Connection->Write(request) < 0) {
        failExchange(m_Record, m_Connection->LastError(), kvx::kLineProxyWrite, "");
    }
    // Deliberate (proxy-reply-one-read, proxy-reply-printed): one read, and its text goes to standard error always.
    TbStringStream reply;
    if (m_Connection->Read(reply) < 0) {
        failExchange(m_Record, m_Connection->LastError(), kvx::kLineProxyRead, "");
    }
    if (!m_Record.transfer.isQuiet) {
        print(stderr, "Proxy response:\n", reply, "\n");
    }
    std::int32_t const status = proxyStatus(reply);
    if (status == 0) {
        failReply(m_Record, reply, KVX_E_HTTP_BAD_REPLY, kvx::kLineProxyReply);
    }
    if (status != kStatusOk) {
        failReply(m_Record, reply, KVX_E_HTTP_FAMILY | status, kvx::kLineProxyStatus);
    }
    ConnectionHolder tunnel = takeTls();
    tunnel->SetLimits(m_Limits);
    tunnel->Attach(m_Connection->Detach());
    m_Connection = std::move(tunnel);
}

void KVX_HttpSession::BuildRequest() {
    requireState(kConnected, "BuildRequest", kvx::kLineBuildState);
    TbStringWriter const roomForMost(m_Request, kOrdinaryRequest);
    m_Request.put("GET ");
    if (usesProxy() && !isSecure()) {
        m_Request.put(m_Record.scheme);
        m_Request.put("://");
        m_Request.put(m_Record.host);
        m_Request.put(":");
        m_Request.put(m_Record.port);
    }
    m_Request.put(m_Record.path);
    m_Request.put(" HTTP/1.0\r\n");
    putHost(m_Request);
    // Deliberate (authorization-always): also without credentials; "UserAgent" has no hyphen.
    m_Request.put("Authorization: Basic ");
    putCredentials(m_Record.user, m_Record.password, m_Request);
    m_Request.put("\r\nUserAgent: ");
    m_Request.put(m_UserAgent);
    m_Request.put(kEndOfHeader);
    m_State = kBuilt;
    if (isTraced()) {
        print(stdout, "\n", m_Request, "\n\n");
    }
}

void KVX_HttpSession::SendRequest() {
    requireState(kBuilt, "SendRequest", kvx::kLineSendState);
    if (m_Connection->Write(m_Request) < 0) {
        failExchange(m_Record, m_Connection->LastError(), kvx::kLineSend, "failed to write to host");
    }
    m_State = kSent;
}

void KVX_HttpSession::ReceiveResponse() {
    requireState(kSent, "ReceiveResponse", kvx::kLineReceiveState);
    std::uint32_t const most = m_Record.transfer.maxResponse;
    KvxResponseRoom room(m_Response, most);
    std::uint64_t total = 0;
    std::int32_t received = 0;
    do {
        received = m_Connection->ReadUpTo(m_Response, room.next(total));
        if (received < 0) {
            failExchange(m_Record, m_Connection->LastError(), kvx::kLineReceive, "failed to receive from host");
        }
        total += static_cast<std::uint32_t>(received);
        if (most != 0 && total > most) {
            failExchange(m_Record, KVX_E_BUFFER_TOO_SMALL, kvx::kLineReceiveTooMuch, "failed to receive from host");
        }
    } while (received != 0);
    m_State = kReceived;
}

void KVX_HttpSession::ExtractResponse(TbStringStream& out) {
    // Deliberate (step-names-the-one-before): the message names the step before this one.
    requireState(kReceived, "ReceiveResponse", kvx::kLineExtractState);
    if (isTraced()) {
        print(stdout, "\n", m_Response, "\n\n");
    }
    std::uint32_t const space = m_Response.find(" ");
    std::int32_t const status = space == TbString::npos ? 0 : DecimalNumber(m_Response.c_str() + space + 1);
    if (status == 0) {
        failReply(m_Record, m_Response, KVX_E_HTTP_BAD_REPLY, kvx::kLineReplyNoStatus);
    }
    // Deliberate (redirects-unfollowed): every other status is a failure, redirects included.
    if (status != kStatusOk) {
        failReply(m_Record, m_Response, KVX_E_HTTP_FAMILY | status, kvx::kLineReplyStatus);
    }
    std::uint32_t const endOfHeader = m_Response.find(kEndOfHeader, space);
    if (endOfHeader == TbString::npos) {
        failReply(m_Record, m_Response, KVX_E_HTTP_BAD_REPLY, kvx::kLineReplyNoBody);
    }
    std::uint32_t const body = endOfHeader + static_cast<std::uint32_t>(std::strlen(kEndOfHeader));
    out.joinSecrecyOf(m_Response);
    out.put(m_Response.c_str() + body, m_Response.length() - body);
}

void HttpSession(URL_INFO const& request, TbStringStream& out) {
    if (request.mark.isSet()) {
        runSession(static_cast<KVX_RequestInfo const&>(request), out);
        return;
    }
    KVX_RequestInfo record;
    static_cast<URL_INFO&>(record) = request;
    runSession(record, out);
}

void HttpRequest(char const* path, char const* user, char const* password, TbStringStream* out) {
    out->put("GET ");
    out->put(path);
    out->put(" HTTP/1.0\r\nAuthorization: Basic ");
    putCredentials(user, password, *out);
    out->put(kEndOfHeader);
}
