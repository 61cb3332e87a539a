#include "sandbox/http/requestline.h"

#include <algorithm>
#include <cstddef>

namespace sandbox {

namespace {

/// Turns the absolute form of a target, which servers must understand (RFC 9112, section 3.2.2), into the origin form.
std::string originForm(std::string const& target) {
    for (std::string const scheme : {"http://", "https://"}) {
        if (target.compare(0, scheme.size(), scheme) == 0) {
            std::size_t const authorityEnd = std::min(target.find_first_of("/?", scheme.size()), target.size());
            return target.substr(authorityEnd);
        }
    }
    return target;
}

}  // namespace

std::optional<RequestLine> parseRequestLine(std::string const& line) {
    std::size_t const first = line.find(' ');
    std::size_t const last = line.rfind(' ');
    if (first == std::string::npos || first == last) {
        return std::nullopt;
    }
    std::string const target = originForm(line.substr(first + 1, last - first - 1));
    std::size_t const pathEnd = std::min(target.find('?'), target.size());
    RequestLine parsed;
    parsed.m_Method = line.substr(0, first);
    parsed.m_Path = pathEnd == 0 ? "/" : target.substr(0, pathEnd);
    parsed.m_Query = pathEnd == target.size() ? "" : target.substr(pathEnd + 1);
    parsed.m_Version = line.substr(last + 1);
    return parsed;
}

}  // namespace sandbox
