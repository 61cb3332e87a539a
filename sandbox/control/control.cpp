#include "sandbox/control/control.h"

#include <fnmatch.h>

#include <vector>

#include "sandbox/control/controlguards.h"
#include "sandbox/control/controljson.h"
#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

constexpr char kHealthPath[] = "/health";

/// One method of one address.
struct Route {
    char const* m_Method;
    char const*
        m_Path;  ///< In the notation of fnmatch(): "?*" stands for any text without a slash, "[0-9]*" for an id.
    HttpResponse (*m_Handler)(Services const& services, HttpRequest const& request);
};

// clang-format off
constexpr Route kRoutes[] = {
    {"GET",    kHealthPath,              getHealth},
    {"GET",    "/control",              getStatus},
    {"GET",    "/control/openapi.json", getOpenApi},
    {"GET",    "/control/events",       getEvents},
    {"GET",    "/control/export",       exportAll},
    {"GET",    "/control/faults",       getFaults},
    {"POST",   "/control/faults",       armFault},
    {"DELETE", "/control/faults",       liftAllFaults},
    {"GET",    "/control/faults/kinds", getFaultKinds},
    {"DELETE", "/control/faults/[0-9]*",     liftFault},
    {"GET",    "/control/payments",     getPayments},
    {"POST",   "/control/payments/decision",   decidePayment},
    {"POST",   "/control/payments/?*/decision", decidePayment},
    {"GET",    "/control/payments/?*",          getPayment},
    {"GET",    "/control/decisions",           getDecisions},
    {"POST",   "/control/decisions",           addDecision},
    {"DELETE", "/control/decisions",           removeAllDecisions},
    {"DELETE", "/control/decisions/[0-9]*",         removeDecision},
    {"GET",    "/control/scenario",            getScenario},
    {"POST",   "/control/scenario",            playScenario},
    {"GET",    "/control/snapshots",           getSnapshots},
    {"POST",   "/control/snapshots/?*",         saveSnapshot},
    {"DELETE", "/control/snapshots/?*",         removeSnapshot},
    {"POST",   "/control/snapshots/?*/restore", restoreSnapshot},
    {"GET",    "/control/notifications",       getNotifications},
    {"POST",   "/control/notifications/[0-9]*/resend", resendNotification},
    {"GET",    "/control/exchanges",    getExchanges},
    {"DELETE", "/control/exchanges",    removeExchanges},
    {"POST",   "/control/reset",        reset},
    {"GET",    "/control/keys",         getKeys},
    {"POST",   "/control/keys/rotate",  rotateKey},
    {"POST",   "/control/accounts",     putAccount},
    {"POST",   "/control/clock",        setClock},
};
// clang-format on

bool isBelow(std::string const& path, std::string const& parent) {
    return path == parent || path.compare(0, parent.size() + 1, parent + "/") == 0;
}

HttpResponse errorResponse(int status, std::string const& reason) {
    nlohmann::json content = nlohmann::json::object();
    putBytes(content, "error", reason);
    return jsonResponse(status, content);
}

HttpResponse handleRoute(Services const& services, HttpRequest const& request) {
    if (request.m_Path != kHealthPath) {
        checkAccess(services.m_Token, request);
    }
    std::vector<std::string> allowed;
    for (Route const& route : kRoutes) {
        if (::fnmatch(route.m_Path, request.m_Path.c_str(), FNM_PATHNAME) != 0) {
            continue;
        }
        if (request.m_Method == route.m_Method) {
            if (request.m_Method == "POST") {
                requireJson(request);
            }
            return route.m_Handler(services, request);
        }
        allowed.emplace_back(route.m_Method);
    }
    if (allowed.empty()) {
        throw HttpError("no such address: " + request.m_Path, httpstatus::kNotFound);
    }
    std::string const methods = joined(allowed);
    HttpResponse response = errorResponse(httpstatus::kMethodNotAllowed,
                                          request.m_Path + " allows " + methods + ", not " + request.m_Method);
    response.m_Allow = methods;
    return response;
}

}  // namespace

std::optional<HttpResponse> handleControl(Services const& services, HttpRequest const& request) {
    if (request.m_Path != kHealthPath && !isBelow(request.m_Path, "/control")) {
        return std::nullopt;
    }
    try {
        return handleRoute(services, request);
    } catch (HttpError const& error) {
        return errorResponse(error.status(), error.what());
    } catch (std::exception const& failure) {
        return errorResponse(httpstatus::kInternalServerError, std::string("the sandbox failed: ") + failure.what());
    }
}

}  // namespace sandbox
