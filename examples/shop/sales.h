/// Selling: checkout, return from the payment service, notification, settlement.
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

/// A return link: the last part of its address, a RESULT that belongs to it, and the order's state after that result.
struct ReturnLink {
    char const* m_Name;
    char const* m_Result;
    OrderState m_State;
};

/// Sells, from a full basket to a completed order. Any thread may call any function at any time. A refused request
/// throws RequestError and changes nothing.
class Sales {
public:
    /// Borrows `account`. `address` is the shop's own address without a path.
    Sales(MerchantAccount& account, std::string address);

    [[nodiscard]] Baskets& baskets() { return m_Baskets; }

    /// Throws RequestError when there is no such order.
    [[nodiscard]] Order order(std::string const& number) const;

    /// Creates an order from the visitor's basket and starts its payment. Returns the payment URL. The basket keeps its
    /// content until the order is paid. `key` is the form's idempotency key: when the visitor sends it again, by a
    /// second click or after going back, this creates nothing and returns the address of the existing order.
    std::string checkOut(std::string const& visitor, std::string const& key);

    /// Returns the payment URL of an unpaid order. When its payment was declined, cancelled or expired, starts a new
    /// one first. Network.
    std::string payAgain(std::string const& number);

    /// Handles the visitor's return through `link`: "paid", "declined" or "cancelled". Captures and completes a paid
    /// order, exactly once. Also succeeds when the notification of the same confirmation came first. Network.
    void handleReturn(std::string const& number, std::string const& link, std::string const& data,
                      std::string const& signature);

    /// Handles the service's notification of a payment's result, which carries the same confirmation as the visitor's
    /// return. The first of the two takes effect; the second changes nothing. Network.
    void handleNotification(std::string const& number, std::string const& data, std::string const& signature);

    /// Captures and completes a paid order where that has failed before. Does nothing for any other order. Network.
    void retrySettlement(std::string const& number);

    /// The numbers of orders that a thread is capturing or completing now.
    [[nodiscard]] std::vector<std::string> inSettlement() const { return m_Orders.inSettlement(); }

private:
    [[nodiscard]] std::string orderUrl(std::string const& number) const;

    [[nodiscard]] bool hasExpiredUnpaid(Order const& order, CallLog& calls);
    void handleConfirmation(std::string const& number, Channel channel, std::vector<std::string> const& results,
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
