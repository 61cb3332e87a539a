#include "tools/sending.h"

#include <cstddef>

#include "tools/tooltext.h"

namespace tool {

namespace {

/// Whether the failure may have come after the request had reached the service. Names that are not found and refused
/// connections come before.
bool mayHaveArrived(std::int32_t code) {
    std::uint32_t const family = static_cast<std::uint32_t>(code) & 0xFFFFF000U;
    bool const isNetwork = family == static_cast<std::uint32_t>(KVX_E_HTTP_FAMILY) ||
                           family == static_cast<std::uint32_t>(KVX_E_SOCKET_FAMILY) ||
                           family == static_cast<std::uint32_t>(KVX_E_TLS_FAMILY);
    bool const isBefore = code == KVX_E_HTTP_NAME_LOOKUP || code == KVX_E_SOCKET_REFUSED ||
                          code == KVX_E_HTTP_BAD_URL || code == KVX_E_HTTP_UNKNOWN_SCHEME;
    bool const isResponse = code == KVX_E_SERVER_ERROR || code == KVX_E_WRONG_RESPONSE ||
                            code == KVX_E_INVALID_FORMAT || code == KVX_E_BUFFER_TOO_SMALL ||
                            code == KVX_E_OUT_OF_MEMORY;
    return (isNetwork && !isBefore) || isResponse;
}

}  // namespace

void requireSent(std::int32_t code, char const* doing) {
    if (code == KVX_OK) {
        return;
    }
    bool const mayHaveHappened = mayHaveArrived(code);
    throw ToolFailure(
        doing, code,
        mayHaveHappened ? "the service may have carried it out all the same: ask it before you repeat" : "",
        mayHaveHappened);
}

void sendAndReport(Session& session, MessageObject const& message) {
    constexpr std::size_t kWidth = 14;
    KVX_HANDLE handle = nullptr;
    requireSent(MessageObject_Execute(message.get(), &handle), "the request failed");
    MessageObject const response(handle);
    session.json()["response"] = Json::object();
    for (auto const& [name, value] : attributesOf(response)) {
        session.json()["response"][name] = value;
        session.line(padded(name, kWidth) + value);
    }
}

}  // namespace tool
