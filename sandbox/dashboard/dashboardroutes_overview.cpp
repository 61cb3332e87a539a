#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "sandbox/dashboard/dashboardparts.h"
#include "sandbox/dashboard/dashboardroutes.h"
#include "sandbox/pages/shopperpages.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/text/httpstatus.h"

/// The first page of the dashboard.
namespace sandbox {

namespace {

constexpr char kNotGiven[] = "not given";
constexpr std::size_t kMaxPayments = 100;
constexpr std::int64_t kMaxExchanges = 50;

std::string addressEntry(std::string const& name, std::string const& base, std::string const& path) {
    return base.empty() ? "" : entry(name, "<code>" + escapeHtml(base + path) + "</code>");
}

std::string setUpContent(Services const& services) {
    Addresses const& addresses = services.m_Addresses;
    return paragraph(
               "Set a merchant up with an address for set-up, the name of an account and its password. It fetches "
               "all other addresses and this service's key from there, and publishes its own key.") +
           "<dl>\n" + addressEntry("Set-up", addresses.m_Plain, "/auto") +
           addressEntry("Set-up over TLS", addresses.m_Tls, "/auto") +
           addressEntry("HTTP proxy", addresses.m_Proxy, "") +
           addressEntry("Control API", addresses.m_Control, "/control") +
           entry("Accounts", escapeHtml(joined(services.m_Store.accounts()))) +
           entry("Key that signs", escapeHtml(services.m_Keys.current()->m_Id)) +
           entry("Present", escapeHtml(services.m_Clock.text())) + "</dl>\n";
}

std::string paymentsContent(Services const& services) {
    std::vector<Payment> payments = presentPayments(services);
    if (payments.empty()) {
        return paragraph("There are no payments yet.");
    }
    std::reverse(payments.begin(), payments.end());
    std::size_t const count = payments.size();
    payments.resize(std::min(count, kMaxPayments));
    std::vector<Cells> rows;
    for (Payment const& payment : payments) {
        std::string const order = payment.attribute("ORDERID").value_or("");
        rows.push_back({link("/payment?id=" + payment.m_Id, payment.m_Id),
                        payment.m_History.empty() ? "" : whole(payment.m_History.front().m_Time),
                        escapeHtml(order.empty() ? kNotGiven : order), escapeHtml(amountText(payment, kNotGiven)),
                        escapeHtml(payment.m_Account), whole(stateName(payment.m_State))});
    }
    std::string const more = count == payments.size()
                                 ? ""
                                 : paragraph("These are the newest " + std::to_string(payments.size()) + " of " +
                                             std::to_string(count) + ". The control API tells all of them.");
    return wideTable("Payments, newest first", {"Payment", "Opened", "Order", "Amount", "Merchant", "State"}, rows) +
           more;
}

std::string exchangesContent(Services const& services) {
    std::vector<Exchange> const exchanges = services.m_Store.latestExchanges(kMaxExchanges);
    if (exchanges.empty()) {
        return paragraph("There were no exchanges yet.");
    }
    return exchangeTable("The newest exchanges", exchanges);
}

}  // namespace

HttpResponse overviewPage(Services const& services, Query const& query) {
    bool const live = query.value("live") == "1";
    std::string const content =
        "<p>" + (live ? link("/", "Stop loading this page again and again") : link("/?live=1", "Watch live")) +
        "</p>\n" + section("payments", "Payments", paymentsContent(services)) +
        section("exchanges", "Exchanges", exchangesContent(services)) +
        section("set-up", "Set a merchant up", setUpContent(services));
    return dashboardPage(httpstatus::kOk, "/", "Overview", content,
                         live ? "<meta http-equiv=\"refresh\" content=\"2\"/>\n" : "");
}

}  // namespace sandbox
