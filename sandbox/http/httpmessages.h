#ifndef TALLOWIN_SANDBOX_HTTP_HTTPMESSAGES_H
#define TALLOWIN_SANDBOX_HTTP_HTTPMESSAGES_H

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "sandbox/faults/fault.h"

namespace sandbox {

/// A request as it came in, before any decoding.
struct HttpRequest {
    std::string method;
    std::string path;           ///< Without the query.
    std::string query;          ///< Without the "?", percent-encoded.
    std::string authorization;  ///< Value of that header.
    std::string contentType;    ///< Value of that header.
    std::string body;
    std::string baseUrl;    ///< Of this service on the port that was used, without a slash at the end.
    std::string raw;        ///< All of it, byte for byte.
    std::string host = {};  ///< Value of that header.
};

/// What became of an answer that was sent.
struct Delivery {
    std::size_t bytes = 0;
    bool reset = false;
};

/// Keeps what became of a request.
class ExchangeLog {
public:
    ExchangeLog() = default;
    virtual ~ExchangeLog() = default;
    ExchangeLog(ExchangeLog const&) = delete;
    ExchangeLog& operator=(ExchangeLog const&) = delete;

    /// Called with all bytes of the answer before it is sent.
    virtual void answered(std::string const& answer) = 0;

    /// Called when it has been sent, as far as it was.
    virtual void delivered(Delivery const& delivery) = 0;
};

/// An answer. A non-empty `location` makes it a redirect.
struct HttpReply {
    int status = 200;
    std::string contentType;
    std::string body;
    std::string location = {};
    std::string allow = {};                 ///< The methods that the address has, of a status 405.
    std::optional<Fault> fault = {};        ///< How it is to be sent.
    std::shared_ptr<ExchangeLog> log = {};  ///< Null when nothing is kept.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_HTTPMESSAGES_H
