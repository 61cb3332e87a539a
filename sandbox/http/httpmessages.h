#ifndef TALLOWIN_SANDBOX_HTTP_HTTPMESSAGES_H
#define TALLOWIN_SANDBOX_HTTP_HTTPMESSAGES_H

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "sandbox/faults/fault.h"
#include "sandbox/http/delivery.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

/// A request, taken apart once.
struct HttpRequest {
    std::string m_Method;
    std::string m_Path;           ///< Without the query.
    Query m_Query;                ///< Split into names and values.
    std::string m_Authorization;  ///< Value of that header.
    std::string m_ContentType;    ///< Value of that header.
    std::string m_Body;
    std::string m_BaseUrl;           ///< Of this service on the port that was used, without a slash at the end.
    std::string m_Raw;               ///< All of it, byte for byte.
    std::string m_Host = {};         ///< Value of that header.
    std::string m_LastEventId = {};  ///< Value of that header.
    std::string m_Cookie = {};       ///< Value of that header.
};

/// Makes a body piece by piece, each when the one before it has been sent: an empty one when there is none within
/// `timeout`, nothing at the end. What it throws resets the connection, so that the client does not take the part for
/// the whole.
using BodySource = std::function<std::optional<std::string>(std::chrono::milliseconds timeout)>;

/// A response. A non-empty `m_Location` makes it a redirect.
struct HttpResponse {
    int m_Status = httpstatus::kOk;
    std::string m_ContentType;
    std::string m_Body;
    std::string m_Location = {};
    std::string m_Cookie = {};                ///< To be set; empty for none.
    std::string m_Allow = {};                 ///< The methods that the address has, of a status 405.
    std::optional<Fault> m_Fault = {};        ///< How it is to be sent.
    std::shared_ptr<ExchangeLog> m_Log = {};  ///< Null when nothing is stored.
    BodySource m_Source = {};                 ///< Of the body, in place of m_Body; null for most.
    std::string m_Nonce = {};                 ///< Of the script in the page; empty for pages without one.
};

/// A response of plain text.
inline HttpResponse plainResponse(int status, std::string const& text) {
    return {status, "text/plain; charset=utf-8", text + "\n"};
}

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_HTTPMESSAGES_H
