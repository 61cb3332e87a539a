// What a visitor reads about an order is a template for each kind of state. No text says that nothing was charged
// unless the service said so: a payment may be authorised long before the shop hears of it.
#include "shoppages.h"

#include "../common/htmltemplate.h"

namespace storefront {

namespace {

/// What a visitor reads about an order in a state of the ledger.
struct StateText {
    char const* m_State;
    char const* m_Name;
    char const* m_Template;
    bool m_Renews;  ///< Something is under way, so the browser loads the page again.
};

// clang-format off
constexpr StateText kStates[] = {
    {"opened",             "waiting",      "statewaiting.html",   false},
    {"waiting",            "waiting",      "statewaiting.html",   false},
    {"authorised",         "paid",         "statecapturing.html", true},
    {"capturing",          "paid",         "statecapturing.html", true},
    {"unknown",            "paid",         "stateasking.html",    true},
    {"captured",           "captured",     "statecapturing.html", true},
    {"completing",         "captured",     "statecapturing.html", true},
    {"completion_unknown", "captured",     "stateasking.html",    true},
    {"completed",          "completed",    "statecompleted.html", false},
    {"declined",           "declined",     "stateunpaid.html",    false},
    {"cancelled",          "cancelled",    "stateunpaid.html",    false},
    {"expired",            "expired",      "stateexpired.html",   false},
    {"capture_refused",    "not captured", "staterefused.html",   false},
};
// clang-format on

StateText const& textOfState(std::string const& state) {
    for (StateText const& text : kStates) {
        if (state == text.m_State) {
            return text;
        }
    }
    return kStates[0];
}

std::string part(char const* file, Row const& values) {
    return examples::filled(asset(file), values);
}

std::string partForEach(char const* file, Rows const& rows) {
    return examples::filledForEach(asset(file), rows);
}

std::string priceText(std::int64_t cents) {
    return amountText(cents) + " " + kCurrency;
}

Rows rowsOf(Quantities const& quantities) {
    Rows rows;
    for (Article const& article : kArticles) {
        auto const found = quantities.find(article.m_Id);
        if (found != quantities.end()) {
            rows.push_back({{"id", article.m_Id},
                            {"name", article.m_Name},
                            {"description", article.m_Description},
                            {"price", priceText(article.m_Cents)},
                            {"quantity", std::to_string(found->second)},
                            {"sum", priceText(article.m_Cents * found->second)}});
        }
    }
    return rows;
}

std::string wholePage(std::string const& title, std::string const& content, bool renews = false) {
    std::string const refresh = renews ? asset("refresh.html") : "";
    return part("page.html", {{"title", title}, {"content", content}, {"refresh", refresh}});
}

}  // namespace

std::string cataloguePage() {
    Quantities oneOfEach;
    for (Article const& article : kArticles) {
        oneOfEach[article.m_Id] = 1;
    }
    return wholePage("Catalogue", part("catalogue.html", {{"offers", partForEach("offer.html", rowsOf(oneOfEach))}}));
}

std::string basketPage(Basket const& basket) {
    if (basket.m_Content.empty()) {
        return messagePage("Your basket", "Your basket is empty.");
    }
    return wholePage("Your basket",
                     part("basket.html", {{"rows", partForEach("basketrow.html", rowsOf(basket.m_Content))},
                                          {"total", priceText(totalCents(basket.m_Content))},
                                          {"key", basket.m_Number}}));
}

std::string orderPage(Row const& order, Rows const& history, Rows const& surplus, std::string const& dashboard) {
    StateText const& state = textOfState(order.at("state"));
    Row values = order;
    values["name"] = state.m_Name;
    values["bought"] = partForEach("boughtrow.html", rowsOf(quantitiesIn(order.at("articles"))));
    values["delivery"] = order.at("delivered_at").empty() ? "" : asset("delivered.html");
    values["surplus"] = partForEach("surplus.html", surplus);
    values["events"] = partForEach("event.html", history);
    values["dashboard"] = dashboard + "/payment?id=" + order.at("payment_id");
    values["link"] = order.at("payment_id").empty() ? "" : part("dashboardlink.html", values);
    values["currency"] = kCurrency;
    return wholePage("Order " + order.at("number") + ": " + state.m_Name,
                     part(state.m_Template, values) + part("order.html", values), state.m_Renews);
}

std::string messagePage(std::string const& title, std::string const& text, std::string const& orderNumber,
                        bool renews) {
    std::string const link = orderNumber.empty() ? "" : part("orderlink.html", {{"number", orderNumber}});
    return wholePage(title, part("message.html", {{"text", text}, {"link", link}}), renews);
}

}  // namespace storefront
