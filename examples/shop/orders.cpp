// The order's state machine. Every function holds the lock for all it does, so each transition happens once.
//
// Order as in the header: new orders, look-up, a new payment, results of payments, settlement. A payment that another
// one superseded can still pay an open order; a second authorised payment is stored as surplus and never captured.
#include "orders.h"

#include <algorithm>
#include <utility>

#include "randomhex.h"

namespace storefront {

namespace {

bool isWaitingFor(Order const& order, Confirmation const& confirmation) {
    return order.m_State == OrderState::kWaiting && order.m_Payment.m_Token == confirmation.m_Token;
}

bool contains(std::vector<std::string> const& texts, std::string const& text) {
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

/// Deliberate (superseded-payment-pays): a superseded payment still pays an open order. The visitor may have paid in
/// time, with a late confirmation.
bool canBePaidBy(Order const& order, Confirmation const& confirmation) {
    return isWaitingFor(order, confirmation) ||
           (isOpen(order.m_State) && contains(order.m_Superseded, confirmation.m_Token));
}

void append(CallLog& calls, CallLog const& more) {
    calls.insert(calls.end(), more.begin(), more.end());
}

}  // namespace

std::string Orders::newNumber() {
    std::string const unguessable = randomHex(2);
    std::lock_guard<std::mutex> const lock(m_Mutex);
    return std::to_string(++m_Count) + "-" + unguessable;
}

std::string Orders::add(Order order) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    auto const [made, isFirst] = m_ByKey.try_emplace({order.m_Visitor, order.m_IdempotencyKey}, order.m_Number);
    if (isFirst) {
        m_Orders.emplace(order.m_Number, std::move(order));
    }
    return made->second;
}

std::optional<std::string> Orders::findByKey(std::string const& visitor, std::string const& key) const {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    auto const made = m_ByKey.find({visitor, key});
    return made == m_ByKey.end() ? std::nullopt : std::optional<std::string>(made->second);
}

std::optional<Order> Orders::find(std::string const& number) const {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    auto const found = m_Orders.find(number);
    return found == m_Orders.end() ? std::nullopt : std::optional<Order>(found->second);
}

bool Orders::replacePayment(std::string const& number, std::string const& oldToken, Payment const& payment,
                            CallLog const& calls) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Order& order = m_Orders.at(number);
    if (!isOpen(order.m_State) || order.m_Payment.m_Token != oldToken) {
        return false;
    }
    if (order.m_State == OrderState::kWaiting) {
        order.m_Superseded.push_back(oldToken);
    }
    order.m_Payment = payment;
    order.m_State = OrderState::kWaiting;
    order.m_Confirmation = {};
    order.m_Received.clear();
    order.m_Calls = calls;
    return true;
}

bool Orders::markUnpaid(std::string const& number, OrderState state, Channel channel, Confirmation const& confirmation,
                        CallLog const& calls) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Order& order = m_Orders.at(number);
    if (!isWaitingFor(order, confirmation)) {
        return false;
    }
    order.m_State = state;
    order.m_Confirmation = confirmation;
    order.m_Received[channel] = confirmation;
    append(order.m_Calls, calls);
    return true;
}

bool Orders::markPaid(std::string const& number, Channel channel, Confirmation const& confirmation,
                      CallLog const& calls) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Order& order = m_Orders.at(number);
    if (!canBePaidBy(order, confirmation)) {
        bool const another = !isOpen(order.m_State) && order.m_Confirmation.m_Token != confirmation.m_Token;
        if (another && !contains(order.m_Surplus, confirmation.m_Id)) {
            order.m_Surplus.push_back(confirmation.m_Id);
        }
        return false;
    }
    order.m_State = OrderState::kPaid;
    order.m_Settling = true;
    order.m_Confirmation = confirmation;
    order.m_Received[channel] = confirmation;
    append(order.m_Calls, calls);
    return true;
}

bool Orders::acceptRepeat(std::string const& number, Channel channel, Confirmation const& confirmation) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Order& order = m_Orders.at(number);
    Confirmation const& accepted = order.m_Confirmation;
    if (accepted.m_Token != confirmation.m_Token || accepted.m_Id != confirmation.m_Id ||
        accepted.m_Result != confirmation.m_Result) {
        return false;
    }
    bool const first = order.m_Received.emplace(channel, confirmation).second;
    return first || channel == Channel::kNotification || isOpen(order.m_State);
}

bool Orders::beginSettlement(std::string const& number) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Order& order = m_Orders.at(number);
    bool const unsettled = order.m_State == OrderState::kCaptureFailed || order.m_State == OrderState::kCaptured;
    if (!unsettled || order.m_Settling) {
        return false;
    }
    order.m_Settling = true;
    return true;
}

std::vector<std::string> Orders::inSettlement() const {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    std::vector<std::string> numbers;
    for (auto const& [number, order] : m_Orders) {
        if (order.m_Settling) {
            numbers.push_back(number);
        }
    }
    return numbers;
}

void Orders::endSettlement(std::string const& number, OrderState state, CallLog const& calls) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Order& order = m_Orders.at(number);
    order.m_State = state;
    order.m_Settling = false;
    append(order.m_Calls, calls);
}

}  // namespace storefront
