#include "../common/printable.h"
#include "markup.h"
#include "shoppages.h"

/// The pages of an order and of what was refused, with what the library did.
namespace storefront {

namespace {

/// An order's state in one word or two, and what it means for the visitor.
struct StateText {
    char const* m_Name;
    char const* m_Meaning;
};

StateText stateText(OrderState state) {
    switch (state) {
        case OrderState::kWaiting:
            return {"waiting", "It waits for its payment. Nothing has been charged."};
        case OrderState::kDeclined:
            return {"declined", "The payment was declined. Nothing has been charged."};
        case OrderState::kExpired:
            return {"expired", "The time for paying was over. Nothing has been charged."};
        case OrderState::kCancelled:
            return {"cancelled", "The payment was cancelled. Nothing has been charged."};
        case OrderState::kPaid:
            return {"paid", "The payment is authorised and is being captured. Reload this page to see how it went on."};
        case OrderState::kCaptureFailed:
            return {"capture failed", "The payment is authorised, but the service did not confirm the capture."};
        case OrderState::kCaptured:
            return {"captured", "The money has been taken, but the service has not been told of the completion yet."};
        case OrderState::kCompleted:
            return {"completed", "Thank you. The order is paid and on its way."};
    }
    return {"unknown", ""};
}

/// What the visitor can do now.
std::string nextStep(Order const& order) {
    std::string const address = "/orders/" + order.m_Number;
    switch (order.m_State) {
        case OrderState::kWaiting:
            return buttonTo(address + "/pay", "Go to the payment");
        case OrderState::kDeclined:
        case OrderState::kExpired:
        case OrderState::kCancelled:
            return paragraph("What you chose is still in your basket.") + buttonTo(address + "/pay", "Pay again");
        case OrderState::kCaptureFailed:
        case OrderState::kCaptured:
            return order.m_Settling ? paragraph("It is being tried again right now.")
                                    : buttonTo(address + "/settle", "Try again");
        default:
            return "";
    }
}

std::string articlesOf(Order const& order) {
    std::string items;
    for (Article const& article : catalogue()) {
        auto const found = order.m_Quantities.find(article.m_Id);
        if (found != order.m_Quantities.end()) {
            items += "<li>" + std::to_string(found->second) + " &times; " + escaped(article.m_Name) + "</li>\n";
        }
    }
    return "<ul>\n" + items + "</ul>\n" + paragraph("Total: " + amountText(order.m_Cents) + " " + kCurrency);
}

std::string surplusOf(Order const& order) {
    std::string told;
    for (std::string const& id : order.m_Surplus) {
        told += paragraph("Payment " + id +
                          " was authorised as well. It is not captured, so nothing is charged for it; the payment "
                          "service can release it.");
    }
    return told;
}

std::string callsTable(CallLog const& calls) {
    std::string rows;
    for (LibraryCall const& call : calls) {
        rows += "<tr><td>" + escaped(call.m_Function) + "</td><td>" + escaped(call.m_Result) + "</td></tr>\n";
    }
    return "<table class=\"calls\">\n<thead><tr><th scope=\"col\">Function</th><th "
           "scope=\"col\">Result</th></tr></thead>\n<tbody>\n" +
           rows + "</tbody>\n</table>\n";
}

}  // namespace

std::string orderPage(Order const& order) {
    StateText const state = stateText(order.m_State);
    std::string content = paragraph(state.m_Meaning) + nextStep(order) + surplusOf(order) + articlesOf(order) +
                          "<h2>What happened underneath</h2>\n" +
                          verbatim("The payment message", examples::attributePerLine(order.m_Payment.m_Message)) +
                          verbatim("The payment URL, with the message and its signature", order.m_Payment.m_Url);
    for (auto const& [channel, confirmation] : order.m_Received) {
        std::string const how = channel == Channel::kReturn ? "that came back with you" : "that came by notification";
        content += verbatim("DATA " + how, examples::attributePerLine(confirmation.m_Data)) +
                   verbatim("SIGNATURE " + how, confirmation.m_Signature);
    }
    content += "<h3>Calls of the library</h3>\n" + callsTable(order.m_Calls);
    return wholePage("Order " + order.m_Number + ": " + state.m_Name, content);
}

std::string errorPage(RequestError const& error, std::string const& orderNumber) {
    std::string content = paragraph(error.message());
    if (!orderNumber.empty()) {
        content +=
            "<p><a href=\"/orders/" + escaped(orderNumber) + "\">To order " + escaped(orderNumber) + "</a></p>\n";
    }
    if (!error.calls().empty()) {
        content += "<h2>What the library said</h2>\n" + callsTable(error.calls());
    }
    return wholePage(error.title(), content);
}

}  // namespace storefront
