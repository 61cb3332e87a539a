#include "sandbox/http/listener.h"

#include <httplib.h>

#include <cstddef>
#include <exception>
#include <optional>
#include <utility>

#include "sandbox/http/connection.h"
#include "sandbox/http/delivery.h"
#include "sandbox/http/requestline.h"
#include "sandbox/http/requeststream.h"
#include "sandbox/http/signalguards.h"

namespace sandbox {

namespace {

constexpr std::size_t kLargestBody = 1024 * 1024;
constexpr int kUnsupportedMediaType = 415;

/// An answer that the HTTP library has no part in.
std::string plainResponse(char const* statusLine, std::string const& text) {
    return std::string("HTTP/1.0 ") + statusLine +
           "\r\nConnection: close\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: " +
           std::to_string(text.size()) + "\r\n\r\n" + text;
}

std::string longLineResponse() {
    return plainResponse("414 URI Too Long", "The request line is too long.\n");
}

std::string longRequestResponse() {
    return plainResponse("413 Payload Too Large", "The request is too long.\n");
}

/// The exchange could not be stored, which the client has to know.
std::string failureResponse(std::string const& what) {
    return plainResponse("500 Internal Server Error", "The sandbox failed: " + what + "\n");
}

void fill(HttpResponse const& response, httplib::Response& to) {
    to.status = response.m_Status;
    if (!response.m_Location.empty()) {
        to.set_redirect(response.m_Location, response.m_Status);
    }
    if (!response.m_Allow.empty()) {
        to.set_header("Allow", response.m_Allow);
    }
    to.set_header("Cache-Control", "no-store");
    to.set_header("Content-Security-Policy",
                  "default-src 'none'; style-src 'unsafe-inline'; frame-ancestors 'none'; base-uri 'none'");
    to.set_header("Referrer-Policy", "no-referrer");
    to.set_header("X-Content-Type-Options", "nosniff");
    to.set_content(response.m_Body, response.m_ContentType);
}

/// The library would compress the answer for who accepts that, and then neither the record of the exchange nor a fault
/// in the middle of the answer would show any of it. It gives no other way to keep it from that.
void acceptNoCoding(httplib::Request const& request) {
    const_cast<httplib::Request&>(request).headers.erase("Accept-Encoding");
}

/// What the library does not hand to its handlers: one request while it is answered by its thread.
struct Turn {
    RequestStream const& m_Stream;
    std::string const& m_Target;          ///< As it came.
    HttpResponse m_HandlerResponse = {};  ///< Of the handler; as it was born when the library answers by itself.
};
thread_local Turn* t_Turn = nullptr;

}  // namespace

/// The server of the HTTP library without its sockets: it reads a request from a stream and writes the answer to it.
/// The library as it is installed refuses targets of more than 8 KB, so it is shown the path alone.
class Listener::Server : public httplib::Server {
public:
    Server(Listener::Handler handler, std::string base) {
        auto const respond = [handler = std::move(handler), base = std::move(base)](httplib::Request const& request,
                                                                                    httplib::Response& response,
                                                                                    std::string const& body) {
            RequestLine const line{request.method, t_Turn->m_Target, request.version};
            t_Turn->m_HandlerResponse =
                handler({request.method, line.path(), line.query(), request.get_header_value("Authorization"),
                         request.get_header_value("Content-Type"), body, base, t_Turn->m_Stream.received(),
                         request.get_header_value("Host")});
            fill(t_Turn->m_HandlerResponse, response);
            acceptNoCoding(request);
        };
        auto const handle = [respond](httplib::Request const& request, httplib::Response& response) {
            respond(request, response, "");
        };
        // The library by itself refuses forms of more than 8 KB, and waits for a body where none is announced.
        auto const handleWithBody = [respond](httplib::Request const& request, httplib::Response& response,
                                              httplib::ContentReader const& read) {
            std::string body;
            auto const keep = [&body](char const* piece, std::size_t size) {
                // The library knows the size of a body in chunks no sooner.
                bool const fits = size <= kLargestBody - body.size();
                body.append(piece, fits ? size : 0);
                return fits;
            };
            bool const hasBody = request.has_header("Content-Length") || request.has_header("Transfer-Encoding");
            if (request.is_multipart_form_data()) {
                response.status = kUnsupportedMediaType;
            } else if (!hasBody || read(keep)) {
                respond(request, response, body);
            }
        };
        constexpr char kAny[] = ".*";
        Get(kAny, handle);
        Post(kAny, handleWithBody);
        Put(kAny, handleWithBody);
        Patch(kAny, handleWithBody);
        Delete(kAny, handleWithBody);
        Options(kAny, handle);
        set_payload_max_length(kLargestBody);
        set_error_handler([](httplib::Request const&, httplib::Response& response) {
            if (response.body.empty()) {
                response.set_content("The request cannot be answered: " + std::to_string(response.status) + ".\n",
                                     "text/plain");
            }
        });
    }

    /// Answers the request whose beginning, at least its first line, is `text`.
    void handle(Connection& connection, std::string text) {
        std::string const begin = text;
        std::string target;
        std::size_t const lineEnd = text.find('\n');
        if (lineEnd != std::string::npos) {
            std::size_t const length = lineEnd > 0 && text[lineEnd - 1] == '\r' ? lineEnd - 1 : lineEnd;
            if (std::optional<RequestLine> const line = parseRequestLine(text.substr(0, length))) {
                target = line->m_Target;
                text.replace(0, length, line->m_Method + " " + line->path() + " " + line->m_Version);
            }
        }
        RequestStream stream(connection, begin, std::move(text));
        Turn turn{stream, target};
        t_Turn = &turn;
        bool closed = false;
        process_request(stream, true, closed, nullptr);
        t_Turn = nullptr;
        if (stream.isTooLong()) {
            deliver(connection, longRequestResponse(), std::nullopt);
            return;
        }
        try {
            if (turn.m_HandlerResponse.m_Log) {
                turn.m_HandlerResponse.m_Log->responseReady(stream.written());
            }
        } catch (std::exception const& failure) {
            deliver(connection, failureResponse(failure.what()), std::nullopt);
            return;
        }
        std::size_t const before = connection.written();
        deliver(connection, stream.written(), turn.m_HandlerResponse.m_Fault);
        if (turn.m_HandlerResponse.m_Log) {
            turn.m_HandlerResponse.m_Log->responseSent({connection.written() - before, connection.isReset()});
        }
    }
};

Listener::Listener(std::uint16_t port, TlsIdentity const* tls, FaultRegistry* faults, std::chrono::milliseconds timeout)
    : m_Tls(tls), m_Faults(faults), m_RequestTimeout(timeout), m_Acceptor(port) {}

Listener::~Listener() = default;

std::uint16_t Listener::port() const {
    return m_Acceptor.port();
}

std::string Listener::baseUrl() const {
    return (m_Tls != nullptr ? "https://" : "http://") + std::string("127.0.0.1:") + std::to_string(port());
}

void Listener::start(Handler handler) {
    SigpipeDispositionKept const kept;
    m_Server = std::make_unique<Server>(std::move(handler), baseUrl());
    m_Acceptor.start([this](int socket) { serve(socket); });
}

void Listener::refuseUntil(Acceptor::Clock::time_point moment) {
    m_Acceptor.refuseUntil(moment);
}

void Listener::beginStop() {
    m_Acceptor.beginStop();
}

void Listener::stop() {
    m_Acceptor.stop();
}

void Listener::serve(int socket) {
    std::optional<Fault> const fault =
        m_Faults != nullptr ? m_Faults->takeForConnection(m_Tls != nullptr) : std::nullopt;
    bool const aborts = fault && fault->m_Kind == FaultKind::kTlsAbort;
    SSL_CTX* const tls = m_Tls != nullptr && !aborts ? m_Tls->context(fault) : nullptr;
    Connection connection(socket, tls, m_Acceptor.ending(), m_RequestTimeout);
    if (aborts) {
        char hello[1];
        connection.read(hello, sizeof hello);
        return;
    }
    if (!connection.open()) {
        return;
    }
    std::string text = readFirstLine(connection);
    if (text.size() > kLongestRequestLine && text.find('\n') == std::string::npos) {
        deliver(connection, longLineResponse(), std::nullopt);
        return;
    }
    m_Server->handle(connection, std::move(text));
}

}  // namespace sandbox
