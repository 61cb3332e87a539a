// Order pages and error pages. They also show what a shop would only log: messages, signatures and library calls.
//
// Order: the state's name and meaning, the visitor's next step, the articles, surplus payments, the table of calls, the
// two pages.
#include "../common/printable.h"
#include "markup.h"
#include "shoppages.h"

namespace storefront {

namespace {

/// An order's state for the visitor.
struct StateText {
    char const* m_Name;
    char const* m_Meaning;
};

StateText stateText(OrderState state) {
    switch (state) {
        case OrderState::kWaiting:
            return {"waiting", "The order is not paid yet. Nothing has been charged."};
        case OrderState::kDeclined:
            return {"declined", "The payment was declined. Nothing has been charged."};
        case OrderState::kExpired:
            return {"expired", "The payment expired before it was made. Nothing has been charged."};
        case OrderState::kCancelled:
            return {"cancelled", "The payment was cancelled. Nothing has been charged."};
        case OrderState::kPaid:
            return {"paid", "The payment is authorised and is being captured. Reload this page to see the result."};
        case OrderState::kCaptureFailed:
            return {"capture failed",
                    "The payment is authorised, but the payment service did not confirm the capture."};
        case OrderState::kCaptured:
            return {"captured", "The payment is captured, but the payment service did not confirm its completion."};
        case OrderState::kCompleted:
            return {"completed", "Thank you. The order is paid and on its way."};
    }
    return {"unknown", ""};
}

/// A button or a hint for what the visitor can do next.
std::string nextStep(Order const& order) {
    std::string const address = "/orders/" + order.m_Number;
    switch (order.m_State) {
        case OrderState::kWaiting:
            return buttonTo(address + "/pay", "Go to payment");
        case OrderState::kDeclined:
        case OrderState::kExpired:
        case OrderState::kCancelled:
            return paragraph("The articles are still in your basket.") + buttonTo(address + "/pay", "Pay again");
        case OrderState::kCaptureFailed:
        case OrderState::kCaptured:
            return order.m_Settling ? paragraph("The shop is trying again now. Reload this page to see the result.")
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
    std::string text;
    for (std::string const& id : order.m_Surplus) {
        text += paragraph("Payment " + id +
                          " was authorised as well. It is not captured, so nothing is charged for it. The payment "
                          "service can release it.");
    }
    return text;
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
                          "<h2>Technical details</h2>\n" +
                          verbatim("The payment message", examples::attributePerLine(order.m_Payment.m_Message)) +
                          verbatim("The payment URL, with the message and its signature", order.m_Payment.m_Url);
    for (auto const& [channel, confirmation] : order.m_Received) {
        std::string const how = channel == Channel::kReturn ? "received when you returned" : "received by notification";
        content += verbatim("DATA " + how, examples::attributePerLine(confirmation.m_Data)) +
                   verbatim("SIGNATURE " + how, confirmation.m_Signature);
    }
    content += "<h3>Library calls</h3>\n" + callsTable(order.m_Calls);
    return wholePage("Order " + order.m_Number + ": " + state.m_Name, content);
}

std::string errorPage(RequestError const& error, std::string const& orderNumber) {
    std::string content = paragraph(error.message());
    if (!orderNumber.empty()) {
        content +=
            "<p><a href=\"/orders/" + escaped(orderNumber) + "\">Show order " + escaped(orderNumber) + "</a></p>\n";
    }
    if (!error.calls().empty()) {
        content += "<h2>Library calls</h2>\n" + callsTable(error.calls());
    }
    return wholePage(error.title(), content);
}

}  // namespace storefront
