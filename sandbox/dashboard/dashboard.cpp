// The way from an address to its page, and what the pages share: navigation, forms, and the messages of an exchange.
#include "sandbox/dashboard/dashboard.h"

#include <cstddef>
#include <utility>

#include "sandbox/control/control.h"
#include "sandbox/control/controlformat.h"
#include "sandbox/crypto/credentials.h"
#include "sandbox/pages/shopperpages.h"
#include "sandbox/pages/templates.h"
#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

using nlohmann::json;

struct NavigationRow {
    char const* m_Path;
    char const* m_Text;
};

constexpr char kFaults[] = "/faults";
constexpr NavigationRow kNavigation[] = {
    {"/", "Overview"}, {kFaults, "Faults"}, {"/keys", "Keys and clock"}, {"/calculator", "Signature calculator"}};

/// The entry of the faults shows how many are armed.
json navigation(Services const& services, std::string const& path) {
    std::size_t const armed = services.m_Faults.armed().size();
    return rowsOf(kNavigation, [&path, armed](NavigationRow const& row) {
        bool const counts = row.m_Path == std::string(kFaults) && armed > 0;
        return json{{"path", row.m_Path},
                    {"text", row.m_Text},
                    {"current", path == row.m_Path},
                    {"count", counts ? std::to_string(armed) + " armed" : ""}};
    });
}

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

HttpResponse handleRoute(Services const& services, HttpRequest const& request, Route const& route) {
    if (request.m_Method != "POST") {
        return route.m_Handler(services, request.m_Query);
    }
    Query const form = formFields(request);
    if (!equalSecrets(form.value("key").value_or(""), services.m_FormKey)) {
        throw HttpError(
            "The form did not come from a page of this service, or the service has been restarted since. "
            "Load the page again and submit its form.",
            httpstatus::kForbidden);
    }
    return route.m_Handler(services, form);
}

/// The response to a request that may not see the dashboard, or that brings the token in a link; nothing for others.
/// Like the reason, it says nothing about the service.
std::optional<HttpResponse> responseAtTheDoor(Services const& services, HttpRequest const& request) {
    try {
        std::optional<std::string> cookie = cookieOf(services.m_Token, request);
        if (!cookie) {
            checkAccess(services.m_Token, request);
            return std::nullopt;
        }
        HttpResponse response{httpstatus::kFound, "text/plain", "", request.m_Path};
        response.m_Cookie = std::move(*cookie);
        return response;
    } catch (HttpError const& error) {
        return renderPage(error.status(), "problem_page",
                          {{"title", "The page cannot be shown"}, {"problem", error.what()}});
    }
}

HttpResponse errorResponse(Services const& services, int status, std::string const& reason) {
    return dashboardPage(services, status, "", "The page cannot be shown", "problem_page", {{"problem", reason}});
}

}  // namespace

HttpResponse dashboardPage(Services const& services, int status, std::string const& path, std::string const& title,
                           std::string const& name, json content) {
    content["title"] = title;
    content["isBroad"] = true;
    content["navigation"] = navigation(services, path);
    content["version"] = KVX_VERSION;
    content["formKey"] = services.m_FormKey;
    return renderPage(status, name, std::move(content));
}

HttpResponse seeOther(std::string const& path) {
    return {httpstatus::kSeeOther, "text/plain; charset=utf-8", "Done. See " + path + ".\n", path};
}

json exchangeRow(Exchange const& exchange) {
    json row = summaryJson(exchange);
    row["ok"] = exchange.m_Verdict == "ok";
    row["duration"] = millisecondsText(exchange.m_Microseconds);
    return row;
}

json exchangeTable(std::string const& caption, std::vector<Exchange> const& exchanges) {
    return exchanges.empty() ? json() : json{{"caption", caption}, {"exchanges", rowsOf(exchanges, exchangeRow)}};
}

std::optional<HttpResponse> handleDashboard(Services const& services, HttpRequest const& request) {
    std::string allowed;
    Route const* asked = nullptr;
    for (Route const& route : kRoutes) {
        if (request.m_Path == route.m_Path) {
            asked = request.m_Method == route.m_Method ? &route : asked;
            allowed += (allowed.empty() ? "" : ", ") + std::string(route.m_Method);
        }
    }
    if (allowed.empty()) {
        return std::nullopt;
    }
    if (std::optional<HttpResponse> response = responseAtTheDoor(services, request)) {
        return response;
    }
    if (asked == nullptr) {
        HttpResponse response = errorResponse(services, httpstatus::kMethodNotAllowed,
                                              request.m_Path + " allows " + allowed + ", not " + request.m_Method);
        response.m_Allow = allowed;
        return response;
    }
    try {
        return handleRoute(services, request, *asked);
    } catch (HttpError const& error) {
        return errorResponse(services, error.status(), error.what());
    }
}

}  // namespace sandbox
