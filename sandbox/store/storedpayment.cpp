#include "sandbox/store/storedpayment.h"

#include <stdexcept>

namespace sandbox {

namespace {

struct StateRow {
    PaymentState state;
    char const* name;
};

// clang-format off
constexpr StateRow kStates[] = {
    {PaymentState::Opened,     "opened"},      // shown to the shopper, not decided
    {PaymentState::Authorised, "authorised"},  // the shopper pays; the merchant may capture
    {PaymentState::Declined,   "declined"},    // final
    {PaymentState::Cancelled,  "cancelled"},   // final
    {PaymentState::Expired,    "expired"},     // final: nothing was decided in time
    {PaymentState::Captured,   "captured"},    // the merchant has taken the money
    {PaymentState::Completed,  "completed"},   // final
};
// clang-format on

}  // namespace

char const* stateName(PaymentState state) {
    for (StateRow const& row : kStates) {
        if (row.state == state) {
            return row.name;
        }
    }
    throw std::logic_error("a payment state without a name");
}

PaymentState stateFromName(std::string const& name) {
    for (StateRow const& row : kStates) {
        if (name == row.name) {
            return row.state;
        }
    }
    throw std::runtime_error("the database holds an unknown payment state: " + name);
}

std::optional<std::string> Payment::attribute(std::string const& name) const {
    for (auto const& [present, value] : attributes) {
        if (present == name) {
            return value;
        }
    }
    return std::nullopt;
}

}  // namespace sandbox
