/// The shop's orders and their states.
#ifndef TALLOWIN_EXAMPLES_SHOP_ORDERS_H
#define TALLOWIN_EXAMPLES_SHOP_ORDERS_H

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "calllog.h"
#include "catalogue.h"

namespace storefront {

/// The state of an order.
///
///     kWaiting -> kDeclined, kExpired or kCancelled -> kWaiting, with a new payment
///     any of these four -> kPaid -> kCaptureFailed or kCaptured -> kCompleted
///
/// A paid order never becomes unpaid again.
enum class OrderState { kWaiting, kDeclined, kExpired, kCancelled, kPaid, kCaptureFailed, kCaptured, kCompleted };

/// Whether the order's payment failed, so that a new one may be started.
constexpr bool isUnpaid(OrderState state) {
    return state == OrderState::kDeclined || state == OrderState::kExpired || state == OrderState::kCancelled;
}

/// Whether the order can still be paid.
constexpr bool isOpen(OrderState state) {
    return state == OrderState::kWaiting || isUnpaid(state);
}

/// A payment that the shop started.
struct Payment {
    std::string m_Token;       ///< Unique for each payment; its confirmation carries it too.
    std::string m_Url;         ///< The payment URL, where the visitor pays.
    std::string m_Message;     ///< The PayInit message in the URL.
    std::string m_Expiration;  ///< End of the time to pay, UTC, "YYYYMMDD HH:MM:SS".
};

/// How a confirmation reached the shop: with the returning visitor, or from the service as a notification.
enum class Channel { kReturn, kNotification };

/// A verified confirmation of a payment.
struct Confirmation {
    std::string m_Token;
    std::string m_Id;      ///< The service's id of the payment.
    std::string m_Result;  ///< "authorised", "declined", "expired" or "cancelled".
    std::string m_Data;
    std::string m_Signature;
};

struct Order {
    std::string m_Number;  ///< Not guessable: the address of an order is enough to see it.
    std::string m_Visitor;
    std::string m_IdempotencyKey;  ///< From the checkout form: a visitor's key makes one order.
    Quantities m_Quantities;
    std::int64_t m_Cents = 0;
    Payment m_Payment;  ///< The latest payment.
    std::vector<std::string>
        m_Superseded;                    ///< Tokens of earlier payments that expired here; their results are unknown.
    std::vector<std::string> m_Surplus;  ///< Ids of further payments that were authorised; they are not captured.
    OrderState m_State = OrderState::kWaiting;
    bool m_Settling = false;                     ///< A thread is capturing or completing the payment.
    Confirmation m_Confirmation;                 ///< The accepted one; empty before.
    std::map<Channel, Confirmation> m_Received;  ///< The accepted one as it came through each channel.
    CallLog m_Calls;                             ///< The library calls for m_Payment.
};

/// All orders, in memory; a real shop keeps them in its database.
///
/// Any thread may call any function at any time. Each function is atomic: when several threads want to make the same
/// change, one of them makes it. Where a function takes a number, that order must exist, except for find().
class Orders {
public:
    /// A new order number, unique and not guessable.
    std::string newNumber();

    /// Adds an order, unless the visitor already has one with the same idempotency key. Returns the number of the added
    /// or the existing order.
    std::string add(Order order);

    /// The number of the visitor's order with this idempotency key.
    [[nodiscard]] std::optional<std::string> findByKey(std::string const& visitor, std::string const& key) const;

    [[nodiscard]] std::optional<Order> find(std::string const& number) const;

    /// Replaces the order's latest payment, which failed or expired, by `payment`; the order then waits for it.
    /// `oldToken` is the token of the payment to replace. Returns false and changes nothing when the order is paid or
    /// has another latest payment.
    bool replacePayment(std::string const& number, std::string const& oldToken, Payment const& payment,
                        CallLog const& calls);

    /// Stores a confirmation of a payment that failed and sets `state`, one of isUnpaid(). Returns false and changes
    /// nothing when the order does not wait for this payment.
    bool markUnpaid(std::string const& number, OrderState state, Channel channel, Confirmation const& confirmation,
                    CallLog const& calls);

    /// Stores a confirmation of an authorised payment, the latest or a superseded one, and sets kPaid. Returns true for
    /// the first caller only; that caller must capture, complete and call endSettlement(). When another payment has
    /// paid the order, adds this one to m_Surplus.
    bool markPaid(std::string const& number, Channel channel, Confirmation const& confirmation, CallLog const& calls);

    /// Whether a confirmation repeats the accepted one legitimately. The service may send its notification again at any
    /// time. A visitor may return once to a paid order, and may reload the page of an unpaid one.
    bool acceptRepeat(std::string const& number, Channel channel, Confirmation const& confirmation);

    /// Returns true for one caller at a time when a paid order is not completed; that caller then settles it as above.
    bool beginSettlement(std::string const& number);

    /// The numbers of all orders that a thread is settling now.
    [[nodiscard]] std::vector<std::string> inSettlement() const;

    /// Sets the state after settling.
    void endSettlement(std::string const& number, OrderState state, CallLog const& calls);

private:
    mutable std::mutex m_Mutex;                                          ///< Guards all members.
    int m_Count = 0;                                                     ///< Numbers given so far.
    std::map<std::string, Order> m_Orders;                               ///< By number.
    std::map<std::pair<std::string, std::string>, std::string> m_ByKey;  ///< Numbers, by visitor and idempotency key.
};

}  // namespace storefront

#endif
