#include "sales.h"

#include <array>
#include <ctime>
#include <stdexcept>
#include <utility>
#include <vector>

namespace storefront {

namespace {

// clang-format off
constexpr std::array<WayBack, 4> kWaysBack = {{
    {"paid",      "authorised", OrderState::Paid},
    {"declined",  "declined",   OrderState::Declined},
    {"declined",  "expired",    OrderState::Expired},
    {"cancelled", "cancelled",  OrderState::Cancelled},
}};
// clang-format on

std::vector<std::string> resultsAt(std::string const& name) {
    std::vector<std::string> results;
    for (WayBack const& way : kWaysBack) {
        if (name == way.name) {
            results.emplace_back(way.result);
        }
    }
    return results;
}

OrderState stateAfter(std::string const& result) {
    for (WayBack const& way : kWaysBack) {
        if (result == way.result) {
            return way.state;
        }
    }
    throw std::logic_error("a result that no way back has");
}

/// Whether the time for paying is over, by the shop's own clock.
bool isTooLate(Payment const& payment) {
    std::time_t const now = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&now, &parts);
    char text[32] = "";
    std::strftime(text, sizeof text, "%Y%m%d %H:%M:%S", &parts);
    return text > payment.expiration;
}

bool isCaptured(std::string const& stateAtService) {
    return stateAtService == "captured" || stateAtService == "completed";
}

/// A genuine confirmation of the order's payment comes too late.
Objection tooLate(Order const& order, Confirmation const& confirmation, Calls const& calls) {
    if (isOpen(order.state)) {
        return {"Order " + order.number + " does not wait for this confirmation",
                "It is genuine, but how this payment ended is known already, or another has taken its place.", calls};
    }
    if (order.confirmation.token != confirmation.token) {
        return {"Order " + order.number + " has been paid already",
                "Another payment has paid it. This one, " + confirmation.id +
                    ", is not captured: nothing is charged for it.",
                calls};
    }
    return {"Order " + order.number + " has been paid already",
            "The confirmation is genuine, but it counts once. Nothing has been captured a second time.", calls};
}

}  // namespace

Sales::Sales(MerchantAccount& account, std::string address) : m_Address(std::move(address)), m_Desk(account) {}

Order Sales::order(std::string const& number) const {
    std::optional<Order> const found = m_Orders.find(number);
    if (!found) {
        throw Objection("There is no such order", "This shop knows no order with the number \"" + number + "\".", {},
                        Objection::Unknown);
    }
    return *found;
}

std::string Sales::checkOut(std::string const& visitor, std::string const& key) {
    if (key.empty()) {
        throw Objection("Nothing has been ordered", "The request did not come from the page of the basket.");
    }
    if (std::optional<std::string> const made = m_Orders.madeWith(visitor, key)) {
        return orderAddress(*made);
    }
    Order order;
    order.visitor = visitor;
    order.key = key;
    order.quantities = m_Baskets.of(visitor);
    if (order.quantities.empty()) {
        throw Objection("There is nothing to pay for", "The basket is empty.");
    }
    order.number = m_Orders.newNumber();
    order.cents = totalCents(order.quantities);
    order.payment = m_Desk.openPayment(order, orderAddress(order.number), order.calls);
    std::string const kept = m_Orders.add(order);
    return kept == order.number ? order.payment.url : orderAddress(kept);
}

std::string Sales::payAgain(std::string const& number) {
    Order const before = order(number);
    Calls calls;
    if (isGivenUp(before.state) || waitsInVain(before, calls)) {
        Payment const payment = m_Desk.openPayment(before, orderAddress(number), calls);
        // false after a second click: then that one's payment is there
        m_Orders.waitFor(number, before.payment.token, payment, calls);
    }
    Order const now = order(number);
    if (now.state != OrderState::Waiting) {
        throw Objection("Order " + number + " cannot be paid now", "It is not waiting for a payment.");
    }
    return now.payment.url;
}

void Sales::comeBack(std::string const& number, std::string const& way, std::string const& data,
                     std::string const& signature) {
    receive(number, Messenger::Visitor, resultsAt(way), data, signature);
}

void Sales::takeNotification(std::string const& number, std::string const& data, std::string const& signature) {
    std::vector<std::string> results;
    for (WayBack const& way : kWaysBack) {
        results.emplace_back(way.result);
    }
    receive(number, Messenger::Service, results, data, signature);
}

void Sales::tryAgain(std::string const& number) {
    Order const known = order(number);
    if (m_Orders.settleAgain(known.number)) {
        settle(order(number));
    }
}

std::string Sales::orderAddress(std::string const& number) const {
    return m_Address + "/orders/" + number;
}

/// Carries out what a confirmation with one of `results` says.
void Sales::receive(std::string const& number, Messenger messenger, std::vector<std::string> const& results,
                    std::string const& data, std::string const& signature) {
    Calls calls;
    Confirmation const confirmation = m_Desk.verify(order(number), results, data, signature, calls);
    OrderState const state = stateAfter(confirmation.result);
    bool const isFirst = state == OrderState::Paid ? m_Orders.pay(number, messenger, confirmation, calls)
                                                   : m_Orders.giveUp(number, state, messenger, confirmation, calls);
    bool const counts = isFirst || m_Orders.meet(number, messenger, confirmation);
    // The service would tell of a payment that counts no more again and again, though it is heard.
    if (!counts && messenger == Messenger::Visitor) {
        throw tooLate(order(number), confirmation, calls);
    }
    if (isFirst && state == OrderState::Paid) {
        Order const paid = order(number);
        m_Baskets.emptyAfter(paid.visitor, paid.quantities);
        settle(paid);
    }
}

/// Whether the order's payment ran out of time. One that the service has as authorised did not: its page leads the
/// visitor back. Without an answer a new payment is made all the same; the old one can still come in, as overtaken.
bool Sales::waitsInVain(Order const& order, Calls& calls) {
    if (order.state != OrderState::Waiting || !isTooLate(order.payment)) {
        return false;
    }
    Turn const turn(m_TurnsTaken);
    if (!turn) {
        throw Objection("Please try again in a minute", "The payment service is slow, and others wait for it already.",
                        {}, Objection::Busy);
    }
    std::string const state = m_Desk.state(order.payment.token, calls);
    return state != "authorised" && !isCaptured(state);
}

/// Requires: the right to settle the order, which ends here in any case.
void Sales::settle(Order const& order) {
    OrderState const asBefore = order.state == OrderState::Paid ? OrderState::CaptureFailed : order.state;
    Calls calls;
    Turn const turn(m_TurnsTaken);
    if (!turn) {
        m_Orders.settled(order.number, asBefore, {{"MessageObject_Capture", "not called, too many others wait"}});
        return;
    }
    try {
        m_Orders.settled(order.number, carryOut(order, calls), calls);
    } catch (...) {
        m_Orders.settled(order.number, asBefore, calls);
        throw;
    }
}

OrderState Sales::carryOut(Order const& order, Calls& calls) const {
    bool captured = order.state == OrderState::Captured;
    if (order.state == OrderState::CaptureFailed) {
        // The service may have captured all the same, so it is asked before a repetition.
        std::string const state = m_Desk.state(order.confirmation.token, calls);
        if (state.empty()) {
            return OrderState::CaptureFailed;
        }
        captured = isCaptured(state);
    }
    if (!captured && !m_Desk.capture(order.confirmation, calls)) {
        return OrderState::CaptureFailed;
    }
    return m_Desk.complete(order.confirmation, calls) ? OrderState::Completed : OrderState::Captured;
}

}  // namespace storefront
