// The shop's business rules: which result leads to which state, when a payment is replaced, who captures.
//
// Order: return links and time, then the functions of the header, then the private ones. Three rules are worth copying:
// the thread that first marks an order as paid settles it; a capture that was not confirmed is repeated only after
// asking for the payment's state; only a few threads wait for the service at the same time.
#include "sales.h"

#include <array>
#include <ctime>
#include <stdexcept>
#include <utility>
#include <vector>

namespace storefront {

namespace {

// clang-format off
constexpr std::array<ReturnLink, 4> kReturnLinks = {{
    {"paid",      "authorised", OrderState::kPaid},
    {"declined",  "declined",   OrderState::kDeclined},
    {"declined",  "expired",    OrderState::kExpired},
    {"cancelled", "cancelled",  OrderState::kCancelled},
}};
// clang-format on

/// The results that belong to return link `name`.
std::vector<std::string> resultsAt(std::string const& name) {
    std::vector<std::string> results;
    for (ReturnLink const& link : kReturnLinks) {
        if (name == link.m_Name) {
            results.emplace_back(link.m_Result);
        }
    }
    return results;
}

/// The order's state after a confirmation with `result`.
OrderState stateAfter(std::string const& result) {
    for (ReturnLink const& link : kReturnLinks) {
        if (result == link.m_Result) {
            return link.m_State;
        }
    }
    throw std::logic_error("a result without a return link");
}

/// Whether the payment has expired by the shop's own clock.
bool isExpired(Payment const& payment) {
    std::time_t const now = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&now, &parts);
    char text[32] = "";
    std::strftime(text, sizeof text, "%Y%m%d %H:%M:%S", &parts);
    return text > payment.m_Expiration;
}

bool isCaptured(std::string const& stateAtService) {
    return stateAtService == "captured" || stateAtService == "completed";
}

/// The error for a genuine confirmation that no longer changes the order.
RequestError lateConfirmation(Order const& order, Confirmation const& confirmation, CallLog const& calls) {
    if (isOpen(order.m_State)) {
        return {"Order " + order.m_Number + " is not waiting for this confirmation",
                "It is genuine, but the shop already has this payment's result, or a newer payment has replaced it.",
                calls};
    }
    if (order.m_Confirmation.m_Token != confirmation.m_Token) {
        return {"Order " + order.m_Number + " has been paid already",
                "Another payment has paid it. This one, " + confirmation.m_Id +
                    ", is not captured: nothing is charged for it.",
                calls};
    }
    return {"Order " + order.m_Number + " has been paid already",
            "The confirmation is genuine, but it is valid only once. Nothing has been captured a second time.", calls};
}

}  // namespace

Sales::Sales(MerchantAccount& account, std::string address) : m_Address(std::move(address)), m_PaymentClient(account) {}

Order Sales::order(std::string const& number) const {
    std::optional<Order> const found = m_Orders.find(number);
    if (!found) {
        throw RequestError("There is no such order", "This shop has no order with the number \"" + number + "\".", {},
                           RequestError::kNotFound);
    }
    return *found;
}

std::string Sales::checkOut(std::string const& visitor, std::string const& key) {
    if (key.empty()) {
        throw RequestError("Nothing was ordered", "The request did not come from the basket page.");
    }
    if (std::optional<std::string> const made = m_Orders.findByKey(visitor, key)) {
        return orderUrl(*made);
    }
    Order order;
    order.m_Visitor = visitor;
    order.m_IdempotencyKey = key;
    order.m_Quantities = m_Baskets.of(visitor);
    if (order.m_Quantities.empty()) {
        throw RequestError("There is nothing to pay for", "Your basket is empty.");
    }
    order.m_Number = m_Orders.newNumber();
    order.m_Cents = totalCents(order.m_Quantities);
    order.m_Payment = m_PaymentClient.openPayment(order, orderUrl(order.m_Number), order.m_Calls);
    std::string const kept = m_Orders.add(order);
    return kept == order.m_Number ? order.m_Payment.m_Url : orderUrl(kept);
}

std::string Sales::payAgain(std::string const& number) {
    Order const before = order(number);
    CallLog calls;
    if (isUnpaid(before.m_State) || hasExpiredUnpaid(before, calls)) {
        Payment const payment = m_PaymentClient.openPayment(before, orderUrl(number), calls);
        // Returns false after a second click, whose payment then stays.
        m_Orders.replacePayment(number, before.m_Payment.m_Token, payment, calls);
    }
    Order const now = order(number);
    if (now.m_State != OrderState::kWaiting) {
        throw RequestError("Order " + number + " cannot be paid now", "It is not waiting for a payment.");
    }
    return now.m_Payment.m_Url;
}

void Sales::handleReturn(std::string const& number, std::string const& link, std::string const& data,
                         std::string const& signature) {
    handleConfirmation(number, Channel::kReturn, resultsAt(link), data, signature);
}

void Sales::handleNotification(std::string const& number, std::string const& data, std::string const& signature) {
    std::vector<std::string> results;
    results.reserve(kReturnLinks.size());
    for (ReturnLink const& link : kReturnLinks) {
        results.emplace_back(link.m_Result);
    }
    handleConfirmation(number, Channel::kNotification, results, data, signature);
}

void Sales::retrySettlement(std::string const& number) {
    Order const known = order(number);
    if (m_Orders.beginSettlement(known.m_Number)) {
        settle(order(number));
    }
}

std::string Sales::orderUrl(std::string const& number) const {
    return m_Address + "/orders/" + number;
}

/// Verifies a confirmation with one of `results` and changes the order accordingly.
void Sales::handleConfirmation(std::string const& number, Channel channel, std::vector<std::string> const& results,
                               std::string const& data, std::string const& signature) {
    CallLog calls;
    Confirmation const confirmation = m_PaymentClient.verify(order(number), results, data, signature, calls);
    OrderState const state = stateAfter(confirmation.m_Result);
    bool const isFirst = state == OrderState::kPaid ? m_Orders.markPaid(number, channel, confirmation, calls)
                                                    : m_Orders.markUnpaid(number, state, channel, confirmation, calls);
    bool const accepted = isFirst || m_Orders.acceptRepeat(number, channel, confirmation);
    // A notification that changes nothing still succeeds; otherwise the service would repeat it.
    if (!accepted && channel == Channel::kReturn) {
        throw lateConfirmation(order(number), confirmation, calls);
    }
    if (isFirst && state == OrderState::kPaid) {
        Order const paid = order(number);
        m_Baskets.emptyAfter(paid.m_Visitor, paid.m_Quantities);
        settle(paid);
    }
}

/// Whether the order's payment has expired unpaid. A payment that is authorised at the service has not: its page leads
/// the visitor back to the shop. When the service does not answer this returns true; the old payment, then superseded,
/// can still pay the order.
bool Sales::hasExpiredUnpaid(Order const& order, CallLog& calls) {
    if (order.m_State != OrderState::kWaiting || !isExpired(order.m_Payment)) {
        return false;
    }
    ServiceSlot const slot(m_SlotsInUse);
    if (!slot) {
        throw RequestError("Please try again in a minute",
                           "The payment service is slow, and too many visitors are waiting for it.", {},
                           RequestError::kUnavailable);
    }
    std::string const state = m_PaymentClient.state(order.m_Payment.m_Token, calls);
    return state != "authorised" && !isCaptured(state);
}

/// Captures and completes. Requires: beginSettlement() or markPaid() returned true; this always ends the settlement.
void Sales::settle(Order const& order) {
    OrderState const asBefore = order.m_State == OrderState::kPaid ? OrderState::kCaptureFailed : order.m_State;
    CallLog calls;
    ServiceSlot const slot(m_SlotsInUse);
    if (!slot) {
        m_Orders.endSettlement(order.m_Number, asBefore,
                               {{"MessageObject_Capture", "not called: too many threads wait for the service"}});
        return;
    }
    try {
        m_Orders.endSettlement(order.m_Number, captureAndComplete(order, calls), calls);
    } catch (...) {
        m_Orders.endSettlement(order.m_Number, asBefore, calls);
        throw;
    }
}

OrderState Sales::captureAndComplete(Order const& order, CallLog& calls) const {
    bool captured = order.m_State == OrderState::kCaptured;
    if (order.m_State == OrderState::kCaptureFailed) {
        // The service may have captured without confirming, so ask before repeating.
        std::string const state = m_PaymentClient.state(order.m_Confirmation.m_Token, calls);
        if (state.empty()) {
            return OrderState::kCaptureFailed;
        }
        captured = isCaptured(state);
    }
    if (!captured && !m_PaymentClient.capture(order.m_Confirmation, calls)) {
        return OrderState::kCaptureFailed;
    }
    return m_PaymentClient.complete(order.m_Confirmation, calls) ? OrderState::kCompleted : OrderState::kCaptured;
}

}  // namespace storefront
