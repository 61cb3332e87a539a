// What a client takes away as a whole: payments and exchanges as JSON lines, and the description of this API.
// The export is read page by page. An object of JSON stands on each line: payments first, then exchanges, each with the
// member "type".
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "sandbox/control/control.h"
#include "sandbox/control/controlfilters.h"
#include "sandbox/control/controljson.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

using nlohmann::json;

constexpr char kOpenApi[] =
#include <openapi.inc>
    ;

/// The lines of an export, a page of rows at a time.
class Export : public BodySource {
public:
    /// Borrows `services`. Throws HttpError.
    Export(Services const& services, Query const& query) : m_Services(services) {
        refuseUnknown(query, {"account", "order", "token", "payment"});
        m_Payments = {query.value("account"), query.value("order"), query.value("token"), query.value("payment"), {}};
        m_Exchanges = {query.value("account"), query.value("order"), query.value("token"), query.value("payment"), {}};
        m_Page.m_Limit = kDefaultRows;
        m_Page.m_MaxBytes = kMaxListedBytes;
    }

    std::optional<std::string> next(std::chrono::milliseconds /*timeout*/) override {
        if (m_AtEnd) {
            return std::nullopt;
        }
        return m_PaymentsDone ? nextExchanges() : nextPayments();
    }

private:
    std::string nextPayments() {
        Listing<Payment> const listing = m_Services.m_Store.payments(m_Payments, m_Page);
        std::string lines;
        for (Payment const& payment : listing.m_Rows) {
            lines += line("payment", paymentJson(payment, m_Services.m_Store.notificationsOf(payment.m_Id)));
        }
        m_PaymentsDone = !listing.m_More;
        m_Page.m_After = listing.m_More ? listing.m_Rows.back().m_Number : Page().m_After;
        return lines;
    }

    std::string nextExchanges() {
        Listing<Exchange> const listing = m_Services.m_Store.exchanges(m_Exchanges, m_Page);
        std::string lines;
        for (Exchange const& exchange : listing.m_Rows) {
            lines += line("exchange", exchange);
        }
        m_AtEnd = !listing.m_More;
        m_Page.m_After = listing.m_More ? listing.m_Rows.back().m_Number : m_Page.m_After;
        return lines;
    }

    static std::string line(char const* type, json object) {
        object["type"] = type;
        return object.dump() + "\n";
    }

    Services const& m_Services;
    PaymentFilter m_Payments;
    ExchangeFilter m_Exchanges;
    Page m_Page;
    bool m_PaymentsDone = false;
    bool m_AtEnd = false;
};

}  // namespace

HttpResponse exportAll(Services const& services, HttpRequest const& request) {
    bringUpToDate(services);
    HttpResponse response{httpstatus::kOk, "application/x-ndjson", ""};
    response.m_Source = std::make_shared<Export>(services, request.m_Query);
    return response;
}

HttpResponse getOpenApi(Services const&, HttpRequest const&) {
    return {httpstatus::kOk, "application/json", kOpenApi};
}

}  // namespace sandbox
