// Makes and loads the certificates of the TLS port: one authority, one sound certificate, three faulty ones.
// makeFiles() writes the authority's file empty at first and complete at the end. An interrupted start thus leaves a
// set that isComplete() rejects, and the next start makes all files again. The private key of the authority is never
// written.
// The faulty certificates use the same server key: a fault only selects another TLS context.
#include "sandbox/http/tlsidentity.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

constexpr char kAuthorityFile[] = "ca.pem";
constexpr char kKeyFile[] = "server-key.pem";
constexpr char kSoundFile[] = "server.pem";
constexpr char kExpiredFile[] = "server-expired.pem";
constexpr char kWrongHostFile[] = "server-wrong-host.pem";
constexpr char kUnknownAuthorityFile[] = "server-unknown-authority.pem";

constexpr std::size_t kKeyBits = 2048;
constexpr long kDay = 24L * 60 * 60;
constexpr char kOwnHosts[] = "IP:127.0.0.1,DNS:localhost";
constexpr char kOtherHost[] = "DNS:elsewhere.example";
constexpr long kX509Version3 = 2;

using Extensions = std::vector<std::pair<int, char const*>>;

[[noreturn]] void fail(std::string const& what) {
    ERR_clear_error();
    throw std::runtime_error("TLS: OpenSSL could not " + what);
}

void check(bool success, char const* what) {
    if (!success) {
        fail(what);
    }
}

KeyHolder makeKey() {
    KeyHolder key(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", kKeyBits));
    check(key != nullptr, "make a key");
    return key;
}

void setSerial(X509* certificate) {
    std::uint64_t serial = 0;
    check(RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) == 1, "draw a serial number");
    check(ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), serial) == 1, "set a serial number");
}

void setSubject(X509* certificate, char const* commonName) {
    X509_NAME* const name = X509_get_subject_name(certificate);
    auto const* const bytes = reinterpret_cast<unsigned char const*>(commonName);
    check(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, bytes, -1, -1, 0) == 1, "set a subject");
}

void addExtensions(X509* certificate, X509* issuer, Extensions const& extensions) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    for (auto const& [identifier, value] : extensions) {
        ExtensionHolder const extension(X509V3_EXT_conf_nid(nullptr, &context, identifier, value));
        check(extension && X509_add_ext(certificate, extension.get(), -1) == 1, "add an extension");
    }
}

/// When a certificate is valid, in seconds from now.
struct Validity {
    long m_From = -kDay;
    long m_Until = 10L * 365 * kDay;
};

/// A certificate for `key` under `issuer`, or under itself when `issuer` is null.
CertificateHolder makeCertificate(char const* commonName, EVP_PKEY* key, X509* issuer, EVP_PKEY* issuerKey,
                                  Extensions const& extensions, Validity validity = {}) {
    CertificateHolder certificate(X509_new());
    check(certificate != nullptr, "make a certificate");
    X509* const raw = certificate.get();
    check(X509_set_version(raw, kX509Version3) == 1, "set the version");
    setSerial(raw);
    setSubject(raw, commonName);
    X509* const signer = issuer != nullptr ? issuer : raw;
    check(X509_set_issuer_name(raw, X509_get_subject_name(signer)) == 1, "set the issuer");
    check(X509_gmtime_adj(X509_getm_notBefore(raw), validity.m_From) != nullptr, "set the start");
    check(X509_gmtime_adj(X509_getm_notAfter(raw), validity.m_Until) != nullptr, "set the end");
    check(X509_set_pubkey(raw, key) == 1, "set the public key");
    addExtensions(raw, signer, extensions);
    check(X509_sign(raw, issuerKey, EVP_sha256()) > 0, "sign a certificate");
    return certificate;
}

std::string contentOf(BIO* bio) {
    char* data = nullptr;
    long const length = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<std::size_t>(length));
}

std::string certificatePem(X509* certificate) {
    BioHolder const bio(BIO_new(BIO_s_mem()));
    check(bio && PEM_write_bio_X509(bio.get(), certificate) == 1, "write a certificate");
    return contentOf(bio.get());
}

std::string keyPem(EVP_PKEY* key) {
    BioHolder const bio(BIO_new(BIO_s_mem()));
    check(bio && PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1, "write a key");
    return contentOf(bio.get());
}

/// An authority with its key, for as long as it takes to sign what is under it.
struct Authority {
    KeyHolder m_Key = makeKey();
    CertificateHolder m_Certificate = makeCertificate("Tallowin sandbox authority", m_Key.get(), nullptr, m_Key.get(),
                                                      {{NID_basic_constraints, "critical,CA:TRUE,pathlen:0"},
                                                       {NID_key_usage, "critical,keyCertSign,cRLSign"},
                                                       {NID_subject_key_identifier, "hash"}});

    [[nodiscard]] std::string sign(EVP_PKEY* serverKey, char const* hosts, Validity validity = {}) const {
        return certificatePem(makeCertificate("Tallowin sandbox", serverKey, m_Certificate.get(), m_Key.get(),
                                              {{NID_basic_constraints, "critical,CA:FALSE"},
                                               {NID_key_usage, "critical,digitalSignature,keyEncipherment"},
                                               {NID_ext_key_usage, "serverAuth"},
                                               {NID_subject_key_identifier, "hash"},
                                               {NID_authority_key_identifier, "keyid"},
                                               {NID_subject_alt_name, hosts}},
                                              validity)
                                  .get());
    }
};

void makeFiles(DataDirectory const& directory, std::string const& ownHosts) {
    Authority const authority;
    Authority const unknown;
    KeyHolder const serverKey = makeKey();
    // An empty file of the authority says that the set is not complete, until all of it is there.
    directory.write(kAuthorityFile, "");
    directory.write(kKeyFile, keyPem(serverKey.get()));
    directory.write(kSoundFile, authority.sign(serverKey.get(), ownHosts.c_str()));
    directory.write(kExpiredFile, authority.sign(serverKey.get(), kOwnHosts, {-2 * kDay, -kDay}));
    directory.write(kWrongHostFile, authority.sign(serverKey.get(), kOtherHost));
    directory.write(kUnknownAuthorityFile, unknown.sign(serverKey.get(), kOwnHosts));
    directory.write(kAuthorityFile, certificatePem(authority.m_Certificate.get()));
}

bool isNumber(std::string const& host) {
    return host.find_first_not_of("0123456789.") == std::string::npos;
}

/// Whether the sound certificate is for that host.
bool isFor(DataDirectory const& directory, std::string const& host) {
    std::string const text = directory.read(kSoundFile);
    BioHolder const bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    CertificateHolder const certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    ERR_clear_error();
    return certificate && (isNumber(host) ? X509_check_ip_asc(certificate.get(), host.c_str(), 0)
                                          : X509_check_host(certificate.get(), host.c_str(), 0, 0, nullptr)) == 1;
}

bool isComplete(DataDirectory const& directory) {
    for (char const* name :
         {kKeyFile, kSoundFile, kExpiredFile, kWrongHostFile, kUnknownAuthorityFile, kAuthorityFile}) {
        if (directory.read(name).empty()) {
            return false;
        }
    }
    return true;
}

TlsContextHolder makeContext(DataDirectory const& directory, char const* certificateName) {
    TlsContextHolder context(SSL_CTX_new(TLS_server_method()));
    check(context != nullptr, "make a server context");
    std::string const certificateFile = directory.file(certificateName);
    std::string const keyFile = directory.file(kKeyFile);
    if (SSL_CTX_use_certificate_file(context.get(), certificateFile.c_str(), SSL_FILETYPE_PEM) != 1) {
        fail("use " + certificateFile);
    }
    if (SSL_CTX_use_PrivateKey_file(context.get(), keyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
        fail("use " + keyFile);
    }
    check(SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) == 1, "set the lowest TLS version");
    return context;
}

}  // namespace

SSL_CTX* TlsIdentity::context(std::optional<Fault> const& fault) const {
    if (fault && fault->m_Kind == FaultKind::kTlsExpired) {
        return m_Expired.get();
    }
    if (fault && fault->m_Kind == FaultKind::kTlsWrongHost) {
        return m_WrongHost.get();
    }
    if (fault && fault->m_Kind == FaultKind::kTlsUnknownAuthority) {
        return m_UnknownAuthority.get();
    }
    return m_Sound.get();
}

TlsIdentity makeTlsIdentity(DataDirectory const& directory, std::string const& name) {
    if (!isComplete(directory) || !isFor(directory, name)) {
        makeFiles(directory, std::string(kOwnHosts) + (isNumber(name) ? ",IP:" : ",DNS:") + name);
    }
    directory.publish(kAuthorityFile);
    return {makeContext(directory, kSoundFile), makeContext(directory, kExpiredFile),
            makeContext(directory, kWrongHostFile), makeContext(directory, kUnknownAuthorityFile)};
}

TlsContextHolder makeClientContext(std::string const& authorityFile, std::string const& host) {
    ERR_clear_error();
    TlsContextHolder context(SSL_CTX_new(TLS_client_method()));
    if (!context || SSL_CTX_load_verify_locations(context.get(), authorityFile.c_str(), nullptr) != 1) {
        throw HttpError("no certificates can be read from " + authorityFile);
    }
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    // A response without a length ends with the connection, announced or not.
    SSL_CTX_set_options(context.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
    X509_VERIFY_PARAM* const expected = SSL_CTX_get0_param(context.get());
    if (X509_VERIFY_PARAM_set1_ip_asc(expected, host.c_str()) != 1) {
        X509_VERIFY_PARAM_set1_host(expected, host.c_str(), 0);
    }
    return context;
}

}  // namespace sandbox
