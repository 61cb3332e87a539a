// Reads the addresses that merchants and proxy clients write, and admits those of this machine only.
// parseHttpAddress() cuts off scheme and fragment, parseHostPort() splits host and port, localAddress() resolves the
// host. Names other than "localhost" are never looked up.
#include "sandbox/http/hostport.h"

#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <stdexcept>

#include "sandbox/text/httperror.h"

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

}  // namespace sandbox
