#include "net/kvxurl.h"

#include <cctype>
#include <cstring>

namespace {

/// Results of `SplitUrl`.
constexpr std::int32_t kRefused = 0;
constexpr std::int32_t kReachedEnd = -1;

/// How many characters both prefixes of IsHttp are long.
constexpr std::uint32_t kPrefix = 5;

/// Stores the text before the next of `ends` as `field` and moves `at` to that character. False, and `field` left
/// alone, when the text ends first. `from` is where the field begins.
bool takeUpTo(char const* ends, char const* from, char const*& at, TbString& field) {
    at += std::strcspn(at, ends);
    if (*at == '\0') {
        return false;
    }
    field.assign(from, static_cast<std::uint32_t>(at - from));
    return true;
}

/// Whether there is an "@" before the first "?".
bool hasUserInformation(char const* authority) {
    return authority[std::strcspn(authority, "@?")] == '@';
}

void setDefaultPort(URL_INFO& info) {
    if (info.scheme == "http") {
        info.port = "80";
    } else if (info.scheme == "https") {
        info.port = "443";
    }
}

}  // namespace

std::int32_t SplitUrl(TbString const& url, URL_INFO& info) {
    info.scheme.joinSecrecyOf(url);
    info.host.joinSecrecyOf(url);
    info.port.joinSecrecyOf(url);
    info.path.joinSecrecyOf(url);
    char const* const text = url.c_str();
    char const* at = text;
    while (std::isalnum(static_cast<unsigned char>(*at)) != 0) {
        ++at;
    }
    if (*at == '\0') {
        return kReachedEnd;
    }
    if (*at != ':') {
        return kRefused;
    }
    info.scheme.assign(text, static_cast<std::uint32_t>(at - text));
    ++at;
    for (int slash = 0; slash < 2; ++slash, ++at) {
        if (*at == '\0') {
            return kReachedEnd;
        }
        if (*at != '/') {
            return kRefused;
        }
    }
    if (*at == '\0') {
        return kReachedEnd;
    }

    // Deliberate (host-begins-with-anything): the first character of the authority is never examined.
    char const* mark = at++;
    if (hasUserInformation(mark)) {
        info.user.keepSecret();
        info.password.keepSecret();
        if (!takeUpTo(":", mark, at, info.user)) {
            return kReachedEnd;
        }
        mark = ++at;
        if (!takeUpTo("@", mark, at, info.password)) {
            return kReachedEnd;
        }
        mark = ++at;
    }
    if (!takeUpTo(":/", mark, at, info.host)) {
        return kReachedEnd;
    }
    if (*at == ':') {
        mark = ++at;
        if (!takeUpTo("/", mark, at, info.port)) {
            return kReachedEnd;
        }
    } else {
        setDefaultPort(info);
    }
    info.path.assign(at);
    return kReachedEnd;
}

bool IsHttp(TbString const& url) {
    return TCSNCMP(url.c_str(), "http:", kPrefix) == 0 || TCSNCMP(url.c_str(), "https", kPrefix) == 0;
}
