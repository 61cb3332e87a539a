/// A server for the exchanges that are measured.
#ifndef TALLOWIN_BENCH_RESPONDER_H
#define TALLOWIN_BENCH_RESPONDER_H

#include <openssl/ssl.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

namespace kvxbench {

/// A new key and a certificate for 127.0.0.1 that is its own authority.
class TlsIdentity {
public:
    TlsIdentity();

    /// A server's context with this identity. Owned by the caller.
    [[nodiscard]] SSL_CTX* serverContext() const;

    /// The certificate as PEM text.
    [[nodiscard]] std::string pem() const;

private:
    struct FreeKey {
        void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    };
    struct FreeCertificate {
        void operator()(X509* certificate) const { X509_free(certificate); }
    };

    std::unique_ptr<EVP_PKEY, FreeKey> m_Key;
    std::unique_ptr<X509, FreeCertificate> m_Certificate;
};

/// Sends the same HTTP/1.0 response to every client on a free loopback port and closes the connection: one client after
/// another, on its own thread.
class Responder {
public:
    /// Speaks TLS with `identity`, plain HTTP without.
    explicit Responder(std::string const& body, TlsIdentity const* identity = nullptr);
    Responder(Responder const&) = delete;
    Responder& operator=(Responder const&) = delete;
    ~Responder();

    /// Decimal text.
    [[nodiscard]] std::string const& port() const { return m_Port; }

    /// How many TLS sessions clients have resumed.
    [[nodiscard]] unsigned resumed() const { return m_Resumed; }

private:
    struct FreeContext {
        void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    };

    void serve();
    void respond(int client) const;
    void respondWithTls(int client);

    std::string m_Response;
    std::unique_ptr<SSL_CTX, FreeContext> m_Context;  ///< Null for plain HTTP.
    std::atomic<unsigned> m_Resumed = 0;
    std::string m_Port;
    int m_Listener = -1;
    std::thread m_Thread;
};

}  // namespace kvxbench

#endif
