/// The options of commands that work on the store of an order ledger.
#ifndef TALLOWIN_TOOLS_STOREOPTIONS_H
#define TALLOWIN_TOOLS_STOREOPTIONS_H

#include <tallowin/ledger.hpp>

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "tools/session.h"
#include "tools/toolfailure.h"

namespace tool {

/// Where the ledger is, and how it is set.
struct StoreOptions {
    std::string m_Store;
    std::vector<std::string> m_Options;
};

/// Adds --store and --option, which write to `options`.
void addStoreOptions(CLI::App& command, StoreOptions& options);

/// Runs `work`; a failure of the ledger becomes one of the tool. `doing` says what was tried.
template <typename Work>
auto attempt(std::string const& doing, Work const& work) {
    try {
        return work();
    } catch (tallowin::LedgerError const& failure) {
        throw ToolFailure::withReason(doing, failure.code(), failure.reason());
    }
}

/// The ledger on the store and the account of the session. A ledger makes a store that is missing; here that is a
/// ToolFailure: a wrong path would look like an empty shop.
tallowin::Ledger openedLedger(Session const& session, StoreOptions const& options);

}  // namespace tool

#endif
