// Routes, and one handler per route: read the request, call Sales, send a page or a redirect.
//
// Order: helpers for requests and responses, start and stop, the routes, the handlers. A handler reports an error by
// throwing RequestError; page() turns it into an error page. A POST answers with 303, so that a reload sends nothing
// twice.
#include "storefront.h"

#include <sys/socket.h>

#include <chrono>
#include <optional>
#include <stdexcept>

#include "randomhex.h"
#include "shoppages.h"

namespace storefront {

namespace {

using httplib::Request;
using httplib::Response;

constexpr char kHost[] = "127.0.0.1";
constexpr char kCookie[] = "tallowin-shop-visitor";
constexpr char kHtml[] = "text/html; charset=utf-8";
constexpr int kSeeOther = 303;
constexpr int kNotFound = 404;
constexpr int kServerError = 500;
constexpr std::size_t kKeyWords = 4;
constexpr std::size_t kMaxFormBytes = 8192;
constexpr std::chrono::seconds kStartTimeout{60};

void send(Response& response, std::string const& page, int status = 200) {
    response.status = status;
    response.set_content(page, kHtml);
}

/// The visitor id in the request's cookie, not checked; empty when absent.
std::string visitorOf(Request const& request) {
    std::string const cookies = "; " + request.get_header_value("Cookie") + ";";
    std::string const name = std::string("; ") + kCookie + "=";
    std::size_t const found = cookies.find(name);
    if (found == std::string::npos) {
        return "";
    }
    std::size_t const start = found + name.size();
    return cookies.substr(start, cookies.find(';', start) - start);
}

/// The order number in the request's path; empty when the route has none.
std::string orderNumberIn(Request const& request) {
    return request.matches.size() > 1 ? request.matches[1].str() : "";
}

/// Refuses repeated parameters: another reader of the request might take the other value.
void requireSingleParameters(Request const& request) {
    for (auto const& [name, value] : request.params) {
        if (request.params.count(name) > 1) {
            throw RequestError("The shop cannot handle this request",
                               "The parameter \"" + name + "\" appears more than once.");
        }
    }
}

/// Sends an error page when the HTTP library itself refused a request.
httplib::Server::HandlerResponse sendErrorPage(Request const&, Response& response) {
    if (!response.body.empty()) {
        return httplib::Server::HandlerResponse::Unhandled;
    }
    bool const missing = response.status == kNotFound;
    send(response,
         plainPage(missing ? "Page not found" : "The shop cannot handle this request",
                   missing ? "This shop has no page at this address."
                           : "The HTTP status is " + std::to_string(response.status) + "."),
         response.status);
    return httplib::Server::HandlerResponse::Handled;
}

}  // namespace

Storefront::Storefront(MerchantAccount& account, int port) : m_Port(listenOn(port)), m_Sales(account, address()) {
    addPages();
    m_Serving = std::async(std::launch::async, [this] { m_Http.listen_after_bind(); });
    // stop() has an effect only on a running server; a response shows that it runs.
    httplib::Client self(kHost, m_Port);
    self.set_read_timeout(kStartTimeout);
    if (!self.Get("/")) {
        m_Http.stop();
        throw std::runtime_error("the shop does not answer at " + address());
    }
}

Storefront::~Storefront() {
    m_Http.stop();
    m_Serving.wait();
}

bool Storefront::close(std::chrono::seconds timeout) {
    m_Http.stop();
    return m_Serving.wait_for(timeout) == std::future_status::ready;
}

std::string Storefront::address() const {
    return "http://" + std::string(kHost) + ":" + std::to_string(m_Port);
}

int Storefront::listenOn(int port) {
    // The HTTP library would set SO_REUSEPORT, with which two shops could share a port unnoticed.
    m_Http.set_socket_options([](socket_t socket) {
        int const yes = 1;
        ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    int const bound = port == 0 ? m_Http.bind_to_any_port(kHost) : m_Http.bind_to_port(kHost, port) ? port : 0;
    if (bound <= 0) {
        throw std::runtime_error("the shop cannot listen on " + std::string(kHost) + ":" + std::to_string(port) +
                                 " (is another program using the port?)");
    }
    return bound;
}

void Storefront::addPages() {
    m_Http.set_payload_max_length(kMaxFormBytes);
    // An order's address gives access to it, so neither caches nor other sites may learn it.
    m_Http.set_default_headers(
        {{"Cache-Control", "no-store"},
         {"Content-Security-Policy",
          "default-src 'none'; style-src 'unsafe-inline'; frame-ancestors 'none'; base-uri 'none'"},
         {"Referrer-Policy", "no-referrer"},
         {"X-Content-Type-Options", "nosniff"}});
    m_Http.set_error_handler(httplib::Server::HandlerWithResponse(sendErrorPage));
    m_Http.set_exception_handler([](Request const&, Response& response, std::exception_ptr const&) {
        send(response, plainPage("Something went wrong", "The shop could not do this. Please try again."),
             kServerError);
    });

    m_Http.Get("/", [](Request const&, Response& response) { send(response, cataloguePage()); });
    m_Http.Get("/basket", page(&Storefront::showBasket));
    m_Http.Post("/basket/add", page(&Storefront::addToBasket));
    m_Http.Post("/basket/update", page(&Storefront::updateBasket));
    m_Http.Post("/checkout", page(&Storefront::checkOut));
    m_Http.Get("/orders/([0-9a-z-]{1,32})", page(&Storefront::showOrder));
    m_Http.Post("/orders/([0-9a-z-]{1,32})/pay", page(&Storefront::payAgain));
    m_Http.Post("/orders/([0-9a-z-]{1,32})/settle", page(&Storefront::retrySettlement));
    m_Http.Get("/orders/([0-9a-z-]{1,32})/(paid|declined|cancelled)", page(&Storefront::handleReturn));
    m_Http.Get("/orders/([0-9a-z-]{1,32})/notified", page(&Storefront::handleNotification));
}

/// Wraps a handler: a RequestError becomes an error page.
httplib::Server::Handler Storefront::page(void (Storefront::*handler)(Request const&, Response&)) {
    return [this, handler](Request const& request, Response& response) {
        try {
            requireSingleParameters(request);
            (this->*handler)(request, response);
        } catch (RequestError const& error) {
            send(response, errorPage(error, orderNumberIn(request)), error.status());
        }
    };
}

void Storefront::addToBasket(Request const& request, Response& response) {
    int const quantity = readQuantity(request.get_param_value("quantity"));
    m_Sales.baskets().add(knownVisitor(request, response), request.get_param_value("article"), quantity);
    response.set_redirect("/basket", kSeeOther);
}

void Storefront::updateBasket(Request const& request, Response& response) {
    std::string const visitor = knownVisitor(request, response);
    Quantities wanted;
    for (Article const& article : catalogue()) {
        std::string const field = kQuantityField + std::string(article.m_Id);
        if (request.has_param(field.c_str())) {
            wanted[article.m_Id] = readQuantity(request.get_param_value(field.c_str()));
        }
    }
    m_Sales.baskets().set(visitor, wanted);
    response.set_redirect("/basket", kSeeOther);
}

void Storefront::showBasket(Request const& request, Response& response) {
    send(response, basketPage(m_Sales.baskets().of(visitorOf(request)), randomHex(kKeyWords)));
}

void Storefront::checkOut(Request const& request, Response& response) {
    response.set_redirect(m_Sales.checkOut(visitorOf(request), request.get_param_value(kKeyField)), kSeeOther);
}

void Storefront::showOrder(Request const& request, Response& response) {
    send(response, orderPage(m_Sales.order(orderNumberIn(request))));
}

void Storefront::payAgain(Request const& request, Response& response) {
    response.set_redirect(m_Sales.payAgain(orderNumberIn(request)), kSeeOther);
}

void Storefront::retrySettlement(Request const& request, Response& response) {
    std::string const number = orderNumberIn(request);
    m_Sales.retrySettlement(number);
    response.set_redirect("/orders/" + number, kSeeOther);
}

void Storefront::handleReturn(Request const& request, Response& response) {
    std::string const number = orderNumberIn(request);
    // The HTTP library limits a request's address, and so DATA, to 8 KB.
    m_Sales.handleReturn(number, request.matches[2].str(), request.get_param_value("DATA"),
                         request.get_param_value("SIGNATURE"));
    response.set_redirect("/orders/" + number, kSeeOther);
}

/// Called by the payment service, which repeats the notification when the status is not a success.
void Storefront::handleNotification(Request const& request, Response& response) {
    m_Sales.handleNotification(orderNumberIn(request), request.get_param_value("DATA"),
                               request.get_param_value("SIGNATURE"));
    response.set_content("received\n", "text/plain");
}

/// The visitor id of the request. A browser without one gets a basket and a cookie. A return from the payment service
/// needs no cookie: the path has the order number.
std::string Storefront::knownVisitor(Request const& request, Response& response) {
    std::string known = visitorOf(request);
    if (m_Sales.baskets().knows(known)) {
        return known;
    }
    std::string visitor = m_Sales.baskets().open();
    response.set_header("Set-Cookie", std::string(kCookie) + "=" + visitor + "; Path=/; HttpOnly; SameSite=Lax");
    return visitor;
}

}  // namespace storefront
