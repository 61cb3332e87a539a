#ifndef TALLOWIN_SANDBOX_HTTP_HOSTPORT_H
#define TALLOWIN_SANDBOX_HTTP_HOSTPORT_H

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>

/// Addresses of other programs, as merchants write them.
namespace sandbox {

/// `link` with one more piece of query, before a fragment.
std::string extendLink(std::string const& link, std::string const& query);

/// A host and one of its ports.
struct HostPort {
    std::string m_Host;
    std::uint16_t m_Port = 0;

    /// "host:port".
    [[nodiscard]] std::string text() const;
};

/// Where a service listens, and the name under which clients reach it.
struct ListenAddress {
    std::string m_Address = "127.0.0.1";  ///< IPv4, in numbers; "0.0.0.0" for all of the machine.
    std::string m_Name = "127.0.0.1";

    /// Whether only programs on this machine reach it. Throws std::runtime_error when it is no address.
    [[nodiscard]] bool isLocal() const;
};

/// Reads "host:port"; the port may be missing when there is a `usualPort`. Throws HttpError.
HostPort parseHostPort(std::string const& text, std::optional<std::uint16_t> usualPort);

/// An address of HTTP.
struct HttpAddress {
    HostPort m_HostPort;
    std::string m_Target;  ///< Path and query as they stand there; begins with a slash.
    bool m_Tls = false;    ///< "https".
};

/// Reads "http://host:port/path?query", with `tls` also "https://..."; a fragment is dropped. Throws HttpError for
/// anything that could not stand in a request as it is.
HttpAddress parseHttpAddress(std::string const& text, bool tls = false);

/// The address of a host that is this machine: "localhost" or a number of 127.0.0.0/8. Throws HttpError (403) for every
/// other.
in_addr localAddress(std::string const& host);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_HOSTPORT_H
