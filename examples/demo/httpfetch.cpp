// A plain HTTP/1.0 client over POSIX sockets, so that the demonstration sees each redirect byte for byte.
//
// Order: the socket, reading of a response, then parseUrl() and fetch() as in the header. A response ends when the
// server closes the connection. Only the first address of a host name is tried.
#include "httpfetch.h"

#include <netdb.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace demo {

namespace {

constexpr timeval kTimeout{10, 0};

/// Throws std::runtime_error with `message` unless `success`.
void check(bool success, std::string const& message) {
    if (!success) {
        throw std::runtime_error(message);
    }
}

/// A connected socket. The destructor closes it.
class Socket {
public:
    explicit Socket(HttpUrl const& url) {
        addrinfo wanted{};
        wanted.ai_family = AF_UNSPEC;
        wanted.ai_socktype = SOCK_STREAM;
        addrinfo* list = nullptr;
        check(getaddrinfo(url.m_Host.c_str(), url.m_Port.c_str(), &wanted, &list) == 0, "unknown host " + url.m_Host);
        std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> const found(list, freeaddrinfo);
        m_Number = ::socket(found->ai_family, found->ai_socktype | SOCK_CLOEXEC, found->ai_protocol);
        check(m_Number >= 0, "cannot create a socket");
        ::setsockopt(m_Number, SOL_SOCKET, SO_RCVTIMEO, &kTimeout, sizeof kTimeout);
        ::setsockopt(m_Number, SOL_SOCKET, SO_SNDTIMEO, &kTimeout, sizeof kTimeout);
        if (::connect(m_Number, found->ai_addr, found->ai_addrlen) != 0) {
            ::close(m_Number);
            throw std::runtime_error("cannot connect to " + url.m_Host + ":" + url.m_Port);
        }
    }
    ~Socket() { ::close(m_Number); }
    Socket(Socket const&) = delete;
    Socket& operator=(Socket const&) = delete;

    void send(std::string const& text) const {
        std::size_t sent = 0;
        while (sent < text.size()) {
            ssize_t const count = ::send(m_Number, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            check(count > 0, "cannot send the request");
            sent += static_cast<std::size_t>(count);
        }
    }

    [[nodiscard]] std::string readToEnd() const {
        std::string text;
        char piece[4096];
        ssize_t count = 0;
        while ((count = ::recv(m_Number, piece, sizeof piece, 0)) > 0) {
            text.append(piece, static_cast<std::size_t>(count));
        }
        check(count == 0, "the response did not end");
        return text;
    }

private:
    int m_Number = -1;
};

/// The value of header `name`, whose case does not matter; empty when absent.
std::string headerValue(std::string const& head, std::string const& name) {
    std::istringstream lines(head);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.size() > name.size() && line[name.size()] == ':' &&
            ::strncasecmp(line.c_str(), name.c_str(), name.size()) == 0) {
            std::size_t const start = line.find_first_not_of(" \t", name.size() + 1);
            std::size_t const end = line.find_last_not_of(" \t\r") + 1;
            return start < end ? line.substr(start, end - start) : "";
        }
    }
    return "";
}

Response readResponse(std::string const& text) {
    std::size_t const end = text.find("\r\n\r\n");
    check(text.compare(0, 7, "HTTP/1.") == 0 && end != std::string::npos, "not an HTTP response");
    std::string const head = text.substr(0, end);
    Response response;
    std::istringstream statusLine(head.substr(head.find(' ')));
    check(static_cast<bool>(statusLine >> response.m_Status), "the HTTP response has no status");
    response.m_Location = headerValue(head, "Location");
    response.m_Body = text.substr(end + 4);
    std::string const length = headerValue(head, "Content-Length");
    check(length.empty() || length == std::to_string(response.m_Body.size()), "the response is incomplete");
    return response;
}

}  // namespace

HttpUrl parseUrl(std::string const& url) {
    std::string const scheme = "http://";
    std::string const text = url.substr(0, url.find('#'));
    std::size_t const path = std::min(text.find_first_of("/?", scheme.size()), text.size());
    check(text.compare(0, scheme.size(), scheme) == 0 && path > scheme.size(), "not an http URL: " + url);
    std::string const host = text.substr(scheme.size(), path - scheme.size());
    std::string const target = text.substr(path);
    std::size_t const colon = host.find(':');
    return {host.substr(0, colon), colon == std::string::npos ? "80" : host.substr(colon + 1),
            target.empty() || target[0] == '?' ? "/" + target : target};
}

Response fetch(std::string const& url, std::string const& form) {
    HttpUrl const parts = parseUrl(url);
    Socket const connection(parts);
    std::string const lines = " HTTP/1.0\r\nHost: " + parts.m_Host + ":" + parts.m_Port + "\r\n";
    if (form.empty()) {
        connection.send("GET " + parts.m_Target + lines + "\r\n");
    } else {
        connection.send("POST " + parts.m_Target + lines +
                        "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: " +
                        std::to_string(form.size()) + "\r\n\r\n" + form);
    }
    return readResponse(connection.readToEnd());
}

}  // namespace demo
