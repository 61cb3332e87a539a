#include "sandbox/faults/exchangekind.h"

#include <stdexcept>

namespace sandbox {

namespace {

struct KindRow {
    ExchangeKind m_Kind;
    char const* m_Name;
};

// clang-format off
constexpr KindRow kKinds[] = {
    {ExchangeKind::kSetup,        "setup"},
    {ExchangeKind::kDefaults,     "defaults"},
    {ExchangeKind::kKeyQuery,     "keyquery"},
    {ExchangeKind::kKeyExport,    "keyexport"},
    {ExchangeKind::kPage,         "page"},
    {ExchangeKind::kDecision,     "decision"},
    {ExchangeKind::kNotification, "notification"},
    {ExchangeKind::kCapture,      "capture"},
    {ExchangeKind::kComplete,     "complete"},
    {ExchangeKind::kStatus,       "status"},
    {ExchangeKind::kProxy,        "proxy"},
    {ExchangeKind::kConnection,   "connection"},
    {ExchangeKind::kOther,        "other"},
};
// clang-format on

}  // namespace

char const* exchangeName(ExchangeKind kind) {
    for (KindRow const& row : kKinds) {
        if (row.m_Kind == kind) {
            return row.m_Name;
        }
    }
    throw std::logic_error("an exchange without a name");
}

std::optional<ExchangeKind> exchangeFromName(std::string const& name) {
    for (KindRow const& row : kKinds) {
        if (name == row.m_Name) {
            return row.m_Kind;
        }
    }
    return std::nullopt;
}

std::vector<ExchangeKind> allExchangeKinds() {
    std::vector<ExchangeKind> kinds;
    for (KindRow const& row : kKinds) {
        kinds.push_back(row.m_Kind);
    }
    return kinds;
}

}  // namespace sandbox
