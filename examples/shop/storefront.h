#pragma once

#include <httplib.h>

#include <string>
#include <thread>

#include "sales.h"

namespace storefront {

/// The shop's web server on 127.0.0.1, from construction to destruction.
class Storefront {
public:
    /// Opens the shop on `port`, 0 for a free one. Borrows `account`, which is set up. Throws std::runtime_error when
    /// that is not possible.
    Storefront(MerchantAccount& account, int port);

    /// Answers what has been asked, then closes.
    ~Storefront();
    Storefront(Storefront const&) = delete;
    Storefront& operator=(Storefront const&) = delete;

    /// The shop's address, up to the port.
    [[nodiscard]] std::string address() const;

private:
    using Request = httplib::Request;
    using Reply = httplib::Response;

    int listenOn(int port);
    void addPages();
    httplib::Server::Handler page(void (Storefront::*answer)(Request const&, Reply&));

    void addToBasket(Request const& request, Reply& reply);
    void updateBasket(Request const& request, Reply& reply);
    void showBasket(Request const& request, Reply& reply);
    void checkOut(Request const& request, Reply& reply);
    void showOrder(Request const& request, Reply& reply);
    void payAgain(Request const& request, Reply& reply);
    void tryAgain(Request const& request, Reply& reply);
    void comeBack(Request const& request, Reply& reply);
    std::string knownVisitor(Request const& request, Reply& reply);

    httplib::Server m_Http;
    int m_Port;
    Sales m_Sales;
    std::thread m_Thread;
};

}  // namespace storefront
