#ifndef TALLOWIN_SANDBOX_HTTP_REQUESTLINE_H
#define TALLOWIN_SANDBOX_HTTP_REQUESTLINE_H

#include <optional>
#include <string>

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

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_REQUESTLINE_H
