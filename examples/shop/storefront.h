#ifndef TALLOWIN_EXAMPLES_SHOP_STOREFRONT_H
#define TALLOWIN_EXAMPLES_SHOP_STOREFRONT_H

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "boundedserver.h"
#include "sales.h"

namespace storefront {

/// The shop's web server on 127.0.0.1, from construction to destruction.
class Storefront {
public:
    /// Opens the shop on `port`, 0 for a free one. Borrows `account`, which is set up. Throws std::runtime_error when
    /// that is not possible.
    Storefront(MerchantAccount& account, int port);

    /// Answers what has been asked, then closes, however long the payment service lets that wait.
    ~Storefront();
    Storefront(Storefront const&) = delete;
    Storefront& operator=(Storefront const&) = delete;

    /// The shop's address, up to the port.
    [[nodiscard]] std::string address() const;

    /// Closes. False when what has been asked is not answered within `timeout`.
    [[nodiscard]] bool close(std::chrono::seconds timeout);

    /// The orders that are being captured or completed right now.
    [[nodiscard]] std::vector<std::string> inSettlement() const { return m_Sales.inSettlement(); }

private:
    using Request = httplib::Request;
    using Response = httplib::Response;

    int listenOn(int port);
    void addPages();
    httplib::Server::Handler page(void (Storefront::*answer)(Request const&, Response&));

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
    std::future<void> m_Serving;  ///< Ready when everything is answered and closed.
};

}  // namespace storefront

#endif
