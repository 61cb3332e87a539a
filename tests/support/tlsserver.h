/// Scripted servers over TLS, with a certificate made at run time.
#ifndef TALLOWIN_TESTS_SUPPORT_TLSSERVER_H
#define TALLOWIN_TESTS_SUPPORT_TLSSERVER_H

#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "tests/support/rawserver.h"

namespace kvxtest {

struct OpenSslReleaser {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    void operator()(SSL* session) const { SSL_free(session); }
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(BIO* bio) const { BIO_free(bio); }
};
template <class T>
using OpenSslHolder = std::unique_ptr<T, OpenSslReleaser>;

class TlsIdentity;

/// What a certificate says.
struct CertificateOptions {
    std::string m_Name = "localhost";  ///< The common name.
    std::string m_Hosts;               ///< Such as "DNS:localhost,IP:127.0.0.1"; empty for none.
    long m_ValidFrom = -3600;          ///< Seconds from now.
    long m_ValidTo = 86400;
    bool m_IsAuthority = false;
    TlsIdentity const* m_Issuer = nullptr;  ///< Null: it is signed by itself.
};

/// A key and its certificate.
class TlsIdentity {
public:
    /// An RSA key of 2048 bits and a certificate that it signed itself, for "localhost".
    TlsIdentity();

    /// A key on a curve, which is quicker to make.
    explicit TlsIdentity(CertificateOptions const& options);

    [[nodiscard]] X509* certificate() const { return m_Certificate.get(); }
    [[nodiscard]] EVP_PKEY* key() const { return m_Key.get(); }
    [[nodiscard]] std::string certificatePem() const;
    [[nodiscard]] std::string keyPem() const;

    /// The one identity of this process, made at the first call.
    static TlsIdentity const& shared();

private:
    void certify(CertificateOptions const& options);

    OpenSslHolder<EVP_PKEY> m_Key;
    OpenSslHolder<X509> m_Certificate;
};

/// How a TLS peer differs from an ordinary one.
struct TlsOptions {
    int m_Version = 0;                         ///< The only protocol version, such as TLS1_2_VERSION; 0 for any.
    bool m_WithCertificate = true;             ///< Without one the handshake ends in an alert.
    TlsIdentity const* m_Identity = nullptr;   ///< Null: the one of this process. Outlives the peer.
    TlsIdentity const* m_Authority = nullptr;  ///< Its certificate is sent too.
};

/// Talks TLS over another peer, which it borrows. Check `isReady` before use.
class TlsPeer : public Peer {
public:
    explicit TlsPeer(Peer& plain, TlsOptions const& options = {});

    /// Whether the handshake has succeeded.
    [[nodiscard]] bool isReady() const { return m_Ready; }

    std::string receive() override;
    bool send(std::string_view bytes) override;

    /// The name that the client has asked for; empty when there was none.
    [[nodiscard]] std::string serverName() const;

    /// Sends the TLS close alert; without it the connection just closes.
    void notifyClose();

private:
    OpenSslHolder<SSL_CTX> m_Context;
    OpenSslHolder<SSL> m_Session;
    bool m_Ready = false;
};

/// Plays a script with every client that shakes hands.
class TlsServer : public RawServer {
public:
    explicit TlsServer(Script script, TlsOptions const& options = {});

    /// Receives each client's request and sends `response`.
    explicit TlsServer(std::string response, TlsOptions const& options = {});
};

}  // namespace kvxtest

#endif
