#include "shoppages.h"

#include "baskets.h"
#include "markup.h"

/// Catalogue, basket and plain pages. Order pages stand in shoppages_order.cpp.
namespace storefront {

namespace {

std::string priceText(std::int64_t cents) {
    return amountText(cents) + " " + kCurrency;
}

/// A labelled input for a quantity of `article`.
std::string quantityField(Article const& article, std::string const& name, std::string const& label, int least,
                          int quantity) {
    std::string const id = escaped("quantity-of-" + std::string(article.m_Id));
    return "<label for=\"" + id + "\">" + escaped(label) + "</label> <input id=\"" + id + "\" name=\"" + escaped(name) +
           "\" type=\"number\" inputmode=\"numeric\" min=\"" + std::to_string(least) + "\" max=\"" +
           std::to_string(kMaxQuantity) + "\" value=\"" + std::to_string(quantity) + "\" required>\n";
}

std::string hiddenField(std::string const& name, std::string const& value) {
    return "<input type=\"hidden\" name=\"" + escaped(name) + "\" value=\"" + escaped(value) + "\">\n";
}

std::string offer(Article const& article) {
    return "<article>\n<h2>" + escaped(article.m_Name) + "</h2>\n" + paragraph(article.m_Description) +
           paragraph(priceText(article.m_Cents)) + "<form method=\"post\" action=\"/basket/add\">\n" +
           hiddenField("article", article.m_Id) +
           quantityField(article, "quantity", "Quantity of " + std::string(article.m_Name), 1, 1) +
           "<button aria-label=\"Add to basket: " + escaped(article.m_Name) +
           "\">Add to basket</button>\n</form>\n</article>\n";
}

std::string basketRow(Article const& article, int quantity) {
    return "<tr><td>" +
           quantityField(article, kQuantityField + std::string(article.m_Id), article.m_Name, 0, quantity) +
           "</td><td>" + escaped(priceText(article.m_Cents)) + "</td><td>" +
           escaped(priceText(article.m_Cents * quantity)) + "</td></tr>\n";
}

}  // namespace

std::string cataloguePage() {
    std::string content;
    for (Article const& article : catalogue()) {
        content += offer(article);
    }
    return wholePage("Catalogue", content);
}

std::string basketPage(Quantities const& basket, std::string const& key) {
    if (basket.empty()) {
        return wholePage("Your basket", paragraph("Your basket is empty."));
    }
    std::string rows;
    for (Article const& article : catalogue()) {
        auto const found = basket.find(article.m_Id);
        if (found != basket.end()) {
            rows += basketRow(article, found->second);
        }
    }
    return wholePage(
        "Your basket",
        "<form method=\"post\" action=\"/basket/update\">\n<table>\n<thead><tr><th scope=\"col\">Article and "
        "quantity</th><th scope=\"col\">Price</th><th scope=\"col\">Sum</th></tr></thead>\n<tbody>\n" +
            rows + "</tbody>\n</table>\n" + paragraph("Total: " + priceText(totalCents(basket))) +
            "<button>Update quantities</button>\n</form>\n<form method=\"post\" action=\"/checkout\">" +
            hiddenField(kKeyField, key) + "<button>Check out and pay</button></form>\n");
}

std::string plainPage(std::string const& title, std::string const& text) {
    return wholePage(title, paragraph(text));
}

}  // namespace storefront
