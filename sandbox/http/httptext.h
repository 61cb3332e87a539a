#ifndef TALLOWIN_SANDBOX_HTTP_HTTPTEXT_H
#define TALLOWIN_SANDBOX_HTTP_HTTPTEXT_H

#include <cstddef>
#include <optional>
#include <string>

/// Requests and responses of HTTP as the bytes they are.
namespace sandbox {

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
