#include "sandbox/dashboard/dashboard.h"

#include <cstddef>
#include <string>

#include "sandbox/control/controlguards.h"
#include "sandbox/crypto/credentials.h"
#include "sandbox/dashboard/dashboardparts.h"
#include "sandbox/dashboard/dashboardroutes.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/httpstatus.h"

namespace sandbox {

namespace {

/// One method of one page.
struct Route {
    char const* m_Method;
    char const* m_Path;
    HttpResponse (*m_Handler)(Services const& services, Query const& fields);
};

// clang-format off
constexpr Route kRoutes[] = {
    {"GET",  "/",            overviewPage},
    {"GET",  "/payment",     paymentDetailsPage},
    {"GET",  "/exchange",    exchangeDetailsPage},
    {"GET",  "/faults",      faultsPage},
    {"POST", "/faults",      armByForm},
    {"POST", "/faults/lift", liftByForm},
    {"GET",  "/keys",        keysPage},
    {"POST", "/keys/rotate", rotateByForm},
    {"POST", "/keys/clock",  setClockByForm},
    {"GET",  "/calculator",  calculatorPage},
    {"POST", "/calculator",  calculateByForm},
};
// clang-format on

/// The fields of a posted form. Forms encode a space as "+" (URL Standard, section 5.2), queries of the protocol do
/// not.
Query formFields(HttpRequest const& request) {
    return Query(replaceAll(request.m_Body, "+", "%20"));
}

HttpResponse handleForm(Services const& services, HttpRequest const& request, Route const& route) {
    Query const form = formFields(request);
    if (!equalSecrets(form.value("key").value_or(""), services.m_FormKey)) {
        throw HttpError(
            "The form did not come from a page of this service, or the service has been restarted since. "
            "Load the page again and submit its form.",
            httpstatus::kForbidden);
    }
    return route.m_Handler(services, form);
}

HttpResponse handleRoute(Services const& services, HttpRequest const& request, Route const& route) {
    refuseForeignHost(request);
    if (request.m_Method == "POST") {
        return handleForm(services, request, route);
    }
    return route.m_Handler(services, request.m_Query);
}

HttpResponse errorResponse(int status, std::string const& reason) {
    return dashboardPage(status, "", "The page cannot be shown", problemNotice(reason));
}

}  // namespace

std::optional<HttpResponse> handleDashboard(Services const& services, HttpRequest const& request) {
    std::string allowed;
    for (Route const& route : kRoutes) {
        if (request.m_Path != route.m_Path) {
            continue;
        }
        if (request.m_Method == route.m_Method) {
            try {
                return handleRoute(services, request, route);
            } catch (HttpError const& error) {
                return errorResponse(error.status(), error.what());
            }
        }
        allowed += (allowed.empty() ? "" : ", ") + std::string(route.m_Method);
    }
    if (allowed.empty()) {
        return std::nullopt;
    }
    HttpResponse response = errorResponse(httpstatus::kMethodNotAllowed,
                                          request.m_Path + " allows " + allowed + ", not " + request.m_Method);
    response.m_Allow = allowed;
    return response;
}

}  // namespace sandbox
