// In place of `tallowin orders` and `tallowin keys renew` in a build without the ledger.

#include "tools/commands.h"

namespace tool {

void addOrders(CommandLine& /*line*/) {}

void addRenewal(CommandLine& /*line*/, CLI::App& /*keys*/) {}

}  // namespace tool
