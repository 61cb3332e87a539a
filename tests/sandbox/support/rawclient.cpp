// HTTP over bare sockets, plain or TLS: connect, send, read to the end, split the response. Then the requests that
// tests send: a merchant's, the control API's, a browser's form. Every wait ends after ten seconds.
#include "tests/sandbox/support/rawclient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <stdexcept>

#include "sandbox/crypto/opensslholders.h"

namespace sandboxtest {

namespace {

void check(bool success, char const* what) {
    if (!success) {
        throw std::runtime_error(what);
    }
}

/// Base64 as merchants write it: no padding character, missing bits are zero, a whole group "AAAA" after an input whose
/// length is a multiple of three.
std::string merchantBase64(std::string const& text) {
    std::string const digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string const filled = text + std::string(3 - text.size() % 3, '\0');
    std::string out;
    for (std::size_t i = 0; i < filled.size(); i += 3) {
        auto const byte = [&filled, i](std::size_t k) { return static_cast<std::size_t>(filled[i + k] & 0xFF); };
        std::size_t const bits = byte(0) << 16 | byte(1) << 8 | byte(2);
        for (int shift = 18; shift >= 0; shift -= 6) {
            out += digits[bits >> shift & 63];
        }
    }
    return out;
}

std::string post(std::string const& target, std::string const& type, std::string const& body) {
    return "POST " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

}  // namespace

RawConnection::RawConnection(std::uint16_t port) : m_Number(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    timeval const timeout{10, 0};
    ::setsockopt(m_Number, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(m_Number, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(m_Number, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(m_Number);
        throw std::runtime_error("no connection");
    }
}

RawConnection::~RawConnection() {
    ::close(m_Number);
}

void RawConnection::send(std::string const& text) const {
    std::size_t sent = 0;
    while (sent < text.size()) {
        ssize_t const count = ::send(m_Number, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        check(count > 0, "the request could not be sent");
        sent += static_cast<std::size_t>(count);
    }
}

std::string RawConnection::readToEnd() const {
    std::string response;
    char piece[4096];
    for (;;) {
        ssize_t const count = ::recv(m_Number, piece, sizeof piece, 0);
        check(count >= 0, "the answer did not end");
        if (count == 0) {
            return response;
        }
        response.append(piece, static_cast<std::size_t>(count));
    }
}

std::string exchangeTls(int socket, std::string const& request, std::string const& authorityFile,
                        std::string const& host) {
    sandbox::TlsContextHolder const context(SSL_CTX_new(TLS_client_method()));
    check(SSL_CTX_load_verify_locations(context.get(), authorityFile.c_str(), nullptr) == 1, "no authority");
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    sandbox::TlsHolder const tls(SSL_new(context.get()));
    X509_VERIFY_PARAM* const rules = SSL_get0_param(tls.get());
    bool const numeric = host.find_first_not_of("0123456789.") == std::string::npos;
    check((numeric ? X509_VERIFY_PARAM_set1_ip_asc(rules, host.c_str())
                   : X509_VERIFY_PARAM_set1_host(rules, host.c_str(), 0)) == 1,
          "no host");
    SSL_set_fd(tls.get(), socket);
    check(SSL_connect(tls.get()) == 1, "the handshake failed");
    check(SSL_write(tls.get(), request.data(), static_cast<int>(request.size())) > 0, "the request could not be sent");
    std::string response;
    char piece[4096];
    for (;;) {
        int const count = SSL_read(tls.get(), piece, sizeof piece);
        if (count <= 0) {
            check(SSL_get_error(tls.get(), count) == SSL_ERROR_ZERO_RETURN, "the answer did not end properly");
            return response;
        }
        response.append(piece, static_cast<std::size_t>(count));
    }
}

std::string exchangeRaw(std::uint16_t port, std::string const& request, std::string const& authorityFile,
                        std::string const& host) {
    RawConnection const connection(port);
    if (!authorityFile.empty()) {
        return exchangeTls(connection.get(), request, authorityFile, host);
    }
    connection.send(request);
    return connection.readToEnd();
}

RawResponse parseResponse(std::string const& text) {
    std::size_t const space = text.find(' ');
    std::size_t const headEnd = text.find("\r\n\r\n");
    check(space != std::string::npos && headEnd != std::string::npos, "the answer is no HTTP");
    RawResponse response;
    response.m_Status = std::stoi(text.substr(space + 1));
    response.m_Body = text.substr(headEnd + 4);
    std::size_t from = text.find("\r\n") + 2;
    while (from < headEnd) {
        std::size_t const to = text.find("\r\n", from);
        std::string const line = text.substr(from, to - from);
        std::size_t const colon = line.find(": ");
        check(colon != std::string::npos, "a header line has no colon");
        std::string name = line.substr(0, colon);
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        response.m_Headers[name] = line.substr(colon + 2);
        from = to + 2;
    }
    return response;
}

std::string merchantGet(std::string const& target, std::string const& user, std::string const& password) {
    return "GET " + target + " HTTP/1.0\r\nAuthorization: Basic " + merchantBase64(user + ":" + password) +
           "\r\nUserAgent: Tallowin Application Component 1.0\r\n\r\n";
}

std::string jsonPost(std::string const& target, std::string const& body) {
    return post(target, "application/json", body);
}

std::string bareRequest(std::string const& method, std::string const& target, std::string const& host) {
    return method + " " + target + " HTTP/1.1\r\n" + (host.empty() ? "" : "Host: " + host + "\r\n") + "\r\n";
}

std::string formPost(std::string const& target, std::string const& body) {
    return post(target, "application/x-www-form-urlencoded", body);
}

}  // namespace sandboxtest
