#ifndef TALLOWIN_SANDBOX_HTTP_HTTPTEXT_H
#define TALLOWIN_SANDBOX_HTTP_HTTPTEXT_H

#include <cstddef>
#include <optional>
#include <string>

/// Requests and answers of HTTP as the bytes they are.
namespace sandbox {

/// Where the body begins: behind the first empty line. Nothing while there is none.
std::optional<std::size_t> bodyBegin(std::string const& text);

/// The status of an answer; nothing while its head is not complete, or when it is none.
std::optional<int> statusOfResponse(std::string const& response);

/// Whether an answer has come as a whole, as its Content-Length tells; only the end tells that of one without.
bool isCompleteResponse(std::string const& response);

/// A whole answer that tells people `text`. `fields` are further header lines, each with its line end.
std::string textResponse(int status, std::string const& text, std::string const& fields = "");

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_HTTPTEXT_H
