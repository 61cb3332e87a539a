// Serves one request with the HTTP library: first line, library, handler, response.
// The library as it is installed refuses targets of more than 8 KB. So the first line is parsed here, and the library
// is shown the path alone; it reads the headers and the body and formats the response, which is sent by deliver(). The
// library's handlers see only its own request object. A PendingRequest enters itself under that object's address as
// soon as the library has parsed the headers, and leaves when the request is served.
#include "sandbox/http/requestserver.h"

#include <chrono>
#include <cstddef>
#include <exception>
#include <optional>
#include <utility>

#include "sandbox/http/delivery.h"
#include "sandbox/http/httptext.h"
#include "sandbox/http/requestline.h"
#include "sandbox/http/requeststream.h"
#include "sandbox/text/httpstatus.h"

namespace sandbox {

namespace {

constexpr std::size_t kMaxBody = std::size_t{1024} * 1024;

void fill(HttpResponse const& from, httplib::Response& response) {
    response.status = from.m_Status;
    if (!from.m_Location.empty()) {
        response.set_redirect(from.m_Location, from.m_Status);
    }
    if (!from.m_Cookie.empty()) {
        response.set_header("Set-Cookie", from.m_Cookie);
    }
    if (!from.m_Allow.empty()) {
        response.set_header("Allow", from.m_Allow);
    }
    response.set_header("Cache-Control", "no-store");
    std::string const scripts =
        from.m_Nonce.empty() ? "" : "; script-src 'nonce-" + from.m_Nonce + "'; connect-src 'self'";
    response.set_header(
        "Content-Security-Policy",
        "default-src 'none'; style-src 'unsafe-inline'; frame-ancestors 'none'; base-uri 'none'" + scripts);
    response.set_header("Referrer-Policy", "no-referrer");
    response.set_header("X-Content-Type-Options", "nosniff");
    response.set_content(from.m_Body, from.m_ContentType);
}

void describeError(httplib::Request const&, httplib::Response& response) {
    if (response.body.empty()) {
        response.set_content("The request cannot be answered: " + std::to_string(response.status) + ".\n",
                             "text/plain");
    }
}

/// Sends the body that `source` makes, behind the head of a response with an empty one. It ends with the connection. A
/// client that does not read is dropped, as by any other response.
void sendFromSource(Connection& connection, std::string head, BodySource& source) {
    constexpr std::chrono::seconds kLook(1);  // between two looks whether the client has gone
    std::string const length = "Content-Length: 0\r\n";
    head.erase(head.find(length), length.size());
    bool going = connection.write(head.data(), head.size());
    while (going) {
        std::optional<std::string> const piece = source.next(kLook);
        going = piece && (piece->empty() ? !connection.isEnded() : connection.write(piece->data(), piece->size()));
    }
}

/// Replaces the target in the first line of `text` by the path alone, and returns the line as it was.
RequestLine takeRequestLine(std::string& text) {
    std::size_t const lineEnd = text.find('\n');
    if (lineEnd == std::string::npos) {
        return {};
    }
    std::size_t const length = lineEnd > 0 && text[lineEnd - 1] == '\r' ? lineEnd - 1 : lineEnd;
    std::optional<RequestLine> const line = parseRequestLine(text.substr(0, length));
    if (!line) {
        return {};
    }
    text.replace(0, length, line->m_Method + " " + line->m_Path + " " + line->m_Version);
    return *line;
}

}  // namespace

/// One request while it is served.
class RequestServer::PendingRequest {
public:
    PendingRequest(RequestServer& server, RequestLine line, RequestStream const& stream)
        : m_Line(std::move(line)), m_Stream(stream), m_Server(server) {}

    ~PendingRequest() {
        if (m_Request != nullptr) {
            std::lock_guard<std::mutex> const lock(m_Server.m_Mutex);
            m_Server.m_Pending.erase(m_Request);
        }
    }
    PendingRequest(PendingRequest const&) = delete;
    PendingRequest& operator=(PendingRequest const&) = delete;

    /// Makes this the pending request of the library's `request`, which outlives the library's handlers.
    void enter(httplib::Request& request) {
        std::lock_guard<std::mutex> const lock(m_Server.m_Mutex);
        m_Server.m_Pending[&request] = this;
        m_Request = &request;
    }

    /// The library would compress the response for clients that accept it. Then neither the stored exchange nor a fault
    /// in the middle of the response would show any of it. The library has no other switch for that.
    void acceptNoCoding() const { m_Request->headers.erase("Accept-Encoding"); }

    RequestLine const m_Line;       ///< With the query, which the library does not see.
    RequestStream const& m_Stream;  ///< Borrowed.
    HttpResponse m_Response;        ///< Of the handler; empty when the library responds by itself.

private:
    RequestServer& m_Server;
    httplib::Request* m_Request = nullptr;  ///< Of the library; null before enter().
};

RequestServer::RequestServer(Handler handler, std::string baseUrl)
    : m_Handler(std::move(handler)), m_BaseUrl(std::move(baseUrl)) {
    auto const handle = [this](httplib::Request const& request, httplib::Response& response) {
        respond(request, response, "");
    };
    auto const handleWithBody = [this](httplib::Request const& request, httplib::Response& response,
                                       httplib::ContentReader const& read) {
        respondWithBody(request, response, read);
    };
    constexpr char kAny[] = ".*";
    Get(kAny, handle);
    Post(kAny, handleWithBody);
    Put(kAny, handleWithBody);
    Patch(kAny, handleWithBody);
    Delete(kAny, handleWithBody);
    Options(kAny, handle);
    set_payload_max_length(kMaxBody);
    set_error_handler(describeError);
}

void RequestServer::serve(Connection& connection, std::string text) {
    std::string const begin = text;
    RequestLine line = takeRequestLine(text);
    RequestStream stream(connection, begin, std::move(text));
    PendingRequest pending(*this, std::move(line), stream);
    bool closed = false;
    process_request(stream, true, closed, [&pending](httplib::Request& request) { pending.enter(request); });
    if (stream.isTooLong()) {
        deliver(connection, textResponse("413 Payload Too Large", "The request is too long."), std::nullopt);
        return;
    }
    HttpResponse const& response = pending.m_Response;
    if (response.m_Source) {
        try {
            sendFromSource(connection, stream.written(), *response.m_Source);
        } catch (std::exception const&) {
            connection.reset();
        }
        return;
    }
    try {
        if (response.m_Log) {
            response.m_Log->responseReady(stream.written());
        }
    } catch (std::exception const& failure) {
        // The exchange could not be stored, which the client has to know.
        deliver(connection,
                textResponse(httpstatus::kInternalServerError, std::string("The sandbox failed: ") + failure.what()),
                std::nullopt);
        return;
    }
    std::size_t const before = connection.written();
    deliver(connection, stream.written(), response.m_Fault);
    if (response.m_Log) {
        response.m_Log->responseSent({connection.written() - before, connection.isReset()});
    }
}

void RequestServer::respond(httplib::Request const& request, httplib::Response& response, std::string const& body) {
    PendingRequest& pending = pendingRequest(request);
    RequestLine const& line = pending.m_Line;
    pending.m_Response =
        m_Handler({request.method, line.m_Path, Query(line.m_Query), request.get_header_value("Authorization"),
                   request.get_header_value("Content-Type"), body, m_BaseUrl, pending.m_Stream.received(),
                   request.get_header_value("Host"), request.get_header_value("Last-Event-ID")});
    fill(pending.m_Response, response);
    pending.acceptNoCoding();
}

/// Reads the body first. The library by itself refuses forms of more than 8 KB, and waits for a body where none is
/// announced.
void RequestServer::respondWithBody(httplib::Request const& request, httplib::Response& response,
                                    httplib::ContentReader const& read) {
    std::string body;
    auto const keep = [&body](char const* piece, std::size_t size) {
        // The library knows the size of a chunked body no sooner.
        bool const fits = size <= kMaxBody - body.size();
        body.append(piece, fits ? size : 0);
        return fits;
    };
    bool const hasBody = request.has_header("Content-Length") || request.has_header("Transfer-Encoding");
    if (request.is_multipart_form_data()) {
        response.status = httpstatus::kUnsupportedMediaType;
    } else if (!hasBody || read(keep)) {
        respond(request, response, body);
    }
}

RequestServer::PendingRequest& RequestServer::pendingRequest(httplib::Request const& request) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    return *m_Pending.at(&request);
}

}  // namespace sandbox
