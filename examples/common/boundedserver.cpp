// Limits each request by handing the HTTP library a stream of our own, which counts its bytes and has a deadline.
// Writing has a timeout per piece, not a deadline: a large page may take longer.
#include "boundedserver.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <stdexcept>

namespace examples {

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kHost[] = "127.0.0.1";
constexpr std::size_t kThreads = 64;
constexpr std::size_t kMaxRequestBytes = 32768;
constexpr std::chrono::seconds kRequestTimeout{5};
constexpr std::chrono::seconds kStartTimeout{60};

/// One request and its response on a connected socket, which it owns.
class BoundedStream : public httplib::Stream {
public:
    explicit BoundedStream(socket_t socket) : m_Socket(socket) {}
    ~BoundedStream() override {
        ::shutdown(m_Socket, SHUT_RDWR);
        ::close(m_Socket);
    }
    BoundedStream(BoundedStream const&) = delete;
    BoundedStream& operator=(BoundedStream const&) = delete;

    [[nodiscard]] bool is_readable() const override { return becomes(POLLIN, m_Deadline); }
    [[nodiscard]] bool is_writable() const override { return becomes(POLLOUT, Clock::now() + kRequestTimeout); }

    ssize_t read(char* to, std::size_t size) override {
        if (m_Left == 0 || !is_readable()) {
            return -1;
        }
        ssize_t const came = ::recv(m_Socket, to, std::min(size, m_Left), 0);
        m_Left -= static_cast<std::size_t>(std::max<ssize_t>(came, 0));
        return came;
    }

    ssize_t write(char const* from, std::size_t size) override {
        std::size_t sent = 0;
        while (sent < size) {
            int const flags = MSG_NOSIGNAL | MSG_DONTWAIT;  // is_writable() waits, and not for ever
            ssize_t const went = is_writable() ? ::send(m_Socket, from + sent, size - sent, flags) : -1;
            if (went < 0) {
                return -1;
            }
            sent += static_cast<std::size_t>(went);
        }
        return static_cast<ssize_t>(size);
    }
    using httplib::Stream::write;

    /// Left empty: no handler uses addresses of clients.
    void get_remote_ip_and_port(std::string&, int&) const override {}
    void get_local_ip_and_port(std::string&, int&) const override {}
    [[nodiscard]] socket_t socket() const override { return m_Socket; }

private:
    [[nodiscard]] bool becomes(short event, Clock::time_point deadline) const {
        auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd asked{m_Socket, event, 0};
        return left > 0 && ::poll(&asked, 1, static_cast<int>(left)) == 1;
    }

    socket_t m_Socket;
    Clock::time_point m_Deadline = Clock::now() + kRequestTimeout;  ///< For the whole request.
    std::size_t m_Left = kMaxRequestBytes;                          ///< Bytes of the request that are still allowed.
};

}  // namespace

BoundedServer::BoundedServer() {
    new_task_queue = [] { return new httplib::ThreadPool(kThreads); };  // the HTTP library deletes it
    // The HTTP library would set SO_REUSEPORT, with which two servers could share a port unnoticed.
    set_socket_options([](socket_t socket) {
        int const yes = 1;
        ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
}

BoundedServer::~BoundedServer() {
    stop();
    if (m_Serving.valid()) {
        m_Serving.wait();
    }
}

std::string BoundedServer::bind(int port) {
    int const bound = port == 0 ? bind_to_any_port(kHost) : bind_to_port(kHost, port) ? port : 0;
    if (bound <= 0) {
        throw std::runtime_error("the shop cannot listen on " + std::string(kHost) + ":" + std::to_string(port) +
                                 " (is another program using the port?)");
    }
    m_Address = "http://" + std::string(kHost) + ":" + std::to_string(bound);
    return m_Address;
}

void BoundedServer::start() {
    m_Serving = std::async(std::launch::async, [this] { listen_after_bind(); });
    // stop() has an effect only on a running server; a response shows that it runs.
    httplib::Client self(m_Address);
    self.set_read_timeout(kStartTimeout);
    if (!self.Get("/")) {
        throw std::runtime_error("the shop does not answer at " + m_Address);
    }
}

bool BoundedServer::close(std::chrono::seconds timeout) {
    stop();
    return m_Serving.wait_for(timeout) == std::future_status::ready;
}

bool BoundedServer::process_and_close_socket(socket_t socket) {
    BoundedStream stream(socket);
    bool closed = false;
    return process_request(stream, true, closed, nullptr);
}

}  // namespace examples
