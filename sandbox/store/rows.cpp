#include "sandbox/store/rows.h"
#include "sandbox/text/rowwith.h"

#include <ctime>
#include <stdexcept>

#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

struct StateRow {
    PaymentState m_State;
    char const* m_Name;
};

// clang-format off
constexpr StateRow kStates[] = {
    {PaymentState::kOpened,     "opened"},      // shown to the shopper, not decided
    {PaymentState::kPending,    "pending"},     // decided, and the outcome comes later
    {PaymentState::kAuthorised, "authorised"},  // the shopper pays; the merchant may capture
    {PaymentState::kDeclined,   "declined"},    // final
    {PaymentState::kCancelled,  "cancelled"},   // final
    {PaymentState::kExpired,    "expired"},     // final: nothing was decided in time
    {PaymentState::kLapsed,     "lapsed"},      // final: it was authorised and not captured in time
    {PaymentState::kCaptured,   "captured"},    // the merchant has taken the money
    {PaymentState::kCompleted,  "completed"},   // final
};
// clang-format on

}  // namespace

char const* stateName(PaymentState state) {
    return rowWith(kStates, &StateRow::m_State, state)->m_Name;
}

PaymentState stateFromName(std::string const& name) {
    StateRow const* const row = rowWith(kStates, &StateRow::m_Name, name);
    if (row == nullptr) {
        throw std::runtime_error("the database holds an unknown payment state: " + name);
    }
    return row->m_State;
}

std::optional<std::string> Payment::attribute(std::string const& name) const {
    return valueIn(m_Attributes, name);
}

Page Page::newest(std::int64_t limit) {
    Page page;
    page.m_NewestFirst = true;
    page.m_Limit = limit;
    return page;
}

std::int64_t expirationIn(Attributes const& attributes) {
    std::optional<std::time_t> const moment = parseExpiration(valueIn(attributes, "EXPIRATION").value_or(""));
    return moment ? std::int64_t{*moment} : std::numeric_limits<std::int64_t>::min();
}

}  // namespace sandbox
