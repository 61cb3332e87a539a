// TLS connections.
//
// Every call on the session goes through run(): it clears the thread's error queue, repeats a call that a signal
// interrupted or that the socket was not ready for, and records kind and reason of a failure, because LastError is
// called later. Lack of memory has a code of its own, because without memory the TLS library refuses good
// certificates. The peer is verified on request only. Odd: a peer that closes cleanly during the handshake counts as
// connected, and the next call finds out.

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <climits>
#include <cstdio>

#include "foundation/tbforkgate.h"
#include "foundation/tbsystem.h"
#include "net/kvxhttp.h"
#include "net/kvxhttp_errno.h"
#include "net/kvxlines_net.h"
#include "net/kvxmemorywatch.h"
#include "net/kvxresponse.h"
#include "net/kvxsocket.h"
#include "net/kvxtls.h"
#include "net/kvxtlscache.h"
#include "net/kvxwait.h"

namespace {

/// How much of a reason number fits beside the family.
constexpr int kReasonMask = 0xFFF;

/// How much of a refused certificate's number fits beside kKvxTlsCertificate; all that there are do.
constexpr long kVerifyMask = 0xFF;

/// Whether the peer has closed the connection cleanly, with or without a close notification: see makeContext.
bool isCleanEnd(int kind) {
    return kind == SSL_ERROR_ZERO_RETURN;
}

/// Whether a reason number stands for an alert that the peer has sent.
bool isAlertOfPeer(int reason) {
    constexpr int kLastAlert = 255;
    return reason >= SSL_AD_REASON_OFFSET && reason <= SSL_AD_REASON_OFFSET + kLastAlert;
}

/// Whether a reason number may stand for an algorithm that is missing here, and not for a fault of the peer.
bool isOfMissingAlgorithm(int reason) {
    switch (reason) {
        case ERR_R_INTERNAL_ERROR:
        case SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE:
        case SSL_R_UNABLE_TO_FIND_PUBLIC_KEY_PARAMETERS:
        case SSL_R_NO_SUITABLE_GROUPS:
        case SSL_R_NO_CIPHERS_AVAILABLE:
            return true;
        default:
            return false;
    }
}

/// Whether a call that failed in this way, with this `errno`, failed by the socket or by what the peer did on purpose:
/// it closed the connection or sent an alert. Lack of memory cannot look like these.
bool isPeersDoing(int kind, int reason, int failure) {
    bool const isSocket = kind == SSL_ERROR_SYSCALL && failure != 0 && failure != ENOMEM;
    bool const isAlert = kind == SSL_ERROR_SSL && isAlertOfPeer(reason);
    return isSocket || isAlert || isCleanEnd(kind);
}

/// Whether a call that failed in this way shows what comes of an initialisation of the TLS library that lacked memory:
/// algorithms are missing.
bool isConsequence(int kind, int reason) {
    return kind == SSL_ERROR_SSL && kvxHasLackedMemory() && isOfMissingAlgorithm(reason);
}

/// Whether a verdict on a certificate may be of a missing algorithm.
bool isVerdictOfMissingAlgorithm(long verdict) {
    return verdict == X509_V_ERR_EE_KEY_TOO_SMALL || verdict == X509_V_ERR_CA_KEY_TOO_SMALL ||
           verdict == X509_V_ERR_CERT_SIGNATURE_FAILURE;
}

/// One call on a session: keeps forks out, save while the call waits for its socket, and watches it for lack of memory.
struct SessionCall {
    explicit SessionCall(KvxDeadline const& end) : m_End(end) {}

    KvxDeadline const& m_End;
    bool m_IsLate = false;  ///< The call was refused its socket behind the deadline.
    TbForkGate m_Gate;
    KvxMemoryWatch m_Memory;
};

/// Called for every message, which only comes and goes inside a SessionCall: the TLS library clears `errno` before it
/// reads and writes.
void watchMessage(int, int, int, void const*, std::size_t, SSL*, void* call) {
    static_cast<SessionCall*>(call)->m_Memory.sample();
}

/// Lets forks through while the session waits for its socket, and ends a call that is late: one call goes on for as
/// long as the peer sends records without data, such as tickets. The callback's argument is the SessionCall.
long beforeAndBehindIo(BIO* bio, int operation, char const*, std::size_t, int, long, int result, std::size_t*) {
    auto* const call = reinterpret_cast<SessionCall*>(BIO_get_callback_arg(bio));
    if (call == nullptr) {
        return result;
    }
    switch (operation) {
        case BIO_CB_READ:
        case BIO_CB_WRITE:
            if (call->m_End.hasPassed()) {
                call->m_IsLate = true;
                return -1;
            }
            call->m_Gate.open();
            break;
        case BIO_CB_READ | BIO_CB_RETURN:
        case BIO_CB_WRITE | BIO_CB_RETURN:
            call->m_Gate.close();
            break;
        default:
            break;
    }
    return result;
}

}  // namespace

void SslConnection::ContextReleaser::operator()(ssl_ctx_st* context) const noexcept {
    TbForkGate const gate;
    SSL_CTX_free(context);
}

void SslConnection::SessionReleaser::operator()(ssl_st* session) const noexcept {
    TbForkGate const gate;
    SSL_free(session);
}

/// What a connection keeps for the next one, and has from the one before.
struct KvxTlsReuse {
    KvxTlsKey m_Key;
    KvxTlsSession m_Session;  ///< To be resumed; null for a whole handshake.

    static void* operator new(std::size_t bytes) { return TbRefCounter::operator new(bytes); }
    static void operator delete(void* memory) noexcept { TbRefCounter::operator delete(memory); }
};

void SslConnection::ReuseReleaser::operator()(KvxTlsReuse* reuse) const noexcept {
    delete reuse;
}

void SslConnection::makeContext() {
    bool isShort = false;
    {
        TbForkGate const gate;
        KvxMemoryWatch watch;
        SSL_library_init();
        SSL_load_error_strings();
        m_Context.reset(SSL_CTX_new(SSLv23_method()));
        if (m_Context != nullptr) {
            // An end without a close notification counts as one with it.
            SSL_CTX_set_options(m_Context.get(), SSL_OP_IGNORE_UNEXPECTED_EOF | SSL_OP_CLEANSE_PLAINTEXT);
        }
        isShort = watch.hasFailure() || (m_Context == nullptr && (kvxHasLackedMemory() || !kvxHasErrorQueue()));
    }
    if (isShort) {
        // Without memory the TLS library also makes contexts that lack algorithms. The holder has a gate of its own.
        m_Context.reset();
        m_Refusal = KVX_E_OUT_OF_MEMORY;
    }
}

SslConnection::SslConnection() {
    makeContext();
}

SslConnection::SslConnection(KVX_Transfer const& transfer, TbString const& host, TbString const& port)
    : m_Verifies(transfer.verifyPeer), m_Host(host) {
    if (m_Verifies && (m_Host.isEmpty() || m_Host[0] == '.')) {
        m_Refusal = KVX_E_TLS_FAMILY | kKvxTlsHost;  // the TLS library would take it for any host, or any below it
        return;
    }
    TbStringStream trust;
    if (!kvxReadTrust(transfer, trust)) {
        m_Refusal = KVX_E_TLS_FAMILY | kKvxTlsTrust;
        return;
    }
    KvxTlsKey key;
    if (transfer.reuseTls && kvxTlsKeyOf(transfer, trust, host, port, key)) {
        m_Reuse.reset(new KvxTlsReuse);
        m_Reuse->m_Key = key;
        KvxKeptTls kept = kvxTakeTls(key);
        m_Reuse->m_Session = std::move(kept.m_Session);
        m_Context.reset(kept.m_Context.release());
        if (m_Context != nullptr) {
            return;
        }
    }
    makeContext();
    if (m_Context == nullptr) {
        return;
    }
    {
        TbForkGate const gate;
        m_Refusal = kvxProtect(m_Context.get(), transfer, trust);
    }
    if (m_Refusal == KVX_OK && m_Reuse != nullptr) {
        kvxKeepContext(m_Reuse->m_Key, m_Context.get());
    }
}

SslConnection::~SslConnection() {
    ::explicit_bzero(m_Buffer, sizeof m_Buffer);  // a response may hold credentials
}

/// Whether the last failed call may be repeated, after a wait for what it wanted. False too when that wait is late.
bool SslConnection::waitAsWanted(KvxDeadline const& end) {
    if (m_Kind != SSL_ERROR_WANT_READ && m_Kind != SSL_ERROR_WANT_WRITE) {
        return false;
    }
    if (!m_Limits.hasEnd()) {
        return errno == EINTR;  // the socket blocks, so only a signal causes this
    }
    short const events = m_Kind == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
    if (kvxWaitFor(SSL_get_fd(m_Session.get()), events, end)) {
        return true;
    }
    m_IsLate = errno == ETIMEDOUT;
    return false;
}

/// Makes one call on the TLS session and records why it failed. Returns the result of the call; -1 for every negative
/// one and without a session.
///
/// The error queue of the TLS library is per thread and other code leaves entries in it, so it is emptied before each
/// call. The result alone decides.
template <class Call>
int SslConnection::run(Call call) {
    if (m_Session == nullptr) {
        errno = ENOTCONN;
        return -1;
    }
    m_IsLate = false;
    m_IsShort = false;
    KvxDeadline const end(m_Limits.ioTimeout, m_Limits.deadline);
    if (end.hasPassed()) {
        m_IsLate = true;
        errno = ETIMEDOUT;
        return -1;
    }
    SigPipeGuard const guard;
    bool wasShort = false;
    for (;;) {
        int result = 0;
        int failure = 0;
        {
            SessionCall watched(end);
            BIO_set_callback_arg(SSL_get_rbio(m_Session.get()), reinterpret_cast<char*>(&watched));
            SSL_set_msg_callback_arg(m_Session.get(), &watched);
            result = call(m_Session.get());
            failure = errno;
            BIO_set_callback_arg(SSL_get_rbio(m_Session.get()), nullptr);
            SSL_set_msg_callback_arg(m_Session.get(), nullptr);
            if (result > 0) {
                return result;
            }
            m_Kind = SSL_get_error(m_Session.get(), result);
            m_Reason = ERR_GET_REASON(ERR_peek_last_error());
            wasShort = watched.m_Memory.hasFailure() || wasShort;
            m_IsLate = watched.m_IsLate;
        }
        if (m_IsLate) {
            errno = ETIMEDOUT;
            return -1;
        }
        errno = failure;
        if (!waitAsWanted(end)) {
            m_IsShort = isConsequence(m_Kind, m_Reason) || (wasShort && !isPeersDoing(m_Kind, m_Reason, failure));
            return result < 0 ? -1 : 0;
        }
    }
}

std::int32_t SslConnection::Connect(sockaddr* address) {
    m_IsLate = false;
    m_Socket = MakeSocket();
    if (m_Socket == -1) {
        return m_LastResult;
    }
    m_LastResult = ConnectSocket(m_Socket, address, m_Limits);
    return m_LastResult == -1 ? KVX_E_SOCKET_FAMILY | BsdErrno(errno) : KVX_OK;
}

/// Leaves the session to the next connection, when the peer has given one that can be resumed.
void SslConnection::keepSession() {
    if (m_Reuse == nullptr || m_Session == nullptr || SSL_is_init_finished(m_Session.get()) != 1) {
        return;
    }
    KvxTlsSession session(SSL_get1_session(m_Session.get()));
    if (SSL_SESSION_is_resumable(session.get()) != 1) {
        return;
    }
    // Without a close notification the TLS library would make the session useless; none is sent by this either.
    SSL_set_shutdown(m_Session.get(), SSL_SENT_SHUTDOWN);
    kvxKeepSession(m_Reuse->m_Key, std::move(session));
}

std::int32_t SslConnection::Disconnect() {
    m_LastResult = tbSystem().shutdown(m_Socket, SHUT_WR);
    keepSession();
    m_Session.reset();
    return KVX_OK;
}

/// Receives up to `bytes` bytes to `room`: those of one record at most.
std::int32_t SslConnection::receive(char* room, std::size_t bytes) {
    m_LastResult = run([&](SSL* session) { return SSL_read(session, room, static_cast<int>(bytes)); });
    return m_LastResult;
}

std::int32_t SslConnection::Read(TbStringStream& into) {
    if (receive(m_Buffer, kChunk) == -1) {
        return -1;
    }
    m_Buffer[m_LastResult] = '\0';
    into.put(m_Buffer);
    return m_LastResult;
}

std::int32_t SslConnection::ReadUpTo(TbStringStream& into, std::uint32_t most) {
    return kvxReceiveInto(into, most, [&](char* room) { return receive(room, most); });
}

std::int32_t SslConnection::Write(TbStringStream& from) {
    KvxBytesToSend const bytes(from.str());
    // One call takes an int; a longer text becomes a negative length and is refused.
    auto const length = static_cast<int>(bytes.size());
    m_LastResult = run([&](SSL* session) { return SSL_write(session, bytes.data(), length); });
    return m_LastResult == -1 ? LastError() : KVX_OK;
}

std::int32_t SslConnection::LastError() {
    if (m_IsLate) {
        return KVX_E_SOCKET_TIMEOUT;
    }
    if (m_Refusal != KVX_OK) {
        return m_Refusal;
    }
    if (m_IsShort) {
        return KVX_E_OUT_OF_MEMORY;
    }
    if (m_Session == nullptr) {
        return KVX_E_SOCKET_FAMILY | BsdErrno(errno);
    }
    int const reason = m_Reason & kReasonMask;
    return KVX_E_TLS_FAMILY | (reason != 0 ? reason : m_Kind);
}

void SslConnection::Attach(int socket) {
    m_Socket = socket;
    if (m_Limits.hasEnd()) {
        tbSystem().setNonBlocking(m_Socket);
    }
}

int SslConnection::Detach() {
    int const socket = m_Socket;
    m_Socket = -1;
    return socket;
}

/// Makes the session accept a certificate for the host alone and announce the host's name, so that a peer with several
/// names can choose its certificate. An address is no name and is not announced. False for a host that no certificate
/// can be for.
bool SslConnection::expectHost() {
    SSL* const session = m_Session.get();
    X509_VERIFY_PARAM* const expected = SSL_get0_param(session);
    X509_VERIFY_PARAM_set_hostflags(expected, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    // What the connection takes for an address is one here too.
    in_addr_t const address = ::inet_addr(m_Host.c_str());
    if (address != INADDR_NONE) {
        auto const* const bytes = reinterpret_cast<unsigned char const*>(&address);
        return X509_VERIFY_PARAM_set1_ip(expected, bytes, sizeof address) == 1;
    }
    auto* const name = const_cast<char*>(m_Host.c_str());  // it is copied
    return X509_VERIFY_PARAM_set1_host(expected, m_Host.c_str(), m_Host.length()) == 1 &&
           SSL_ctrl(session, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, name) == 1;
}

/// A failure with a status of our own.
int SslConnection::refuse(int status) {
    m_Kind = SSL_ERROR_SSL;
    m_Reason = status;
    return -1;
}

/// The result of the handshake: 0 or more, or -1.
int SslConnection::handshake() {
    m_Kind = SSL_ERROR_SSL;
    m_Reason = 0;
    m_IsLate = false;
    m_IsShort = false;
    m_Session.reset();
    bool isReady = false;
    bool isHostExpected = true;
    {
        TbForkGate const gate;
        KvxMemoryWatch watch;
        m_Session.reset(m_Context == nullptr ? nullptr : SSL_new(m_Context.get()));
        isReady = m_Session != nullptr && SSL_set_fd(m_Session.get(), m_Socket) == 1;
        if (isReady) {
            BIO_set_callback_ex(SSL_get_rbio(m_Session.get()), &beforeAndBehindIo);
            SSL_set_msg_callback(m_Session.get(), &watchMessage);
            isHostExpected = !m_Verifies || expectHost();
        }
        m_IsShort = !(isReady && isHostExpected) && (watch.hasFailure() || (!isReady && kvxHasLackedMemory()));
    }
    if (m_Refusal != KVX_OK) {
        return refuse(m_Refusal & kReasonMask);
    }
    if (!isReady) {
        return -1;
    }
    if (!isHostExpected) {
        return refuse(kKvxTlsHost);
    }
    if (m_Reuse != nullptr && m_Reuse->m_Session != nullptr) {
        SSL_set_session(m_Session.get(), m_Reuse->m_Session.get());
        m_Reuse->m_Session.reset();
    }
    int const result = run([](SSL* session) { return SSL_connect(session); });
    if (!m_Verifies) {
        return result == -1 && isCleanEnd(m_Kind) ? 0 : result;
    }
    long const verified = SSL_get_verify_result(m_Session.get());
    if (result > 0 && verified == X509_V_OK) {
        return result;
    }
    m_IsShort = m_IsShort || (isVerdictOfMissingAlgorithm(verified) && kvxHasLackedMemory());
    if (!m_IsLate && !m_IsShort && verified != X509_V_OK) {
        return refuse(kKvxTlsCertificate | static_cast<int>(verified & kVerifyMask));
    }
    return -1;
}

std::int32_t SslConnection::Setup() {
    kvx::kSourceHttp.trace(kvx::kLineUseSsl, "USE SSL");
    m_LastResult = handshake();
    if (m_LastResult != -1) {
        return KVX_OK;
    }
    if (m_Limits.isQuiet) {
        return LastError();
    }
    int const failure = errno;
    SigPipeGuard const guard;  // the reader may have closed its end
    static_cast<void>(std::printf("%s\n", "SSL ERROR: connect failed"));
    static_cast<void>(std::fflush(stdout));
    errno = failure;
    return LastError();
}
