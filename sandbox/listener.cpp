#include "sandbox/listener.h"

#include <httplib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>

#include "sandbox/connection.h"
#include "sandbox/requestline.h"
#include "sandbox/requeststream.h"
#include "sandbox/signalguards.h"

namespace sandbox {

namespace {

constexpr char kHost[] = "127.0.0.1";
constexpr std::size_t kLongestRequestLine = 4 * 1024 * 1024;
constexpr std::size_t kLargestBody = 64 * 1024;
constexpr int kBacklog = 128;
constexpr std::chrono::seconds kStartPatience{10};

void refuseLongLine(Connection& connection) {
    std::string const text = "The request line is too long.\n";
    std::string const answer =
        "HTTP/1.0 414 URI Too Long\r\nConnection: close\r\nContent-Type: text/plain\r\nContent-Length: " +
        std::to_string(text.size()) + "\r\n\r\n" + text;
    connection.write(answer.data(), answer.size());
}

void fill(HttpReply const& reply, httplib::Response& response) {
    response.status = reply.status;
    if (!reply.location.empty()) {
        response.set_redirect(reply.location, reply.status);
    }
    response.set_header("Cache-Control", "no-store");
    response.set_header("Content-Security-Policy",
                        "default-src 'none'; style-src 'unsafe-inline'; frame-ancestors 'none'; base-uri 'none'");
    response.set_header("Referrer-Policy", "no-referrer");
    response.set_header("X-Content-Type-Options", "nosniff");
    response.set_content(reply.body, reply.contentType);
}

}  // namespace

/// The server of the HTTP library with its own way of talking to sockets. The library as it is installed refuses
/// targets of more than 8 KB, so it is shown the path alone and given the whole target afterwards.
class Listener::Server : public httplib::Server {
public:
    explicit Server(TlsContextHolder tls) : m_Tls(std::move(tls)) {}
    ~Server() override { end(); }
    Server(Server const&) = delete;
    Server& operator=(Server const&) = delete;

    void take(std::uint16_t port) {
        // Instead of the library's SO_REUSEPORT, with which two services would share a port unnoticed.
        set_socket_options([](socket_t socket) {
            int const yes = 1;
            ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        });
        bool const bound = port == 0 ? (m_Port = bind_to_any_port(kHost)) > 0 : bind_to_port(kHost, port);
        if (!bound) {
            throw std::runtime_error("cannot listen on " + std::string(kHost) + ":" + std::to_string(port) +
                                     " (is another program using the port?)");
        }
        if (port != 0) {
            m_Port = port;
        }
        ::listen(svr_sock_, kBacklog);
    }

    [[nodiscard]] std::uint16_t port() const { return static_cast<std::uint16_t>(m_Port); }
    [[nodiscard]] bool tls() const { return m_Tls != nullptr; }

    void run() {
        SignalsBlocked const blocked;
        m_Thread = std::thread([this] {
            listen_after_bind();
            m_Ended = true;
        });
        auto const deadline = std::chrono::steady_clock::now() + kStartPatience;
        while (!is_running()) {
            if (m_Ended || std::chrono::steady_clock::now() > deadline) {
                throw std::runtime_error("the HTTP server did not start on port " + std::to_string(m_Port));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    void end() {
        {
            std::lock_guard<std::mutex> const lock(m_Mutex);
            m_Stopping = true;
            for (int const socket : m_Sockets) {
                ::shutdown(socket, SHUT_RD);
            }
        }
        stop();
        if (m_Thread.joinable()) {
            m_Thread.join();
        }
        // A server that never ran does not close its port.
        socket_t const unused = svr_sock_.exchange(INVALID_SOCKET);
        if (unused != INVALID_SOCKET) {
            ::close(unused);
        }
    }

private:
    /// Puts a socket on the list of those that end() wakes up.
    class Listed {
    public:
        Listed(Server& server, int socket) : m_Server(server), m_Socket(socket) {
            std::lock_guard<std::mutex> const lock(m_Server.m_Mutex);
            m_Server.m_Sockets.insert(socket);
            if (m_Server.m_Stopping) {
                ::shutdown(socket, SHUT_RD);
            }
        }
        ~Listed() {
            std::lock_guard<std::mutex> const lock(m_Server.m_Mutex);
            m_Server.m_Sockets.erase(m_Socket);
        }
        Listed(Listed const&) = delete;
        Listed& operator=(Listed const&) = delete;

    private:
        Server& m_Server;
        int m_Socket;
    };

    bool process_and_close_socket(socket_t socket) override {
        Connection connection(socket, m_Tls.get());
        Listed const listed(*this, socket);
        if (!connection.open()) {
            return false;
        }
        std::string text = readFirstLine(connection, kLongestRequestLine);
        std::size_t const lineEnd = text.find('\n');
        if (lineEnd == std::string::npos && text.size() > kLongestRequestLine) {
            refuseLongLine(connection);
            return false;
        }
        std::string target;
        if (lineEnd != std::string::npos) {
            std::size_t const length = lineEnd > 0 && text[lineEnd - 1] == '\r' ? lineEnd - 1 : lineEnd;
            if (std::optional<RequestLine> const line = parseRequestLine(text.substr(0, length))) {
                target = line->target;
                text.replace(0, length, line->method + " " + line->path() + " " + line->version);
            }
        }
        RequestStream stream(connection, std::move(text));
        bool closed = false;
        return process_request(stream, true, closed, [&target](httplib::Request& request) { request.target = target; });
    }

    TlsContextHolder m_Tls;  ///< Null for plain HTTP.
    int m_Port = 0;
    std::thread m_Thread;
    std::atomic<bool> m_Ended{false};
    std::mutex m_Mutex;
    std::set<int> m_Sockets;  ///< Of the exchanges that are under way. Guarded by m_Mutex.
    bool m_Stopping = false;  ///< Guarded by m_Mutex.
};

Listener::Listener(std::uint16_t port, TlsContextHolder tls) {
    SigpipeDispositionKept const kept;
    m_Server = std::make_unique<Server>(std::move(tls));
    m_Server->take(port);
}

Listener::~Listener() = default;

std::uint16_t Listener::port() const {
    return m_Server->port();
}

std::string Listener::baseUrl() const {
    return (m_Server->tls() ? "https://" : "http://") + std::string(kHost) + ":" + std::to_string(port());
}

void Listener::start(std::vector<Route> const& routes, Handler handler) {
    std::string const base = baseUrl();
    auto const answer = [handler = std::move(handler), base](httplib::Request const& request,
                                                             httplib::Response& response) {
        RequestLine const line{request.method, request.target, request.version};
        fill(handler({request.method, line.path(), line.query(), request.get_header_value("Authorization"),
                      request.body, base}),
             response);
    };
    for (Route const& route : routes) {
        if (std::string(route.method) == "POST") {
            m_Server->Post(route.path, answer);
        } else {
            m_Server->Get(route.path, answer);
        }
    }
    m_Server->set_payload_max_length(kLargestBody);
    m_Server->set_error_handler([](httplib::Request const&, httplib::Response& response) {
        if (response.body.empty()) {
            response.set_content("The request cannot be answered: " + std::to_string(response.status) + ".\n",
                                 "text/plain");
        }
    });
    m_Server->run();
}

void Listener::stop() {
    m_Server->end();
}

}  // namespace sandbox
