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

std::string RequestLine::path() const {
    std::string const path = m_Target.substr(0, m_Target.find('?'));
    return path.empty() ? "/" : path;
}

std::string RequestLine::query() const {
    std::size_t const mark = m_Target.find('?');
    return mark == std::string::npos ? "" : m_Target.substr(mark + 1);
}

std::optional<RequestLine> parseRequestLine(std::string const& line) {
    std::size_t const first = line.find(' ');
    std::size_t const last = line.rfind(' ');
    if (first == std::string::npos || first == last) {
        return std::nullopt;
    }
    return RequestLine{line.substr(0, first), originForm(line.substr(first + 1, last - first - 1)),
                       line.substr(last + 1)};
}

}  // namespace sandbox
