// The guards of the control API and of the dashboard, and the way from an address to its function.
#include "sandbox/control/control.h"

#include <fnmatch.h>

#include <cstddef>

#include "sandbox/control/controlformat.h"
#include "sandbox/crypto/credentials.h"
#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

/// `host` without a port.
std::string nameOf(std::string const& host) {
    std::size_t const colon = host.find(':');
    bool const numbered =
        colon != std::string::npos && host.find_first_not_of("0123456789", colon + 1) == std::string::npos;
    return numbered ? host.substr(0, colon) : host;
}

constexpr char kCookie[] = "tallowin-sandbox=";
constexpr char kScheme[] = "Bearer ";

/// The token in the cookies of the request; empty when there is none.
std::string cookieToken(HttpRequest const& request) {
    std::size_t const at = request.m_Cookie.find(kCookie);
    if (at == std::string::npos) {
        return "";
    }
    std::size_t const from = at + sizeof kCookie - 1;
    return request.m_Cookie.substr(from, request.m_Cookie.find_first_of("; ", from) - from);
}

[[noreturn]] void refuseToken() {
    throw HttpError("This needs the service's token: Authorization: Bearer TOKEN, or the link with ?token=TOKEN.",
                    httpstatus::kUnauthorized);
}

constexpr char kHealthPath[] = "/health";

bool isBelow(std::string const& path, std::string const& parent) {
    return path == parent || path.compare(0, parent.size() + 1, parent + "/") == 0;
}

HttpResponse errorResponse(int status, std::string const& reason) {
    nlohmann::json content = nlohmann::json::object();
    putBytes(content, "error", reason);
    return jsonResponse(content, status);
}

/// Throws HttpError (415) when the content type is not JSON. A page of another site can post forms and plain text
/// anywhere, but for JSON the browser sends a preflight request first, which is never granted here. The same applies to
/// the method DELETE, so it needs no check.
void requireJson(HttpRequest const& request) {
    std::string type = lowerCase(request.m_ContentType.substr(0, request.m_ContentType.find(';')));
    type.erase(type.find_last_not_of(" \t") + 1);
    if (type != "application/json") {
        throw HttpError("the request must have the header Content-Type: application/json",
                        httpstatus::kUnsupportedMediaType);
    }
}

std::vector<ControlRoute> allRoutes() {
    std::vector<ControlRoute> all = stateRoutes();
    for (std::vector<ControlRoute> const& routes : {drivingRoutes(), streamRoutes()}) {
        all.insert(all.end(), routes.begin(), routes.end());
    }
    return all;
}

HttpResponse handleRoute(Services const& services, HttpRequest const& request) {
    if (request.m_Path != kHealthPath) {
        checkAccess(services.m_Token, request);
    }
    static std::vector<ControlRoute> const routes = allRoutes();
    std::vector<std::string> allowed;
    for (ControlRoute const& route : routes) {
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

void checkAccess(std::string const& token, HttpRequest const& request) {
    if (!token.empty()) {
        bool const isBearer = request.m_Authorization.compare(0, sizeof kScheme - 1, kScheme) == 0;
        if (!equalSecrets(isBearer ? request.m_Authorization.substr(sizeof kScheme - 1) : cookieToken(request),
                          token)) {
            refuseToken();
        }
        return;
    }
    std::string const name = lowerCase(nameOf(request.m_Host));
    if (!request.m_Host.empty() && name != "127.0.0.1" && name != "localhost") {
        throw HttpError("This service accepts requests for the hosts 127.0.0.1 and localhost only, not for '" +
                            request.m_Host + "'.",
                        httpstatus::kForbidden);
    }
}

std::optional<std::string> cookieOf(std::string const& token, HttpRequest const& request) {
    std::optional<std::string> const given = token.empty() ? std::nullopt : request.m_Query.value("token");
    if (!given) {
        return std::nullopt;
    }
    if (!equalSecrets(*given, token)) {
        refuseToken();
    }
    return kCookie + token + "; HttpOnly; SameSite=Lax; Path=/";
}

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
