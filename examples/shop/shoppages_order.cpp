#include "../demo/story.h"
#include "markup.h"
#include "shoppages.h"

/// The pages of an order and of what was refused, with what the library did.
namespace storefront {

namespace {

/// An order's state in one word or two, and what it means for the visitor.
struct StateText {
    char const* name;
    char const* meaning;
};

StateText stateText(OrderState state) {
    switch (state) {
        case OrderState::Waiting:
            return {"waiting", "It waits for its payment. Nothing has been charged."};
        case OrderState::Declined:
            return {"declined", "The payment was declined. Nothing has been charged."};
        case OrderState::Expired:
            return {"expired", "The time for paying was over. Nothing has been charged."};
        case OrderState::Cancelled:
            return {"cancelled", "The payment was cancelled. Nothing has been charged."};
        case OrderState::Paid:
            return {"paid", "The payment is authorised and is being captured. Reload this page to see how it went on."};
        case OrderState::CaptureFailed:
            return {"capture failed", "The payment is authorised, but the service did not confirm the capture."};
        case OrderState::Captured:
            return {"captured", "The money has been taken, but the service has not been told of the completion yet."};
        case OrderState::Completed:
            return {"completed", "Thank you. The order is paid and on its way."};
    }
    return {"unknown", ""};
}

/// What the visitor can do now.
std::string nextStep(Order const& order) {
    std::string const address = "/orders/" + order.number;
    switch (order.state) {
        case OrderState::Waiting:
            return buttonTo(address + "/pay", "Go to the payment");
        case OrderState::Declined:
        case OrderState::Expired:
        case OrderState::Cancelled:
            return paragraph("What you chose is still in your basket.") + buttonTo(address + "/pay", "Pay again");
        case OrderState::CaptureFailed:
        case OrderState::Captured:
            return order.settling ? paragraph("It is being tried again right now.")
                                  : buttonTo(address + "/settle", "Try again");
        default:
            return "";
    }
}

std::string articlesOf(Order const& order) {
    std::string items;
    for (Article const& article : catalogue()) {
        auto const found = order.quantities.find(article.id);
        if (found != order.quantities.end()) {
            items += "<li>" + std::to_string(found->second) + " &times; " + escaped(article.name) + "</li>\n";
        }
    }
    return "<ul>\n" + items + "</ul>\n" + paragraph("Total: " + amountText(order.cents) + " " + kCurrency);
}

std::string surplusOf(Order const& order) {
    std::string told;
    for (std::string const& id : order.surplus) {
        told += paragraph("Payment " + id +
                          " was authorised as well. It is not captured, so nothing is charged for it; the payment "
                          "service can release it.");
    }
    return told;
}

std::string callsTable(Calls const& calls) {
    std::string rows;
    for (Call const& call : calls) {
        rows += "<tr><td>" + escaped(call.function) + "</td><td>" + escaped(call.result) + "</td></tr>\n";
    }
    return "<table class=\"calls\">\n<thead><tr><th scope=\"col\">Function</th><th "
           "scope=\"col\">Result</th></tr></thead>\n<tbody>\n" +
           rows + "</tbody>\n</table>\n";
}

}  // namespace

std::string orderPage(Order const& order) {
    StateText const state = stateText(order.state);
    std::string content = paragraph(state.meaning) + nextStep(order) + surplusOf(order) + articlesOf(order) +
                          "<h2>What happened underneath</h2>\n" +
                          verbatim("The payment message", demo::spread(order.payment.message)) +
                          verbatim("The payment URL, with the message and its signature", order.payment.url);
    for (auto const& [messenger, confirmation] : order.received) {
        std::string const how =
            messenger == Messenger::Visitor ? "that came back with you" : "that came by notification";
        content += verbatim("DATA " + how, demo::spread(confirmation.data)) +
                   verbatim("SIGNATURE " + how, confirmation.signature);
    }
    content += "<h3>Calls of the library</h3>\n" + callsTable(order.calls);
    return wholePage("Order " + order.number + ": " + state.name, content);
}

std::string objectionPage(Objection const& objection, std::string const& orderNumber) {
    std::string content = paragraph(objection.reason());
    if (!orderNumber.empty()) {
        content +=
            "<p><a href=\"/orders/" + escaped(orderNumber) + "\">To order " + escaped(orderNumber) + "</a></p>\n";
    }
    if (!objection.calls().empty()) {
        content += "<h2>What the library said</h2>\n" + callsTable(objection.calls());
    }
    return wholePage(objection.title(), content);
}

}  // namespace storefront
