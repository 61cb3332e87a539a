#include "tools/storeoptions.h"

#include <sys/stat.h>

#include <cerrno>

#include "tools/toolobjects.h"
#include "tools/tooltext.h"

namespace tool {

namespace {

/// Raises ToolFailure when the file of a store is missing; the ledger would make it.
void requireStore(std::string const& store) {
    std::string const kind = "sqlite:";
    if (store.empty()) {
        throw UsageError("no store: give --store sqlite:PATH or set TALLOWIN_STORE");
    }
    if (store.compare(0, kind.size(), kind) != 0) {
        return;
    }
    std::string const path = store.substr(kind.size());
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0) {
        throw ToolFailure(systemFailure("cannot open the store " + path, errno),
                          errno == ENOENT ? "give the store that the shop uses; it is made by the shop" : "");
    }
}

}  // namespace

void addStoreOptions(CLI::App& command, StoreOptions& options) {
    command.add_option("--store", options.m_Store, "store of the ledger, such as sqlite:orders.db")
        ->type_name("STORE")
        ->envname("TALLOWIN_STORE");
    command.add_option("--option", options.m_Options, "an option of the ledger; repeatable")
        ->type_name("NAME=VALUE")
        ->allow_extra_args(false);
}

tallowin::Ledger openedLedger(Session const& session, StoreOptions const& options) {
    Attributes settings;
    for (std::string const& text : options.m_Options) {
        settings.push_back(nameAndValue(text));
    }
    std::string const directory = session.accountDirectory();
    requireStore(options.m_Store);
    return attempt("cannot open the store", [&] {
        tallowin::Ledger ledger;
        for (auto const& [name, value] : settings) {
            ledger.setOption(name, value);
        }
        ledger.open(options.m_Store, directory);
        return ledger;
    });
}

}  // namespace tool
