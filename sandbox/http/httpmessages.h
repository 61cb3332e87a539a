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
    std::string m_Method;
    std::string m_Path;           ///< Without the query.
    std::string m_Query;          ///< Without the "?", percent-encoded.
    std::string m_Authorization;  ///< Value of that header.
    std::string m_ContentType;    ///< Value of that header.
    std::string m_Body;
    std::string m_BaseUrl;    ///< Of this service on the port that was used, without a slash at the end.
    std::string m_Raw;        ///< All of it, byte for byte.
    std::string m_Host = {};  ///< Value of that header.
};

/// What became of an answer that was sent.
struct Delivery {
    std::size_t m_Bytes = 0;
    bool m_Reset = false;
};

/// Keeps what became of a request.
class ExchangeLog {
public:
    ExchangeLog() = default;
    virtual ~ExchangeLog() = default;
    ExchangeLog(ExchangeLog const&) = delete;
    ExchangeLog& operator=(ExchangeLog const&) = delete;

    /// Called with all bytes of the answer before it is sent.
    virtual void responseReady(std::string const& response) = 0;

    /// Called when it has been sent, as far as it was.
    virtual void responseSent(Delivery const& delivery) = 0;
};

/// An answer. A non-empty `location` makes it a redirect.
struct HttpResponse {
    int m_Status = 200;
    std::string m_ContentType;
    std::string m_Body;
    std::string m_Location = {};
    std::string m_Allow = {};                 ///< The methods that the address has, of a status 405.
    std::optional<Fault> m_Fault = {};        ///< How it is to be sent.
    std::shared_ptr<ExchangeLog> m_Log = {};  ///< Null when nothing is kept.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_HTTPMESSAGES_H
