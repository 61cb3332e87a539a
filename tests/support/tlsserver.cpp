// TLS over the scripted server, with a self-signed certificate that is made once per process.
//
// The peer speaks TLS over the socket of a plain peer that it borrows. OpenSSL's error queue is emptied after every
// call: the thread of a script shares nothing with the code under test.

#include "tests/support/tlsserver.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <stdexcept>
#include <utility>

namespace kvxtest {

namespace {

constexpr int kKeyBits = 2048;

void require(bool condition, char const* what) {
    if (!condition) {
        throw std::runtime_error(std::string("OpenSSL failed: ") + what);
    }
}

void addExtension(X509* certificate, int kind, char const* value) {
    X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, nullptr, kind, value);
    bool const isAdded = extension != nullptr && X509_add_ext(certificate, extension, -1) == 1;
    X509_EXTENSION_free(extension);
    require(isAdded, "an extension of the certificate");
}

std::string textOf(BIO* bio) {
    char* data = nullptr;
    long const length = BIO_get_mem_data(bio, &data);
    return {data, static_cast<std::size_t>(length)};
}

}  // namespace

TlsIdentity::TlsIdentity() : m_Key(EVP_RSA_gen(kKeyBits)), m_Certificate(X509_new()) {
    certify({});
}

TlsIdentity::TlsIdentity(CertificateOptions const& options)
    : m_Key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256")), m_Certificate(X509_new()) {
    certify(options);
}

void TlsIdentity::certify(CertificateOptions const& options) {
    require(m_Key != nullptr && m_Certificate != nullptr, "key generation");
    X509* const certificate = m_Certificate.get();
    X509_set_version(certificate, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), options.m_ValidFrom);
    X509_gmtime_adj(X509_getm_notAfter(certificate), options.m_ValidTo);
    X509_set_pubkey(certificate, m_Key.get());
    X509_NAME* const name = X509_get_subject_name(certificate);
    auto const* const host = reinterpret_cast<unsigned char const*>(options.m_Name.c_str());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, host, -1, -1, 0);
    TlsIdentity const& issuer = options.m_Issuer == nullptr ? *this : *options.m_Issuer;
    X509_set_issuer_name(certificate, X509_get_subject_name(issuer.certificate()));
    if (options.m_IsAuthority) {
        addExtension(certificate, NID_basic_constraints, "critical,CA:TRUE");
    }
    if (!options.m_Hosts.empty()) {
        addExtension(certificate, NID_subject_alt_name, options.m_Hosts.c_str());
    }
    require(X509_sign(certificate, issuer.key(), EVP_sha256()) > 0, "signing the certificate");
}

std::string TlsIdentity::certificatePem() const {
    OpenSslHolder<BIO> const out(BIO_new(BIO_s_mem()));
    require(PEM_write_bio_X509(out.get(), certificate()) == 1, "writing the certificate");
    return textOf(out.get());
}

std::string TlsIdentity::keyPem() const {
    OpenSslHolder<BIO> const out(BIO_new(BIO_s_mem()));
    require(PEM_write_bio_PrivateKey(out.get(), key(), nullptr, nullptr, 0, nullptr, nullptr) == 1, "writing the key");
    return textOf(out.get());
}

TlsIdentity const& TlsIdentity::shared() {
    static TlsIdentity const identity;
    return identity;
}

TlsPeer::TlsPeer(Peer& plain, TlsOptions const& options) : Peer(-1), m_Context(SSL_CTX_new(TLS_server_method())) {
    require(m_Context != nullptr, "server context");
    if (options.m_WithCertificate) {
        TlsIdentity const& identity = options.m_Identity == nullptr ? TlsIdentity::shared() : *options.m_Identity;
        SSL_CTX_use_certificate(m_Context.get(), identity.certificate());
        SSL_CTX_use_PrivateKey(m_Context.get(), identity.key());
        if (options.m_Authority != nullptr) {
            SSL_CTX_add1_chain_cert(m_Context.get(), options.m_Authority->certificate());
        }
    }
    if (options.m_Version != 0) {
        SSL_CTX_set_min_proto_version(m_Context.get(), options.m_Version);
        SSL_CTX_set_max_proto_version(m_Context.get(), options.m_Version);
    }
    m_Session.reset(SSL_new(m_Context.get()));
    require(m_Session != nullptr && SSL_set_fd(m_Session.get(), plain.socket()) == 1, "server session");
    m_Ready = SSL_accept(m_Session.get()) == 1;
    ERR_clear_error();
}

std::string TlsPeer::receive() {
    char buffer[16384];
    int const count = SSL_read(m_Session.get(), buffer, static_cast<int>(sizeof buffer));
    ERR_clear_error();
    return count > 0 ? std::string(buffer, static_cast<std::size_t>(count)) : std::string();
}

bool TlsPeer::send(std::string_view bytes) {
    int const count = bytes.empty() ? 1 : SSL_write(m_Session.get(), bytes.data(), static_cast<int>(bytes.size()));
    ERR_clear_error();
    return count > 0;
}

std::string TlsPeer::serverName() const {
    char const* const name = SSL_get_servername(m_Session.get(), TLSEXT_NAMETYPE_host_name);
    return name == nullptr ? "" : name;
}

void TlsPeer::notifyClose() {
    SSL_shutdown(m_Session.get());
    ERR_clear_error();
}

TlsServer::TlsServer(Script script, TlsOptions const& options)
    : RawServer([inner = std::move(script), options](Peer& plain) {
          TlsPeer peer(plain, options);
          if (peer.isReady()) {
              inner(peer);
          }
      }) {
    TlsIdentity::shared();
}

TlsServer::TlsServer(std::string response, TlsOptions const& options)
    : TlsServer(
          [this, text = std::move(response)](Peer& peer) {
              record(peer.receiveRequest());
              peer.send(text);
          },
          options) {}

}  // namespace kvxtest
