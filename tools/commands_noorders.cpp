// In place of `tallowin orders` in a build without the ledger.

#include "tools/commands.h"

namespace tool {

void addOrders(CommandLine& /*line*/) {}

}  // namespace tool
