#include "shopserver.h"

#include <httplib.h>

#include <mutex>
#include <stdexcept>
#include <thread>

namespace demo {

namespace {

constexpr char kHost[] = "127.0.0.1";

}  // namespace

class ShopServer::Server {
public:
    Server() {
        m_Http.Get(".*", [this](httplib::Request const& request, httplib::Response& response) {
            store({request.path, request.get_param_value("DATA"), request.get_param_value("SIGNATURE")});
            response.set_content("Welcome back. The shop is checking your payment.\n", "text/plain");
        });
        m_Port = m_Http.bind_to_any_port(kHost);
        if (m_Port <= 0) {
            throw std::runtime_error("the shop cannot listen on 127.0.0.1");
        }
        m_Thread = std::thread([this] { m_Http.listen_after_bind(); });
    }

    ~Server() {
        m_Http.stop();
        m_Thread.join();
    }
    Server(Server const&) = delete;
    Server& operator=(Server const&) = delete;

    [[nodiscard]] int port() const { return m_Port; }

    [[nodiscard]] ReturnRequest latestRequest() const {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        return m_Latest;
    }

private:
    void store(ReturnRequest request) {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        m_Latest = std::move(request);
    }

    httplib::Server m_Http;
    int m_Port = 0;
    mutable std::mutex m_Mutex;
    ReturnRequest m_Latest;  ///< Guarded by m_Mutex.
    std::thread m_Thread;
};

ShopServer::ShopServer() : m_Server(std::make_unique<Server>()) {
    // stop() has an effect only on a running server; a response shows that it runs.
    if (!httplib::Client(kHost, m_Server->port()).Get("/")) {
        throw std::runtime_error("the shop does not answer on 127.0.0.1");
    }
}

ShopServer::~ShopServer() = default;

std::string ShopServer::url(std::string const& path) const {
    return "http://" + std::string(kHost) + ":" + std::to_string(m_Server->port()) + path;
}

ReturnRequest ShopServer::latestRequest() const {
    return m_Server->latestRequest();
}

}  // namespace demo
