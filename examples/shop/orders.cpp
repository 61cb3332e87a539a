#include "orders.h"

#include <algorithm>
#include <utility>

#include "randomhex.h"

namespace storefront {

namespace {

bool waitsFor(Order const& order, Confirmation const& confirmation) {
    return order.state == OrderState::Waiting && order.payment.token == confirmation.token;
}

bool contains(std::vector<std::string> const& texts, std::string const& text) {
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

/// Deliberate: a payment that another one overtook still pays an open order. The visitor may have paid just in time,
/// and the confirmation came late.
bool canBePaidBy(Order const& order, Confirmation const& confirmation) {
    return waitsFor(order, confirmation) || (isOpen(order.state) && contains(order.overtaken, confirmation.token));
}

void append(Calls& calls, Calls const& more) {
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
    auto const [made, isFirst] = m_Made.try_emplace({order.visitor, order.key}, order.number);
    if (isFirst) {
        m_Orders.emplace(order.number, std::move(order));
    }
    return made->second;
}

std::optional<std::string> Orders::madeWith(std::string const& visitor, std::string const& key) const {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    auto const made = m_Made.find({visitor, key});
    return made == m_Made.end() ? std::nullopt : std::optional<std::string>(made->second);
}

std::optional<Order> Orders::find(std::string const& number) const {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    auto const found = m_Orders.find(number);
    return found == m_Orders.end() ? std::nullopt : std::optional<Order>(found->second);
}

bool Orders::waitFor(std::string const& number, std::string const& instead, Payment const& payment,
                     Calls const& calls) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Order& order = m_Orders.at(number);
    if (!isOpen(order.state) || order.payment.token != instead) {
        return false;
    }
    if (order.state == OrderState::Waiting) {
        order.overtaken.push_back(instead);
    }
    order.payment = payment;
    order.state = OrderState::Waiting;
    order.confirmation = {};
    order.received.clear();
    order.calls = calls;
    return true;
}

bool Orders::giveUp(std::string const& number, OrderState state, Messenger messenger, Confirmation const& confirmation,
                    Calls const& calls) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Order& order = m_Orders.at(number);
    if (!waitsFor(order, confirmation)) {
        return false;
    }
    order.state = state;
    order.confirmation = confirmation;
    order.received[messenger] = confirmation;
    append(order.calls, calls);
    return true;
}

bool Orders::pay(std::string const& number, Messenger messenger, Confirmation const& confirmation, Calls const& calls) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Order& order = m_Orders.at(number);
    if (!canBePaidBy(order, confirmation)) {
        bool const another = !isOpen(order.state) && order.confirmation.token != confirmation.token;
        if (another && !contains(order.surplus, confirmation.id)) {
            order.surplus.push_back(confirmation.id);
        }
        return false;
    }
    order.state = OrderState::Paid;
    order.settling = true;
    order.confirmation = confirmation;
    order.received[messenger] = confirmation;
    append(order.calls, calls);
    return true;
}

bool Orders::meet(std::string const& number, Messenger messenger, Confirmation const& confirmation) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Order& order = m_Orders.at(number);
    Confirmation const& accepted = order.confirmation;
    if (accepted.token != confirmation.token || accepted.id != confirmation.id ||
        accepted.result != confirmation.result) {
        return false;
    }
    bool const first = order.received.emplace(messenger, confirmation).second;
    return first || messenger == Messenger::Service || isOpen(order.state);
}

bool Orders::settleAgain(std::string const& number) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Order& order = m_Orders.at(number);
    bool const unsettled = order.state == OrderState::CaptureFailed || order.state == OrderState::Captured;
    if (!unsettled || order.settling) {
        return false;
    }
    order.settling = true;
    return true;
}

std::vector<std::string> Orders::inSettlement() const {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    std::vector<std::string> numbers;
    for (auto const& [number, order] : m_Orders) {
        if (order.settling) {
            numbers.push_back(number);
        }
    }
    return numbers;
}

void Orders::settled(std::string const& number, OrderState state, Calls const& calls) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Order& order = m_Orders.at(number);
    order.state = state;
    order.settling = false;
    append(order.calls, calls);
}

}  // namespace storefront
