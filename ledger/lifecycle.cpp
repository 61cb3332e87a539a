#include "ledger/lifecycle.h"

#include <cstddef>
#include <iterator>

namespace ledger {

namespace {

/// Whether the rows stand in the order of their enumerators, so that an enumerator is an index.
constexpr bool areInOrder() {
    for (std::size_t index = 0; index < std::size(kStates); ++index) {
        if (static_cast<std::size_t>(kStates[index].m_State) != index) {
            return false;
        }
    }
    for (std::size_t index = 0; index < std::size(kEvents); ++index) {
        if (static_cast<std::size_t>(kEvents[index].m_Event) != index) {
            return false;
        }
    }
    return true;
}
static_assert(areInOrder(), "rows stand in the order of their enumerators");

}  // namespace

std::optional<State> stateAfter(State state, Event event) {
    for (TransitionRow const& row : kTransitions) {
        if (row.m_From == state && row.m_Event == event) {
            return row.m_To;
        }
    }
    return std::nullopt;
}

StateRow const& rowOf(State state) {
    return kStates[static_cast<std::size_t>(state)];
}

char const* nameOf(State state) {
    return rowOf(state).m_Name;
}

char const* nameOf(Event event) {
    return kEvents[static_cast<std::size_t>(event)].m_Name;
}

std::optional<State> stateNamed(std::string const& name) {
    for (StateRow const& row : kStates) {
        if (name == row.m_Name) {
            return row.m_State;
        }
    }
    return std::nullopt;
}

}  // namespace ledger
