/// The shop's web server of the demonstration.
#ifndef TALLOWIN_EXAMPLES_DEMO_SHOPSERVER_H
#define TALLOWIN_EXAMPLES_DEMO_SHOPSERVER_H

#include <memory>
#include <string>

namespace demo {

/// The request of a shopper who returns from the payment service, percent-decoded.
struct ReturnRequest {
    std::string m_Path;
    std::string m_Data;
    std::string m_Signature;
};

/// A web server on a free port of 127.0.0.1. It answers every request and stores the latest one.
class ShopServer {
public:
    /// Starts to listen. Throws std::runtime_error when that fails.
    ShopServer();
    ~ShopServer();
    ShopServer(ShopServer const&) = delete;
    ShopServer& operator=(ShopServer const&) = delete;

    /// The URL of a page; `path` is for example "/paid".
    [[nodiscard]] std::string url(std::string const& path) const;

    /// The latest request. Any thread.
    [[nodiscard]] ReturnRequest latestRequest() const;

private:
    class Server;

    std::unique_ptr<Server> m_Server;
};

}  // namespace demo

#endif
