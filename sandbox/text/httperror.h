#ifndef TALLOWIN_SANDBOX_TEXT_HTTPERROR_H
#define TALLOWIN_SANDBOX_TEXT_HTTPERROR_H

#include <stdexcept>
#include <string>

namespace sandbox {

/// The HTTP statuses that this service sends or looks for (RFC 9110, section 15).
namespace httpstatus {

inline constexpr int kOk = 200;
inline constexpr int kCreated = 201;
inline constexpr int kMultipleChoices = 300;  ///< The first status outside the success range.
inline constexpr int kFound = 302;
inline constexpr int kSeeOther = 303;
inline constexpr int kBadRequest = 400;
inline constexpr int kUnauthorized = 401;
inline constexpr int kForbidden = 403;
inline constexpr int kNotFound = 404;
inline constexpr int kMethodNotAllowed = 405;
inline constexpr int kProxyAuthenticationRequired = 407;
inline constexpr int kConflict = 409;
inline constexpr int kPayloadTooLarge = 413;
inline constexpr int kUriTooLong = 414;
inline constexpr int kUnsupportedMediaType = 415;
inline constexpr int kInternalServerError = 500;
inline constexpr int kBadGateway = 502;
inline constexpr int kServiceUnavailable = 503;
inline constexpr int kGatewayTimeout = 504;

}  // namespace httpstatus

/// A request that the service turns down: an HTTP status and a text. The text is sent to the client as it is, so it
/// names what was wrong and never holds a secret.
class HttpError : public std::runtime_error {
public:
    explicit HttpError(std::string const& reason, int status = httpstatus::kBadRequest)
        : std::runtime_error(reason), m_Status(status) {}

    /// The status of the page that shows the error. Errors sent as a message have the status 200.
    [[nodiscard]] int status() const { return m_Status; }

private:
    int m_Status;
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_TEXT_HTTPERROR_H
