#include "sandbox/http/httptext.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>

#include "sandbox/text/httperror.h"
#include "sandbox/text/rowwith.h"

namespace sandbox {

namespace {

struct StatusRow {
    int m_Status;
    char const* m_Phrase;
};

// clang-format off
constexpr StatusRow kPhrases[] = {
    {httpstatus::kBadRequest,                  "Bad Request"},
    {httpstatus::kForbidden,                   "Forbidden"},
    {httpstatus::kProxyAuthenticationRequired, "Proxy Authentication Required"},
    {httpstatus::kPayloadTooLarge,             "Payload Too Large"},
    {httpstatus::kUriTooLong,                  "URI Too Long"},
    {httpstatus::kInternalServerError,         "Internal Server Error"},
    {httpstatus::kBadGateway,                  "Bad Gateway"},
    {httpstatus::kServiceUnavailable,          "Service Unavailable"},
    {httpstatus::kGatewayTimeout,              "Gateway Timeout"},
};
// clang-format on

char const* phraseOf(int status) {
    StatusRow const* const row = rowWith(kPhrases, &StatusRow::m_Status, status);
    return row != nullptr ? row->m_Phrase : "Fault";
}

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

std::optional<std::size_t> bodyBegin(std::string const& text) {
    for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1)) {
        if (text.compare(at + 1, 1, "\n") == 0) {
            return at + 2;
        }
        if (text.compare(at + 1, 2, "\r\n") == 0) {
            return at + 3;
        }
    }
    return std::nullopt;
}

std::optional<int> statusOfResponse(std::string const& response) {
    std::size_t const space = response.find(' ');
    if (response.compare(0, 5, "HTTP/") != 0 || space > response.find('\n') || !bodyBegin(response)) {
        return std::nullopt;
    }
    int status = 0;
    std::from_chars_result const read =
        std::from_chars(response.data() + space + 1, response.data() + response.size(), status);
    return read.ec == std::errc() ? std::optional<int>(status) : std::nullopt;
}

bool isCompleteResponse(std::string const& response) {
    std::optional<std::size_t> const body = bodyBegin(response);
    std::string const name = "content-length:";
    for (std::size_t at = response.find('\n'); body && at + 1 < *body; at = response.find('\n', at + 1)) {
        char const* const line = response.c_str() + at + 1;
        if (::strncasecmp(line, name.c_str(), name.size()) == 0) {
            return std::strtoull(line + name.size(), nullptr, 10) <= response.size() - *body;
        }
    }
    return false;
}

std::string textResponse(int status, std::string const& text, std::string const& fields) {
    return "HTTP/1.0 " + std::to_string(status) + " " + phraseOf(status) + "\r\nConnection: close\r\n" + fields +
           "Content-Type: text/plain; charset=utf-8\r\nContent-Length: " + std::to_string(text.size() + 1) +
           "\r\n\r\n" + text + "\n";
}

std::string failureText(std::string const& what) {
    return textResponse(httpstatus::kInternalServerError, "The sandbox failed: " + what);
}

}  // namespace sandbox
