#include "browserhttp.h"

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

constexpr timeval kPatience{10, 0};

void check(bool success, std::string const& what) {
    if (!success) {
        throw std::runtime_error(what);
    }
}

/// A connection that closes itself.
class Socket {
public:
    explicit Socket(Address const& address) {
        addrinfo wanted{};
        wanted.ai_family = AF_UNSPEC;
        wanted.ai_socktype = SOCK_STREAM;
        addrinfo* list = nullptr;
        check(getaddrinfo(address.m_Host.c_str(), address.m_Port.c_str(), &wanted, &list) == 0,
              "there is no host " + address.m_Host);
        std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> const found(list, freeaddrinfo);
        m_Number = ::socket(found->ai_family, found->ai_socktype | SOCK_CLOEXEC, found->ai_protocol);
        check(m_Number >= 0, "no socket");
        ::setsockopt(m_Number, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
        ::setsockopt(m_Number, SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
        if (::connect(m_Number, found->ai_addr, found->ai_addrlen) != 0) {
            ::close(m_Number);
            throw std::runtime_error("nobody answers at " + address.m_Host + ":" + address.m_Port);
        }
    }
    ~Socket() { ::close(m_Number); }
    Socket(Socket const&) = delete;
    Socket& operator=(Socket const&) = delete;

    void send(std::string const& text) const {
        std::size_t sent = 0;
        while (sent < text.size()) {
            ssize_t const count = ::send(m_Number, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            check(count > 0, "the request could not be sent");
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
        check(count == 0, "the answer did not come to an end");
        return text;
    }

private:
    int m_Number = -1;
};

/// The value of a header line, whose name is compared without regard to case; empty when there is none.
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

Answer readAnswer(std::string const& text) {
    std::size_t const end = text.find("\r\n\r\n");
    check(text.compare(0, 7, "HTTP/1.") == 0 && end != std::string::npos, "this is no HTTP answer");
    std::string const head = text.substr(0, end);
    Answer answer;
    std::istringstream statusLine(head.substr(head.find(' ')));
    check(static_cast<bool>(statusLine >> answer.m_Status), "this HTTP answer has no status");
    answer.m_Location = headerValue(head, "Location");
    answer.m_Body = text.substr(end + 4);
    std::string const length = headerValue(head, "Content-Length");
    check(length.empty() || length == std::to_string(answer.m_Body.size()), "the answer is not whole");
    return answer;
}

}  // namespace

Address splitAddress(std::string const& url) {
    std::string const scheme = "http://";
    std::string const address = url.substr(0, url.find('#'));
    std::size_t const path = std::min(address.find_first_of("/?", scheme.size()), address.size());
    check(address.compare(0, scheme.size(), scheme) == 0 && path > scheme.size(), "this is no address for us: " + url);
    std::string const host = address.substr(scheme.size(), path - scheme.size());
    std::string const target = address.substr(path);
    std::size_t const colon = host.find(':');
    return {host.substr(0, colon), colon == std::string::npos ? "80" : host.substr(colon + 1),
            target.empty() || target[0] == '?' ? "/" + target : target};
}

Answer fetch(std::string const& url, std::string const& form) {
    Address const address = splitAddress(url);
    Socket const connection(address);
    std::string const tail = " HTTP/1.0\r\nHost: " + address.m_Host + ":" + address.m_Port + "\r\n";
    if (form.empty()) {
        connection.send("GET " + address.m_Target + tail + "\r\n");
    } else {
        connection.send("POST " + address.m_Target + tail +
                        "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: " +
                        std::to_string(form.size()) + "\r\n\r\n" + form);
    }
    return readAnswer(connection.readToEnd());
}

}  // namespace demo
