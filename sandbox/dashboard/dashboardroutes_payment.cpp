#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/control/controljson.h"
#include "sandbox/dashboard/dashboardparts.h"
#include "sandbox/dashboard/dashboardroutes.h"
#include "sandbox/dashboard/stations.h"
#include "sandbox/pages/shopperpages.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/httpstatus.h"

/// The page of one payment. Its exchanges are those that the store has linked to it, and those that name only its
/// TOKEN, or its ORDERID without a TOKEN, since several payments can have the same order.
namespace sandbox {

namespace {

constexpr char kNotGiven[] = "not given";
constexpr std::int64_t kMaxExchanges = 500;

/// The payment in its current state. Throws HttpError.
Payment presentPayment(Services const& services, std::string const& id) {
    std::optional<StoredPayment> const stored = services.m_Store.paymentById(id);
    if (!stored) {
        throw HttpError("There is no payment '" + id + "'.", httpstatus::kNotFound);
    }
    bool const isOpen = stored->m_Payment.m_State == PaymentState::kOpened;
    if (!isOpen || expireWhenOverdue(services, stored->m_Payment)) {
        return stored->m_Payment;
    }
    return services.m_Store.paymentById(id).value().m_Payment;
}

}  // namespace

HttpResponse paymentDetailsPage(Services const& services, Query const& query) {
    Payment const payment = presentPayment(services, query.value("id").value_or(""));
    std::vector<Notification> const notifications = services.m_Store.notificationsOf(payment.m_Id);
    Listing<Exchange> const found = services.m_Store.exchangeSummariesOf(payment, kMaxExchanges);
    std::string const order = payment.attribute("ORDERID").value_or("");
    nlohmann::json content = paymentJson(payment, notifications);
    content["order"] = order.empty() ? kNotGiven : order;
    content["amount"] = amountText(payment, kNotGiven);
    content["hasNotifications"] = !notifications.empty();
    content["stations"] = stationsContent(services, payment, notifications, found.m_Rows);
    content["belonging"] = exchangeTable("Exchanges of this payment, oldest first", found.m_Rows);
    content["more"] =
        !found.m_More ? ""
                      : "These are the first " + std::to_string(kMaxExchanges) + ". The control API lists all of them.";
    return dashboardPage(services, httpstatus::kOk, "", "Payment " + payment.m_Id, "payment_details",
                         std::move(content));
}

}  // namespace sandbox
