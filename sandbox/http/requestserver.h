#ifndef TALLOWIN_SANDBOX_HTTP_REQUESTSERVER_H
#define TALLOWIN_SANDBOX_HTTP_REQUESTSERVER_H

#include <httplib.h>

#include <csignal>
#include <functional>
#include <string>

#include "sandbox/http/connection.h"
#include "sandbox/http/httpmessages.h"

namespace sandbox {

/// The HTTP library ignores SIGPIPE for the whole process as soon as a server is made; the process decides that itself.
class SigpipeDispositionKept {
public:
    SigpipeDispositionKept() { ::sigaction(SIGPIPE, nullptr, &m_Before); }
    ~SigpipeDispositionKept() { ::sigaction(SIGPIPE, &m_Before, nullptr); }
    SigpipeDispositionKept(SigpipeDispositionKept const&) = delete;
    SigpipeDispositionKept& operator=(SigpipeDispositionKept const&) = delete;

private:
    struct sigaction m_Before {};
};

/// The server of the HTTP library without its sockets: it reads one request from a connection, calls the handler and
/// sends the response. Paths and queries reach the handler as they came, up to four megabytes. Connections may be
/// served by several threads at once.
class RequestServer : private httplib::Server {
public:
    /// Called by several threads at once; must not throw.
    using Handler = std::function<HttpResponse(HttpRequest const& request)>;

    /// `kept` lives until the server of the library is made.
    explicit RequestServer(Handler handler, SigpipeDispositionKept const& kept = {});

    /// Serves the request on `connection`. `baseUrl` becomes HttpRequest::m_BaseUrl.
    void serve(Connection& connection, std::string const& baseUrl);

private:
    void respond(httplib::Request const& request, httplib::Response& response, std::string const& body);
    void respondWithBody(httplib::Request const& request, httplib::Response& response,
                         httplib::ContentReader const& read);

    Handler m_Handler;
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_REQUESTSERVER_H
