// Reads the addresses that merchants and proxy clients write, and admits those of this machine only: parseHttpAddress()
// cuts off scheme and fragment, parseHostPort() splits host and port, localAddress() resolves the host. Names other
// than "localhost" are never looked up. Then the first lines, heads and lengths of requests and responses.
#include "sandbox/http/httptext.h"

#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <stdexcept>

#include "sandbox/text/httperror.h"
#include "sandbox/text/rowwith.h"

namespace sandbox {

namespace {

constexpr char kScheme[] = "http://";
constexpr char kTlsScheme[] = "https://";
constexpr std::uint16_t kHttpPort = 80;
constexpr std::uint16_t kHttpsPort = 443;
constexpr std::size_t kMaxNameBytes = 200;  // of a host in an error text

std::uint16_t parsePort(std::string const& text) {
    std::uint16_t port = 0;
    char const* const end = text.data() + text.size();
    std::from_chars_result const read = std::from_chars(text.data(), end, port);
    if (read.ec != std::errc() || read.ptr != end || port == 0) {
        throw HttpError("the port in the address is not a number between 1 and 65535");
    }
    return port;
}

bool isLoopback(in_addr const& address) {
    return ntohl(address.s_addr) >> 24U == 127;
}

void checkCharacters(std::string const& text) {
    for (char const c : text) {
        if (c <= ' ' || c > '~') {
            throw HttpError("the address holds a space or a byte outside ASCII");
        }
    }
}

struct StatusRow {
    int m_Status;
    char const* m_Phrase;
};

// clang-format off
constexpr StatusRow kPhrases[] = {
    {httpstatus::kBadRequest,                  "Bad Request"},
    {httpstatus::kForbidden,                   "Forbidden"},
    {httpstatus::kProxyAuthenticationRequired, "Proxy Authentication Required"},
    {httpstatus::kPayloadTooLarge,             "Payload Too Large"},
    {httpstatus::kUriTooLong,                  "URI Too Long"},
    {httpstatus::kInternalServerError,         "Internal Server Error"},
    {httpstatus::kBadGateway,                  "Bad Gateway"},
    {httpstatus::kServiceUnavailable,          "Service Unavailable"},
    {httpstatus::kGatewayTimeout,              "Gateway Timeout"},
};
// clang-format on

char const* phraseOf(int status) {
    StatusRow const* const row = rowWith(kPhrases, &StatusRow::m_Status, status);
    return row != nullptr ? row->m_Phrase : "Fault";
}

/// Turns the absolute form of a target, which servers must understand (RFC 9112, section 3.2.2), into the origin form.
std::string originForm(std::string const& target) {
    for (std::string const scheme : {"http://", "https://"}) {
        if (target.compare(0, scheme.size(), scheme) == 0) {
            std::size_t const authorityEnd = std::min(target.find_first_of("/?", scheme.size()), target.size());
            return target.substr(authorityEnd);
        }
    }
    return target;
}

}  // namespace

std::string extendLink(std::string const& link, std::string const& query) {
    std::size_t const end = std::min(link.find('#'), link.size());
    std::string const address = link.substr(0, end);
    char const separator = address.find('?') == std::string::npos ? '?' : '&';
    return address + separator + query + link.substr(end);
}

std::string HostPort::text() const {
    return m_Host + ":" + std::to_string(m_Port);
}

HostPort parseHostPort(std::string const& text, std::optional<std::uint16_t> usualPort) {
    checkCharacters(text);
    if (text.find('@') != std::string::npos) {
        throw HttpError("the address holds a user name");
    }
    std::size_t const colon = text.rfind(':');
    // The colons of an IPv6 address stand inside of brackets.
    bool const named = colon != std::string::npos && text.find(']', colon) == std::string::npos;
    if (!named && !usualPort) {
        throw HttpError("the address has no port");
    }
    HostPort hostPort;
    hostPort.m_Host = named ? text.substr(0, colon) : text;
    hostPort.m_Port = named ? parsePort(text.substr(colon + 1)) : *usualPort;
    if (hostPort.m_Host.empty()) {
        throw HttpError("the address has no host");
    }
    return hostPort;
}

HttpAddress parseHttpAddress(std::string const& text, bool tls) {
    bool const isTls = tls && text.compare(0, sizeof kTlsScheme - 1, kTlsScheme) == 0;
    std::size_t const begin = isTls ? sizeof kTlsScheme - 1 : sizeof kScheme - 1;
    if (!isTls && text.compare(0, begin, kScheme) != 0) {
        throw HttpError("the address does not begin with http://");
    }
    checkCharacters(text);
    std::size_t const hostPortEnd = std::min(text.find_first_of("/?#", begin), text.size());
    std::size_t const end = std::min(text.find('#', hostPortEnd), text.size());
    HttpAddress address{parseHostPort(text.substr(begin, hostPortEnd - begin), isTls ? kHttpsPort : kHttpPort),
                        text.substr(hostPortEnd, end - hostPortEnd), isTls};
    if (address.m_Target.empty() || address.m_Target[0] != '/') {
        address.m_Target.insert(0, 1, '/');
    }
    return address;
}

bool ListenAddress::isLocal() const {
    in_addr address{};
    if (::inet_pton(AF_INET, m_Address.c_str(), &address) != 1) {
        throw std::runtime_error("'" + m_Address + "' is no IPv4 address to listen on");
    }
    return isLoopback(address);
}

in_addr localAddress(std::string const& host) {
    char const* const number = ::strcasecmp(host.c_str(), "localhost") == 0 ? "127.0.0.1" : host.c_str();
    in_addr address{};
    if (::inet_pton(AF_INET, number, &address) != 1 || !isLoopback(address)) {
        throw HttpError("'" + host.substr(0, kMaxNameBytes) + "' is not this machine, and the sandbox reaches no other",
                        httpstatus::kForbidden);
    }
    return address;
}

std::optional<RequestLine> parseRequestLine(std::string const& line) {
    std::size_t const first = line.find(' ');
    std::size_t const last = line.rfind(' ');
    if (first == std::string::npos || first == last) {
        return std::nullopt;
    }
    std::string const target = originForm(line.substr(first + 1, last - first - 1));
    std::size_t const pathEnd = std::min(target.find('?'), target.size());
    RequestLine parsed;
    parsed.m_Method = line.substr(0, first);
    parsed.m_Path = pathEnd == 0 ? "/" : target.substr(0, pathEnd);
    parsed.m_Query = pathEnd == target.size() ? "" : target.substr(pathEnd + 1);
    parsed.m_Version = line.substr(last + 1);
    return parsed;
}

std::optional<std::size_t> bodyBegin(std::string const& text) {
    for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1)) {
        if (text.compare(at + 1, 1, "\n") == 0) {
            return at + 2;
        }
        if (text.compare(at + 1, 2, "\r\n") == 0) {
            return at + 3;
        }
    }
    return std::nullopt;
}

std::optional<int> statusOfResponse(std::string const& response) {
    std::size_t const space = response.find(' ');
    if (response.compare(0, 5, "HTTP/") != 0 || space > response.find('\n') || !bodyBegin(response)) {
        return std::nullopt;
    }
    int status = 0;
    std::from_chars_result const read =
        std::from_chars(response.data() + space + 1, response.data() + response.size(), status);
    return read.ec == std::errc() ? std::optional<int>(status) : std::nullopt;
}

bool isCompleteResponse(std::string const& response) {
    std::optional<std::size_t> const body = bodyBegin(response);
    std::string const name = "content-length:";
    for (std::size_t at = response.find('\n'); body && at + 1 < *body; at = response.find('\n', at + 1)) {
        char const* const line = response.c_str() + at + 1;
        if (::strncasecmp(line, name.c_str(), name.size()) == 0) {
            return std::strtoull(line + name.size(), nullptr, 10) <= response.size() - *body;
        }
    }
    return false;
}

std::string textResponse(int status, std::string const& text, std::string const& fields) {
    return "HTTP/1.0 " + std::to_string(status) + " " + phraseOf(status) + "\r\nConnection: close\r\n" + fields +
           "Content-Type: text/plain; charset=utf-8\r\nContent-Length: " + std::to_string(text.size() + 1) +
           "\r\n\r\n" + text + "\n";
}

std::string failureText(std::string const& what) {
    return textResponse(httpstatus::kInternalServerError, "The sandbox failed: " + what);
}

}  // namespace sandbox
