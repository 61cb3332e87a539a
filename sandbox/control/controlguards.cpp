#include "sandbox/control/controlguards.h"

#include <algorithm>
#include <cstddef>
#include <string>

#include "sandbox/text/httperror.h"
#include "sandbox/text/httpstatus.h"

namespace sandbox {

namespace {

/// ASCII only, independent of the locale.
std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return text;
}

/// `host` without a port.
std::string nameOf(std::string const& host) {
    std::size_t const colon = host.find(':');
    bool const numbered =
        colon != std::string::npos && host.find_first_not_of("0123456789", colon + 1) == std::string::npos;
    return numbered ? host.substr(0, colon) : host;
}

}  // namespace

void refuseForeignHost(HttpRequest const& request) {
    std::string const name = lowerCase(nameOf(request.m_Host));
    if (!request.m_Host.empty() && name != "127.0.0.1" && name != "localhost") {
        throw HttpError("This service accepts requests for the hosts 127.0.0.1 and localhost only, not for '" +
                            request.m_Host + "'.",
                        httpstatus::kForbidden);
    }
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
