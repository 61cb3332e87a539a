#ifndef TALLOWIN_SANDBOX_HTTP_HTTPTEXT_H
#define TALLOWIN_SANDBOX_HTTP_HTTPTEXT_H

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

/// Addresses of other programs, as merchants write them, and requests and responses of HTTP as the bytes they are.
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

/// A port that a service serves, as clients reach it.
struct ServedAddress {
    std::string m_Url;         ///< "http://HOST:PORT" or "https://HOST:PORT", without a slash at the end.
    std::uint16_t m_Port = 0;  ///< In it.
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

/// The first line of a request, in its parts.
struct RequestLine {
    std::string m_Method;
    std::string m_Path = "/";  ///< The target up to the query, without scheme and authority; "/" when that is empty.
    std::string m_Query;       ///< What follows the first "?" of the target; percent-encoded.
    std::string m_Version;
};

/// Splits `line` (without its line end) at its first and its last space; nothing when there are not two.
std::optional<RequestLine> parseRequestLine(std::string const& line);

/// Where the body begins: behind the first empty line. Nothing while there is none.
std::optional<std::size_t> bodyBegin(std::string const& text);

/// The status of a response; nothing while its head is not complete, or when it is no response.
std::optional<int> statusOfResponse(std::string const& response);

/// Whether a response is complete by its Content-Length. Without that header only the end of the connection completes
/// it, and the result is false.
bool isCompleteResponse(std::string const& response);

/// A whole response with the plain `text` and a line end. `fields` are further header lines, each with its line end.
/// The phrase of a status this service sends for a fault only is "Fault".
std::string textResponse(int status, std::string const& text, std::string const& fields = "");

/// The response when the service itself has failed with `what`.
std::string failureText(std::string const& what);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_HTTPTEXT_H
