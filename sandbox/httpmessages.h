#pragma once

#include <functional>
#include <optional>
#include <string>

#include "sandbox/fault.h"

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

/// An answer. A non-empty `location` makes it a redirect.
struct HttpReply {
    int status = 200;
    std::string contentType;
    std::string body;
    std::string location = {};
    std::string allow = {};           ///< The methods that the address has, of a status 405.
    std::optional<Fault> fault = {};  ///< How it is to be sent.
    std::function<void(std::string const& answer)> log =
        {};  ///< When set, called with all its bytes before it is sent.
};

}  // namespace sandbox
