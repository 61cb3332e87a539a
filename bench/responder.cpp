#include "bench/responder.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench/require.h"

namespace kvxbench {

namespace {

constexpr long kDaySeconds = 24L * 60 * 60;

/// Receives up to the end of a request's header; `receive` is called with a buffer and its size. Whether it came.
template <class Receive>
bool receiveRequest(Receive receive) {
    std::string request;
    char chunk[4096];
    while (request.find("\r\n\r\n") == std::string::npos) {
        auto const count = receive(chunk, sizeof chunk);
        if (count <= 0) {
            return false;
        }
        request.append(chunk, static_cast<std::size_t>(count));
    }
    return true;
}

void addExtension(X509* certificate, int kind, char const* value) {
    X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, nullptr, kind, value);
    bool const isAdded = extension != nullptr && X509_add_ext(certificate, extension, -1) == 1;
    X509_EXTENSION_free(extension);
    require(isAdded, "no extension of the certificate");
}

}  // namespace

TlsIdentity::TlsIdentity() : m_Key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256")), m_Certificate(X509_new()) {
    X509* const certificate = m_Certificate.get();
    require(m_Key != nullptr && certificate != nullptr, "no key");
    X509_set_version(certificate, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -kDaySeconds);
    X509_gmtime_adj(X509_getm_notAfter(certificate), kDaySeconds);
    X509_set_pubkey(certificate, m_Key.get());
    X509_NAME* const name = X509_get_subject_name(certificate);
    auto const* const host = reinterpret_cast<unsigned char const*>("127.0.0.1");
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, host, -1, -1, 0);
    X509_set_issuer_name(certificate, name);
    addExtension(certificate, NID_basic_constraints, "critical,CA:TRUE");
    addExtension(certificate, NID_subject_alt_name, "IP:127.0.0.1");
    require(X509_sign(certificate, m_Key.get(), EVP_sha256()) > 0, "cannot sign the certificate");
}

SSL_CTX* TlsIdentity::serverContext() const {
    SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
    require(context != nullptr && SSL_CTX_use_certificate(context, m_Certificate.get()) == 1 &&
                SSL_CTX_use_PrivateKey(context, m_Key.get()) == 1,
            "no server context");
    return context;
}

std::string TlsIdentity::pem() const {
    std::unique_ptr<BIO, decltype(&BIO_free)> const out(BIO_new(BIO_s_mem()), &BIO_free);
    require(PEM_write_bio_X509(out.get(), m_Certificate.get()) == 1, "cannot write the certificate");
    char* data = nullptr;
    long const length = BIO_get_mem_data(out.get(), &data);
    return {data, static_cast<std::size_t>(length)};
}

Responder::Responder(std::string const& body, TlsIdentity const* identity)
    : m_Response("HTTP/1.0 200 OK\r\nContent-Type: text/xml\r\nContent-Length: " + std::to_string(body.size()) +
                 "\r\n\r\n" + body),
      m_Context(identity == nullptr ? nullptr : identity->serverContext()) {
    m_Listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const where = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof address;
    require(::bind(m_Listener, where, length) == 0 && ::listen(m_Listener, SOMAXCONN) == 0 &&
                ::getsockname(m_Listener, where, &length) == 0,
            "cannot listen");
    m_Port = std::to_string(ntohs(address.sin_port));
    m_Thread = std::thread([this] { serve(); });
}

Responder::~Responder() {
    ::shutdown(m_Listener, SHUT_RDWR);  // ends the accept
    m_Thread.join();
    ::close(m_Listener);
}

void Responder::serve() {
    for (;;) {
        int const client = ::accept4(m_Listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client == -1) {
            return;
        }
        if (m_Context == nullptr) {
            respond(client);
        } else {
            respondWithTls(client);
        }
        ::close(client);
    }
}

void Responder::respond(int client) const {
    if (!receiveRequest([client](char* buffer, std::size_t size) { return ::recv(client, buffer, size, 0); })) {
        return;
    }
    for (std::size_t sent = 0; sent < m_Response.size();) {
        ssize_t const count = ::send(client, m_Response.data() + sent, m_Response.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            return;
        }
        sent += static_cast<std::size_t>(count);
    }
}

void Responder::respondWithTls(int client) {
    std::unique_ptr<SSL, decltype(&SSL_free)> const session(SSL_new(m_Context.get()), &SSL_free);
    if (session == nullptr || SSL_set_fd(session.get(), client) != 1 || SSL_accept(session.get()) != 1) {
        return;
    }
    m_Resumed += SSL_session_reused(session.get()) == 1 ? 1 : 0;
    if (receiveRequest([&session](char* buffer, std::size_t size) {
            return SSL_read(session.get(), buffer, static_cast<int>(size));
        }) &&
        SSL_write(session.get(), m_Response.data(), static_cast<int>(m_Response.size())) > 0) {
        SSL_shutdown(session.get());
    }
}

}  // namespace kvxbench
