#ifndef TALLOWIN_SANDBOX_HTTP_REQUESTSERVER_H
#define TALLOWIN_SANDBOX_HTTP_REQUESTSERVER_H

#include <httplib.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "sandbox/http/connection.h"
#include "sandbox/http/httpmessages.h"

namespace sandbox {

/// The server of the HTTP library without its sockets: it reads one request from a connection, calls the handler and
/// sends the response. Connections may be served by several threads at once.
class RequestServer : private httplib::Server {
public:
    /// Called by several threads at once; must not throw.
    using Handler = std::function<HttpResponse(HttpRequest const& request)>;

    /// `baseUrl` becomes HttpRequest::m_BaseUrl.
    RequestServer(Handler handler, std::string baseUrl);

    /// Serves the request whose beginning, at least its first line, is `text`.
    void serve(Connection& connection, std::string text);

private:
    class PendingRequest;

    void respond(httplib::Request const& request, httplib::Response& response, std::string const& body);
    void respondWithBody(httplib::Request const& request, httplib::Response& response,
                         httplib::ContentReader const& read);
    PendingRequest& pendingRequest(httplib::Request const& request);

    Handler m_Handler;
    std::string m_BaseUrl;
    std::mutex m_Mutex;  ///< Guards m_Pending.

    /// The requests that are being served, by the library's object for them: its handlers are given nothing else.
    std::map<httplib::Request const*, PendingRequest*> m_Pending;
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_REQUESTSERVER_H
