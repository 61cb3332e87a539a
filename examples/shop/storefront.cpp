// One handler per route. The three that a shop needs to be paid stand in the middle: pay, return, notification.
//
// A handler refuses a request by throwing RequestError. A POST answers with 303, so that a reload sends nothing twice.
#include "storefront.h"

#include <iostream>

#include "shoppages.h"

namespace storefront {

namespace {

using httplib::Request;
using httplib::Response;

enum Status { kOk = 200, kSeeOther = 303, kBadRequest = 400, kNotFound = 404, kUnavailable = 503 };

constexpr char kCookie[] = "tallowin-shop-basket=";
constexpr char kHtml[] = "text/html; charset=utf-8";
constexpr std::size_t kMaxFormBytes = 8192;
constexpr char kUnchanged[] = "Your basket was not changed";
constexpr char kNoForm[] = "The request did not come from the page of the basket, or the basket has changed since.";
constexpr char kNewKey[] =
    "The payment service has signed with a new key, which the shop fetches now. This page renews itself.";

/// The shop refuses a request.
struct RequestError {
    Status m_Status;
    std::string m_Title;
    std::string m_Text;
};

/// What the handlers of a request share.
struct Visit {
    Request const& m_Request;
    Response& m_Response;
    OrderBook& m_Orders;
    std::string const& m_Address;    ///< The shop's.
    std::string const& m_Dashboard;  ///< The payment service's.
    std::string m_Number;            ///< Of the order in the request's path; empty when the route has none.

    [[nodiscard]] std::string parameter(std::string const& name) const {
        std::string const value = m_Request.get_param_value(name.c_str());
        // Another reader might take another one of two values, or a part of a text with a zero byte.
        if (m_Request.get_param_value_count(name.c_str()) > 1 || value.find('\0') != std::string::npos) {
            throw RequestError{kBadRequest, "The shop cannot handle this request",
                               "\"" + name + "\" appears twice or has a zero byte."};
        }
        return value;
    }

    [[nodiscard]] Basket basket() const {
        std::string const cookies = m_Request.get_header_value("Cookie") + ";";
        std::size_t const found = cookies.find(kCookie);
        std::size_t const start = found + sizeof kCookie - 1;
        return basketIn(found == std::string::npos ? "" : cookies.substr(start, cookies.find(';', start) - start));
    }

    /// Stores the basket in the browser: a shop that stores none cannot be filled up by strangers.
    void storeBasket(Quantities const& content) const {
        m_Response.set_header("Set-Cookie", kCookie + newBasket(content) + "; Path=/; HttpOnly; SameSite=Lax");
    }

    void redirect(std::string const& address) const { m_Response.set_redirect(address, kSeeOther); }

    void send(std::string const& page, int status = kOk) const {
        m_Response.status = status;
        m_Response.set_content(page, kHtml);
    }
};

void put(Quantities& content, std::string const& article, int before, std::string const& text) {
    bool const isNumber = !text.empty() && text.size() < 3 && text.find_first_not_of("0123456789") == std::string::npos;
    int const quantity = isNumber ? before + std::stoi(text) : kMaxQuantity + 1;
    if (quantity > kMaxQuantity) {
        throw RequestError{kBadRequest, kUnchanged,
                           "A quantity is a whole number from 0 to " + std::to_string(kMaxQuantity) + "."};
    }
    content[article] = quantity;
    if (quantity == 0) {
        content.erase(article);
    }
}

void addToBasket(Visit const& visit) {
    Quantities content = visit.basket().m_Content;
    for (Article const& article : kArticles) {
        if (visit.parameter("article") == article.m_Id) {
            put(content, article.m_Id, content[article.m_Id], visit.parameter("quantity"));
            visit.storeBasket(content);
            visit.redirect("/basket");
            return;
        }
    }
    throw RequestError{kBadRequest, kUnchanged, "There is no such article in this shop."};
}

void updateBasket(Visit const& visit) {
    Quantities content = visit.basket().m_Content;
    for (Article const& article : kArticles) {
        std::string const field = "quantity-" + std::string(article.m_Id);
        if (visit.m_Request.has_param(field.c_str())) {
            put(content, article.m_Id, 0, visit.parameter(field));
        }
    }
    visit.storeBasket(content);
    visit.redirect("/basket");
}

Row orderOf(Visit const& visit) {
    Rows const found = visit.m_Orders.find(visit.m_Number);
    if (found.empty()) {
        throw RequestError{kNotFound, "There is no such order", "This shop has no order with this number."};
    }
    return found[0];
}

void showOrder(Visit const& visit) {
    Row const order = orderOf(visit);
    if (!order.at("delivered_at").empty() && visit.basket().m_Number == visit.m_Number) {
        visit.storeBasket({});  // its content has been bought
    }
    visit.send(orderPage(order, visit.m_Orders.historyOf(visit.m_Number), visit.m_Orders.surplusOf(visit.m_Number),
                         visit.m_Dashboard));
}

/// Pay: sends the browser to the payment page, or to the order when it is paid.
void goToPayment(Visit const& visit, std::string const& number) {
    visit.redirect(visit.m_Orders.begin(number, visit.m_Address + "/orders/" + number));
}

/// Makes an order of the basket. The form has the number of the basket that its page showed.
void checkOut(Visit const& visit) {
    std::string const number = visit.parameter("key");
    if (visit.m_Orders.find(number).empty()) {
        Basket const basket = visit.basket();
        if (basket.m_Content.empty() || number != basket.m_Number) {
            throw RequestError{kBadRequest, "Nothing was ordered",
                               basket.m_Content.empty() ? "Your basket is empty." : kNoForm};
        }
        visit.m_Orders.add(number, basket.m_Content);
    }
    goToPayment(visit, number);
}

void payAgain(Visit const& visit) {
    goToPayment(visit, orderOf(visit).at("number"));
}

tallowin::Confirmation confirm(Visit const& visit, char const* messenger) {
    return visit.m_Orders.confirm(messenger, visit.parameter("DATA"), visit.parameter("SIGNATURE"));
}

/// Return: the confirmation arrives with the visitor. It says itself which order it is about; that order's page shows
/// what became of it, however often and in whichever order confirmations arrive.
void handleReturn(Visit const& visit) {
    tallowin::Confirmation const confirmation = confirm(visit, "return");
    if (confirmation.outcome() == tallowin::Outcome::kRefused) {
        throw RequestError{kBadRequest, "The shop refused this payment confirmation",
                           std::string("It changes nothing. The reason is ") + nameOf(confirmation.reason()) + "."};
    }
    if (confirmation.outcome() == tallowin::Outcome::kKept) {
        visit.send(messagePage("One moment, please", kNewKey, visit.m_Number, true), confirmation.httpStatus());
        return;
    }
    visit.redirect("/orders/" + confirmation.order());
}

/// Notification: the same confirmation arrives from the service, which repeats it until the status is a success. The
/// answer does not wait for the capture.
void handleNotification(Visit const& visit) {
    tallowin::Confirmation const confirmation = confirm(visit, "notification");
    visit.m_Response.status = confirmation.httpStatus();
    bool const isReceived = confirmation.httpStatus() == kOk;
    visit.m_Response.set_content(isReceived ? "received\n" : nameOf(confirmation.reason()), "text/plain");
}

/// Sends an error page when the HTTP library itself refused a request.
httplib::Server::HandlerResponse sendErrorPage(Request const&, Response& response) {
    if (response.body.empty()) {
        std::string const text = "The HTTP status is " + std::to_string(response.status) + ".";
        response.set_content(response.status == kNotFound
                                 ? messagePage("Page not found", "This shop has no page at this address.")
                                 : messagePage("The shop cannot handle this request", text),
                             kHtml);
    }
    return httplib::Server::HandlerResponse::Handled;
}

}  // namespace

void addPages(httplib::Server& server, std::string const& directory, std::string const& address,
              std::string const& dashboard) {
    // Each thread of the server has its own order book, because a ledger is one thread's. After 503 the payment service
    // sends a notification again.
    auto const page = [=](void (*handler)(Visit const&)) {
        return [=](Request const& request, Response& response) {
            std::string const number = request.matches.size() > 1 ? request.matches[1].str() : "";
            try {
                thread_local OrderBook orders(directory);
                handler({request, response, orders, address, dashboard, number});
            } catch (RequestError const& error) {
                response.status = error.m_Status;
                std::string const known = error.m_Status == kNotFound ? "" : number;
                response.set_content(messagePage(error.m_Title, error.m_Text, known), kHtml);
            } catch (std::exception const& failure) {
                std::cerr << std::string("tallowin-shop: ") + failure.what() + "\n";
                response.status = kUnavailable;
                bool const renews = request.method == "GET";
                response.set_content(messagePage("Something went wrong", "Please try again.", number, renews), kHtml);
            }
        };
    };
    server.set_payload_max_length(kMaxFormBytes);
    // An order's address gives access to it, so neither caches nor other sites may learn it.
    server.set_default_headers({{"Cache-Control", "no-store"},
                                {"Content-Security-Policy",
                                 "default-src 'none'; style-src 'self'; img-src 'self'; frame-ancestors 'none'; "
                                 "base-uri 'none'"},
                                {"Referrer-Policy", "no-referrer"},
                                {"X-Content-Type-Options", "nosniff"}});
    server.set_error_handler(httplib::Server::HandlerWithResponse(sendErrorPage));
    server.Get("/shop.css",
               [](Request const&, Response& response) { response.set_content(asset("shop.css"), "text/css"); });
    server.Get("/pictures/((candle|candlestick|mug|flame).svg)", [](Request const& request, Response& response) {
        response.set_content(asset(request.matches[1]), "image/svg+xml");
    });
    server.Get("/", page([](Visit const& visit) { visit.send(cataloguePage()); }));
    server.Get("/basket", page([](Visit const& visit) { visit.send(basketPage(visit.basket())); }));
    server.Post("/basket/add", page(addToBasket));
    server.Post("/basket/update", page(updateBasket));
    server.Post("/checkout", page(checkOut));
    server.Get("/orders/([0-9a-z-]{1,32})", page(showOrder));
    server.Post("/orders/([0-9a-z-]{1,32})/pay", page(payAgain));
    server.Get("/orders/([0-9a-z-]{1,32})/(paid|declined|cancelled)", page(handleReturn));
    server.Get("/orders/([0-9a-z-]{1,32})/notified", page(handleNotification));
}

}  // namespace storefront
