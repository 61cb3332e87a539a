/// One connection of the doctor: TCP, through a proxy or not, with TLS or not.
#ifndef TALLOWIN_TOOLS_DOCTORCONNECTION_H
#define TALLOWIN_TOOLS_DOCTORCONNECTION_H

#include <openssl/ssl.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace tool {

/// An exchange that failed, with what to do.
class ConnectionFailure : public std::runtime_error {
public:
    ConnectionFailure(std::string const& text, std::string cure) : std::runtime_error(text), m_Cure(std::move(cure)) {}

    [[nodiscard]] std::string const& cure() const { return m_Cure; }

private:
    std::string m_Cure;
};

/// What the server showed in a TLS handshake.
struct TlsFacts {
    std::string m_Version;       ///< "TLSv1.3".
    std::vector<long> m_Errors;  ///< X509_V_ERR_* of chain and name, each once; empty when it verifies.
    std::string m_Subject;       ///< Of its certificate.
    std::string m_Names;         ///< The names that the certificate is for.
    long m_DaysLeft = 0;         ///< Until its certificate expires; negative when it has.
    std::string m_Expiry;        ///< "Nov 22 19:16:00 2027 GMT".
};

/// A connection with a time limit on each connect, read and write.
class DoctorConnection {
public:
    /// Connects to the first address of `host` that accepts. ConnectionFailure.
    DoctorConnection(std::string const& host, std::string const& port, int timeoutSeconds);
    DoctorConnection(DoctorConnection const&) = delete;
    DoctorConnection& operator=(DoctorConnection const&) = delete;
    ~DoctorConnection();

    /// Opens a tunnel through a proxy to `target`, "host:port". ConnectionFailure when the proxy refuses.
    void openTunnel(std::string const& target);

    /// Makes the TLS handshake, whatever the certificate is, and verifies it for `host` with the authorities in
    /// `trustFile`, or the system's when it is empty. ConnectionFailure.
    TlsFacts startTls(std::string const& host, std::string const& trustFile);

    /// Sends `request`. Returns the response up to the end of its header, or less when the server closes before.
    /// ConnectionFailure.
    std::string ask(std::string const& request);

private:
    struct ContextRelease {
        void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    };
    struct TlsRelease {
        void operator()(SSL* tls) const { SSL_free(tls); }
    };

    void connectTo(std::string const& host, std::string const& port);
    void send(std::string const& text);
    bool receive(std::string& text);

    int m_Socket = -1;
    int m_TimeoutSeconds;
    std::unique_ptr<SSL_CTX, ContextRelease> m_Context;
    std::unique_ptr<SSL, TlsRelease> m_Tls;  ///< Null without TLS.
};

}  // namespace tool

#endif
