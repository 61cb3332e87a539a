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

/// Where an order stands. `Waiting` leads to `Declined`, `Expired` and `Cancelled`, from which a new payment leads
/// back, or to `Paid`, from which nothing leads back: then `CaptureFailed` or `Captured`, and in the end `Completed`.
enum class OrderState { kWaiting, kDeclined, kExpired, kCancelled, kPaid, kCaptureFailed, kCaptured, kCompleted };

/// Whether the payment has come to nothing and another one may be made.
constexpr bool isGivenUp(OrderState state) {
    return state == OrderState::kDeclined || state == OrderState::kExpired || state == OrderState::kCancelled;
}

/// Whether the order can still be paid.
constexpr bool isOpen(OrderState state) {
    return state == OrderState::kWaiting || isGivenUp(state);
}

/// A payment at the service, as the shop started it.
struct Payment {
    std::string m_Token;       ///< Tells this payment's confirmation from all others.
    std::string m_Url;         ///< Where the visitor pays.
    std::string m_Message;     ///< The PayInit message that is in the URL.
    std::string m_Expiration;  ///< When it is too late to pay, as UTC in the form "YYYYMMDD HH:MM:SS".
};

/// Who brought a confirmation: the visitor that came back, or the payment service itself.
enum class Messenger { kVisitor, kService };

/// What the service says of a payment, verified.
struct Confirmation {
    std::string m_Token;
    std::string m_Id;      ///< The payment's name at the service.
    std::string m_Result;  ///< How it ended.
    std::string m_Data;
    std::string m_Signature;
};

struct Order {
    std::string m_Number;  ///< Cannot be guessed: whoever knows an order's address sees the order.
    std::string m_Visitor;
    std::string m_Key;  ///< Of the visitor's form that made the order; makes no other one.
    Quantities m_Quantities;
    std::int64_t m_Cents = 0;
    Payment m_Payment;                     ///< The latest one.
    std::vector<std::string> m_Overtaken;  ///< Tokens of earlier ones that ran out of time, their end unknown.
    std::vector<std::string> m_Surplus;    ///< Ids of payments that were authorised beside the one that is captured.
    OrderState m_State = OrderState::kWaiting;
    bool m_Settling = false;      ///< Somebody is capturing or completing right now.
    Confirmation m_Confirmation;  ///< The accepted one, of `payment` or of one that it overtook; empty before.
    std::map<Messenger, Confirmation> m_Received;  ///< The accepted one as each messenger brought it.
    CallLog m_Calls;                               ///< What the library did for `payment`, oldest first.
};

/// The orders, as a shop keeps them in its database. All functions may be called by any thread at any time; each
/// happens as a whole, so of many callers that want to change the same thing one does.
class Orders {
public:
    /// A number that no other order has.
    std::string newNumber();

    /// Keeps a new order, unless the visitor has made one with the same key. Returns the number of the order that is
    /// kept; of many callers with one key all get the same.
    std::string add(Order order);

    /// The number of the order that the visitor made with the key.
    [[nodiscard]] std::optional<std::string> madeWith(std::string const& visitor, std::string const& key) const;

    [[nodiscard]] std::optional<Order> find(std::string const& number) const;

    /// Gives an order another payment to wait for, instead of the latest one with the token `instead`, which came to
    /// nothing or ran out of time. False, changing nothing, when the order is paid or has a later payment. Requires:
    /// the order exists, here and below.
    bool waitFor(std::string const& number, std::string const& instead, Payment const& payment, CallLog const& calls);

    /// A confirmation says that the order is not paid. False, changing nothing, when the order does not wait for it.
    bool giveUp(std::string const& number, OrderState state, Messenger messenger, Confirmation const& confirmation,
                CallLog const& calls);

    /// A confirmation says that the order is paid, by the payment it waits for or by one that was overtaken. True for
    /// the first caller alone, who then is the one to settle it: capture, complete, and call settled(). An order that
    /// another payment has paid keeps in mind that this one is authorised as well.
    bool pay(std::string const& number, Messenger messenger, Confirmation const& confirmation, CallLog const& calls);

    /// Whether a confirmation says the same as the one that was accepted, and is no replay. The service may tell as
    /// often as it likes. A visitor may come back once when the order is paid, and may load the page again when it is
    /// not.
    bool meet(std::string const& number, Messenger messenger, Confirmation const& confirmation);

    /// True for one caller at a time, for a paid order that is neither completed nor being settled: settle it as above.
    bool settleAgain(std::string const& number);

    /// The numbers of the orders that are being settled right now.
    [[nodiscard]] std::vector<std::string> inSettlement() const;

    /// Tells how far settling came.
    void settled(std::string const& number, OrderState state, CallLog const& calls);

private:
    mutable std::mutex m_Mutex;
    int m_Count = 0;                        ///< Numbers given away. Guarded by m_Mutex, as everything here.
    std::map<std::string, Order> m_Orders;  ///< By number.
    std::map<std::pair<std::string, std::string>, std::string> m_Made;  ///< Numbers, by visitor and key.
};

}  // namespace storefront

#endif
