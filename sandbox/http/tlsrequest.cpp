#include "sandbox/http/tlsrequest.h"

#include <openssl/err.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "sandbox/crypto/opensslholders.h"
#include "sandbox/http/httptext.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/httpstatus.h"

namespace sandbox {

namespace {

/// A socket that blocks, each call at most for the timeout.
class TimedSocket {
public:
    TimedSocket(HostPort const& hostPort, std::chrono::milliseconds timeout) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr = localAddress(hostPort.m_Host);
        address.sin_port = htons(hostPort.m_Port);
        m_Socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        timeval const wait{timeout.count() / 1000, timeout.count() % 1000 * 1000};
        ::setsockopt(m_Socket, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        ::setsockopt(m_Socket, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
        if (::connect(m_Socket, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
            std::string const reason = std::generic_category().message(errno);
            ::close(m_Socket);
            throw HttpError("no connection to " + hostPort.text() + ": " + reason, httpstatus::kBadGateway);
        }
    }
    ~TimedSocket() { ::close(m_Socket); }
    TimedSocket(TimedSocket const&) = delete;
    TimedSocket& operator=(TimedSocket const&) = delete;

    [[nodiscard]] int get() const { return m_Socket; }

private:
    int m_Socket = -1;
};

void expectHost(SSL* tls, std::string const& host) {
    if (X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(tls), host.c_str()) != 1) {
        SSL_set1_host(tls, host.c_str());
    }
}

}  // namespace

std::string requestOverTls(HostPort const& hostPort, std::string const& request, std::string const& authorityFile,
                           std::chrono::milliseconds timeout) {
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    ERR_clear_error();
    TlsContextHolder const context(SSL_CTX_new(TLS_client_method()));
    if (!context || SSL_CTX_load_verify_locations(context.get(), authorityFile.c_str(), nullptr) != 1) {
        throw HttpError("no certificates can be read from " + authorityFile);
    }
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    TimedSocket const socket(hostPort, timeout);
    TlsHolder const tls(SSL_new(context.get()));
    expectHost(tls.get(), hostPort.m_Host);
    SSL_set_fd(tls.get(), socket.get());
    if (SSL_connect(tls.get()) != 1) {
        long const verdict = SSL_get_verify_result(tls.get());
        throw HttpError(verdict == X509_V_OK ? "the merchant made no TLS connection"
                                             : std::string("the merchant's certificate was refused: ") +
                                                   X509_verify_cert_error_string(verdict),
                        httpstatus::kBadGateway);
    }
    std::string response;
    char piece[4096];
    int count = SSL_write(tls.get(), request.data(), static_cast<int>(request.size()));
    while (count > 0 && !isCompleteResponse(response) && std::chrono::steady_clock::now() < deadline) {
        count = SSL_read(tls.get(), piece, sizeof piece);
        response.append(piece, count > 0 ? static_cast<std::size_t>(count) : 0);
    }
    ERR_clear_error();
    return response;
}

}  // namespace sandbox
