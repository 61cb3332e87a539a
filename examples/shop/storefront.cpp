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

/// The visitor's name in the cookies of a request, as the browser tells it; empty when there is none.
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

/// The order that an address names; empty when it names none.
std::string orderNumberIn(Request const& request) {
    return request.matches.size() > 1 ? request.matches[1].str() : "";
}

/// Refuses a parameter that comes twice: whoever reads the request elsewhere might take the other value for it.
void requireSingleParameters(Request const& request) {
    for (auto const& [name, value] : request.params) {
        if (request.params.count(name) > 1) {
            throw RequestError("This request is no good", "The parameter \"" + name + "\" comes more than once.");
        }
    }
}

/// Gives what failed without a page of its own one.
httplib::Server::HandlerResponse explainFailure(Request const&, Response& response) {
    if (!response.body.empty()) {
        return httplib::Server::HandlerResponse::Unhandled;
    }
    bool const missing = response.status == kNotFound;
    send(response,
         plainPage(
             missing ? "There is nothing here" : "This request is no good",
             missing ? "This shop has no page at this address."
                     : "The shop cannot do anything with it. HTTP calls that " + std::to_string(response.status) + "."),
         response.status);
    return httplib::Server::HandlerResponse::Handled;
}

}  // namespace

Storefront::Storefront(MerchantAccount& account, int port) : m_Port(listenOn(port)), m_Sales(account, address()) {
    addPages();
    m_Serving = std::async(std::launch::async, [this] { m_Http.listen_after_bind(); });
    // The server can be stopped only once it runs; that it answers shows that it does.
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
    // Instead of the library's SO_REUSEPORT, with which two shops would share a port unnoticed.
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
    // The address of an order is its key, so it is told to nobody else.
    m_Http.set_default_headers(
        {{"Cache-Control", "no-store"},
         {"Content-Security-Policy",
          "default-src 'none'; style-src 'unsafe-inline'; frame-ancestors 'none'; base-uri 'none'"},
         {"Referrer-Policy", "no-referrer"},
         {"X-Content-Type-Options", "nosniff"}});
    m_Http.set_error_handler(httplib::Server::HandlerWithResponse(explainFailure));
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

/// A page that explains every RequestError.
httplib::Server::Handler Storefront::page(void (Storefront::*answer)(Request const&, Response&)) {
    return [this, answer](Request const& request, Response& response) {
        try {
            requireSingleParameters(request);
            (this->*answer)(request, response);
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
    // DATA is bounded: the HTTP library takes addresses of 8 KB at most.
    m_Sales.handleReturn(number, request.matches[2].str(), request.get_param_value("DATA"),
                         request.get_param_value("SIGNATURE"));
    response.set_redirect("/orders/" + number, kSeeOther);
}

/// The payment service asks for this address: it tells again when the status is none of success.
void Storefront::handleNotification(Request const& request, Response& response) {
    m_Sales.handleNotification(orderNumberIn(request), request.get_param_value("DATA"),
                               request.get_param_value("SIGNATURE"));
    response.set_content("taken\n", "text/plain");
}

/// The visitor that sent the request. A browser without a basket gets one, and a cookie for it. The cookie is not
/// needed for coming back from the payment service: an order is found by its address.
std::string Storefront::knownVisitor(Request const& request, Response& response) {
    std::string told = visitorOf(request);
    if (m_Sales.baskets().knows(told)) {
        return told;
    }
    std::string visitor = m_Sales.baskets().open();
    response.set_header("Set-Cookie", std::string(kCookie) + "=" + visitor + "; Path=/; HttpOnly; SameSite=Lax");
    return visitor;
}

}  // namespace storefront
