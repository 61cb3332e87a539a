/// What the table of the life of a payment attempt says.
#ifndef TALLOWIN_LEDGER_LIFECYCLE_H
#define TALLOWIN_LEDGER_LIFECYCLE_H

#include <optional>
#include <string>

#include "ledger/lifecycletable.h"

namespace ledger {

/// The state after `event` in `state`; nothing when the event changes nothing there.
std::optional<State> stateAfter(State state, Event event);

StateRow const& rowOf(State state);
char const* nameOf(State state);
char const* nameOf(Event event);

/// The state with this name; nothing when there is none.
std::optional<State> stateNamed(std::string const& name);

}  // namespace ledger

#endif
