#include "sandbox/control/control.h"

#include <cstddef>
#include <string>

#include "sandbox/control/controlguards.h"
#include "sandbox/control/controljson.h"
#include "sandbox/control/controlroutes.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/httpstatus.h"

namespace sandbox {

namespace {

/// One method of one address.
struct Route {
    char const* m_Method;
    char const* m_Path;  ///< A "#" at the end stands for digits.
    HttpResponse (*m_Handler)(Services const& services, HttpRequest const& request);
};

// clang-format off
constexpr Route kRoutes[] = {
    {"GET",    "/control",              getStatus},
    {"GET",    "/control/faults",       getFaults},
    {"POST",   "/control/faults",       armFault},
    {"DELETE", "/control/faults",       liftAllFaults},
    {"GET",    "/control/faults/kinds", getFaultKinds},
    {"DELETE", "/control/faults/#",     liftFault},
    {"GET",    "/control/payments",     getPayments},
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

bool matches(std::string const& pattern, std::string const& path) {
    if (pattern.back() != '#') {
        return path == pattern;
    }
    std::size_t const start = pattern.size() - 1;
    return path.size() > start && path.compare(0, start, pattern, 0, start) == 0 &&
           path.find_first_not_of("0123456789", start) == std::string::npos;
}

HttpResponse errorResponse(int status, std::string const& reason) {
    nlohmann::json content = nlohmann::json::object();
    putBytes(content, "error", reason);
    return jsonResponse(status, content);
}

HttpResponse handleRoute(Services const& services, HttpRequest const& request) {
    refuseForeignHost(request);
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
    if (!isBelow(request.m_Path, "/control")) {
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
