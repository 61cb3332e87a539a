#include "sandbox/proxy/proxyrequest.h"

#include <strings.h>

#include <algorithm>
#include <cstddef>
#include <optional>

#include "sandbox/http/httptext.h"
#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

constexpr std::size_t kMaxFieldBytes = std::size_t{64} * 1024;

/// Reads on until the head is complete and returns its length. Throws HttpError when it does not become so.
std::size_t completeHead(Connection& connection, std::string& text) {
    std::size_t const longest = text.find('\n') + kMaxFieldBytes;
    std::optional<std::size_t> end = bodyBegin(text);
    while (!end) {
        if (text.size() > longest) {
            throw HttpError("the head of the request is too long");
        }
        char piece[4096];
        ssize_t const count = connection.read(piece, sizeof piece);
        if (count <= 0) {
            throw HttpError("the request ended within its head");
        }
        text.append(piece, static_cast<std::size_t>(count));
        end = bodyBegin(text);
    }
    return *end;
}

/// `fields` without the credentials for the proxy, which are neither forwarded nor stored.
std::string withoutProxyCredentials(std::string const& fields) {
    std::string const name = "Proxy-Authorization:";
    std::string kept;
    std::size_t from = 0;
    while (from < fields.size()) {
        std::size_t const to = std::min(fields.find('\n', from), fields.size() - 1) + 1;
        if (::strncasecmp(fields.c_str() + from, name.c_str(), name.size()) != 0) {
            kept.append(fields, from, to - from);
        }
        from = to;
    }
    return kept;
}

/// Splits the first line, given without its line end. Throws HttpError.
ProxyRequest splitLine(std::string const& line) {
    std::optional<RequestLine> const parsed = parseRequestLine(line);
    if (!parsed || parsed->m_Method.empty() || (parsed->m_Version != "HTTP/1.0" && parsed->m_Version != "HTTP/1.1")) {
        throw HttpError("the request line does not have the form METHOD ADDRESS HTTP/1.0");
    }
    std::size_t const from = parsed->m_Method.size() + 1;
    ProxyRequest request;
    request.m_Method = parsed->m_Method;
    // The parsed target has lost its scheme and its authority.
    request.m_Target = line.substr(from, line.size() - from - parsed->m_Version.size() - 1);
    if (request.m_Target.compare(0, 1, "/") == 0) {
        throw HttpError("this is a proxy: it takes an address that begins with http://, or CONNECT and host:port");
    }
    return request;
}

}  // namespace

ProxyRequest readProxyRequest(Connection& connection, std::string text) {
    std::size_t const lineEnd = text.find('\n');
    if (lineEnd == std::string::npos) {
        throw HttpError("the request ended within its first line");
    }
    std::size_t const length = lineEnd > 0 && text[lineEnd - 1] == '\r' ? lineEnd - 1 : lineEnd;
    ProxyRequest request = splitLine(text.substr(0, length));
    std::size_t const end = completeHead(connection, text);
    request.m_Line = text.substr(0, lineEnd + 1);
    request.m_Fields = withoutProxyCredentials(text.substr(lineEnd + 1, end - lineEnd - 1));
    request.m_Ahead = text.substr(end);
    return request;
}

}  // namespace sandbox
