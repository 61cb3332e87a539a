#include "tools/serviceaddress.h"

#include <algorithm>
#include <cstddef>

#include "tools/toolfailure.h"

namespace tool {

namespace {

bool startsWith(std::string const& text, std::string const& start) {
    return text.compare(0, start.size(), start) == 0;
}

/// Where the host begins; 0 for an address of another scheme.
std::size_t hostBegin(std::string const& url) {
    for (std::string const& scheme : {std::string("http://"), std::string("https://")}) {
        if (startsWith(url, scheme)) {
            return scheme.size();
        }
    }
    return 0;
}

bool isPort(std::string const& text) {
    bool const isNumber =
        !text.empty() && text.size() <= 5 && text.find_first_not_of("0123456789") == std::string::npos;
    return isNumber && std::stoi(text) >= 1 && std::stoi(text) <= 65535;
}

}  // namespace

HostPort hostPortOf(std::string const& text) {
    constexpr char const* kHostCharacters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-_";
    std::size_t const colon = text.find(':');
    HostPort place{text.substr(0, colon), colon == std::string::npos ? "" : text.substr(colon + 1)};
    if (place.m_Host.empty() || place.m_Host.find_first_not_of(kHostCharacters) != std::string::npos) {
        throw UsageError("the host must be a name or an IPv4 address: " + place.m_Host);
    }
    if (colon != std::string::npos && !isPort(place.m_Port)) {
        throw UsageError("the port must be a number from 1 to 65535: " + place.m_Port);
    }
    return place;
}

void requireServiceAddress(std::string const& url) {
    std::size_t const begin = hostBegin(url);
    if (begin == 0) {
        throw UsageError("the address begins with neither http:// nor https://");
    }
    std::size_t const end = url.find('/', begin);
    std::string const authority = url.substr(begin, end - begin);
    if (authority.find('@') != std::string::npos) {
        throw UsageError("no user or password in the address: other users can see it. Use --user and standard input");
    }
    bool const isPlain =
        std::all_of(url.begin(), url.end(), [](char character) { return character > ' ' && character < '\x7F'; });
    if (!isPlain || url.find_first_of("?#") != std::string::npos) {
        throw UsageError("the address has a query, a blank or a character that is no ASCII character");
    }
    if (end == std::string::npos) {
        hostPortOf(authority);
        throw UsageError("the address needs a \"/\" behind the host, such as " + url + "/");
    }
    hostPortOf(authority);
}

bool isInClearText(std::string const& url) {
    if (!startsWith(url, "http://")) {
        return false;
    }
    std::size_t const begin = hostBegin(url);
    std::string const host = url.substr(begin, url.find_first_of(":/", begin) - begin);
    return host != "localhost" && !startsWith(host, "127.");
}

}  // namespace tool
