#include "shopserver.h"

#include <mutex>

#include "../common/boundedserver.h"

namespace demo {

class ShopServer::Server {
public:
    Server() : m_Address(m_Http.bind(0)) {
        m_Http.Get(".*", [this](httplib::Request const& request, httplib::Response& response) {
            store({request.path, request.get_param_value("DATA"), request.get_param_value("SIGNATURE")});
            response.set_content("Welcome back. The shop is checking your payment.\n", "text/plain");
        });
        m_Http.start();
    }

    [[nodiscard]] std::string const& address() const { return m_Address; }

    [[nodiscard]] ReturnRequest latestRequest() const {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        return m_Latest;
    }

private:
    void store(ReturnRequest request) {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        m_Latest = std::move(request);
    }

    mutable std::mutex m_Mutex;
    ReturnRequest m_Latest;          ///< Guarded by m_Mutex.
    examples::BoundedServer m_Http;  ///< Ends first, because its threads use the others.
    std::string m_Address;
};

ShopServer::ShopServer() : m_Server(std::make_unique<Server>()) {}

ShopServer::~ShopServer() = default;

std::string ShopServer::url(std::string const& path) const {
    return m_Server->address() + path;
}

ReturnRequest ShopServer::latestRequest() const {
    return m_Server->latestRequest();
}

}  // namespace demo
