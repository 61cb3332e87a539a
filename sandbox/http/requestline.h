#ifndef TALLOWIN_SANDBOX_HTTP_REQUESTLINE_H
#define TALLOWIN_SANDBOX_HTTP_REQUESTLINE_H

#include <optional>
#include <string>

namespace sandbox {

/// The first line of a request, in its three parts.
struct RequestLine {
    std::string m_Method;
    std::string m_Target;  ///< As it came, but without scheme and authority when it had them.
    std::string m_Version;

    /// The target up to the query; "/" when that is empty.
    [[nodiscard]] std::string path() const;

    /// What follows the first "?" of the target.
    [[nodiscard]] std::string query() const;
};

/// Splits `line` (without its line end) at its first and its last space; nothing when there are not two.
std::optional<RequestLine> parseRequestLine(std::string const& line);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_REQUESTLINE_H
