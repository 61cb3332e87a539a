#ifndef TALLOWIN_SANDBOX_TEXT_HTTPSTATUS_H
#define TALLOWIN_SANDBOX_TEXT_HTTPSTATUS_H

/// The HTTP statuses that this service sends or looks for (RFC 9110, section 15).
namespace sandbox::httpstatus {

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

}  // namespace sandbox::httpstatus

#endif  // TALLOWIN_SANDBOX_TEXT_HTTPSTATUS_H
