#include "sandbox/control/control.h"

#include <cstddef>
#include <string>

#include "sandbox/control/controlguards.h"
#include "sandbox/control/controljson.h"
#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

constexpr char kHealthPath[] = "/health";

/// One method of one address.
struct Route {
    char const* m_Method;
    char const* m_Path;  ///< A segment "#" stands for digits, a segment "*" for any text without a slash.
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
    {"DELETE", "/control/faults/#",     liftFault},
    {"GET",    "/control/payments",     getPayments},
    {"POST",   "/control/payments/decision",   decidePayment},
    {"POST",   "/control/payments/*/decision", decidePayment},
    {"GET",    "/control/payments/*",          getPayment},
    {"GET",    "/control/decisions",           getDecisions},
    {"POST",   "/control/decisions",           addDecision},
    {"DELETE", "/control/decisions",           removeAllDecisions},
    {"DELETE", "/control/decisions/#",         removeDecision},
    {"GET",    "/control/scenario",            getScenario},
    {"POST",   "/control/scenario",            playScenario},
    {"GET",    "/control/snapshots",           getSnapshots},
    {"POST",   "/control/snapshots/*",         saveSnapshot},
    {"DELETE", "/control/snapshots/*",         removeSnapshot},
    {"POST",   "/control/snapshots/*/restore", restoreSnapshot},
    {"GET",    "/control/notifications",       getNotifications},
    {"POST",   "/control/notifications/#/resend", resendNotification},
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

/// Whether one segment of a path fits one of a pattern.
bool segmentMatches(std::string const& pattern, std::string const& segment) {
    if (pattern == "*") {
        return !segment.empty();
    }
    if (pattern == "#") {
        return !segment.empty() && segment.find_first_not_of("0123456789") == std::string::npos;
    }
    return segment == pattern;
}

bool matches(std::string const& pattern, std::string const& path) {
    std::size_t const patternEnd = pattern.find('/', 1);
    std::size_t const pathEnd = path.find('/', 1);
    bool const isLast = patternEnd == std::string::npos || pathEnd == std::string::npos;
    if (isLast && patternEnd != pathEnd) {
        return false;
    }
    return segmentMatches(pattern.substr(1, patternEnd - 1), path.substr(1, pathEnd - 1)) &&
           (isLast || matches(pattern.substr(patternEnd), path.substr(pathEnd)));
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
    std::string allowed;
    for (Route const& route : kRoutes) {
        if (!matches(route.m_Path, request.m_Path)) {
            continue;
        }
        if (request.m_Method == route.m_Method) {
            if (request.m_Method == "POST") {
                requireJson(request);
            }
            return route.m_Handler(services, request);
        }
        allowed += (allowed.empty() ? "" : ", ") + std::string(route.m_Method);
    }
    if (allowed.empty()) {
        throw HttpError("no such address: " + request.m_Path, httpstatus::kNotFound);
    }
    HttpResponse response = errorResponse(httpstatus::kMethodNotAllowed,
                                          request.m_Path + " allows " + allowed + ", not " + request.m_Method);
    response.m_Allow = allowed;
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
