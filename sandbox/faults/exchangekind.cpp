#include "sandbox/faults/exchangekind.h"

#include <stdexcept>

namespace sandbox {

namespace {

struct KindRow {
    ExchangeKind kind;
    char const* name;
};

// clang-format off
constexpr KindRow kKinds[] = {
    {ExchangeKind::Setup,        "setup"},
    {ExchangeKind::Defaults,     "defaults"},
    {ExchangeKind::KeyQuery,     "keyquery"},
    {ExchangeKind::KeyExport,    "keyexport"},
    {ExchangeKind::Page,         "page"},
    {ExchangeKind::Decision,     "decision"},
    {ExchangeKind::Notification, "notification"},
    {ExchangeKind::Capture,      "capture"},
    {ExchangeKind::Complete,     "complete"},
    {ExchangeKind::Status,       "status"},
    {ExchangeKind::Proxy,        "proxy"},
    {ExchangeKind::Connection,   "connection"},
    {ExchangeKind::Other,        "other"},
};
// clang-format on

}  // namespace

char const* exchangeName(ExchangeKind kind) {
    for (KindRow const& row : kKinds) {
        if (row.kind == kind) {
            return row.name;
        }
    }
    throw std::logic_error("an exchange without a name");
}

std::optional<ExchangeKind> exchangeFromName(std::string const& name) {
    for (KindRow const& row : kKinds) {
        if (name == row.name) {
            return row.kind;
        }
    }
    return std::nullopt;
}

std::vector<ExchangeKind> allExchangeKinds() {
    std::vector<ExchangeKind> kinds;
    for (KindRow const& row : kKinds) {
        kinds.push_back(row.kind);
    }
    return kinds;
}

}  // namespace sandbox
