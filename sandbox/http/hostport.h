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

/// Reads "host:port"; the port may be missing when there is a `usualPort`. Throws HttpError.
HostPort parseHostPort(std::string const& text, std::optional<std::uint16_t> usualPort);

/// An address of plain HTTP.
struct HttpAddress {
    HostPort m_HostPort;
    std::string m_Target;  ///< Path and query as they stand there; begins with a slash.
};

/// Reads "http://host:port/path?query"; a fragment is dropped. Throws HttpError for anything that could not stand in a
/// request as it is.
HttpAddress parseHttpAddress(std::string const& text);

/// The address of a host that is this machine: "localhost" or a number of 127.0.0.0/8. Throws HttpError (403) for every
/// other.
in_addr localAddress(std::string const& host);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_HOSTPORT_H
