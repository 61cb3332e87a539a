/// The shop's web server.
#ifndef TALLOWIN_EXAMPLES_SHOP_STOREFRONT_H
#define TALLOWIN_EXAMPLES_SHOP_STOREFRONT_H

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "boundedserver.h"
#include "sales.h"

namespace storefront {

/// The shop's web server on 127.0.0.1. Runs from construction to destruction.
class Storefront {
public:
    /// Starts to listen on `port`; 0 takes a free one. Borrows `account`. Throws std::runtime_error when that fails.
    /// Requires: `account` is set up.
    Storefront(MerchantAccount& account, int port);

    /// Stops and waits for the open requests, without a timeout.
    ~Storefront();
    Storefront(Storefront const&) = delete;
    Storefront& operator=(Storefront const&) = delete;

    /// The shop's address without a path.
    [[nodiscard]] std::string address() const;

    /// Stops. Returns false when requests are still open after `timeout`.
    [[nodiscard]] bool close(std::chrono::seconds timeout);

    /// The numbers of orders that a thread is capturing or completing now.
    [[nodiscard]] std::vector<std::string> inSettlement() const { return m_Sales.inSettlement(); }

private:
    using Request = httplib::Request;
    using Response = httplib::Response;

    int listenOn(int port);
    void addPages();
    httplib::Server::Handler page(void (Storefront::*handler)(Request const&, Response&));

    void addToBasket(Request const& request, Response& response);
    void updateBasket(Request const& request, Response& response);
    void showBasket(Request const& request, Response& response);
    void checkOut(Request const& request, Response& response);
    void showOrder(Request const& request, Response& response);
    void payAgain(Request const& request, Response& response);
    void retrySettlement(Request const& request, Response& response);
    void handleReturn(Request const& request, Response& response);
    void handleNotification(Request const& request, Response& response);
    std::string knownVisitor(Request const& request, Response& response);

    BoundedServer m_Http;
    int m_Port;
    Sales m_Sales;
    std::future<void> m_Serving;  ///< Ready when the server has stopped.
};

}  // namespace storefront

#endif
