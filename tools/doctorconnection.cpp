// Connects as the library does: IPv4 first, HTTP/1.0, a proxy's tunnel for TLS. Certificates are verified for the
// report only: the handshake goes on after an error, so that all errors of a certificate are seen, and what the server
// answers.

#include "tools/doctorconnection.h"

#include <fcntl.h>
#include <netdb.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <system_error>

namespace tool {

namespace {

constexpr std::size_t kMaxHeader = std::size_t{64} * 1024;
constexpr int kMillisecondsPerSecond = 1000;
constexpr char kEndOfHeader[] = "\r\n\r\n";

struct AddressesRelease {
    void operator()(addrinfo* addresses) const { ::freeaddrinfo(addresses); }
};

std::string errorText(int error) {
    return std::generic_category().message(error);
}

/// Waits until a connect has ended. Returns its error number.
int finishConnect(int socket, int timeoutSeconds) {
    pollfd wait = {socket, POLLOUT, 0};
    int const ready = ::poll(&wait, 1, timeoutSeconds * kMillisecondsPerSecond);
    if (ready <= 0) {
        return ready == 0 ? ETIMEDOUT : errno;
    }
    int error = 0;
    socklen_t length = sizeof error;
    return ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
}

/// A connected socket that blocks, with time limits; -1 and an error number otherwise.
int connectSocket(addrinfo const& address, int timeoutSeconds, int& error) {
    int const socket = ::socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (socket < 0) {
        error = errno;
        return -1;
    }
    error = ::connect(socket, address.ai_addr, address.ai_addrlen) == 0 ? 0 : errno;
    error = error == EINPROGRESS ? finishConnect(socket, timeoutSeconds) : error;
    if (error != 0) {
        ::close(socket);
        return -1;
    }
    int const flags = ::fcntl(socket, F_GETFL);
    timeval const limit = {timeoutSeconds, 0};
    ::fcntl(socket, F_SETFL, flags & ~O_NONBLOCK);
    ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    return socket;
}

ConnectionFailure connectFailure(std::string const& place, int error) {
    std::string const text = "cannot connect to " + place + ": " + errorText(error);
    switch (error) {
        case ECONNREFUSED:
            return {text, "nothing listens there: compare host and port with the provider, or start the service"};
        case ETIMEDOUT:
        case EHOSTUNREACH:
        case ENETUNREACH:
            return {text, "see whether a firewall lets this machine out, or whether a proxy is needed (USEPROXY)"};
        default:
            return {text, "compare the address with the provider"};
    }
}

ConnectionFailure lateAnswer(int timeoutSeconds) {
    return {"no answer within " + std::to_string(timeoutSeconds) + " seconds",
            "the server accepts connections and hangs: call the provider, or try again later"};
}

/// Keeps each error of a certificate and goes on. The errors stand behind the SSL object.
int keepError(int good, X509_STORE_CTX* store) {
    auto* const tls = static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto* const errors = static_cast<std::vector<long>*>(SSL_get_app_data(tls));
    long const error = X509_STORE_CTX_get_error(store);
    if (good != 1 && errors != nullptr && std::find(errors->begin(), errors->end(), error) == errors->end()) {
        errors->push_back(error);
    }
    return 1;
}

std::string textOf(BIO* memory) {
    char* data = nullptr;
    long const length = BIO_get_mem_data(memory, &data);
    return length > 0 ? std::string(data, static_cast<std::size_t>(length)) : "";
}

struct BioRelease {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
using BioHolder = std::unique_ptr<BIO, BioRelease>;

struct NamesRelease {
    void operator()(GENERAL_NAMES* names) const { GENERAL_NAMES_free(names); }
};

std::string namesOf(X509* certificate) {
    std::unique_ptr<GENERAL_NAMES, NamesRelease> const names(
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    std::string out;
    for (int i = 0; names != nullptr && i < sk_GENERAL_NAME_num(names.get()); ++i) {
        BioHolder const text(BIO_new(BIO_s_mem()));
        GENERAL_NAME_print(text.get(), sk_GENERAL_NAME_value(names.get(), i));
        out += (out.empty() ? "" : ", ") + textOf(text.get());
    }
    return out;
}

void describe(X509* certificate, TlsFacts& facts) {
    BioHolder const subject(BIO_new(BIO_s_mem()));
    X509_NAME_print_ex(subject.get(), X509_get_subject_name(certificate), 0, XN_FLAG_ONELINE);
    facts.m_Subject = textOf(subject.get());
    facts.m_Names = namesOf(certificate);
    BioHolder const expiry(BIO_new(BIO_s_mem()));
    ASN1_TIME_print(expiry.get(), X509_get0_notAfter(certificate));
    facts.m_Expiry = textOf(expiry.get());
    int days = 0;
    int seconds = 0;
    ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate));
    facts.m_DaysLeft = days > 0 || seconds > 0 ? days : std::min(days, -1);
}

std::string lastTlsError() {
    unsigned long const error = ERR_peek_last_error();
    char const* const reason = ERR_reason_error_string(error);
    return reason != nullptr ? reason : "the server closed the connection";
}

}  // namespace

DoctorConnection::DoctorConnection(std::string const& host, std::string const& port, int timeoutSeconds)
    : m_TimeoutSeconds(timeoutSeconds) {
    connectTo(host, port);
}

DoctorConnection::~DoctorConnection() {
    m_Tls.reset();
    if (m_Socket >= 0) {
        ::close(m_Socket);
    }
}

void DoctorConnection::connectTo(std::string const& host, std::string const& port) {
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    int const result = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
    if (result != 0) {
        throw ConnectionFailure("the host name " + host + " is not found: " + ::gai_strerror(result),
                                "compare the name with the provider; see whether this machine resolves other names");
    }
    std::unique_ptr<addrinfo, AddressesRelease> const addresses(found);
    int error = EHOSTUNREACH;
    for (int const family : {AF_INET, AF_INET6}) {
        for (addrinfo const* address = found; address != nullptr && m_Socket < 0; address = address->ai_next) {
            if (address->ai_family == family) {
                m_Socket = connectSocket(*address, m_TimeoutSeconds, error);
            }
        }
    }
    if (m_Socket < 0) {
        throw connectFailure(host + ":" + port, error);
    }
}

void DoctorConnection::openTunnel(std::string const& target) {
    std::string const answer = ask("CONNECT " + target + " HTTP/1.0\r\nPragma: no-cache\r\n\r\n");
    std::size_t const blank = answer.find(' ');
    std::string const line = answer.substr(0, answer.find_first_of("\r\n"));
    if (answer.compare(0, 5, "HTTP/") != 0 || blank == std::string::npos) {
        throw ConnectionFailure("the proxy does not answer as one", "compare PROXYHOST and PROXYPORT in settings.xml");
    }
    std::string const status = answer.substr(blank + 1, 3);
    if (status == "407") {
        throw ConnectionFailure("the proxy wants credentials: " + line,
                                "the library has none for proxies: let it pass this machine without");
    }
    if (status != "200") {
        throw ConnectionFailure("the proxy does not let " + target + " pass: " + line,
                                "see the rules of the proxy, and whether it reaches " + target);
    }
}

TlsFacts DoctorConnection::startTls(std::string const& host, std::string const& trustFile) {
    TlsFacts facts;
    m_Context.reset(SSL_CTX_new(TLS_client_method()));
    if (m_Context == nullptr) {
        throw ConnectionFailure("OpenSSL cannot be used: " + lastTlsError(), "");
    }
    SSL_CTX_set_min_proto_version(m_Context.get(), TLS1_VERSION);
    SSL_CTX_set_security_level(m_Context.get(), 0);  // Old versions and small keys are reported, not refused.
    int const trusts = trustFile.empty() ? SSL_CTX_set_default_verify_paths(m_Context.get())
                                         : SSL_CTX_load_verify_locations(m_Context.get(), trustFile.c_str(), nullptr);
    if (trusts != 1) {
        ERR_clear_error();  // Nothing is trusted then, which the errors of the certificate tell.
    }
    SSL_CTX_set_verify(m_Context.get(), SSL_VERIFY_PEER, keepError);
    m_Tls.reset(SSL_new(m_Context.get()));
    SSL_set_app_data(m_Tls.get(), &facts.m_Errors);
    bool const isAddress = host.find_first_not_of("0123456789.") == std::string::npos;
    if (isAddress) {
        X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(m_Tls.get()), host.c_str());
    } else {
        SSL_set1_host(m_Tls.get(), host.c_str());
        std::string name = host;
        // As SSL_set_tlsext_host_name, a macro with a cast of the old kind.
        SSL_ctrl(m_Tls.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, name.data());
    }
    SSL_set_fd(m_Tls.get(), m_Socket);
    ERR_clear_error();
    errno = 0;
    if (SSL_connect(m_Tls.get()) != 1) {
        bool const isLate = errno == EAGAIN || errno == EWOULDBLOCK;
        bool const isPlain = ERR_GET_REASON(ERR_peek_last_error()) == SSL_R_WRONG_VERSION_NUMBER ||
                             ERR_GET_REASON(ERR_peek_last_error()) == SSL_R_HTTP_REQUEST;
        std::string const text = isLate ? "no answer in time" : lastTlsError();
        ERR_clear_error();
        throw ConnectionFailure("the TLS handshake fails: " + text,
                                isPlain ? "this port does not speak TLS: the address should begin with http://, or has "
                                          "another port"
                                        : "compare the port with the provider; see which versions of TLS it speaks");
    }
    SSL_set_app_data(m_Tls.get(), nullptr);
    facts.m_Version = SSL_get_version(m_Tls.get());
    if (X509* const certificate = SSL_get0_peer_certificate(m_Tls.get())) {
        describe(certificate, facts);
    }
    ERR_clear_error();
    return facts;
}

void DoctorConnection::send(std::string const& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        std::size_t const rest = text.size() - done;
        ssize_t const count = m_Tls != nullptr ? SSL_write(m_Tls.get(), text.data() + done, static_cast<int>(rest))
                                               : ::send(m_Socket, text.data() + done, rest, MSG_NOSIGNAL);
        if (count <= 0) {
            throw ConnectionFailure("the request cannot be sent: " + errorText(errno), "try again later");
        }
        done += static_cast<std::size_t>(count);
    }
}

bool DoctorConnection::receive(std::string& text) {
    std::array<char, 4096> buffer{};
    errno = 0;
    ssize_t const count = m_Tls != nullptr ? SSL_read(m_Tls.get(), buffer.data(), static_cast<int>(buffer.size()))
                                           : ::recv(m_Socket, buffer.data(), buffer.size(), 0);
    if (count <= 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        throw lateAnswer(m_TimeoutSeconds);
    }
    ERR_clear_error();
    text.append(buffer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
    return count > 0;
}

std::string DoctorConnection::ask(std::string const& request) {
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(m_TimeoutSeconds);
    send(request);
    std::string answer;
    while (answer.find(kEndOfHeader) == std::string::npos && answer.size() < kMaxHeader && receive(answer)) {
        if (std::chrono::steady_clock::now() >= end) {
            throw lateAnswer(m_TimeoutSeconds);  // A server that sends now and then a byte keeps no read waiting.
        }
    }
    return answer;
}

}  // namespace tool
