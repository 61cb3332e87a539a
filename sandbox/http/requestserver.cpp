// Serves one request with the HTTP library: first line, library, handler, response.
// The library as it is installed refuses targets of more than 8 KB. So the first line is parsed here, and the library
// is shown the path alone; it reads the headers and the body and formats the response, which is sent by deliver(). The
// library's handlers see only its own request object, so they find the rest in t_Pending.
#include "sandbox/http/requestserver.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <exception>
#include <optional>
#include <string_view>
#include <utility>

#include "sandbox/http/delivery.h"
#include "sandbox/http/httptext.h"
#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

constexpr std::size_t kPieceBytes = std::size_t{16} * 1024;
constexpr std::size_t kMaxBody = std::size_t{1024} * 1024;

/// Of what is read after the first line: the head and the largest body, in chunks that are not too small.
constexpr std::size_t kMaxAfterBegin = std::size_t{2} * 1024 * 1024;

/// What the HTTP library reads from and writes to: bytes that have been read already, then the connection; and a text.
class RequestStream : public httplib::Stream {
public:
    /// `connection` is borrowed; `begin` has been read from it before, and is shown to the library as `ahead`.
    RequestStream(Connection& connection, std::string begin, std::string ahead)
        : m_Connection(connection),
          m_MostReceived(begin.size() + kMaxAfterBegin),
          m_Received(std::move(begin)),
          m_Ahead(std::move(ahead)) {}

    /// All bytes received from the connection.
    [[nodiscard]] std::string const& received() const { return m_Received; }

    /// The response as far as it was written; nothing of it has been sent.
    [[nodiscard]] std::string const& written() const { return m_Written; }

    /// Whether the request exceeds the size limit. Bytes after the limit are not read.
    [[nodiscard]] bool isTooLong() const { return m_TooLong; }

    [[nodiscard]] bool is_readable() const override { return true; }
    [[nodiscard]] bool is_writable() const override { return true; }
    [[nodiscard]] socket_t socket() const override { return m_Connection.socket(); }

    ssize_t read(char* to, std::size_t size) override {
        // The library reads the head byte by byte, so bytes are fetched in pieces.
        if (m_Next == m_Ahead.size()) {
            m_TooLong = m_Received.size() >= m_MostReceived;
            if (m_TooLong) {
                return -1;
            }
            m_Ahead.resize(kPieceBytes);
            m_Next = 0;
            ssize_t const count = m_Connection.read(m_Ahead.data(), m_Ahead.size());
            m_Ahead.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
            if (count <= 0) {
                return count;
            }
            m_Received += m_Ahead;
        }
        std::size_t const count = std::min(size, m_Ahead.size() - m_Next);
        m_Ahead.copy(to, count, m_Next);
        m_Next += count;
        return static_cast<ssize_t>(count);
    }

    ssize_t write(char const* from, std::size_t size) override {
        constexpr char kContinue[] = "HTTP/1.1 100 ";
        if (m_Written.empty() && std::string_view(from, size).substr(0, sizeof kContinue - 1) == kContinue) {
            // No part of the response: the client waits for it before it sends the rest of its request.
            return m_Connection.write(from, size) ? static_cast<ssize_t>(size) : -1;
        }
        m_Written.append(from, size);
        return static_cast<ssize_t>(size);
    }

    // Nothing here asks the library for the ends of the connection.
    void get_remote_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
    void get_local_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}

private:
    Connection& m_Connection;  ///< Borrowed.
    std::size_t m_MostReceived;
    std::string m_Received;
    std::string m_Written;
    std::string m_Ahead;
    bool m_TooLong = false;
    std::size_t m_Next = 0;  ///< First byte of m_Ahead that has not been read.
};

/// One request while it is served.
struct PendingRequest {
    RequestLine const& m_Line;  ///< Borrowed, as are the next two. With the query, which the library does not see.
    std::string const& m_BaseUrl;
    RequestStream const& m_Stream;
    HttpResponse m_Response = {};  ///< Of the handler; empty when the library responds by itself.
};

/// The request that this thread serves.
thread_local PendingRequest* t_Pending = nullptr;

/// The library would compress the response for clients that accept it. Then neither the stored exchange nor a fault in
/// the middle of the response would show any of it. The library has no other switch for that.
void forbidCoding(httplib::Request& request) {
    request.headers.erase("Accept-Encoding");
}

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
void sendFromSource(Connection& connection, std::string head, BodySource const& source) {
    constexpr std::chrono::seconds kLook(1);  // between two looks whether the client has gone
    std::string const length = "Content-Length: 0\r\n";
    head.erase(head.find(length), length.size());
    bool going = connection.write(head.data(), head.size());
    while (going) {
        std::optional<std::string> const piece = source(kLook);
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

RequestServer::RequestServer(Handler handler, SigpipeDispositionKept const& /*kept*/) : m_Handler(std::move(handler)) {
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

void RequestServer::serve(Connection& connection, std::string const& baseUrl) {
    std::string text = readFirstLine(connection);
    if (text.size() > kMaxRequestLine && text.find('\n') == std::string::npos) {
        deliver(connection, textResponse(httpstatus::kUriTooLong, "The request line is too long."), std::nullopt);
        return;
    }
    std::string const begin = text;
    RequestLine const line = takeRequestLine(text);
    RequestStream stream(connection, begin, std::move(text));
    PendingRequest pending{line, baseUrl, stream};
    t_Pending = &pending;
    bool closed = false;
    process_request(stream, true, closed, forbidCoding);
    if (stream.isTooLong()) {
        deliver(connection, textResponse(httpstatus::kPayloadTooLarge, "The request is too long."), std::nullopt);
        return;
    }
    HttpResponse const& response = pending.m_Response;
    if (response.m_Source) {
        try {
            sendFromSource(connection, stream.written(), response.m_Source);
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
        deliver(connection, failureText(failure.what()), std::nullopt);
        return;
    }
    std::size_t const before = connection.written();
    deliver(connection, stream.written(), response.m_Fault);
    if (response.m_Log) {
        response.m_Log->responseSent(connection.written() - before, connection.isReset());
    }
}

void RequestServer::respond(httplib::Request const& request, httplib::Response& response, std::string const& body) {
    PendingRequest& pending = *t_Pending;
    RequestLine const& line = pending.m_Line;
    pending.m_Response =
        m_Handler({request.method, line.m_Path, Query(line.m_Query), request.get_header_value("Authorization"),
                   request.get_header_value("Content-Type"), body, pending.m_BaseUrl, pending.m_Stream.received(),
                   request.get_header_value("Host"), request.get_header_value("Last-Event-ID"),
                   request.get_header_value("Cookie")});
    fill(pending.m_Response, response);
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

}  // namespace sandbox
