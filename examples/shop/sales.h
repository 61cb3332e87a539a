#ifndef TALLOWIN_EXAMPLES_SHOP_SALES_H
#define TALLOWIN_EXAMPLES_SHOP_SALES_H

#include <atomic>
#include <string>
#include <vector>

#include "baskets.h"
#include "orders.h"
#include "paymentclient.h"
#include "serviceslot.h"

namespace storefront {

/// How a visitor comes back from the payment service: the last part of the address, a RESULT that belongs there, and
/// what becomes of the order.
struct ReturnLink {
    char const* m_Name;
    char const* m_Result;
    OrderState m_State;
};

/// Selling, from a full basket to a completed order. All functions may be called by any thread at any time; what the
/// shop does not carry out is a RequestError, after which everything is as before.
class Sales {
public:
    /// Borrows `account`. `address` is the shop's own, up to the port.
    Sales(MerchantAccount& account, std::string address);

    [[nodiscard]] Baskets& baskets() { return m_Baskets; }

    /// Throws RequestError when there is no such order.
    [[nodiscard]] Order order(std::string const& number) const;

    /// Makes an order of the visitor's basket and starts its payment. Returns where the visitor pays. The basket stays
    /// full until the order is paid. `key` is that of the form: when the visitor has sent it before, on a second click
    /// or after going back, nothing is made and the address of the order that it made comes back.
    std::string checkOut(std::string const& visitor, std::string const& key);

    /// Where the visitor pays an order that waits. An order whose payment was declined or cancelled, or ran out of time
    /// without being paid, gets a new payment first. Network.
    std::string payAgain(std::string const& number);

    /// The visitor is back from the payment service at the order's address that ends in `link`: "paid", "declined" or
    /// "cancelled". A paid order is captured and completed; it is paid exactly once. A visitor
    /// whose confirmation the service itself has brought before comes back to an order that is paid.
    void handleReturn(std::string const& number, std::string const& link, std::string const& data,
                      std::string const& signature);

    /// The payment service tells by itself how the order's payment ended, with what it gives the visitor as well.
    /// Whichever comes first is carried out; the other one changes nothing.
    void handleNotification(std::string const& number, std::string const& data, std::string const& signature);

    /// Captures and completes a paid order, as far as that is still to be done. Does nothing for any other order.
    void retrySettlement(std::string const& number);

    /// The orders that are being captured or completed right now.
    [[nodiscard]] std::vector<std::string> inSettlement() const { return m_Orders.inSettlement(); }

private:
    [[nodiscard]] std::string orderUrl(std::string const& number) const;

    [[nodiscard]] bool hasTimedOut(Order const& order, CallLog& calls);
    void receive(std::string const& number, Channel channel, std::vector<std::string> const& results,
                 std::string const& data, std::string const& signature);
    void settle(Order const& order);
    [[nodiscard]] OrderState captureAndComplete(Order const& order, CallLog& calls) const;

    std::string m_Address;
    PaymentClient m_PaymentClient;
    Baskets m_Baskets;
    Orders m_Orders;
    std::atomic<int> m_SlotsInUse{0};  ///< Threads that wait for the service; see ServiceSlot.
};

}  // namespace storefront

#endif
