#include "sandbox/control/controlguards.h"

#include <cstddef>

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

void requireJson(HttpRequest const& request) {
    std::string type = lowerCase(request.m_ContentType.substr(0, request.m_ContentType.find(';')));
    type.erase(type.find_last_not_of(" \t") + 1);
    if (type != "application/json") {
        throw HttpError("the request must have the header Content-Type: application/json",
                        httpstatus::kUnsupportedMediaType);
    }
}

}  // namespace sandbox
