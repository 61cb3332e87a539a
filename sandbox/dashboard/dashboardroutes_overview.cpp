#include <cstdint>
#include <string>
#include <vector>

#include "sandbox/dashboard/dashboardparts.h"
#include "sandbox/dashboard/dashboardroutes.h"
#include "sandbox/pages/shopperpages.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/text/httpstatus.h"

/// The first page: payments, exchanges, merchant set-up.
namespace sandbox {

namespace {

constexpr char kNotGiven[] = "not given";
constexpr std::int64_t kMaxPayments = 100;
constexpr std::int64_t kMaxExchanges = 50;

std::string addressEntry(std::string const& name, std::string const& base, std::string const& path) {
    return base.empty() ? "" : entry(name, "<code>" + escapeHtml(base + path) + "</code>");
}

std::string setUpContent(Services const& services) {
    Addresses const& addresses = services.m_Addresses;
    return paragraph(
               "A merchant is set up with a set-up address, an account and its password. From the set-up address "
               "it loads all other addresses and this service's key, and it publishes its own key there.") +
           "<dl>\n" + addressEntry("Set-up address", addresses.m_Plain, "/auto") +
           addressEntry("Set-up address, TLS", addresses.m_Tls, "/auto") +
           addressEntry("HTTP proxy", addresses.m_Proxy, "") +
           addressEntry("Control API", addresses.m_Control, "/control") +
           entry("Accounts", escapeHtml(joined(services.m_Store.accounts()))) +
           entry("Signing key", escapeHtml(services.m_Keys.current()->m_Id)) +
           entry("Service time", escapeHtml(services.m_Clock.text())) +
           entry("Warnings", std::to_string(services.m_Store.counts().m_Warnings)) + "</dl>\n";
}

std::string paymentsContent(Services const& services) {
    bringUpToDate(services);
    Page latest;
    latest.m_NewestFirst = true;
    latest.m_Limit = kMaxPayments;
    Listing<Payment> const listing = services.m_Store.payments({}, latest);
    std::vector<Payment> const& payments = listing.m_Rows;
    if (payments.empty()) {
        return paragraph("There are no payments yet.");
    }
    std::vector<Cells> rows;
    for (Payment const& payment : payments) {
        std::string const order = payment.attribute("ORDERID").value_or("");
        rows.push_back({link("/payment?id=" + payment.m_Id, payment.m_Id),
                        payment.m_History.empty() ? "" : whole(payment.m_History.front().m_Time),
                        escapeHtml(order.empty() ? kNotGiven : order), escapeHtml(amountText(payment, kNotGiven)),
                        escapeHtml(payment.m_Account), whole(stateName(payment.m_State))});
    }
    std::string const more = !listing.m_More ? ""
                                             : paragraph("These are the latest " + std::to_string(payments.size()) +
                                                         " of " + std::to_string(services.m_Store.counts().m_Payments) +
                                                         ". The control API lists all of them.");
    return wideTable("Payments, newest first", {"Payment", "Opened", "Order", "Amount", "Merchant", "State"}, rows) +
           more;
}

std::string exchangesContent(Services const& services) {
    Page latest;
    latest.m_NewestFirst = true;
    latest.m_Limit = kMaxExchanges;
    std::vector<Exchange> const exchanges = services.m_Store.exchangeSummaries({}, latest).m_Rows;
    if (exchanges.empty()) {
        return paragraph("There are no exchanges yet.");
    }
    return paragraph(
               "An exchange is one request and its response: from a merchant or a shopper's browser, or a notification "
               "sent to a merchant.") +
           exchangeTable("Exchanges, newest first", exchanges);
}

}  // namespace

HttpResponse overviewPage(Services const& services, Query const& query) {
    bool const live = query.value("live") == "1";
    std::string const content = "<p>" +
                                (live ? link("/", "Stop refreshing") : link("/?live=1", "Refresh every two seconds")) +
                                "</p>\n" + section("payments", "Payments", paymentsContent(services)) +
                                section("exchanges", "Exchanges", exchangesContent(services)) +
                                section("set-up", "Merchant set-up", setUpContent(services));
    return dashboardPage(httpstatus::kOk, "/", "Overview", content,
                         live ? "<meta http-equiv=\"refresh\" content=\"2\"/>\n" : "");
}

}  // namespace sandbox
