// One HTTP/1.0 exchange with a server in this process that closes the connection; compared with libcurl's easy
// interface and a new handle per exchange.
//
// Reference numbers (medians of one interleaved run on a shared machine with two processors; processor time of the
// client; they vary by a tenth, wall times by a half):
//   response of 1 KB / libcurl    0.53, wall time 0.6
//   response of 1 MB / libcurl    1.9,  wall time 1.8
//   response of 10 MB / libcurl   0.6,  wall time 0.6
//   growth, 10 MB / 1 MB          1.4, where 1 is linear; the rest is fresh memory

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "bench/bench_support.h"
#include "net/kvxhttp.h"

namespace {

using kvxbench::require;

constexpr char kUser[] = "merchant";
constexpr char kPassword[] = "secret";

/// Serves the same response to every client on a free loopback port, one client after another, on its own thread.
class Server {
public:
    explicit Server(std::string const& body) : m_Response(headerFor(body) + body) {
        m_Listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* const where = reinterpret_cast<sockaddr*>(&address);
        socklen_t length = sizeof address;
        require(::bind(m_Listener, where, length) == 0 && ::listen(m_Listener, SOMAXCONN) == 0 &&
                    ::getsockname(m_Listener, where, &length) == 0,
                "cannot listen");
        m_Port = std::to_string(ntohs(address.sin_port));
        m_Thread = std::thread([this] { serve(); });
    }
    Server(Server const&) = delete;
    Server& operator=(Server const&) = delete;
    ~Server() {
        ::shutdown(m_Listener, SHUT_RDWR);  // ends the accept
        m_Thread.join();
        ::close(m_Listener);
    }

    [[nodiscard]] std::string const& port() const { return m_Port; }

private:
    static std::string headerFor(std::string const& body) {
        return "HTTP/1.0 200 OK\r\nContent-Type: text/xml\r\nContent-Length: " + std::to_string(body.size()) +
               "\r\n\r\n";
    }

    void serve() const {
        for (;;) {
            int const client = ::accept4(m_Listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (client == -1) {
                return;
            }
            respond(client);
            ::close(client);
        }
    }

    void respond(int client) const {
        std::string request;
        char chunk[4096];
        while (request.find("\r\n\r\n") == std::string::npos) {
            ssize_t const count = ::recv(client, chunk, sizeof chunk, 0);
            if (count <= 0) {
                return;
            }
            request.append(chunk, static_cast<std::size_t>(count));
        }
        for (std::size_t sent = 0; sent < m_Response.size();) {
            ssize_t const count = ::send(client, m_Response.data() + sent, m_Response.size() - sent, MSG_NOSIGNAL);
            if (count <= 0) {
                return;
            }
            sent += static_cast<std::size_t>(count);
        }
    }

    std::string m_Response;
    std::string m_Port;
    int m_Listener = -1;
    std::thread m_Thread;
};

std::size_t oursFetch(std::string const& port) {
    URL_INFO info;
    info.scheme = "http";
    info.user = kUser;
    info.password = kPassword;
    info.host = "127.0.0.1";
    info.port = port.c_str();
    info.path = "/vt/auto?DATA=some";
    TbStringStream body;
    HttpSession(info, body);
    return body.length();
}

struct EasyReleaser {
    void operator()(CURL* handle) const { ::curl_easy_cleanup(handle); }
};

std::size_t collect(char* data, std::size_t size, std::size_t count, void* into) {
    static_cast<std::string*>(into)->append(data, size * count);
    return size * count;
}

std::size_t curlFetch(std::string const& port) {
    std::unique_ptr<CURL, EasyReleaser> const handle(::curl_easy_init());
    std::string const url = "http://127.0.0.1:" + port + "/vt/auto?DATA=some";
    std::string body;
    ::curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    ::curl_easy_setopt(handle.get(), CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_0});
    ::curl_easy_setopt(handle.get(), CURLOPT_FORBID_REUSE, 1L);
    ::curl_easy_setopt(handle.get(), CURLOPT_NOPROXY, "*");
    ::curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
    ::curl_easy_setopt(handle.get(), CURLOPT_USERNAME, kUser);
    ::curl_easy_setopt(handle.get(), CURLOPT_PASSWORD, kPassword);
    ::curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, &collect);
    ::curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &body);
    require(::curl_easy_perform(handle.get()) == CURLE_OK, "libcurl fails");
    return body.size();
}

void addResponse(std::string const& size, std::size_t bytes) {
    auto const server = std::make_shared<Server const>(std::string(bytes, 'x'));
    require(oursFetch(server->port()) == bytes && curlFetch(server->port()) == bytes, "a response is incomplete");
    std::string const name = "HTTP exchange, response of " + size;
    kvxbench::addPair(
        name, [server] { benchmark::DoNotOptimize(oursFetch(server->port())); }, "libcurl",
        [server] { benchmark::DoNotOptimize(curlFetch(server->port())); });
    kvxbench::compare(name + " / libcurl, wall time", name + "/ours", name + "/libcurl", kvxbench::Clock::kWall);
}

void setUp() {
    require(::curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK, "libcurl cannot start");
    addResponse("1 KB", 1024);
    addResponse("1 MB", std::size_t{1} << 20);
    addResponse("10 MB", std::size_t{10} << 20);
    kvxbench::compareGrowth("growth: HTTP exchange, 10 MB / 1 MB", "HTTP exchange, response of 10 MB/ours",
                            "HTTP exchange, response of 1 MB/ours", 10);
}

}  // namespace

int main(int argc, char** argv) {
    return kvxbench::benchMain(argc, argv, &setUp);
}
